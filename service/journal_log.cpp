#include "journal_log.h"

#include <tarvik.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace tarvikd {

namespace {

std::atomic<int> g_priority{kInfo};
std::mutex g_write;

// One line whatever the text holds: a camera's serial or a client's name may
// carry control characters, which must not start a line of their own (with a
// priority prefix of someone else's choosing) in the journal.
void WriteLine(int priority, const char* text) {
    if (priority > g_priority.load()) return;
    std::string line(text);
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    std::lock_guard<std::mutex> lock(g_write);
    std::fprintf(stderr, "<%d>%s\n", priority, line.c_str());
    std::fflush(stderr);
}

void LibraryLine(int level, const char* line, void*) {
    // The library's levels are syslog priorities already; its lines may end in
    // blanks or carry a carriage return from the C++ interface's format.
    std::string text = std::string("library: ") + line;
    while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
    WriteLine(level, text.c_str());
}

}  // namespace

void SetLogPriority(int priority) {
    g_priority = priority;
    tarvik_set_log_level(priority >= kDebug ? TARVIK_LOG_DEBUG : TARVIK_LOG_WARNING);
}

bool ParseLogPriority(const char* name, int& priority) {
    static const struct {
        const char* name;
        int priority;
    } kNames[] = {{"debug", kDebug},
                  {"info", kInfo},
                  {"notice", kNotice},
                  {"warning", kWarning},
                  {"error", kError}};
    for (const auto& n : kNames) {
        if (std::strcmp(name, n.name) == 0) {
            priority = n.priority;
            return true;
        }
    }
    return false;
}

void Log(int priority, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    WriteLine(priority, text);
}

void RouteLibraryLog() { tarvik_set_log_handler(LibraryLine, nullptr); }

}  // namespace tarvikd
