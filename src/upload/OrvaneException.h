// OrvaneException: raised inside the uploader's PDS session calls and caught there (never leaves
// DataUploadHandler, never crosses a thread). Keeps a message text; what() returns it.
#pragma once

#include <exception>
#include <string>

class OrvaneException : public std::exception {
  public:
    explicit OrvaneException(std::string message) : message_(std::move(message)) {}
    ~OrvaneException() override = default;

    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};
