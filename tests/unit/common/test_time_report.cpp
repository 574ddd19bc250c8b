#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "os_time.h"
#include "tarvik_log.h"

namespace {

const char* const kSlowLine = "########## operator time too long, more than 1s\n";

struct SlowCase {
    unsigned long elapsedUs;
    bool warns;
};

class SlowCallThreshold : public testing::TestWithParam<SlowCase> {};

TEST_P(SlowCallThreshold, WarnsOnlyFromOneSecond) {
    testing::internal::CaptureStdout();
    PrintLongTime(GetParam().elapsedUs);
    const std::string out = testing::internal::GetCapturedStdout();
    if (GetParam().warns) {
        EXPECT_TRUE(std::regex_match(
            out, std::regex("\r\\[File:common/os_time\\.cpp, Line:\\d+\\] " +
                            std::string("#+ operator time too long, more than 1s\n"))))
            << out;
        EXPECT_NE(out.find(kSlowLine), std::string::npos);
    } else {
        EXPECT_EQ(out, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Edges, SlowCallThreshold,
                         testing::Values(SlowCase{0, false}, SlowCase{999999, false},
                                         SlowCase{1000000, true}, SlowCase{~0UL, true}));

struct ConsumedCase {
    unsigned long elapsedUs;
    const char* shown;
    bool slow;
};

class ConsumedTimeLine : public testing::TestWithParam<ConsumedCase> {};

// The remainder is printed without leading zeros: 1005 us reads as 1.5 ms.
TEST_P(ConsumedTimeLine, PrintsMillisecondsAndRemainder) {
    const ConsumedCase& c = GetParam();
    testing::internal::CaptureStdout();
    tarvik::LogConsumedTime(__FILE__, __LINE__, "ReadVCM", c.elapsedUs);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string expected =
        std::string("########## ReadVCM end, consumed time: ") + c.shown + " ms\n";
    ASSERT_EQ(out.rfind("\r[File:tests/unit/common/test_time_report.cpp, Line:", 0), 0u) << out;
    EXPECT_NE(out.find(expected), std::string::npos) << out;
    EXPECT_EQ(out.find(kSlowLine) != std::string::npos, c.slow) << out;
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ConsumedTimeLine,
    testing::Values(ConsumedCase{0, "0.0", false}, ConsumedCase{7, "0.7", false},
                    ConsumedCase{999, "0.999", false}, ConsumedCase{1005, "1.5", false},
                    ConsumedCase{1050, "1.50", false}, ConsumedCase{2000500, "2000.500", true}));

TEST(ConsumedTimeLine, ClockSetBackWrapsAndCountsAsSlow) {
    const unsigned long elapsed = tarvik::ElapsedSince(os_gettime_us() + 5000000UL);
    EXPECT_GT(elapsed, 1UL << 63);
    testing::internal::CaptureStdout();
    TLOG_CONSUMED("ReadVersion", os_gettime_us() + 5000000UL);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_search(out, std::regex("consumed time: 18446744073\\d{6}\\.\\d+ ms\n")))
        << out;
    EXPECT_NE(out.find(kSlowLine), std::string::npos);
}

TEST(DiffMs, TruncatesTowardZero) {
    EXPECT_EQ(diff_ms(1500, 200), 1.0);
    EXPECT_EQ(diff_ms(200, 1500), -1.0);
    EXPECT_EQ(diff_ms(999, 0), 0.0);
    EXPECT_EQ(diff_ms(0, 999), 0.0);
}

TEST(Clock, IsWallClockMicroseconds) {
    const unsigned long a = os_gettime_us();
    const unsigned long b = os_gettime_us();
    EXPECT_GE(b, a);
    EXPECT_GT(a, 1600000000UL * 1000000UL);  // after 2020
}

}  // namespace
