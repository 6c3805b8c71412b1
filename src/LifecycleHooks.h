// Where the service's life cycle meets the sync manager. Main loop thread.
//
// The sync manager is a process-wide singleton created on first use by its accessor. The life
// cycle paths (terminate, low memory, the terminating timer, the control requests that end the
// service) reach it only through these two functions.
#pragma once

// True when the sync manager exists and a sync is in progress (its upload handler exists and its
// PDS session is open or not yet closed).
bool isSyncManagerSyncing();

// The terminate path: obtains the sync manager through its accessor and, when non-null, destroys
// it through its virtual deleting destructor.
void destroySyncManager();
