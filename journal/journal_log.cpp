#include "journal_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace tarvik::journal {

namespace {

std::atomic<int> g_priority{kInfo};
std::mutex g_write;

}  // namespace

void SetLogPriority(int priority) { g_priority = priority; }

bool ParseLogPriority(const std::string& name, int& priority) {
    static const struct {
        const char* name;
        int priority;
    } kNames[] = {{"debug", kDebug},
                  {"info", kInfo},
                  {"notice", kNotice},
                  {"warning", kWarning},
                  {"error", kError}};
    for (const auto& n : kNames) {
        if (name == n.name) {
            priority = n.priority;
            return true;
        }
    }
    return false;
}

void LogText(int priority, const std::string& text) {
    if (priority > g_priority.load()) return;
    std::string line(text);
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    std::lock_guard<std::mutex> lock(g_write);
    std::fprintf(stderr, "<%d>%s\n", priority, line.c_str());
    std::fflush(stderr);
}

void Log(int priority, const char* format, ...) {
    if (priority > g_priority.load()) return;
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    LogText(priority, text);
}

std::string Printable(std::string_view text) {
    constexpr std::size_t kMax = 80;
    std::string out = "'";
    for (std::size_t i = 0; i < text.size() && i < kMax; ++i) {
        const char c = text[i];
        out += c >= 0x20 && c < 0x7f && c != '\'' ? c : '?';
    }
    if (text.size() > kMax) out += "...";
    return out + "'";
}

}  // namespace tarvik::journal
