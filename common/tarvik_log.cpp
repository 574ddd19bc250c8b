#include "tarvik_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>


namespace tarvik {
namespace {

enum class Destination { kStdout, kStderr, kOff };

Destination from_environment() {
    const char* value = std::getenv("TARVIK_LOG");
    if (value != nullptr && std::strcmp(value, "stderr") == 0) return Destination::kStderr;
    if (value != nullptr && std::strcmp(value, "off") == 0) return Destination::kOff;
    return Destination::kStdout;
}

struct Switch {
    std::mutex mutex;
    LogHandler handler = nullptr;
    void* user = nullptr;
    Destination destination = from_environment();
};

Switch& the_switch() {
    static Switch s;
    return s;
}

// One line, whole, to wherever lines go now.
void emit(Stream stream, const std::string& text) {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.handler != nullptr) {
        std::string line = text;
        if (!line.empty() && line.front() == '\r') line.erase(0, 1);
        if (!line.empty() && line.back() == '\n') line.pop_back();
        s.handler(line.c_str(), s.user);
        return;
    }
    if (s.destination == Destination::kOff) return;
    FILE* out = s.destination == Destination::kStderr || stream == Stream::kErr ? stderr : stdout;
    std::fwrite(text.data(), 1, text.size(), out);
}

__attribute__((format(printf, 1, 0))) std::string format(const char* fmt, va_list args) {
    va_list again;
    va_copy(again, args);
    char small[256];
    const int n = std::vsnprintf(small, sizeof small, fmt, args);
    std::string text;
    if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n > 0) {
        text.resize(static_cast<size_t>(n));
        std::vsnprintf(text.data(), text.size() + 1, fmt, again);
    }
    va_end(again);
    return text;
}

}  // namespace

void LogLine(const char* file, int line, const char* fmt, ...) {
    char prefix[256];
    std::snprintf(prefix, sizeof prefix, "\r[File:%s, Line:%d] ", file, line);
    va_list args;
    va_start(args, fmt);
    const std::string message = format(fmt, args);
    va_end(args);
    emit(Stream::kOut, prefix + message);
}

void LogPlain(Stream stream, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const std::string text = format(fmt, args);
    va_end(args);
    emit(stream, text);
}

void set_log_handler(LogHandler handler, void* user) {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handler = handler;
    s.user = user;
}

}  // namespace tarvik
