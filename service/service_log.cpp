#include "service_log.h"

#include <tarvik.h>

#include <string>

namespace tarvikd {

namespace {

void LibraryLine(int level, const char* line, void*) {
    std::string text = std::string("library: ") + line;
    while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
    LogText(level, text);
}

}  // namespace

void RouteLibraryLog(int priority) {
    tarvik_set_log_level(priority >= kDebug ? TARVIK_LOG_DEBUG : TARVIK_LOG_WARNING);
    tarvik_set_log_handler(LibraryLine, nullptr);
}

}  // namespace tarvikd
