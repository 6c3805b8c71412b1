#include "upload/DocsSplitter.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr std::string_view kHead = "{\"docs\":[";
constexpr std::string_view kTail = "]}";
constexpr int kMaxDepth = 64;

}  // namespace

std::size_t DocsSplitter::objectEnd(std::string_view text, std::size_t pos) {
    if (pos >= text.size() || text[pos] != '{') {
        return std::string_view::npos;
    }
    // The open brackets, one bit each (1 for an object), innermost in the lowest bit.
    std::uint64_t open = 0;
    int depth = 0;
    bool inString = false;
    for (std::size_t i = pos; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;  // the escaped character, whatever it is
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '{':
            case '[':
                if (++depth > kMaxDepth) {
                    return std::string_view::npos;
                }
                open = (open << 1) | (c == '{' ? 1U : 0U);
                break;
            case '}':
            case ']':
                if ((open & 1U) != (c == '}' ? 1U : 0U)) {
                    return std::string_view::npos;  // closes what was not opened
                }
                open >>= 1;
                if (--depth == 0) {
                    return i + 1;
                }
                break;
            case ' ':
            case '\t':
            case '\n':
            case '\r':
                return std::string_view::npos;  // not the compact form
            default:
                break;
        }
    }
    return std::string_view::npos;
}

bool DocsSplitter::split(std::string_view body, int unit, std::vector<std::string>& parts,
                         std::vector<int>& sizes) {
    parts.clear();
    sizes.clear();
    if (unit < 1 || body.size() < kHead.size() + kTail.size() + 1 ||
        body.substr(0, kHead.size()) != kHead || body.substr(body.size() - kTail.size()) != kTail) {
        return false;
    }
    const std::string_view docs = body.substr(kHead.size(), body.size() - kHead.size() - 2);
    std::vector<std::string_view> elements;
    for (std::size_t pos = 0;;) {
        const std::size_t end = objectEnd(docs, pos);
        if (end == std::string_view::npos) {
            return false;
        }
        elements.push_back(docs.substr(pos, end - pos));
        if (end == docs.size()) {
            break;
        }
        if (docs[end] != ',') {
            return false;
        }
        pos = end + 1;
    }
    for (std::size_t start = 0; start < elements.size(); start += static_cast<std::size_t>(unit)) {
        const std::size_t stop = std::min(elements.size(), start + static_cast<std::size_t>(unit));
        const char* first = elements[start].data();
        const char* last = elements[stop - 1].data() + elements[stop - 1].size();
        std::string part;
        part.reserve(kHead.size() + static_cast<std::size_t>(last - first) + kTail.size());
        part.append(kHead).append(first, last).append(kTail);
        parts.push_back(std::move(part));
        sizes.push_back(static_cast<int>(stop - start));
    }
    return true;
}
