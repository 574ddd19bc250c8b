// tarvikd's log: one line per message on standard error with the priority prefix
// journald reads ("<4>..."); the library's lines come through the same door.
// Nothing written here carries card data.
#pragma once

#include <cstdarg>

namespace tarvikd {

enum Priority { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

// Lines less severe than `priority` are dropped (kInfo by default).
void SetLogPriority(int priority);
// "debug", "info", "notice", "warning", "error"; false for anything else.
bool ParseLogPriority(const char* name, int& priority);

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Sends the library's lines (each with its own level) into this log.
void RouteLibraryLog();

}  // namespace tarvikd
