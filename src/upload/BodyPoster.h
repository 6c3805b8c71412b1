// Posts the bodies of one composition on threads of its own, so that the composer writes the
// next body while earlier ones are on the wire. Up to `inFlight` bodies are posted at once, each
// on its own thread and connection, so the server is never idle between one body's last reply
// and the next body's first part. A body waits in submit() until a thread is free: memory does
// not grow with the number of bodies (at most `inFlight` posted, one being composed).
//
// Threads: submit() and finish() are called by one thread (the sync worker, while it composes);
// the post function runs on the poster's threads, one body per thread at a time, so it must be
// safe to call from `inFlight` threads at once. Threads are started as bodies arrive and joined
// by finish() or the destructor, so none outlives the composition that made it.
// Order: bodies are handed over in order, but with more than one in flight their posts overlap
// and may end in any order. The bodies of one composition hold distinct documents.
// Errors: a post that returns false (or throws, which is logged and counts as false) stops the
// poster: bodies handed over later are dropped unposted (those already on the wire finish), and
// submit() and finish() return false.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "upload/SyncData.h"

class BodyPoster {
  public:
    using Post = std::function<bool(std::string body, const std::shared_ptr<SentRows>& sent)>;

    // inFlight: bodies posted at once (at least 1).
    explicit BodyPoster(Post post, int inFlight = 1);
    ~BodyPoster();
    BodyPoster(const BodyPoster&) = delete;
    BodyPoster& operator=(const BodyPoster&) = delete;

    // Waits until a posting thread is free, then hands this body over. False when a post has
    // failed: the body is not posted.
    bool submit(std::string body, const std::shared_ptr<SentRows>& sent);
    // Waits until every body handed over is posted and ends the poster's threads. False when a
    // post failed.
    bool finish();

  private:
    struct Job {
        std::string body;
        std::shared_ptr<SentRows> sent;
    };
    void run();

    Post mPost;
    const size_t mInFlight;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<Job> mWaiting;  // handed over, not yet taken by a thread
    size_t mBusy = 0;          // bodies waiting or being posted
    size_t mIdle = 0;          // threads waiting for a body
    bool mFailed = false;
    bool mClosing = false;
    std::vector<std::thread> mThreads;
};
