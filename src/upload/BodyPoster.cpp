#include "upload/BodyPoster.h"

#include <exception>

#include "PelioLog.h"

BodyPoster::BodyPoster(Post post) : mPost(std::move(post)) {}

BodyPoster::~BodyPoster() {
    finish();
}

bool BodyPoster::submit(std::string body, const std::shared_ptr<SentRows>& sent) {
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait(lock, [this] { return !mBusy; });
    if (mFailed || mClosing)
        return false;
    mPending = Job{std::move(body), sent};
    mBusy = true;
    if (!mThread.joinable())
        mThread = std::thread([this] { run(); });
    mChanged.notify_all();
    return true;
}

bool BodyPoster::finish() {
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return !mBusy; });
        mClosing = true;
        mChanged.notify_all();
    }
    if (mThread.joinable())
        mThread.join();
    std::lock_guard<std::mutex> lock(mMutex);
    return !mFailed;
}

void BodyPoster::run() {
    for (;;) {
        std::optional<Job> job;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [this] { return mPending.has_value() || mClosing; });
            if (!mPending)
                return;
            job.swap(mPending);
        }
        bool posted = false;
        try {
            posted = mPost(std::move(job->body), job->sent);
        } catch (const std::exception& e) {
            LOGE("posting a body failed [%s]", e.what());
        } catch (...) {
            LOGE("posting a body failed");
        }
        job.reset();  // the body goes before the next one is taken
        std::lock_guard<std::mutex> lock(mMutex);
        mFailed = mFailed || !posted;
        mBusy = false;
        mChanged.notify_all();
    }
}
