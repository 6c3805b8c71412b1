// DirtyFlag: the values of the "dirty" column of every domain table (see the schema in
// DbManager.cpp). Plain constants, usable from any thread.
#pragma once

namespace plm {

enum DirtyFlag : int {
    DIRTY_INSERTED = 1,  // not on the server yet: sent as a new document
    DIRTY_DELETED = 2,   // gone from the device: sent as a deletion, removed once confirmed
    DIRTY_UPDATED = 3,   // changed since it was sent: sent with its revision
    DIRTY_SYNCED = 4,    // in step with the server: not sent
};

// The flag as it is written into SQL text and row bundles.
inline const char* dirtyText(DirtyFlag flag) {
    static const char* const texts[] = {"1", "2", "3", "4"};
    return flag >= DIRTY_INSERTED && flag <= DIRTY_SYNCED ? texts[flag - DIRTY_INSERTED] : "";
}

// The condition that selects the rows still to be sent.
inline constexpr const char* NOT_SYNCED = "dirty != 4";

}  // namespace plm
