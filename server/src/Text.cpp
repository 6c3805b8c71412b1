#include "Text.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdexcept>

namespace Text {

std::string base64url(const std::string& bytes) {
    static const char* kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    std::size_t i = 0;
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    while (i + 2 < bytes.size()) {
        const unsigned v = (b[i] << 16) | (b[i + 1] << 8) | b[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
        i += 3;
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const unsigned v = b[i] << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
    } else if (rest == 2) {
        const unsigned v = (b[i] << 16) | (b[i + 1] << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
    }
    return out;
}

std::string hex(const std::string& bytes) {
    static const char* kDigits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::string::size_type start = 0;
    while (true) {
        const auto pos = text.find(sep, start);
        if (pos == std::string::npos) {
            out.push_back(text.substr(start));
            return out;
        }
        out.push_back(text.substr(start, pos - start));
        start = pos + 1;
    }
}

std::string sha256Hex(const std::string& bytes) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 failed");
    }
    return hex(std::string(reinterpret_cast<char*>(md), len));
}

std::string randomId() {
    unsigned char buf[16];
    if (RAND_bytes(buf, sizeof buf) != 1) {
        throw std::runtime_error("RAND_bytes failed");
    }
    return hex(std::string(reinterpret_cast<char*>(buf), sizeof buf));
}

}  // namespace Text
