// The fixture and the usbfs bridge, seen through the real libusb of this process.
#include <gtest/gtest.h>
#include <libusb.h>

#include <set>

#include "testbed.h"

namespace tarvik::sim {
namespace {

constexpr unsigned kTimeout = 1000;

struct Found {
    uint16_t vid, pid;
    int bus, address;
    bool operator<(const Found& o) const {
        return std::tie(bus, address, vid, pid) < std::tie(o.bus, o.address, o.vid, o.pid);
    }
    bool operator==(const Found& o) const { return !(*this < o) && !(o < *this); }
};

class Bridge : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Testbed::InMockEnvironment()); }
    void TearDown() override {
        if (m_handle != nullptr) libusb_close(m_handle);
        if (m_ctx != nullptr) libusb_exit(m_ctx);
    }
    std::set<Found> Enumerate() {
        if (m_ctx == nullptr) libusb_init(&m_ctx);
        libusb_device** list = nullptr;
        const ssize_t n = libusb_get_device_list(m_ctx, &list);
        std::set<Found> found;
        for (ssize_t i = 0; i < n; ++i) {
            libusb_device_descriptor d{};
            libusb_get_device_descriptor(list[i], &d);
            found.insert({d.idVendor, d.idProduct, libusb_get_bus_number(list[i]),
                          libusb_get_device_address(list[i])});
        }
        libusb_free_device_list(list, 1);
        return found;
    }
    libusb_device_handle* Open(int bus, int address) {
        Enumerate();
        libusb_device** list = nullptr;
        const ssize_t n = libusb_get_device_list(m_ctx, &list);
        for (ssize_t i = 0; i < n; ++i) {
            if (libusb_get_bus_number(list[i]) == bus &&
                libusb_get_device_address(list[i]) == address) {
                EXPECT_EQ(libusb_open(list[i], &m_handle), 0);
            }
        }
        libusb_free_device_list(list, 1);
        return m_handle;
    }
    int Control(uint8_t type, uint8_t request, uint16_t selector, std::vector<uint8_t>& data,
                uint16_t index = 0x0500) {
        return libusb_control_transfer(m_handle, type, request,
                                       static_cast<uint16_t>(selector << 8), index, data.data(),
                                       static_cast<uint16_t>(data.size()), kTimeout);
    }

    Testbed m_bed;
    libusb_context* m_ctx = nullptr;
    libusb_device_handle* m_handle = nullptr;
};

TEST_F(Bridge, ShowsEveryDeviceWhereItWasPut) {
    m_bed.AddCamera(1, 2);
    m_bed.AddCamera(3, 17, false);
    m_bed.AddOtherDevice(1, 5, 0x1234, 0x5678);
    EXPECT_EQ(
        Enumerate(),
        (std::set<Found>{{0x0AC8, 0x010C, 1, 2}, {0x0AC8, 0x010C, 3, 17}, {0x1234, 0x5678, 1, 5}}));
    EXPECT_THROW(m_bed.AddCamera(1, 2), std::runtime_error);
}

TEST_F(Bridge, KernelDriverDetachesAndReattaches) {
    Camera& bound = m_bed.AddCamera(1, 2);
    m_bed.AddCamera(1, 3, false);
    ASSERT_NE(Open(1, 2), nullptr);
    EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), 1);
    EXPECT_EQ(libusb_detach_kernel_driver(m_handle, 0), 0);
    EXPECT_FALSE(bound.KernelDriverAttached());
    EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), 0);
    EXPECT_EQ(libusb_detach_kernel_driver(m_handle, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_attach_kernel_driver(m_handle, 0), 0);
    EXPECT_TRUE(bound.KernelDriverAttached());
    libusb_close(m_handle);
    m_handle = nullptr;

    ASSERT_NE(Open(1, 3), nullptr);
    EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), 0);
}

TEST_F(Bridge, LogRecordsTheExactBytesBothWays) {
    Camera& cam = m_bed.AddCamera(1, 2, false);
    ASSERT_NE(Open(1, 2), nullptr);
    std::vector<uint8_t> request(60, 0);
    request[1] = 0x10;
    request[4] = kItemRoi;
    std::vector<uint8_t> answer(60, 0);
    std::vector<uint8_t> len(2, 0);
    EXPECT_EQ(Control(0xA1, kGetLen, 14, len), 2);
    EXPECT_EQ(Control(0x21, kSetCur, 14, request), 60);
    EXPECT_EQ(Control(0xA1, kGetCur, 14, answer), 60);
    EXPECT_EQ(GetLe32(&answer[4]), 100u);  // first ROI value of the default state

    const std::vector<Transfer> log = cam.TakeLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].in, (std::vector<uint8_t>{60, 0}));
    EXPECT_EQ(log[1].setup.bmRequestType, 0x21);
    EXPECT_EQ(log[1].setup.bRequest, kSetCur);
    EXPECT_EQ(log[1].setup.wValue, 0x0E00);
    EXPECT_EQ(log[1].setup.wIndex, 0x0500);
    EXPECT_EQ(log[1].setup.wLength, 60);
    EXPECT_EQ(log[1].out, request);
    EXPECT_TRUE(log[1].in.empty());
    EXPECT_EQ(log[2].in, answer);
    EXPECT_EQ(log[2].status, TransferStatus::kCompleted);
    EXPECT_EQ(log[2].actualLength, 60u);
    EXPECT_TRUE(cam.Log().empty());
}

TEST_F(Bridge, StateChangesShowInTheNextAnswer) {
    Camera& cam = m_bed.AddCamera(1, 2, false);
    ASSERT_NE(Open(1, 2), nullptr);
    cam.Model().Update([](CameraState& s) { s.plainControls[3] = {0x55, 0x66}; });
    std::vector<uint8_t> two(2, 0);
    EXPECT_EQ(Control(0xA1, kGetCur, 3, two), 2);
    EXPECT_EQ(two, (std::vector<uint8_t>{0x55, 0x66}));
}

TEST_F(Bridge, TheOtherDeviceStallsAndHasNoDriver) {
    m_bed.AddOtherDevice(2, 4);
    ASSERT_NE(Open(2, 4), nullptr);
    EXPECT_EQ(libusb_kernel_driver_active(m_handle, 0), 0);
    std::vector<uint8_t> data(60, 0);
    EXPECT_EQ(Control(0xA1, kGetCur, 14, data), LIBUSB_ERROR_PIPE);
}

}  // namespace
}  // namespace tarvik::sim
