// Bundle: an ordered map from string keys to strings or byte arrays, with a binary encoding.
//
// Keys keep the order in which they were added. encode() gives bytes that decode() turns back into
// an equal bundle; decode() of damaged or truncated bytes is an error result, never a crash or a
// read past the input. A Bundle is a plain value: no thread affinity, not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pelio::platform {

enum BundleError {
    BUNDLE_ERROR_NONE = 0,
    BUNDLE_ERROR_INVALID_PARAMETER = -22,
    BUNDLE_ERROR_KEY_NOT_AVAILABLE = -126,
    BUNDLE_ERROR_KEY_EXISTS = -17,
};

enum class BundleType { String, Bytes };

class Bundle {
  public:
    struct Entry {
        std::string key;
        BundleType type;
        std::string value;  // the string, or the raw bytes of a byte array
    };

    // Adding a key that exists gives BUNDLE_ERROR_KEY_EXISTS; an empty key is an invalid parameter.
    int addStr(const std::string& key, const std::string& value);
    int addByte(const std::string& key, const void* data, size_t size);
    // BUNDLE_ERROR_KEY_NOT_AVAILABLE when absent, BUNDLE_ERROR_INVALID_PARAMETER for a type
    // mismatch.
    int getStr(const std::string& key, std::string& out) const;
    int getByte(const std::string& key, std::vector<uint8_t>& out) const;
    int del(const std::string& key);
    bool contains(const std::string& key) const;
    int count() const { return static_cast<int>(entries_.size()); }
    const std::vector<Entry>& entries() const { return entries_; }
    void forEach(const std::function<void(const Entry&)>& fn) const;

    std::vector<uint8_t> encode() const;
    // nullopt for bytes that are not a complete, well-formed encoding.
    static std::optional<Bundle> decode(const uint8_t* data, size_t size);
    static std::optional<Bundle> decode(const std::vector<uint8_t>& bytes) {
        return decode(bytes.data(), bytes.size());
    }

    bool operator==(const Bundle& other) const;

  private:
    const Entry* find(const std::string& key) const;
    std::vector<Entry> entries_;
};

}  // namespace pelio::platform
