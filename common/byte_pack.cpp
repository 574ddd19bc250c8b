#include "byte_pack.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "tarvik_log.h"

namespace {
std::atomic<AssertLogger*> g_assertLogger{nullptr};

// Reports a failed precondition. Nothing ever aborts: a device or a caller
// must not be able to stop the process through the library.
bool requireSize(int size, const char* function) {
    if (size >= 4) {
        return true;
    }
    tarvik::ReportAssertion("size >= 4", function);
    return false;
}
}  // namespace

namespace tarvik {
void ReportAssertion(const char* condition, const char* function) {
    char message[256];
    std::snprintf(message, sizeof message, "Assertion `%s' failed in %s", condition, function);
    MyAssert(message);
}
}  // namespace tarvik

void Int2Byte(int value, unsigned char* bytes, int size) {
    if (!requireSize(size, "Int2Byte")) {
        return;
    }
    std::memset(bytes, 0, static_cast<size_t>(size));
    const auto u = static_cast<unsigned int>(value);
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>(u >> (8 * i));
    }
}

int Byte2Int(unsigned char* bytes, int size) {
    if (!requireSize(size, "Byte2Int")) {
        return 0;
    }
    unsigned int u = 0;
    for (int i = 0; i < 4; ++i) {
        u |= static_cast<unsigned int>(bytes[i]) << (8 * i);
    }
    return static_cast<int>(u);
}

void SetAssertLogger(AssertLogger* logger) { g_assertLogger.store(logger); }

void MyAssert(char* message) {
    if (AssertLogger* logger = g_assertLogger.load()) {
        logger->Log(message);
        return;
    }
    tarvik::LogPlain(tarvik::Level::kWarning, tarvik::Stream::kOut, "%s\n", message);
}
