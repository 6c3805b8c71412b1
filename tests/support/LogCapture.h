// Records the log lines written while it lives, with the stderr copy switched off; thread-safe.
#pragma once

#include <pelio/platform/Log.h>
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

    LogCapture();
    ~LogCapture() override;
    void write(int priority, const std::string& tag, const std::string& message) override;

    std::vector<Line> lines() const;
    // True when some message ends with "> " + text (the service's prefix, then exactly text).
    bool hasMessage(const std::string& text) const;
    bool hasMessage(int priority, const std::string& text) const;
    // How many messages end with "> " + text.
    int count(const std::string& text) const;
    // True when some message contains fragment anywhere.
    bool contains(const std::string& fragment) const;
    void clear();

  private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace pelio::test
