#include "composer/JsonTextWriter.h"

#include <glib.h>

#include <cstdio>
#include <cstring>
#include <utility>

void JsonTextWriter::next(const char* key) {
    if (!first_)
        text_ += ',';
    first_ = false;
    if (key != nullptr) {
        text_ += '"';
        text_ += key;
        text_ += "\":";
    }
}

void JsonTextWriter::open(const char* key, char bracket) {
    next(key);
    text_ += bracket;
    first_ = true;
}

void JsonTextWriter::close(char bracket) {
    text_ += bracket;
    first_ = false;
}

void JsonTextWriter::beginObject(const char* key) {
    open(key, '{');
}

void JsonTextWriter::endObject() {
    close('}');
}

void JsonTextWriter::beginArray(const char* key) {
    open(key, '[');
}

void JsonTextWriter::endArray() {
    close(']');
}

void JsonTextWriter::add(const char* key, const std::string& value) {
    next(key);
    appendString(value);
}

void JsonTextWriter::add(const char* key, bool value) {
    next(key);
    text_ += value ? "true" : "false";
}

void JsonTextWriter::add(const char* key, long long value) {
    next(key);
    text_ += std::to_string(value);
}

void JsonTextWriter::addDouble(const char* key, double value) {
    next(key);
    char buffer[G_ASCII_DTOSTR_BUF_SIZE];
    g_ascii_dtostr(buffer, sizeof(buffer), value);
    text_ += buffer;
    if (std::strpbrk(buffer, ".eEnN") == nullptr)
        text_ += ".0";  // stays a double for a JSON reader
}

void JsonTextWriter::appendString(const std::string& value) {
    if (!g_utf8_validate(value.data(), static_cast<gssize>(value.size()), nullptr)) {
        gchar* valid = g_utf8_make_valid(value.data(), static_cast<gssize>(value.size()));
        const std::string copy(valid);
        g_free(valid);
        appendString(copy);
        return;
    }
    text_ += '"';
    for (const char c : value) {
        switch (c) {
            case '"':
                text_ += "\\\"";
                break;
            case '\\':
                text_ += "\\\\";
                break;
            case '\b':
                text_ += "\\b";
                break;
            case '\f':
                text_ += "\\f";
                break;
            case '\n':
                text_ += "\\n";
                break;
            case '\r':
                text_ += "\\r";
                break;
            case '\t':
                text_ += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof(escaped), "\\u%04x",
                                  static_cast<unsigned>(static_cast<unsigned char>(c)));
                    text_ += escaped;
                } else {
                    text_ += c;
                }
        }
    }
    text_ += '"';
}

std::string JsonTextWriter::take() {
    first_ = true;
    return std::exchange(text_, std::string());
}
