#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tarvik_log.h"

namespace {

TEST(LogLine, PrefixCarriesTheRepoRelativeFileAndLine) {
    testing::internal::CaptureStdout();
    const int line = __LINE__ + 1;
    TLOG("get value ok. id: %d, value: %d.\n", 3, -7);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\r[File:tests/unit/common/test_log.cpp, Line:" + std::to_string(line) +
                  "] get value ok. id: 3, value: -7.\n");
}

TEST(LogLine, HexResultsPrintAsUnsigned) {
    testing::internal::CaptureStdout();
    TLOG("-----> SetMarker, hr=0x%x", static_cast<unsigned>(-2));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(
        out, std::regex("\r\\[File:[^,]+, Line:\\d+\\] -----> SetMarker, hr=0xfffffffe")))
        << out;
}

// Lines written by several threads at once come out whole.
TEST(LogLine, ConcurrentLinesDoNotMix) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) TLOG("thread %d line %d\n", t, i);
        });
    }
    for (auto& th : threads) th.join();
    const std::string out = testing::internal::GetCapturedStdout();
    const std::regex line(
        "\r\\[File:tests/unit/common/test_log\\.cpp, Line:\\d+\\] thread \\d line \\d+\n");
    size_t count = 0;
    for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it) ++count;
    EXPECT_EQ(count, 800u);
}

}  // namespace
