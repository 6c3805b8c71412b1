#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// The worker threads of one listener: a fixed number of threads and at most `maxConnections`
// connections waiting or being served. The HTTP layer hands every accepted connection to
// enqueue() on its accepting thread; a connection over the bound is handed back at once with
// refusing() true, so that it is closed without being read and never waits in a queue.
// Owned by the HTTP server (which deletes it after shutdown()); the accepting thread enqueues,
// the workers run the tasks.
class WorkerPool : public httplib::TaskQueue {
  public:
    WorkerPool(std::size_t threads, std::size_t maxConnections);
    ~WorkerPool() override;

    void enqueue(std::function<void()> fn) override;
    void shutdown() override;

    // True on the thread that runs a connection refused for being over the bound.
    static bool refusing();

  private:
    void work();

    const std::size_t maxConnections_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    std::size_t busy_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};
