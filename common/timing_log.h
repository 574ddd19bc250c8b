// Every operation's timing line and slow-call report (internal). Time sits on
// top of the log: this and os_time.cpp call the log helper, never the other
// way round.
#ifndef TARVIK_TIMING_LOG_H
#define TARVIK_TIMING_LOG_H

#include "tarvik_log.h"

namespace tarvik {

// Microseconds since `startUs`, as an unsigned difference: a clock set back
// shows as a huge value (and so as a slow call).
unsigned long ElapsedSince(unsigned long startUs);

// Logs "########## <name> end, consumed time: <ms>.<us> ms\n" (the remainder
// without leading zeros) and reports a slow call.
void LogConsumedTime(const char* file, int line, const char* name, unsigned long elapsedUs);

}  // namespace tarvik

#define TLOG_CONSUMED(name, startUs) \
    ::tarvik::LogConsumedTime(__FILE__, __LINE__, name, ::tarvik::ElapsedSince(startUs))

#endif
