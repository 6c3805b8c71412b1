#include "pelio/platform/Bundle.h"

#include <cstring>

namespace pelio::platform {
namespace {

// Encoding: "PBN1", u32 entry count, then per entry: u8 type (0 string, 1 bytes), u32 key length,
// key bytes, u32 value length, value bytes. Integers little-endian.
constexpr char kMagic[4] = {'P', 'B', 'N', '1'};

void putU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool u32(uint32_t& v) {
        if (size_ - pos_ < 4)
            return false;
        v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<uint32_t>(data_[pos_ + i]) << (8 * i);
        pos_ += 4;
        return true;
    }
    bool u8(uint8_t& v) {
        if (size_ - pos_ < 1)
            return false;
        v = data_[pos_++];
        return true;
    }
    bool bytes(size_t n, std::string& out) {
        if (size_ - pos_ < n)
            return false;
        out.assign(reinterpret_cast<const char*>(data_ + pos_), n);
        pos_ += n;
        return true;
    }
    bool atEnd() const { return pos_ == size_; }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace

const Bundle::Entry* Bundle::find(const std::string& key) const {
    for (const auto& e : entries_)
        if (e.key == key)
            return &e;
    return nullptr;
}

int Bundle::addStr(const std::string& key, const std::string& value) {
    if (key.empty())
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (find(key))
        return BUNDLE_ERROR_KEY_EXISTS;
    entries_.push_back({key, BundleType::String, value});
    return BUNDLE_ERROR_NONE;
}

int Bundle::addByte(const std::string& key, const void* data, size_t size) {
    if (key.empty() || (data == nullptr && size > 0))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (find(key))
        return BUNDLE_ERROR_KEY_EXISTS;
    entries_.push_back(
        {key, BundleType::Bytes, std::string(static_cast<const char*>(data), data ? size : 0)});
    return BUNDLE_ERROR_NONE;
}

int Bundle::getStr(const std::string& key, std::string& out) const {
    if (key.empty())
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const Entry* e = find(key);
    if (!e)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    if (e->type != BundleType::String)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    out = e->value;
    return BUNDLE_ERROR_NONE;
}

int Bundle::getByte(const std::string& key, std::vector<uint8_t>& out) const {
    if (key.empty())
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const Entry* e = find(key);
    if (!e)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    if (e->type != BundleType::Bytes)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    out.assign(e->value.begin(), e->value.end());
    return BUNDLE_ERROR_NONE;
}

int Bundle::del(const std::string& key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->key == key) {
            entries_.erase(it);
            return BUNDLE_ERROR_NONE;
        }
    }
    return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
}

bool Bundle::contains(const std::string& key) const {
    return find(key) != nullptr;
}

void Bundle::forEach(const std::function<void(const Entry&)>& fn) const {
    for (const auto& e : entries_)
        fn(e);
}

std::vector<uint8_t> Bundle::encode() const {
    std::vector<uint8_t> out(kMagic, kMagic + 4);
    putU32(out, static_cast<uint32_t>(entries_.size()));
    for (const auto& e : entries_) {
        out.push_back(e.type == BundleType::String ? 0 : 1);
        putU32(out, static_cast<uint32_t>(e.key.size()));
        out.insert(out.end(), e.key.begin(), e.key.end());
        putU32(out, static_cast<uint32_t>(e.value.size()));
        out.insert(out.end(), e.value.begin(), e.value.end());
    }
    return out;
}

std::optional<Bundle> Bundle::decode(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 8 || std::memcmp(data, kMagic, 4) != 0)
        return std::nullopt;
    Reader r(data + 4, size - 4);
    uint32_t count = 0;
    if (!r.u32(count))
        return std::nullopt;
    Bundle b;
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t type = 0;
        uint32_t keyLen = 0, valueLen = 0;
        std::string key, value;
        if (!r.u8(type) || type > 1 || !r.u32(keyLen) || !r.bytes(keyLen, key) ||
            !r.u32(valueLen) || !r.bytes(valueLen, value)) {
            return std::nullopt;
        }
        const int rc =
            type == 0 ? b.addStr(key, value) : b.addByte(key, value.data(), value.size());
        if (rc != BUNDLE_ERROR_NONE)
            return std::nullopt;  // empty or repeated key
    }
    if (!r.atEnd())
        return std::nullopt;
    return b;
}

bool Bundle::operator==(const Bundle& other) const {
    if (entries_.size() != other.entries_.size())
        return false;
    for (size_t i = 0; i < entries_.size(); ++i) {
        const auto &a = entries_[i], &b = other.entries_[i];
        if (a.key != b.key || a.type != b.type || a.value != b.value)
            return false;
    }
    return true;
}

}  // namespace pelio::platform
