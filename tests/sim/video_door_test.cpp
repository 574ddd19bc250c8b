// The driver's side of a simulated camera: UVCIOC_CTRL_QUERY answered by the model behind the
// usbfs door, with the driver's checks and errors, and what usbfs claims and detaching do to it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libusb.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "testbed.h"

namespace tarvik::sim {
namespace {

using std::chrono::milliseconds;

class VideoDoor : public ::testing::Test {
protected:
    void SetUp() override {
        m_bed.SetDriverTimeout(milliseconds(200));
        m_fd = ::open(m_cam.VideoNode().c_str(), O_RDWR);
        ASSERT_GE(m_fd, 0);
    }
    void TearDown() override { ::close(m_fd); }
    // 0 or the errno of one query; `data` null sends a null pointer.
    int Ask(uint8_t unit, uint8_t selector, uint8_t query, uint16_t size, uint8_t* data) {
        uvc_xu_control_query q{unit, selector, query, size, data};
        return ::ioctl(m_fd, UVCIOC_CTRL_QUERY, &q) == 0 ? 0 : errno;
    }
    Testbed m_bed;
    Camera& m_cam = m_bed.AddCamera(1, 2);
    int m_fd = -1;
};

TEST_F(VideoDoor, TheDriversChecksAndItsOwnFirstRequests) {
    std::vector<uint8_t> buf(64);
    const struct {
        uint8_t unit, selector, query;
        uint16_t size;
        int error;
    } cases[] = {
        {5, 14, UVC_GET_CUR, 60, 0},       {5, 14, UVC_GET_CUR, 59, ENOBUFS},
        {5, 14, UVC_SET_CUR, 61, ENOBUFS}, {5, 14, UVC_GET_LEN, 60, ENOBUFS},
        {5, 14, UVC_GET_INFO, 1, 0},       {5, 14, 0x42, 60, EINVAL},
        {6, 14, UVC_GET_CUR, 60, ENOENT},  {5, 15, UVC_GET_CUR, 60, ENOENT},
        {5, 1, UVC_SET_CUR, 8, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Ask(c.unit, c.selector, c.query, c.size, buf.data()), c.error)
            << int(c.unit) << ":" << int(c.selector) << " query " << int(c.query);
    }
    EXPECT_EQ(Ask(5, 14, UVC_GET_CUR, 60, nullptr), EFAULT);
    // The driver's GET_LEN and GET_INFO of 14 and of 1, once each, and the three that reached
    // the camera, with the setup packets usbfs would have carried.
    std::string log;
    for (const Transfer& t : m_cam.TakeLog())
        log += Describe(t).substr(0, Describe(t).find('[')) + "\n";
    EXPECT_EQ(log,
              "GET_LEN (a1 85 0e00 0500 2) sel 14 video driver -> completed 2 \n"
              "GET_INFO (a1 86 0e00 0500 1) sel 14 video driver -> completed 1 \n"
              "GET_CUR (a1 81 0e00 0500 60) sel 14 video -> completed 60 \n"
              "GET_INFO (a1 86 0e00 0500 1) sel 14 video -> completed 1 \n"
              "GET_LEN (a1 85 0100 0500 2) sel 1 video driver -> completed 2 \n"
              "GET_INFO (a1 86 0100 0500 1) sel 1 video driver -> completed 1 \n"
              "SET_CUR (21 01 0100 0500 8) sel 1 video -> completed 8 \n");
}

// The other faults are tarvik-sim's cases (tool_cases.cmake).
TEST_F(VideoDoor, ShortAnswersAreZeroFilledAndSlowOnesTimeOut) {
    uint8_t marker[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(Ask(5, 1, UVC_SET_CUR, 8, marker), 0);
    m_cam.Model().InjectFault({FaultKind::kShort, 1, Direction::kIn, kAnyRequest, 1, 0, 3});
    EXPECT_EQ(Ask(5, 1, UVC_GET_CUR, 8, marker), 0);
    EXPECT_EQ(std::vector<uint8_t>(marker, marker + 8),
              (std::vector<uint8_t>{1, 2, 3, 4, 5, 0, 0, 0}));
    m_cam.Model().InjectFault({FaultKind::kDelay, 1, Direction::kIn});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Ask(5, 1, UVC_GET_CUR, 8, marker), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
}

TEST_F(VideoDoor, OneUsbfsFileHoldsTheInterfaceAndDetachTakesTheNodeAway) {
    libusb_context* ctx = nullptr;
    ASSERT_EQ(libusb_init(&ctx), 0);
    libusb_device_handle* first = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
    libusb_device_handle* second = nullptr;
    ASSERT_EQ(libusb_open(libusb_get_device(first), &second), 0);
    uint8_t marker[8] = {};
    auto send = [&](libusb_device_handle* h) {
        return libusb_control_transfer(h, 0x21, UVC_SET_CUR, 1 << 8, 0x0500, marker, 8, 1000);
    };
    EXPECT_EQ(send(first), LIBUSB_ERROR_IO) << "uvcvideo holds the interface";
    ASSERT_EQ(libusb_detach_kernel_driver(first, 0), 0);
    EXPECT_EQ(Ask(5, 1, UVC_GET_CUR, 8, marker), ENODEV);
    EXPECT_EQ(::open(m_cam.VideoNode().c_str(), O_RDWR) < 0 ? errno : 0, ENODEV);
    EXPECT_EQ(send(first), 8);
    EXPECT_TRUE(m_cam.InterfaceClaimed());
    EXPECT_EQ(send(second), LIBUSB_ERROR_IO);
    EXPECT_EQ(libusb_claim_interface(second, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_attach_kernel_driver(second, 0), LIBUSB_ERROR_BUSY);
    libusb_close(first);
    EXPECT_EQ(libusb_claim_interface(second, 0), 0) << "closing releases";
    EXPECT_EQ(libusb_release_interface(second, 0), 0);
    EXPECT_EQ(libusb_attach_kernel_driver(second, 0), 0);
    EXPECT_EQ(Ask(5, 1, UVC_GET_CUR, 8, marker), 0);
    libusb_close(second);
    libusb_exit(ctx);
}

}  // namespace
}  // namespace tarvik::sim
