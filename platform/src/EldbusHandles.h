// RAII holders for Eldbus and Ecore handles and file descriptors, and the process's shared
// session-bus connection.
// Main loop thread only.
#pragma once

#include <Ecore.h>
#include <Eldbus.h>
#include <pelio/CHandles.h>

#include <unistd.h>

#include <memory>
#include <string>

#include "pelio/platform/AppControl.h"

namespace pelio::platform::detail {

using ConnectionPtr = CHandle<Eldbus_Connection, eldbus_connection_unref>;
using InterfacePtr = CHandle<Eldbus_Service_Interface, eldbus_service_interface_unregister>;
using SignalHandlerPtr = CHandle<Eldbus_Signal_Handler, eldbus_signal_handler_del>;
using FdHandlerPtr = CHandle<Ecore_Fd_Handler, ecore_main_fd_handler_del>;
using MessagePtr = CHandle<Eldbus_Message, eldbus_message_unref>;
// A repeating timer whose callback always renews (a cancelled timer is freed by Ecore itself).
using TimerPtr = CHandle<Ecore_Timer, ecore_timer_del>;

// A file descriptor closed when the holder ends (-1: none).
class OwnedFd {
  public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// The shared session connection (nullptr when there is no session bus). Kept until the main loop
// scope ends.
Eldbus_Connection* sessionBus();
void releaseSessionBus();

// Appends extras as a{ss} at iter.
bool appendExtras(Eldbus_Message_Iter* iter, const Extras& extras);
// Reads an a{ss} container iterator.
Extras readExtras(Eldbus_Message_Iter* array);

}  // namespace pelio::platform::detail
