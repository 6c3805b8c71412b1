#pragma once

#include <cstddef>
#include <string_view>

// Nesting check of untrusted JSON text before anything parses, copies or prints it: one pass
// over the bytes, no recursion, no allocation. It does not validate the text (the parser does
// that afterwards); it only answers whether arrays and objects nest deeper than a limit.
// Stateless and thread-safe.
class JsonDepth {
  public:
    static constexpr std::size_t kDefaultLimit = 64;

    // True when no array or object of `text` lies deeper than `limit` levels (outside strings).
    static bool within(std::string_view text, std::size_t limit = kDefaultLimit);
};
