#pragma once

#include <string>

// Callback interface handed to Orvane by its user.
//
// Threading: the library calls these from inside Orvane_pds_open / _close / _wipe (and the
// constructor), i.e. on the thread that called into the library, never from a thread of its own.
// Ownership: the object is owned by the caller and must outlive the Orvane that holds it.
// Implementations must not throw and must not call back into the same Orvane.
class OrvaneCallbacks {
  public:
    virtual ~OrvaneCallbacks() = default;

    // One log line of the library. `level`: 1 error, 2 warning, 3 info, 4 debug, 5 verbose.
    // Only lines whose level is at most the one given to Orvane_enable_log are delivered.
    virtual void onLog(int level, const std::string& message) = 0;

    // One PDS exchange finished. `operation` is "open", "close" or "wipe"; `httpStatus` is the
    // server's HTTP status, or 0 when the request failed in transport (no answer at all).
    virtual void onSessionEvent(const std::string& operation, long httpStatus) = 0;
};
