// Posts the bodies of one composition in order on a thread of its own, so that the composer
// writes the next body while the last one is on the wire. At most one body waits to be posted
// besides the one being posted: memory does not grow with the number of bodies.
//
// Threads: submit() and finish() are called by one thread (the sync worker, while it composes);
// the post function runs on the poster's thread, one body at a time, started by the first
// submit(). The poster is joined by finish() or the destructor, so it never outlives the
// composition that made it.
// Errors: a post that returns false (or throws, which is logged and counts as false) stops the
// poster: later bodies are dropped unposted, and submit() and finish() return false.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "upload/SyncData.h"

class BodyPoster {
  public:
    using Post = std::function<bool(std::string body, const std::shared_ptr<SentRows>& sent)>;

    explicit BodyPoster(Post post);
    ~BodyPoster();
    BodyPoster(const BodyPoster&) = delete;
    BodyPoster& operator=(const BodyPoster&) = delete;

    // Waits until the body before is posted, then hands this one over. False when a post has
    // failed: the body is not posted.
    bool submit(std::string body, const std::shared_ptr<SentRows>& sent);
    // Waits until every body handed over is posted and ends the poster's thread. False when a
    // post failed.
    bool finish();

  private:
    struct Job {
        std::string body;
        std::shared_ptr<SentRows> sent;
    };
    void run();

    Post mPost;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::optional<Job> mPending;
    bool mBusy = false;  // a body is waiting or being posted
    bool mFailed = false;
    bool mClosing = false;
    std::thread mThread;
};
