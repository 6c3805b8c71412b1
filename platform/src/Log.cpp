#include "pelio/platform/Log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#ifdef PELIO_HAVE_JOURNAL
#include <syslog.h>
#include <systemd/sd-journal.h>
#endif

namespace pelio::platform {
namespace {

struct LogState {
    std::mutex mutex;
    std::vector<LogSink*> sinks;
    bool toStderr = true;
    pid_t pid = 0;  // this process's id, read once (a system call each time otherwise)
#ifdef PELIO_HAVE_JOURNAL
    int journalChecked = 0;  // 0 unknown, 1 available, -1 not available
#endif
};

LogState& state() {
    static LogState* s = [] {
        auto* made = new LogState();  // never destroyed: threads may log during exit
        made->pid = getpid();
        // A forked child reads its own id again before it logs.
        pthread_atfork(nullptr, nullptr, [] { state().pid = getpid(); });
        return made;
    }();
    return *s;
}

#ifdef PELIO_HAVE_JOURNAL
int journalPriority(int priority) {
    switch (priority) {
        case DLOG_DEBUG:
            return LOG_DEBUG;
        case DLOG_INFO:
            return LOG_INFO;
        case DLOG_WARN:
            return LOG_WARNING;
        default:
            return LOG_ERR;
    }
}

bool journalAvailable(LogState& s) {
    if (s.journalChecked == 0) {
        s.journalChecked = access("/run/systemd/journal/socket", W_OK) == 0 ? 1 : -1;
    }
    return s.journalChecked > 0;
}
#endif

}  // namespace

void addLogSink(LogSink* sink) {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().sinks.push_back(sink);
}

void removeLogSink(LogSink* sink) {
    std::lock_guard<std::mutex> guard(state().mutex);
    auto& sinks = state().sinks;
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink), sinks.end());
}

void setLogToStderr(bool enabled) {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().toStderr = enabled;
}

char logPriorityLetter(int priority) {
    switch (priority) {
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_WARN:
            return 'W';
        case DLOG_ERROR:
            return 'E';
        default:
            return '?';
    }
}

namespace {

// "<letter>/<tag>(<pid>): <message>" and a newline to standard error in one write (stderr is
// unbuffered: through stdio the line would be formatted a second time).
void writeLine(int priority, const char* tag, pid_t pid, const std::string& message) {
    std::string line;
    line.reserve(message.size() + std::strlen(tag) + 24);
    line += logPriorityLetter(priority);
    line += '/';
    line += tag;
    line += '(';
    line += std::to_string(pid);
    line += "): ";
    line += message;
    line += '\n';
    for (size_t done = 0; done < line.size();) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;  // nowhere to log that logging failed
        done += static_cast<size_t>(n);
    }
}

}  // namespace
}  // namespace pelio::platform

int dlog_vprint(int priority, const char* tag, const char* fmt, va_list ap) {
    using namespace pelio::platform;
    if (tag == nullptr || fmt == nullptr)
        return -1;

    // Most messages fit the stack buffer: they are formatted once.
    char small[1024];
    va_list copy;
    va_copy(copy, ap);
    const int needed = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (needed < 0)
        return -1;
    std::string message;
    if (static_cast<size_t>(needed) < sizeof small) {
        message.assign(small, static_cast<size_t>(needed));
    } else {
        message.resize(static_cast<size_t>(needed));
        std::vsnprintf(message.data(), message.size() + 1, fmt, ap);
    }
    while (!message.empty() && message.back() == '\n')
        message.pop_back();

    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.toStderr)
        writeLine(priority, tag, s.pid, message);
#ifdef PELIO_HAVE_JOURNAL
    if (journalAvailable(s)) {
        sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%d", journalPriority(priority),
                        "SYSLOG_IDENTIFIER=%s", tag, nullptr);
    }
#endif
    for (LogSink* sink : s.sinks)
        sink->write(priority, tag, message);
    return needed;
}

int dlog_print(int priority, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = dlog_vprint(priority, tag, fmt, ap);
    va_end(ap);
    return n;
}
