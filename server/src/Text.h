#pragma once

#include <string>
#include <vector>

// Small text helpers of the server (encodings, splitting, ids). Stateless.
namespace Text {
std::string base64url(const std::string& bytes);
std::string hex(const std::string& bytes);
std::vector<std::string> split(const std::string& text, char sep);
std::string sha256Hex(const std::string& bytes);
// 128 random bits as 32 hex digits; throws std::runtime_error when no randomness is available.
std::string randomId();
}  // namespace Text
