// Shared pieces of the device-level tests: the library's real libusb against
// simulated cameras, with the bytes on the wire and the lines on standard output.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "TarvikImpl.h"
#include "impl_access.h"
#include "log_lines.h"
#include "testbed.h"
#include "uvc_transport.h"

namespace tarvik::test {

struct Releaser {
    void operator()(libTarvik* p) const { zq_ReleaseTarvik(p); }
};
using TarvikPtr = std::unique_ptr<TarvikImpl, Releaser>;

// Captures standard output from Start() to Take().
class StdoutCapture {
public:
    StdoutCapture() = default;
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;
    ~StdoutCapture() {
        if (m_active) testing::internal::GetCapturedStdout();
    }
    void Start() {
        testing::internal::CaptureStdout();
        m_active = true;
    }
    std::string Take() {
        m_active = false;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool m_active = false;
};

using Bytes = std::vector<std::uint8_t>;

template <typename T>
Bytes BytesOf(const T& value) {
    Bytes b(sizeof value);
    std::memcpy(b.data(), &value, sizeof value);
    return b;
}

inline Bytes Zeros(size_t n) { return Bytes(n, 0); }

// A 60-byte read request as the camera must receive it (product type 1).
inline Bytes ReadRequest(std::uint32_t item) {
    Bytes f(60, 0);
    f[1] = 0x10;
    for (int i = 0; i < 4; ++i) f[4 + i] = static_cast<std::uint8_t>(item >> (8 * i));
    return f;
}

// The transfers of a log on one selector.
inline std::vector<sim::Transfer> OnSelector(const std::vector<sim::Transfer>& log, int selector) {
    std::vector<sim::Transfer> out;
    for (const sim::Transfer& t : log) {
        if (t.selector() == selector) out.push_back(t);
    }
    return out;
}

inline std::string Describe(const std::vector<sim::Transfer>& log) {
    std::string s;
    for (const sim::Transfer& t : log) s += sim::Describe(t) + "\n";
    return s;
}

// One simulated camera on bus 1, address 2, and helpers to open it.
class CameraTest : public testing::Test {
protected:
    void SetUp() override { m_camera = &m_bed.AddCamera(1, 2); }
    void TearDown() override { transport::set_control_timeout_ms(transport::kControlTimeoutMs); }

    sim::Camera& Cam() { return *m_camera; }
    sim::CameraModel& Model() { return m_camera->Model(); }

    // Opens the camera through the factory; the creation's lines are dropped,
    // and so is the log of the transfers made so far.
    TarvikPtr Open() {
        StdoutCapture quiet;
        quiet.Start();
        TarvikPtr t(static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, -1, -1)));
        quiet.Take();
        m_camera->ClearLog();
        return t;
    }

    // Opens the camera and sends the marker, so that later logs hold the
    // transaction frames alone.
    TarvikPtr OpenPrimed() {
        TarvikPtr t = Open();
        EXPECT_EQ(t->SetMarker(), 0);
        m_camera->ClearLog();
        return t;
    }

    sim::Testbed m_bed;
    sim::Camera* m_camera = nullptr;
};

}  // namespace tarvik::test
