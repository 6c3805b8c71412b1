#include "upload/SyncLock.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

SyncLock::SyncLock() {
    pthread_mutexattr_t mutexAttr;
    pthread_mutexattr_init(&mutexAttr);
    pthread_mutexattr_settype(&mutexAttr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mMutex, &mutexAttr);
    pthread_mutexattr_destroy(&mutexAttr);

    pthread_condattr_t condAttr;
    pthread_condattr_init(&condAttr);
#ifdef CLOCK_MONOTONIC_RAW
    if (pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC_RAW) == 0) {
        mClock = CLOCK_MONOTONIC_RAW;
    } else
#endif
    {
        pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC);
        mClock = CLOCK_MONOTONIC;
    }
    if (pthread_cond_init(&mCond, &condAttr) != 0) {
        // The raw clock was accepted by the attribute but not by the condition: fall back.
        pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC);
        mClock = CLOCK_MONOTONIC;
        pthread_cond_init(&mCond, &condAttr);
    }
    pthread_condattr_destroy(&condAttr);
}

SyncLock::~SyncLock() {
    pthread_cond_destroy(&mCond);
    pthread_mutex_destroy(&mMutex);
}

void SyncLock::lock() {
    if (pthread_mutex_lock(&mMutex) == EDEADLK) {
        std::printf("ERROR ERROR: DEADLOCK on lock %p\n", static_cast<void*>(&mMutex));
        std::fflush(stdout);
    }
}

void SyncLock::unlock() {
    pthread_mutex_unlock(&mMutex);
}

void SyncLock::wait() {
    pthread_cond_wait(&mCond, &mMutex);
}

bool SyncLock::waitFor(long milliseconds) {
    timespec deadline{};
    clock_gettime(mClock, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return pthread_cond_timedwait(&mCond, &mMutex, &deadline) != ETIMEDOUT;
}

void SyncLock::signal() {
    pthread_cond_signal(&mCond);
}

void SyncLock::broadcast() {
    pthread_cond_broadcast(&mCond);
}
