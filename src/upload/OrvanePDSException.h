// OrvanePDSException: raised inside the uploader's PDS session calls and caught there (never leaves
// DataUploadHandler, never crosses a thread). Keeps a message text; what() returns it.
#pragma once

#include <string>
#include "upload/OrvaneException.h"

class OrvanePDSException : public OrvaneException {
  public:
    explicit OrvanePDSException(std::string message) : OrvaneException(std::move(message)) {}
    ~OrvanePDSException() override = default;
};
