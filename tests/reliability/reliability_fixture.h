// Pieces shared by the reliability tests: cameras with content of their own,
// objects opened through the factory, a quiet standard output, and counts of
// open file descriptors.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "device_fixture.h"
#include "operation_table.h"

namespace tarvik::reliability {

using test::TarvikPtr;

// Sends standard output (the library's log lines) to /dev/null while alive.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        m_saved = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int m_saved;
};

// Runs `f` with standard output quiet (GoogleTest's own messages go there too,
// so only library calls are wrapped).
template <typename F>
auto Quiet(F&& f) {
    QuietStdout quiet;
    return f();
}

inline int OpenFileDescriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
        n -= 3;  // ".", ".." and the directory's own descriptor
    }
    return n;
}

inline std::chrono::milliseconds Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

// Transfers of a log on selector 14 in one direction.
inline size_t Count(const std::vector<sim::Transfer>& log, int selector, bool in) {
    size_t n = 0;
    for (const sim::Transfer& t : log) n += t.selector() == selector && t.isIn() == in;
    return n;
}

class ReliabilityTest : public testing::Test {
protected:
    void TearDown() override { transport::set_control_timeout_ms(transport::kControlTimeoutMs); }

    // A new camera on bus 1 with content of its own.
    sim::Camera& NewCamera(int salt = 0) {
        sim::Camera& cam = m_bed.AddCamera(1, m_nextAddress++);
        cam.Model().Update([salt](sim::CameraState& s) { Prepare(s, salt); });
        return cam;
    }

    // The library opens `cam` itself; the creation's transfers are dropped.
    TarvikPtr Open(sim::Camera& cam) {
        TarvikPtr t(Quiet([&] {
            return static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, cam.Bus(), cam.Address()));
        }));
        cam.ClearLog();
        return t;
    }

    sim::Testbed m_bed;
    int m_nextAddress = 2;
};

}  // namespace tarvik::reliability
