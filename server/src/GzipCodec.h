#pragma once

#include <cstddef>
#include <optional>
#include <string>

// gzip members in and out of memory (zlib). Stateless; safe from any thread.
class GzipCodec {
  public:
    // A complete gzip member holding `plain`. Throws std::runtime_error when zlib fails.
    static std::string compress(const std::string& plain);

    // The content of a gzip member, or nothing when the data is not a complete gzip member or
    // inflates to more than `maxBytes`.
    static std::optional<std::string> inflate(const std::string& gz, std::size_t maxBytes);
};
