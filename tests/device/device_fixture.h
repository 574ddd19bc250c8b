// The device layer of the tests: the library's real libusb against a simulated
// camera, checked by the bytes on the wire and the lines on standard output.
#pragma once

#include <dirent.h>
#include <libusb.h>
#include <unistd.h>

#include <cstring>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "testbed.h"
#include "transport.h"

namespace tarvik::test {

struct Releaser {
    void operator()(libTarvik* p) const { zq_ReleaseTarvik(p); }
};
using TarvikPtr = std::unique_ptr<TarvikImpl, Releaser>;

// How the library reaches the camera: the column every device table runs in.
enum class Transport { kUsb, kKernel };

inline std::string TransportName(const testing::TestParamInfo<Transport>& info) {
    return info.param == Transport::kUsb ? "usb" : "kernel";
}

inline auto BothTransports() { return testing::Values(Transport::kUsb, Transport::kKernel); }

// What one call did: its result, its lines and the transfers it made.
struct Outcome {
    HRESULT result = 0;
    std::string out;
    std::vector<sim::Transfer> wire;
};

// A setup packet on the extension unit: request type, request, selector, length.
inline testing::AssertionResult IsRequest(const sim::Transfer& t, std::uint8_t type,
                                          std::uint8_t request, int selector, int length) {
    const sim::SetupPacket& s = t.setup;
    if (s.bmRequestType == type && s.bRequest == request && s.wValue == selector << 8 &&
        s.wIndex == 0x0500 && s.wLength == length) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << sim::Describe(t);
}

inline testing::AssertionResult IsSetCur(const sim::Transfer& t, int selector, const Bytes& data) {
    testing::AssertionResult setup = IsRequest(t, 0x21, 0x01, selector, static_cast<int>(data.size()));
    if (!setup || t.out == data) return setup;
    return testing::AssertionFailure() << sim::Describe(t) << "\n sent " << testing::PrintToString(t.out)
                                       << "\n expected " << testing::PrintToString(data);
}

inline testing::AssertionResult IsGetCur(const sim::Transfer& t, int selector, int length) {
    return IsRequest(t, 0xA1, 0x81, selector, length);
}

// Open descriptors but sockets. The library and libusb open none; the
// emulation's worker thread closes its end of a device node's socket some
// time after the node is closed, which no test must wait for.
inline std::vector<std::string> OpenDescriptors() {
    std::vector<std::string> open;
    DIR* d = opendir("/proc/self/fd");
    while (const dirent* e = readdir(d)) {
        char target[256] = {};
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        if (e->d_name[0] != '.' && readlink(path.c_str(), target, sizeof target - 1) > 0 &&
            std::strncmp(target, "socket:", 7) != 0 && path != "/proc/self/fd/" + std::to_string(dirfd(d))) {
            open.push_back(std::string(e->d_name) + " " + target);
        }
    }
    closedir(d);
    return open;
}

// One simulated camera on bus 1, address 2, reached through the transport of
// the test's parameter (usb when the test has none).
class DeviceTest : public testing::Test {
protected:
    DeviceTest() : m_camera(&m_bed.AddCamera(1, 2)) {}
    void TearDown() override { transport::set_control_timeout_ms(transport::kControlTimeoutMs); }

    // A control timeout for the transfers that follow, on either path.
    void SetTimeout(Transport path, unsigned ms) {
        if (path == Transport::kUsb) {
            transport::set_control_timeout_ms(ms);
        } else {
            m_bed.SetDriverTimeout(std::chrono::milliseconds(ms));
        }
    }

    sim::Camera& Cam() { return *m_camera; }

    // The camera answers the next read request with these frames.
    void QueueAnswer(const std::vector<const char*>& frames) {
        std::vector<sim::Frame> answer;
        for (const char* f : frames) {
            const Bytes b = Hex(f, sim::kFrameLength);
            answer.emplace_back();
            std::copy(b.begin(), b.end(), answer.back().begin());
        }
        m_camera->Model().QueueAnswer(answer);
    }
    sim::CameraModel& Model() { return m_camera->Model(); }

    // Opens the camera through the factory (for the kernel path, its capture
    // node); its lines and transfers are dropped. With `primed`, the marker
    // has been sent too, and the transaction channel used once (the video
    // driver asks a control's length and info itself on its first use).
    TarvikPtr Open(Transport path = Transport::kUsb, bool primed = true) {
        StdoutCapture quiet;
        TarvikPtr t(static_cast<TarvikImpl*>(
            path == Transport::kUsb ? zq_CreateTarvik(nullptr, -1, -1)
                                    : zq_CreateTarvikOnVideo(m_camera->VideoNode().c_str())));
        unsigned int length = 0;
        if (t != nullptr && primed) {
            t->SetMarker();
            t->_GetLength(14, &length);
        }
        quiet.Take();
        m_camera->ClearLog();
        return t;
    }

    // Runs `call`, capturing its lines and the requests it made (not those the
    // video driver makes of its own on a control's first use).
    Outcome Run(const std::function<HRESULT()>& call) {
        m_camera->ClearLog();
        StdoutCapture capture;
        Outcome o;
        o.result = call();
        o.out = capture.Take();
        for (sim::Transfer& t : m_camera->TakeLog()) {
            if (!t.byDriver) o.wire.push_back(std::move(t));
        }
        return o;
    }

    sim::Testbed m_bed;
    sim::Camera* m_camera;
};

}  // namespace tarvik::test
