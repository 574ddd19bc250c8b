// Injected faults reach a libusb caller as the codes a real device would give.
#include <gtest/gtest.h>
#include <libusb.h>

#include <chrono>

#include "testbed.h"

namespace tarvik::sim {
namespace {

struct FaultCase {
    const char* name;
    Fault fault;
    int expected;  // libusb_control_transfer's result for a 60-byte GET_CUR on selector 14
    TransferStatus logged;
};

class FaultAtLibusb : public ::testing::TestWithParam<FaultCase> {
protected:
    void SetUp() override {
        m_camera = &m_bed.AddCamera(1, 2, false);  // usbfs lets a program in only when unbound
        ASSERT_EQ(libusb_init(&m_ctx), 0);
        m_handle = libusb_open_device_with_vid_pid(m_ctx, kCameraVendorId, kCameraProductId);
        ASSERT_NE(m_handle, nullptr);
    }
    void TearDown() override {
        if (m_handle != nullptr) libusb_close(m_handle);
        libusb_exit(m_ctx);
    }
    int GetFrame(unsigned timeoutMs = 100) {
        std::vector<uint8_t> frame(60, 0);
        return libusb_control_transfer(m_handle, kRequestTypeIn, kGetCur, 14 << 8, kUnitIndex,
                                       frame.data(), 60, timeoutMs);
    }
    int SetFrame(std::vector<uint8_t> frame) {
        return libusb_control_transfer(m_handle, kRequestTypeOut, kSetCur, 14 << 8, kUnitIndex,
                                       frame.data(), 60, 100);
    }

    Testbed m_bed;
    Camera* m_camera = nullptr;
    libusb_context* m_ctx = nullptr;
    libusb_device_handle* m_handle = nullptr;
};

TEST_P(FaultAtLibusb, ShowsAsTheRealDeviceCodeThenHeals) {
    const FaultCase& c = GetParam();
    m_camera->Model().InjectFault(c.fault);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetFrame(), c.expected) << libusb_error_name(c.expected);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(GetFrame(), c.fault.count > 1 ? c.expected : 60);
    const std::vector<Transfer> log = m_camera->TakeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front().status, c.logged) << Describe(log.front());
}

Fault Aimed(FaultKind kind) { return Fault{kind, 14, Direction::kIn}; }

INSTANTIATE_TEST_SUITE_P(
    Kinds, FaultAtLibusb,
    ::testing::Values(
        FaultCase{"Stall", Aimed(FaultKind::kStall), LIBUSB_ERROR_PIPE, TransferStatus::kStalled},
        FaultCase{"Gone", Aimed(FaultKind::kGone), LIBUSB_ERROR_NO_DEVICE,
                  TransferStatus::kNoDevice},
        FaultCase{"Short", Fault{FaultKind::kShort, 14, Direction::kIn, kAnyRequest, 1, 0, 30}, 30,
                  TransferStatus::kCompleted},
        FaultCase{"Delay", Aimed(FaultKind::kDelay), LIBUSB_ERROR_TIMEOUT,
                  TransferStatus::kDiscarded},
        FaultCase{"StallTwice", Fault{FaultKind::kStall, 14, Direction::kIn, kAnyRequest, 2},
                  LIBUSB_ERROR_PIPE, TransferStatus::kStalled}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST_F(FaultAtLibusb, ADelayShorterThanTheTimeoutCompletes) {
    Fault f = Aimed(FaultKind::kDelay);
    f.delay = std::chrono::milliseconds(50);
    m_camera->Model().InjectFault(f);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetFrame(2000), 60);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(FaultAtLibusb, GoneForGoodFailsEveryLaterRequest) {
    m_camera->Model().InjectFault(Fault{FaultKind::kGoneForGood, kAnySelector});
    EXPECT_EQ(GetFrame(), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(SetFrame(std::vector<uint8_t>(60, 0)), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), LIBUSB_ERROR_NO_DEVICE);
}

TEST_F(FaultAtLibusb, GarbageReplacesTheAnswer) {
    std::vector<uint8_t> request(60, 0);
    request[1] = 0x10;
    request[4] = kItemVersion;
    m_camera->Model().InjectFault(Aimed(FaultKind::kGarbage));
    ASSERT_EQ(SetFrame(request), 60);
    std::vector<uint8_t> frame(60, 0);
    ASSERT_EQ(libusb_control_transfer(m_handle, kRequestTypeIn, kGetCur, 14 << 8, kUnitIndex,
                                      frame.data(), 60, 100),
              60);
    EXPECT_NE(std::string(frame.begin() + 4, frame.begin() + 9), "SIMFW");
}

TEST_F(FaultAtLibusb, SamGoneBetweenContinuationFrames) {
    std::vector<uint8_t> request(60, 0);
    request[1] = 0x10;
    request[4] = kItemSam;
    request[8] = 3;
    request[12] = 1;
    m_camera->Model().InjectSamFault(SamFault::kGoneMidPacket);
    ASSERT_EQ(SetFrame(request), 60);
    EXPECT_EQ(GetFrame(), 60);
    EXPECT_EQ(GetFrame(), LIBUSB_ERROR_NO_DEVICE);
}

}  // namespace
}  // namespace tarvik::sim
