// SyncQueue: a blocking FIFO of sync item numbers with its own lock and condition (SyncLock).
// The sync manager keeps two: syncQueue (domains ready to upload) and pendingQueue (domains that
// wait for the PDS close of their previous upload).
//
// Threads: any; every operation takes the queue's own lock. Owned by the sync manager.
#pragma once

#include <list>
#include <optional>
#include <vector>

#include "upload/SyncLock.h"

class SyncQueue {
  public:
    bool contains(int item);
    bool empty();
    // Links the item at the tail and signals the queue's condition.
    void append(int item);
    // The head item, removed; nullopt when the queue is empty (never waits).
    std::optional<int> takeHead();
    void clear();
    // A copy of the items, head first.
    std::vector<int> items();
    // Wakes every waiter of the queue's condition.
    void wakeAll();

  private:
    SyncLock mLock;
    std::list<int> mItems;
};
