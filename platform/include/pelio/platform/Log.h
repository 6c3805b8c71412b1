// System log.
//
// Every line goes to standard error as
//   <D|I|W|E>/<tag>(<pid>): <message>
// and, where systemd's journal is available, to the journal with the tag and the line's priority.
// The service formats its messages as "<file>: <function>(<line>) > <text>" (see the service's
// PelioLog.h), which makes the fixed line format of the service.
//
// Thread-safe: lines from several threads never interleave, and leave in the order they were
// logged. Debug and info lines are handed to a writer thread, which writes what has gathered in
// one go, within a couple of milliseconds; a warning or an error is written out, with every line
// before it, before the call returns, and so is everything pending when the process exits. The
// platform flushes the lines before the service answers a launch request, sends one, changes its
// state or gives up its bus name, so whoever hears from the service over the bus finds its lines
// written. Tests add a sink to read the lines (sinks are called at once, on the caller's thread).
#pragma once

#include <cstdarg>
#include <memory>
#include <string>

namespace pelio::platform {

enum LogPriority {
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
};

// One line as written: priority, tag and the formatted message (no trailing newline).
class LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void write(int priority, const std::string& tag, const std::string& message) = 0;
};

// Adds a sink that sees every line after it was added; remove it before it is destroyed.
void addLogSink(LogSink* sink);
void removeLogSink(LogSink* sink);

// Turns the standard-error copy on or off (on by default; tests with noisy cases may quieten it).
void setLogToStderr(bool enabled);

// Writes out the lines still waiting for the writer thread: every line logged before the call is
// on standard error (and in the journal) when it returns.
void flushLog();

// The priority letter of a line: 'D', 'I', 'W', 'E' ('?' for anything else).
char logPriorityLetter(int priority);

}  // namespace pelio::platform

// Writes one log line. Returns the number of message bytes written, or -1 for a bad argument.
int dlog_print(int priority, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
int dlog_vprint(int priority, const char* tag, const char* fmt, va_list ap);
