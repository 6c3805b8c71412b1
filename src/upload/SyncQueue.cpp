#include "upload/SyncQueue.h"

#include <algorithm>

bool SyncQueue::contains(int item) {
    SyncLockGuard guard(mLock);
    return std::find(mItems.begin(), mItems.end(), item) != mItems.end();
}

bool SyncQueue::empty() {
    SyncLockGuard guard(mLock);
    return mItems.empty();
}

void SyncQueue::append(int item) {
    SyncLockGuard guard(mLock);
    mItems.push_back(item);
    mLock.signal();
}

std::optional<int> SyncQueue::takeHead() {
    SyncLockGuard guard(mLock);
    if (mItems.empty())
        return std::nullopt;
    int head = mItems.front();
    mItems.pop_front();
    return head;
}

void SyncQueue::clear() {
    SyncLockGuard guard(mLock);
    mItems.clear();
}

std::vector<int> SyncQueue::items() {
    SyncLockGuard guard(mLock);
    return {mItems.begin(), mItems.end()};
}

void SyncQueue::wakeAll() {
    SyncLockGuard guard(mLock);
    mLock.broadcast();
}
