// tarvik-bridge's log: one line per message on standard error with the
// priority prefix journald reads ("<4>..."). Nothing written here carries card
// data; text that came from a page or a header goes through Printable() first.
#pragma once

#include <string>
#include <string_view>

namespace tarvik_bridge {

enum Priority { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

// Lines less severe than `priority` are dropped (kInfo by default).
void SetLogPriority(int priority);
// "debug", "info", "notice", "warning", "error"; false for anything else.
bool ParseLogPriority(const std::string& name, int& priority);

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// `text` fit for a log line: printable ASCII only (others as '?'), at most 80
// characters, quoted.
std::string Printable(std::string_view text);

}  // namespace tarvik_bridge
