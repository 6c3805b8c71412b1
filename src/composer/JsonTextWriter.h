// JsonTextWriter: writes compact JSON text directly, for composers that make many small
// documents of a fixed shape (building and then serialising a JSON-GLib tree of every document
// costs several times more). Members come out in the order they are added; strings are escaped
// as JSON wants them, with bytes that are not UTF-8 replaced by U+FFFD; a double is written as
// JSON-GLib writes it ("1764000000123.0" for a whole number).
//
// Threads: one writer is used by one thread. Ownership: it owns its text until take().
// Errors: none; keys are the caller's constants and are written as they are.
#pragma once

#include <string>

class JsonTextWriter {
  public:
    // An object; with a key, as a member of the object being written.
    void beginObject(const char* key = nullptr);
    void endObject();
    // An array; with a key, as a member of the object being written.
    void beginArray(const char* key = nullptr);
    void endArray();

    void add(const char* key, const std::string& value);
    void add(const char* key, const char* value) { add(key, std::string(value)); }
    void add(const char* key, bool value);
    void add(const char* key, long long value);
    void addDouble(const char* key, double value);

    bool empty() const { return text_.empty(); }
    // The text written so far; the writer is empty afterwards.
    std::string take();

  private:
    // The separator and, for a member, its key.
    void next(const char* key);
    void open(const char* key, char bracket);
    void close(char bracket);
    void appendString(const std::string& value);

    std::string text_;
    bool first_ = true;  // nothing written yet in the innermost object or array
};
