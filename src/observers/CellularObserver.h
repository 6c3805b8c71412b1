// CellularObserver: a change of the cellular data state ("memory/dnet/cellular") to 0 reaches
// the sync manager's cellular_changed(); other values and other keys are ignored.
//
// Registered and unregistered on its own by the sync manager (next to MainObserver's group).
// Thread: the main loop (the settings' change callbacks run there). No state.
// Errors: logged and returned as the system settings' error code.
#pragma once

class CellularObserver {
  public:
    static constexpr const char* kCellularKey = "memory/dnet/cellular";

    static int register_cellular_observer();
    static int unregister_cellular_observer();
    static void cellular_changed_cb(const char* key, void* userData);
};
