// SyncLock: a mutex and its condition variable, as the sync manager uses them for the sync lock
// and for each of its queues.
//
// The mutex is an error-checking one: locking it again from the thread that holds it does not hang
// but reports EDEADLK; lock() then writes "ERROR ERROR: DEADLOCK on lock %p\n" to standard output
// and carries on as if the lock were held (there is no retry). The condition variable waits on the
// raw monotonic clock when the system accepts it, else on the ordinary monotonic clock, so wall
// clock changes never disturb a timed wait.
//
// Threads: any. Not copyable; owned by the sync manager.
#pragma once

#include <pthread.h>

class SyncLock {
  public:
    SyncLock();
    ~SyncLock();
    SyncLock(const SyncLock&) = delete;
    SyncLock& operator=(const SyncLock&) = delete;

    void lock();
    void unlock();
    // Waits on the condition; the caller holds the lock. May wake spuriously.
    void wait();
    // Waits at most the given number of milliseconds; false on timeout.
    bool waitFor(long milliseconds);
    void signal();
    void broadcast();

  private:
    pthread_mutex_t mMutex;
    pthread_cond_t mCond;
    clockid_t mClock = CLOCK_MONOTONIC;
};

// Scoped holder of a SyncLock.
class SyncLockGuard {
  public:
    explicit SyncLockGuard(SyncLock& lock) : mLock(lock) { mLock.lock(); }
    ~SyncLockGuard() { mLock.unlock(); }
    SyncLockGuard(const SyncLockGuard&) = delete;
    SyncLockGuard& operator=(const SyncLockGuard&) = delete;

  private:
    SyncLock& mLock;
};
