#include "upload/BodyPoster.h"

#include <algorithm>
#include <exception>

#include "PelioLog.h"

BodyPoster::BodyPoster(Post post, int inFlight)
    : mPost(std::move(post)), mInFlight(static_cast<size_t>(std::max(inFlight, 1))) {}

BodyPoster::~BodyPoster() {
    finish();
}

bool BodyPoster::submit(std::string body, const std::shared_ptr<SentRows>& sent) {
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait(lock, [this] { return mBusy < mInFlight || mFailed; });
    if (mFailed || mClosing)
        return false;
    mWaiting.push_back(Job{std::move(body), sent});
    ++mBusy;
    if (mIdle == 0 && mThreads.size() < mInFlight)
        mThreads.emplace_back([this] { run(); });
    mChanged.notify_all();
    return true;
}

bool BodyPoster::finish() {
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mBusy == 0; });
        mClosing = true;
        mChanged.notify_all();
    }
    for (std::thread& thread : mThreads) {
        if (thread.joinable())
            thread.join();
    }
    std::lock_guard<std::mutex> lock(mMutex);
    return !mFailed;
}

void BodyPoster::run() {
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            ++mIdle;
            mChanged.wait(lock, [this] { return !mWaiting.empty() || mClosing; });
            --mIdle;
            if (mWaiting.empty())
                return;
            job = std::move(mWaiting.front());
            mWaiting.pop_front();
            if (mFailed) {
                // A post failed after this body was handed over: it is dropped unposted.
                --mBusy;
                mChanged.notify_all();
                continue;
            }
        }
        bool posted = false;
        try {
            posted = mPost(std::move(job.body), job.sent);
        } catch (const std::exception& e) {
            LOGE("posting a body failed [%s]", e.what());
        } catch (...) {
            LOGE("posting a body failed");
        }
        job = Job{};  // the body goes before the next one is taken
        std::lock_guard<std::mutex> lock(mMutex);
        mFailed = mFailed || !posted;
        --mBusy;
        mChanged.notify_all();
    }
}
