#include "os_time.h"

#include <sys/time.h>

#include "tarvik_log.h"

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

double diff_ms(long later, long earlier) { return static_cast<double>((later - earlier) / 1000); }

void PrintLongTime(unsigned long elapsedUs) {
    if (elapsedUs > kSlowCallThresholdUs) {
        TLOG("########## operator time too long, more than 1s\n");
    }
}
