// RAII holders for Eldbus and Ecore handles and file descriptors, and the process's shared
// session-bus connection.
// Main loop thread only.
#pragma once

#include <Ecore.h>
#include <Eldbus.h>

#include <unistd.h>

#include <memory>
#include <string>

#include "pelio/platform/AppControl.h"

namespace pelio::platform::detail {

struct ConnectionUnref {
    void operator()(Eldbus_Connection* c) const { eldbus_connection_unref(c); }
};
struct InterfaceUnregister {
    void operator()(Eldbus_Service_Interface* i) const { eldbus_service_interface_unregister(i); }
};
struct SignalHandlerDel {
    void operator()(Eldbus_Signal_Handler* h) const { eldbus_signal_handler_del(h); }
};
struct FdHandlerDel {
    void operator()(Ecore_Fd_Handler* h) const { ecore_main_fd_handler_del(h); }
};
struct TimerDel {
    void operator()(Ecore_Timer* t) const { ecore_timer_del(t); }
};
struct MessageUnref {
    void operator()(Eldbus_Message* m) const { eldbus_message_unref(m); }
};

using ConnectionPtr = std::unique_ptr<Eldbus_Connection, ConnectionUnref>;
using InterfacePtr = std::unique_ptr<Eldbus_Service_Interface, InterfaceUnregister>;
using SignalHandlerPtr = std::unique_ptr<Eldbus_Signal_Handler, SignalHandlerDel>;
using FdHandlerPtr = std::unique_ptr<Ecore_Fd_Handler, FdHandlerDel>;
using MessagePtr = std::unique_ptr<Eldbus_Message, MessageUnref>;
// A repeating timer whose callback always renews (a cancelled timer is freed by Ecore itself).
using TimerPtr = std::unique_ptr<Ecore_Timer, TimerDel>;

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
