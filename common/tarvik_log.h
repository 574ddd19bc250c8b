// The library's one logging helper (internal). By default every message goes
// to standard output as applications of this camera expect it: prefixed ones
// behind "\r[File:<source path>, Line:<line>] ", and a few plain lines.
// TARVIK_LOG=stdout|stderr|off in the environment moves them for the whole
// process, and an application's handler (set_log_handler) receives each one
// instead.
#ifndef TARVIK_LOG_H
#define TARVIK_LOG_H

namespace tarvik {

// Where a line goes by default: standard output, or (for the few lines the
// library writes there) standard error.
enum class Stream { kOut, kErr };

// Prints the prefix for `file`/`line`, then the formatted message, as one
// uninterrupted write.
void LogLine(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// A line without the prefix.
void LogPlain(Stream stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Receives each line, without the leading carriage return and the trailing
// line feed; null restores the environment's destination.
using LogHandler = void (*)(const char* line, void* user);
void set_log_handler(LogHandler handler, void* user);

// Reports a failed internal condition through MyAssert.
void ReportAssertion(const char* condition, const char* function);

}  // namespace tarvik

#define TLOG(...) ::tarvik::LogLine(__FILE__, __LINE__, __VA_ARGS__)

#endif
