// Linux connection service (see pelio/platform/Connection.h).
#pragma once

#include "pelio/platform/Connection.h"

namespace pelio::platform {

class LinuxConnection : public Connection {
  public:
    int create(std::unique_ptr<ConnectionHandle>& handle) override;
};

}  // namespace pelio::platform
