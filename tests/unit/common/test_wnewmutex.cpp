#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "wNewMutex.h"

namespace {

using namespace std::chrono_literals;

// Runs `body` on another thread and returns its result.
template <typename F>
auto onOtherThread(F body) {
    decltype(body()) result{};
    std::thread t([&] { result = body(); });
    t.join();
    return result;
}

// Whether another thread can take the lock now (it gives it back at once).
bool freeForOthers(wNewMutex& m) {
    return onOtherThread([&] {
        const int got = m.TryLock();
        if (got == 1) m.Unlock();
        return got == 1;
    });
}

TEST(WNewMutex, RecursionNeedsOneUnlockPerLock) {
    wNewMutex m;
    m.Lock();
    m.Lock();
    EXPECT_EQ(m.TryLock(), 1);  // the holder re-enters
    m.Unlock();
    m.Unlock();
    EXPECT_FALSE(freeForOthers(m)) << "still held after two of three unlocks";
    m.Unlock();
    EXPECT_TRUE(freeForOthers(m));
}

TEST(WNewMutex, WaitingThreadProceedsAfterTheLastUnlock) {
    wNewMutex m;
    m.RecursiveLock();
    m.RecursiveLock();
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        m.RecursiveLock();
        entered = true;
        m.RecursiveUnlock();
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(entered);
    m.RecursiveUnlock();
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(entered) << "one level is still held";
    m.RecursiveUnlock();
    waiter.join();
    EXPECT_TRUE(entered);
}

TEST(WNewMutex, TryLockFromAnotherThreadDoesNotBlock) {
    wNewMutex m;
    m.Lock();
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(onOtherThread([&] { return m.RecursiveTryLock(); }), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    m.Unlock();
}

TEST(WNewMutex, UnlockByANonHolderChangesNothing) {
    wNewMutex m;
    m.Unlock();  // nobody holds it
    m.Lock();
    onOtherThread([&] {
        m.Unlock();
        return 0;
    });
    EXPECT_FALSE(freeForOthers(m)) << "a stranger released the lock";
    m.Unlock();
    EXPECT_TRUE(freeForOthers(m));
}

// Many threads constructing and using mutexes at once: the shared attribute is
// made once, and mutual exclusion holds (TSan checks the rest).
TEST(WNewMutex, ConcurrentConstructionAndExclusion) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    wNewMutex shared;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            auto own = std::make_unique<wNewMutex>();
            own->Lock();
            for (int i = 0; i < kRounds; ++i) {
                shared.Lock();
                shared.Lock();
                ++counter;
                shared.Unlock();
                shared.Unlock();
            }
            own->Unlock();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}

}  // namespace
