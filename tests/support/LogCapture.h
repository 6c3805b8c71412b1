// Records the log lines written while it lives, with the stderr copy switched off; thread-safe.
#pragma once

#include <pelio/platform/Log.h>
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class LogCapture : public pelio::platform::LogSink {
  public:
    struct Line {
        int priority;
        std::string tag;
        std::string message;
    };

    LogCapture() {
        pelio::platform::setLogToStderr(false);
        pelio::platform::addLogSink(this);
    }
    ~LogCapture() override {
        pelio::platform::removeLogSink(this);
        pelio::platform::setLogToStderr(true);
    }
    void write(int priority, const std::string& tag, const std::string& message) override {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.push_back({priority, tag, message});
    }

    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }
    // True when some message ends with "> " + text (the service's prefix, then exactly text).
    bool hasMessage(const std::string& text) const { return count(text) > 0; }
    bool hasMessage(int priority, const std::string& text) const {
        return matching([&](const Line& l) { return l.priority == priority && ends(l, text); }) > 0;
    }
    // How many messages end with "> " + text.
    int count(const std::string& text) const {
        return matching([&](const Line& l) { return ends(l, text); });
    }
    // True when some message contains fragment anywhere.
    bool contains(const std::string& fragment) const {
        return matching([&](const Line& l) {
                   return l.message.find(fragment) != std::string::npos;
               }) > 0;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.clear();
    }

  private:
    static bool ends(const Line& l, const std::string& text) {
        const std::string suffix = "> " + text;
        return l.message.size() >= suffix.size() &&
               l.message.compare(l.message.size() - suffix.size(), suffix.size(), suffix) == 0;
    }
    template <typename Pred>
    int matching(Pred&& pred) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), pred));
    }

    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace pelio::test
