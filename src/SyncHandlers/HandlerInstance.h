// HandlerInstance<T>: the process-wide instance of a domain handler T (T's getInstance and
// deleteInstance forward here). get() makes it on first use (a handler on the sync manager), and
// created, when given, is told whether this call made it. destroy() deletes it (its destructor
// stops its worker); the next get() makes a fresh one.
//
// Threads: any thread; one mutex per handler type guards the pointer. The handler itself is not
// guarded here.
#pragma once

#include <mutex>

template <class T>
class HandlerInstance {
  public:
    static T* get(bool* created = nullptr) {
        std::lock_guard<std::mutex> guard(sMutex);
        const bool make = sInstance == nullptr;
        if (make)
            sInstance = new T(nullptr);  // owned here until destroy()
        if (created != nullptr)
            *created = make;
        return sInstance;
    }
    static void destroy() {
        T* instance = nullptr;
        {
            std::lock_guard<std::mutex> guard(sMutex);
            instance = sInstance;
            sInstance = nullptr;
        }
        delete instance;
    }

  private:
    static inline std::mutex sMutex;
    static inline T* sInstance = nullptr;
};
