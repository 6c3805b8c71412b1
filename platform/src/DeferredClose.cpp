#include "DeferredClose.h"

#include <unistd.h>

#include <system_error>
#include <thread>

namespace pelio::platform {

void closeWithoutWaiting(int fd) {
    if (fd < 0)
        return;
    try {
        std::thread([fd] { close(fd); }).detach();
    } catch (const std::system_error&) {
        close(fd);
    }
}

}  // namespace pelio::platform
