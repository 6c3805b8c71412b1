// Whether this process can reach a session bus, asked before anything else touches the bus, so
// that a program started without one (a plain SSH login) says so in one line instead of leaving
// it to the D-Bus library's own error reports.
//
// Any thread. Opens a short-lived connection of its own (GIO) and closes it again; never starts
// a bus (no X11 autolaunch).
#pragma once

#include <string>

namespace pelio::platform {

// Empty when a session bus answers; otherwise one line (no trailing newline) that says what is
// missing and what to do about it.
std::string sessionBusProblem();

}  // namespace pelio::platform
