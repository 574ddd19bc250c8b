#include "os_time.h"

#include <sys/time.h>

#include "timing_log.h"

namespace {
// A call that took longer than this many microseconds is reported as slow.
constexpr unsigned long kSlowCallThresholdUs = 999999;
}  // namespace

unsigned long os_gettime_us() {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    return static_cast<unsigned long>(tv.tv_sec) * 1000000UL +
           static_cast<unsigned long>(tv.tv_usec);
}

// The magnitude is taken in unsigned arithmetic: two stamps far apart have a
// difference that no long holds. Truncation is toward zero either way.
double diff_ms(long later, long earlier) {
    const auto a = static_cast<unsigned long>(later);
    const auto b = static_cast<unsigned long>(earlier);
    if (later >= earlier) {
        return static_cast<double>((a - b) / 1000);
    }
    return -static_cast<double>((b - a) / 1000);
}

void PrintLongTime(unsigned long elapsedUs) {
    if (elapsedUs > kSlowCallThresholdUs) {
        TLOG_WARN("########## operator time too long, more than 1s\n");
    }
}

namespace tarvik {

unsigned long ElapsedSince(unsigned long startUs) { return os_gettime_us() - startUs; }

void LogConsumedTime(const char* file, int line, const char* name, unsigned long elapsedUs) {
    LogLine(Level::kDebug, file, line, "########## %s end, consumed time: %lu.%lu ms\n", name,
            elapsedUs / 1000, elapsedUs % 1000);
    PrintLongTime(elapsedUs);
}

}  // namespace tarvik
