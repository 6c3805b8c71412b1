// expectMainLoop: the first call of every entry point that belongs to the main loop thread (launch
// requests, the terminating timer). Called from another thread while the loop runs, it logs an
// error naming the entry point; the call still goes on (the fault is the caller's, and a log line
// finds it where an abort would end the user's sync).
#pragma once

#include <pelio/platform/MainLoop.h>

#include "PelioLog.h"

inline void expectMainLoop(const char* entryPoint) {
    if (pelio::platform::offMainLoopThread())
        LOGE("%s called off the main loop thread", entryPoint);
}
