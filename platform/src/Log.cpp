#include "pelio/platform/Log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#ifdef PELIO_HAVE_JOURNAL
#include <syslog.h>
#include <systemd/sd-journal.h>
#endif

namespace pelio::platform {
namespace {

#ifdef PELIO_HAVE_JOURNAL
struct JournalLine {
    int priority;
    std::string tag;
    std::string message;
};
#endif

// Lines leave through one writer thread: a caller formats its line and appends it to `pending`,
// and the writer, woken by the first line, lets more gather for a couple of milliseconds and
// hands them to standard error in one write, so a burst of lines from the sync threads costs a
// few system calls, not one per line. Warnings and errors, and
// every line once the process is exiting or has forked, are written out by the caller itself,
// together with everything before them, before it returns.
struct LogState {
    std::mutex mutex;  // guards everything below but `io`
    std::vector<LogSink*> sinks;
    bool toStderr = true;
    pid_t pid = 0;  // this process's id, read once (a system call each time otherwise)
#ifdef PELIO_HAVE_JOURNAL
    int journalChecked = 0;  // 0 unknown, 1 available, -1 not available
    std::vector<JournalLine> pendingJournal;
#endif
    std::string pending;  // standard error's lines not yet written, in order
    std::condition_variable wake;
    bool writerWaiting = false;
    bool writerStarted = false;
    bool direct = false;  // no writer thread: each caller writes out what is pending
    // Held while a batch is written; taken before `mutex` is released, so batches leave in the
    // order they were taken.
    std::mutex io;
};

LogState& state() {
    static LogState* s = [] {
        auto* made = new LogState();  // never destroyed: threads may log during exit
        made->pid = getpid();
        // A forked child reads its own id again before it logs, has no writer thread and leaves
        // the parent's pending lines to the parent.
        pthread_atfork(
            [] {
                state().mutex.lock();
                state().io.lock();
            },
            [] {
                state().io.unlock();
                state().mutex.unlock();
            },
            [] {
                LogState& child = state();
                child.pid = getpid();
                child.direct = true;
                child.pending.clear();
#ifdef PELIO_HAVE_JOURNAL
                child.pendingJournal.clear();
#endif
                child.io.unlock();
                child.mutex.unlock();
            });
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

constexpr size_t kMaxPending = 256 * 1024;
// How long the writer lets lines gather after the first one before it writes them.
constexpr std::chrono::milliseconds kGatherTime{2};

// Appends "<letter>/<tag>(<pid>): <message>" and a newline.
void appendLine(std::string& out, int priority, const char* tag, pid_t pid,
                const std::string& message) {
    out += logPriorityLetter(priority);
    out += '/';
    out += tag;
    out += '(';
    out += std::to_string(pid);
    out += "): ";
    out += message;
    out += '\n';
}

void writeAll(const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;  // nowhere to log that logging failed
        done += static_cast<size_t>(n);
    }
}

// Takes what is pending and writes it; `lock` holds the state's mutex and is released while the
// text is written (other threads go on logging meanwhile).
void writePending(LogState& s, std::unique_lock<std::mutex>& lock) {
    std::string text;
    text.swap(s.pending);
#ifdef PELIO_HAVE_JOURNAL
    std::vector<JournalLine> journal;
    journal.swap(s.pendingJournal);
#endif
    std::lock_guard<std::mutex> io(s.io);
    lock.unlock();
    writeAll(text);
#ifdef PELIO_HAVE_JOURNAL
    for (const JournalLine& line : journal) {
        sd_journal_send("MESSAGE=%s", line.message.c_str(), "PRIORITY=%d",
                        journalPriority(line.priority), "SYSLOG_IDENTIFIER=%s", line.tag.c_str(),
                        nullptr);
    }
#endif
}

bool nothingPending(const LogState& s) {
#ifdef PELIO_HAVE_JOURNAL
    if (!s.pendingJournal.empty())
        return false;
#endif
    return s.pending.empty();
}

[[noreturn]] void runWriter() {
    LogState& s = state();
    for (;;) {
        std::unique_lock<std::mutex> lock(s.mutex);
        s.writerWaiting = true;
        s.wake.wait(lock, [&s] { return !nothingPending(s); });
        s.writerWaiting = false;
        // Lets a burst gather: its lines then cost one write, not a wake-up and a write each.
        lock.unlock();
        std::this_thread::sleep_for(kGatherTime);
        lock.lock();
        writePending(s, lock);
    }
}

// Called with the state's mutex held. Starts the writer thread on the first line; without one
// (it could not start, the process is exiting, or it forked) the caller writes.
bool haveWriter(LogState& s) {
    if (s.direct)
        return false;
    if (!s.writerStarted) {
        s.writerStarted = true;
        try {
            std::thread(runWriter).detach();  // lives as long as the process
        } catch (const std::system_error&) {
            s.direct = true;
            return false;
        }
        // Whatever is pending when the process exits is written then; lines logged later
        // (by destructors of statics) are written by their callers.
        std::atexit([] {
            flushLog();
            std::lock_guard<std::mutex> guard(state().mutex);
            state().direct = true;
        });
    }
    return true;
}

}  // namespace

void flushLog() {
    LogState& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    writePending(s, lock);
}

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
    std::unique_lock<std::mutex> lock(s.mutex);
    for (LogSink* sink : s.sinks)
        sink->write(priority, tag, message);
    bool queued = false;
    if (s.toStderr) {
        appendLine(s.pending, priority, tag, s.pid, message);
        queued = true;
    }
#ifdef PELIO_HAVE_JOURNAL
    if (journalAvailable(s)) {
        s.pendingJournal.push_back({priority, tag, message});
        queued = true;
    }
#endif
    if (!queued)
        return needed;
    // A writer that cannot keep up (standard error blocked) holds its callers back, as a plain
    // write would, rather than letting the pending text grow without bound.
    if (priority >= DLOG_WARN || s.pending.size() > kMaxPending || !haveWriter(s)) {
        writePending(s, lock);
    } else if (s.writerWaiting) {
        s.writerWaiting = false;  // one wake-up is enough
        s.wake.notify_one();
    }
    return needed;
}

int dlog_print(int priority, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = dlog_vprint(priority, tag, fmt, ap);
    va_end(ap);
    return n;
}
