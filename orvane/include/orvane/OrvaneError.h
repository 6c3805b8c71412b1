#pragma once

#include <stdexcept>
#include <string>

// The exception Orvane throws. what() is either the server's "message" (non-200 answer) or
// "<op>: <transport error text>" (op = open, close or wipe) when no answer arrived.
class OrvaneError : public std::runtime_error {
  public:
    explicit OrvaneError(const std::string& message) : std::runtime_error(message) {}
};
