// OrvanePDSNoDatabaseException: raised inside the uploader's PDS session calls and caught there
// (never leaves DataUploadHandler, never crosses a thread). Keeps a message text; what() returns
// it.
#pragma once

#include <string>
#include "upload/OrvanePDSException.h"

class OrvanePDSNoDatabaseException : public OrvanePDSException {
  public:
    explicit OrvanePDSNoDatabaseException(std::string message)
        : OrvanePDSException(std::move(message)) {}
    ~OrvanePDSNoDatabaseException() override = default;
};
