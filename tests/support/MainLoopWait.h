// Running the platform main loop until a condition holds, for integration tests whose callbacks
// arrive on the loop. Header-only; the main loop's thread only.
#pragma once

#include <Ecore.h>

#include <pelio/CHandles.h>
#include <pelio/platform/MainLoop.h>

#include <functional>
#include <memory>

namespace pelio::test {

// Runs the loop until done() holds or `seconds` pass. The callbacks that make done() true must
// call pelio::platform::quitMainLoop() so that the loop returns to check it.
inline void runMainLoopUntil(const std::function<bool()>& done, double seconds = 20.0) {
    bool expired = false;
    const auto onExpiry = [](void* data) -> Eina_Bool {
        *static_cast<bool*>(data) = true;
        pelio::platform::quitMainLoop();
        return ECORE_CALLBACK_RENEW;  // deleted by its holder
    };
    pelio::CHandle<Ecore_Timer, ecore_timer_del> guard(
        ecore_timer_add(seconds, onExpiry, &expired));
    while (!done() && !expired)
        pelio::platform::runMainLoop();
}

}  // namespace pelio::test
