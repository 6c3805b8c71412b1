// Closing some descriptors waits for the kernel: an inotify instance that has (or had) watches,
// a memory pressure trigger. The wait is a grace period of up to some tens of milliseconds, paid
// by whoever closes it, and nothing here needs to wait for it: a thread of its own closes the
// descriptor, so those that go together (at exit) close side by side, while the rest of the
// teardown goes on.
#pragma once

namespace pelio::platform {

// Takes the descriptor over and closes it on a detached thread (on this one when no thread can
// be started). Any thread.
void closeWithoutWaiting(int fd);

}  // namespace pelio::platform
