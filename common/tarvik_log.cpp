#include "tarvik_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace tarvik {
namespace {

// TARVIK_LOG, when it is set, decides for the whole process.
enum class Destination { kDefault, kStdout, kStderr, kOff };

Destination from_environment() {
    const char* value = std::getenv("TARVIK_LOG");
    if (value == nullptr) return Destination::kDefault;
    if (std::strcmp(value, "stdout") == 0) return Destination::kStdout;
    if (std::strcmp(value, "stderr") == 0) return Destination::kStderr;
    if (std::strcmp(value, "off") == 0) return Destination::kOff;
    return Destination::kDefault;
}

// The least severe level a line may have and still go somewhere, read before
// a line is formatted: a line nobody keeps costs one load, not its formatting.
// -1 when every line goes nowhere. Written under the switch's lock.
std::atomic<int> g_kept{static_cast<int>(Level::kDebug)};

struct Switch {
    std::mutex mutex;
    LogHandler handler = nullptr;
    void* user = nullptr;
    Destination destination = from_environment();
    int level = static_cast<int>(Level::kDebug);  // every line, as described
    bool levelChosen = false;
    bool cInterface = false;

    Switch() { Changed(); }
    void Changed() {
        const bool nowhere = handler == nullptr && destination == Destination::kOff;
        g_kept.store(nowhere ? -1 : level, std::memory_order_relaxed);
    }
};

Switch& the_switch() {
    static Switch s;
    return s;
}

bool kept(Level level) {
    the_switch();  // the environment's word is in g_kept from the first line on
    return static_cast<int>(level) <= g_kept.load(std::memory_order_relaxed);
}

// The line without its leading carriage return and trailing line feed.
std::string clean(const std::string& text) {
    std::string line = text;
    if (!line.empty() && line.front() == '\r') line.erase(0, 1);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
}

// One line, whole, to wherever lines go now.
void emit(Level level, Stream stream, const std::string& text) {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (static_cast<int>(level) > s.level) return;
    if (s.handler != nullptr) {
        s.handler(static_cast<int>(level), clean(text).c_str(), s.user);
        return;
    }
    switch (s.destination) {
        case Destination::kOff:
            return;
        case Destination::kDefault:
            if (s.cInterface) {
                std::fprintf(stderr, "%s\n", clean(text).c_str());
                return;
            }
            break;
        case Destination::kStdout:
        case Destination::kStderr:
            break;
    }
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

void LogLine(Level level, const char* file, int line, const char* fmt, ...) {
    if (!kept(level)) return;
    char prefix[256];
    std::snprintf(prefix, sizeof prefix, "\r[File:%s, Line:%d] ", file, line);
    va_list args;
    va_start(args, fmt);
    const std::string message = format(fmt, args);
    va_end(args);
    emit(level, Stream::kOut, prefix + message);
}

void LogPlain(Level level, Stream stream, const char* fmt, ...) {
    if (!kept(level)) return;
    va_list args;
    va_start(args, fmt);
    const std::string text = format(fmt, args);
    va_end(args);
    emit(level, stream, text);
}

void set_log_handler(LogHandler handler, void* user) {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handler = handler;
    s.user = user;
    s.Changed();
}

void set_log_level(int level) {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.level = level;
    s.levelChosen = true;
    s.Changed();
}

void use_c_interface_defaults() {
    Switch& s = the_switch();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.cInterface) return;
    s.cInterface = true;
    if (!s.levelChosen && s.destination == Destination::kDefault) {
        s.level = static_cast<int>(Level::kWarning);
    }
    s.Changed();
}

}  // namespace tarvik
