// The log of tarvikd and tarvik-bridge: one line per message on standard error
// with the priority prefix journald reads ("<4>..."). A line is one line
// whatever its text holds: control characters become '?', so that no text of
// someone else's (a camera's serial, a client's name, a page's header) can
// start a line of its own. Nothing written here carries card data.
#pragma once

#include <string>
#include <string_view>

namespace tarvik::journal {

enum Priority { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

// Lines less severe than `priority` are dropped (kInfo by default).
void SetLogPriority(int priority);
// "debug", "info", "notice", "warning", "error"; false for anything else.
bool ParseLogPriority(const std::string& name, int& priority);

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
// A line as it is (a library's own, say), at `priority`.
void LogText(int priority, const std::string& text);

// `text` fit for a log line: printable ASCII only (others as '?'), at most 80
// characters, quoted.
std::string Printable(std::string_view text);

}  // namespace tarvik::journal
