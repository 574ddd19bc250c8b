// The library's one logging helper (internal). Every line has a level. The
// described C++ interface keeps its default: every line on standard output
// (a few plain ones on standard error), prefixed ones behind
// "\r[File:<source path>, Line:<line>] ", exactly as applications of this
// camera expect them. A program that uses the C interface gets no line on
// standard output: once it calls in, warnings and errors go to standard error,
// each a clean line of its own. tarvik_set_log_level and an application's
// handler choose otherwise; TARVIK_LOG=stdout|stderr|off chooses the
// destination for the whole process.
#ifndef TARVIK_LOG_H
#define TARVIK_LOG_H

namespace tarvik {

// syslog's priorities, so that a service can hand them on as they are.
enum class Level { kError = 3, kWarning = 4, kDebug = 7 };

// Where a line goes by default: standard output, or (for the few lines the
// library writes there) standard error.
enum class Stream { kOut, kErr };

// Prints the prefix for `file`/`line`, then the formatted message, as one
// uninterrupted write.
void LogLine(Level level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// A line without the prefix.
void LogPlain(Level level, Stream stream, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Receives each line at or above the log level, without the leading carriage
// return and the trailing line feed; null restores the default destination.
using LogHandler = void (*)(int level, const char* line, void* user);
void set_log_handler(LogHandler handler, void* user);

// Lines less severe than `level` are dropped (any value; those between the
// levels round toward more lines).
void set_log_level(int level);

// The C interface is in use: unless the application chose otherwise, lines
// leave standard output and only warnings and errors are kept.
void use_c_interface_defaults();

// Reports a failed internal condition through MyAssert.
void ReportAssertion(const char* condition, const char* function);

}  // namespace tarvik

#define TLOG_AT(level, ...) ::tarvik::LogLine(level, __FILE__, __LINE__, __VA_ARGS__)
// Progress: timing, counters, the SAM's steps, a camera opened.
#define TLOG_DEBUG(...) TLOG_AT(::tarvik::Level::kDebug, __VA_ARGS__)
// Something went wrong that the caller's result also says: failures, retries, slow calls.
#define TLOG_WARN(...) TLOG_AT(::tarvik::Level::kWarning, __VA_ARGS__)
// A camera could not be opened.
#define TLOG_ERROR(...) TLOG_AT(::tarvik::Level::kError, __VA_ARGS__)

#endif
