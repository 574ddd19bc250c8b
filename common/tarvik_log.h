// The library's one logging helper (internal). Every message goes to standard
// output behind the prefix "\r[File:<source path>, Line:<line>] ".
#ifndef TARVIK_LOG_H
#define TARVIK_LOG_H

namespace tarvik {

// Prints the prefix for `file`/`line`, then the formatted message, as one
// uninterrupted write to standard output.
void LogLine(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Microseconds since `startUs`, as an unsigned difference: a clock set back
// shows as a huge value (and so as a slow call).
unsigned long ElapsedSince(unsigned long startUs);

// Logs "########## <name> end, consumed time: <ms>.<us> ms\n" (the remainder
// without leading zeros) and reports a slow call.
void LogConsumedTime(const char* file, int line, const char* name, unsigned long elapsedUs);

// Reports a failed internal condition through MyAssert.
void ReportAssertion(const char* condition, const char* function);

}  // namespace tarvik

#define TLOG(...) ::tarvik::LogLine(__FILE__, __LINE__, __VA_ARGS__)
#define TLOG_CONSUMED(name, startUs) \
    ::tarvik::LogConsumedTime(__FILE__, __LINE__, name, ::tarvik::ElapsedSince(startUs))

#endif
