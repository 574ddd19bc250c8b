#include "tarvik_log.h"

#include <cstdarg>
#include <cstdio>

#include "os_time.h"

namespace tarvik {

void LogLine(const char* file, int line, const char* format, ...) {
    // Hold the stream so that lines of concurrent calls never mix.
    flockfile(stdout);
    std::printf("\r[File:%s, Line:%d] ", file, line);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    funlockfile(stdout);
}

unsigned long ElapsedSince(unsigned long startUs) { return os_gettime_us() - startUs; }

void LogConsumedTime(const char* file, int line, const char* name, unsigned long elapsedUs) {
    LogLine(file, line, "########## %s end, consumed time: %lu.%lu ms\n", name, elapsedUs / 1000,
            elapsedUs % 1000);
    PrintLongTime(elapsedUs);
}

}  // namespace tarvik
