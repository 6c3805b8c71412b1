// System log.
//
// Every line goes to standard error as
//   <D|I|W|E>/<tag>(<pid>): <message>
// and, where systemd's journal is available, to the journal with the tag and the line's priority.
// The service formats its messages as "<file>: <function>(<line>) > <text>" (see the service's
// PelioLog.h), which makes the fixed line format of the service.
//
// Thread-safe: lines from several threads never interleave. Tests add a sink to read the lines.
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

// The priority letter of a line: 'D', 'I', 'W', 'E' ('?' for anything else).
char logPriorityLetter(int priority);

}  // namespace pelio::platform

// Writes one log line. Returns the number of message bytes written, or -1 for a bad argument.
int dlog_print(int priority, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
int dlog_vprint(int priority, const char* tag, const char* fmt, va_list ap);
