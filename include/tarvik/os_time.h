// Wall-clock time in microseconds and the slow-call report of every operation.
#ifndef TARVIK_OS_TIME_H
#define TARVIK_OS_TIME_H

#include "tarvik_export.h"

// Microseconds since the Unix epoch (wall clock).
TARVIK_API unsigned long os_gettime_us();

// (later - earlier) / 1000, truncated toward zero, as a double.
TARVIK_API double diff_ms(long later, long earlier);

// Logs a warning when an operation took a second or more.
TARVIK_API void PrintLongTime(unsigned long elapsedUs);

#endif
