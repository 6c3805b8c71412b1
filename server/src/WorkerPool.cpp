#include "WorkerPool.h"

namespace {
thread_local bool tRefusing = false;
}

WorkerPool::WorkerPool(std::size_t threads, std::size_t maxConnections)
    : maxConnections_(maxConnections) {
    for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { work(); });
    }
}

WorkerPool::~WorkerPool() {
    shutdown();
}

bool WorkerPool::refusing() {
    return tRefusing;
}

void WorkerPool::enqueue(std::function<void()> fn) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!stopping_ && tasks_.size() + busy_ < maxConnections_) {
            tasks_.push_back(std::move(fn));
            wake_.notify_one();
            return;
        }
    }
    tRefusing = true;
    fn();
    tRefusing = false;
}

void WorkerPool::shutdown() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ && threads_.empty()) {
            return;
        }
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_) {
        if (t.joinable()) {
            t.join();
        }
    }
    threads_.clear();
}

void WorkerPool::work() {
    while (true) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) {
                return;  // stopping, nothing left
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
            ++busy_;
        }
        task();
        std::lock_guard<std::mutex> lock(mutex_);
        --busy_;
    }
}
