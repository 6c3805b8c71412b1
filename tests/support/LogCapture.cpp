#include "support/LogCapture.h"

namespace pelio::test {

LogCapture::LogCapture() {
    pelio::platform::setLogToStderr(false);
    pelio::platform::addLogSink(this);
}

LogCapture::~LogCapture() {
    pelio::platform::removeLogSink(this);
    pelio::platform::setLogToStderr(true);
}

void LogCapture::write(int priority, const std::string& tag, const std::string& message) {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back({priority, tag, message});
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

static bool endsWithMessage(const std::string& message, const std::string& text) {
    const std::string suffix = "> " + text;
    return message.size() >= suffix.size() &&
           message.compare(message.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool LogCapture::hasMessage(const std::string& text) const {
    return count(text) > 0;
}

bool LogCapture::hasMessage(int priority, const std::string& text) const {
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& l : lines_)
        if (l.priority == priority && endsWithMessage(l.message, text))
            return true;
    return false;
}

int LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> guard(mutex_);
    int n = 0;
    for (const auto& l : lines_)
        if (endsWithMessage(l.message, text))
            ++n;
    return n;
}

bool LogCapture::contains(const std::string& fragment) const {
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& l : lines_)
        if (l.message.find(fragment) != std::string::npos)
            return true;
    return false;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}

}  // namespace pelio::test
