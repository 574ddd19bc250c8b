// The foundation: byte packing and assertion reports, the log line and its
// timing form, and the recursive mutex.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>
#include <utility>
#include <vector>

#include "byte_pack.h"
#include "os_time.h"
#include "tarvik_log.h"
#include "test_support.h"
#include "timing_log.h"
#include "wNewMutex.h"

namespace tarvik::test {
namespace {

TEST(BytePack, LittleEndianInTheFirstFourBytes) {
    Bytes b(8, 0xEE);
    Int2Byte(258, b.data(), 8);
    EXPECT_EQ(b, Hex("02 01 00 00 00 00 00 00"));
    Int2Byte(-1, b.data(), 4);
    EXPECT_EQ(b, Hex("FF FF FF FF 00 00 00 00"));
    EXPECT_EQ(Byte2Int(b.data(), 4), -1);
    b = Hex("78 56 34 12 EE");
    EXPECT_EQ(Byte2Int(b.data(), 5), 0x12345678);
}

struct Collecting : AssertLogger {
    void Log(char* message) override { messages.emplace_back(message); }
    std::vector<std::string> messages;
};

// A size below 4 is reported and touches nothing; reports go to the installed
// logger, or to standard output with a line feed.
TEST(BytePack, ShortSizesAreReported) {
    Collecting logger;
    SetAssertLogger(&logger);
    Bytes b = Hex("01 02 03");
    Int2Byte(7, b.data(), 3);
    EXPECT_EQ(Byte2Int(b.data(), 3), 0);
    EXPECT_EQ(b, Hex("01 02 03"));
    EXPECT_EQ(logger.messages,
              (std::vector<std::string>{"Assertion `size >= 4' failed in Int2Byte",
                                        "Assertion `size >= 4' failed in Byte2Int"}));
    SetAssertLogger(nullptr);
    StdoutCapture capture;
    char text[] = "plain";
    MyAssert(text);
    EXPECT_EQ(capture.Take(), "plain\n");
    EXPECT_EQ(logger.messages.size(), 2u);
}

std::string Logged(const std::function<void()>& f) {
    StdoutCapture capture;
    f();
    return capture.Take();
}

TEST(Log, PrefixAndTimingForm) {
    const int line = __LINE__ + 1;
    EXPECT_EQ(Logged([] { TLOG_WARN("-----> SetMarker, hr=0x%x", static_cast<unsigned>(-2)); }),
              "\r[File:tests/unit/common_test.cpp, Line:" + std::to_string(line) +
                  "] -----> SetMarker, hr=0xfffffffe");
    struct Row {
        unsigned long us;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        {7, {"########## X end, consumed time: 0.7 ms\n"}},
        {999, {"########## X end, consumed time: 0.999 ms\n"}},
        {1005, {"########## X end, consumed time: 1.5 ms\n"}},
        {1050, {"########## X end, consumed time: 1.50 ms\n"}},
        {999999, {"########## X end, consumed time: 999.999 ms\n"}},
        {1000000,
         {"########## X end, consumed time: 1000.0 ms\n",
          "########## operator time too long, more than 1s\n"}},
        {2000500,
         {"########## X end, consumed time: 2000.500 ms\n",
          "########## operator time too long, more than 1s\n"}},
    };
    for (const Row& r : rows) {
        EXPECT_TRUE(LinesAre(Logged([&] { LogConsumedTime("f", 1, "X", r.us); }), r.lines)) << r.us;
    }
    // A clock set back shows as a huge time, and as a slow call.
    EXPECT_EQ(ElapsedSince(os_gettime_us() + 5000000) > 1000000000000UL, true);
}

// The level decides which lines are made at all; a change of level or of
// handler takes effect at the next line.
TEST(Log, LevelsAndHandler) {
    static std::vector<std::pair<int, std::string>> got;
    got.clear();
    set_log_level(static_cast<int>(Level::kWarning));
    set_log_handler([](int level, const char* line, void*) { got.emplace_back(level, line); },
                    nullptr);
    TLOG_DEBUG("dropped %d", 1);
    TLOG_WARN("kept %d", 2);
    set_log_level(static_cast<int>(Level::kDebug));
    TLOG_DEBUG("kept %d", 3);
    set_log_handler(nullptr, nullptr);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].first, static_cast<int>(Level::kWarning));
    EXPECT_NE(got[0].second.find("] kept 2"), std::string::npos) << got[0].second;
    EXPECT_EQ(got[1].first, static_cast<int>(Level::kDebug));
    EXPECT_NE(got[1].second.find("] kept 3"), std::string::npos) << got[1].second;
    EXPECT_NE(Logged([] { TLOG_DEBUG("to standard output again"); }).find("again"),
              std::string::npos)
        << "the default destination is back";
}

TEST(Time, ClockAndDifferences) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    const unsigned long before =
        static_cast<unsigned long>(tv.tv_sec) * 1000000UL + static_cast<unsigned long>(tv.tv_usec);
    const unsigned long now = os_gettime_us();
    EXPECT_GE(now, before);
    EXPECT_LT(now - before, 5000000UL);
    EXPECT_EQ(diff_ms(1500, 200), 1.0);
    EXPECT_EQ(diff_ms(200, 1500), -1.0);
    EXPECT_EQ(diff_ms(2999, 0), 2.0);
    // Stamps so far apart that their difference fits no long.
    EXPECT_EQ(diff_ms(LONG_MAX, LONG_MIN), 18446744073709551.0);
    EXPECT_EQ(diff_ms(LONG_MIN, LONG_MAX), -18446744073709551.0);
}

// Whether another thread can take the lock now (it gives it back at once).
bool FreeForOthers(wNewMutex& m) {
    bool free = false;
    std::thread([&] {
        free = m.TryLock() == 1;
        if (free) m.Unlock();
    }).join();
    return free;
}

TEST(WNewMutex, RecursionAndOwnership) {
    wNewMutex m;
    m.Lock();
    m.RecursiveLock();
    EXPECT_EQ(m.TryLock(), 1);
    m.Unlock();
    m.RecursiveUnlock();
    EXPECT_FALSE(FreeForOthers(m)) << "held until the last unlock";
    std::thread([&] { m.Unlock(); }).join();  // not the holder's: no effect
    EXPECT_FALSE(FreeForOthers(m));
    m.RecursiveUnlock();
    EXPECT_TRUE(FreeForOthers(m));
    m.Unlock();  // nobody holds it: no effect
    EXPECT_EQ(m.RecursiveTryLock(), 1);
    m.Unlock();

    // A waiting thread enters once the holder gives the lock back.
    m.Lock();
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        m.Lock();
        entered = true;
        m.Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered);
    m.Unlock();
    waiter.join();
    EXPECT_TRUE(entered);
}

TEST(WNewMutex, ManyMutexesOnManyThreads) {
    std::atomic<int> counter{0};
    std::vector<std::thread> threads;
    wNewMutex shared;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            wNewMutex own;
            for (int k = 0; k < 1000; ++k) {
                shared.Lock();
                own.Lock();
                counter.store(counter.load() + 1);
                own.Unlock();
                shared.Unlock();
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(counter.load(), 8000);
}

}  // namespace
}  // namespace tarvik::test
