// The extension unit through libusb control transfers.
#include <libusb.h>

#include <atomic>

#include "transport.h"

namespace tarvik {
namespace {

constexpr std::uint8_t kRequestTypeIn = 0xA1;   // device to host, class, interface
constexpr std::uint8_t kRequestTypeOut = 0x21;  // host to device, class, interface
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint8_t kGetLen = 0x85;
constexpr std::uint16_t kUnitAndInterface = 0x0500;  // unit id 5 in the high byte, interface 0

std::atomic<unsigned> g_timeoutMs{transport::kControlTimeoutMs};

class UsbTransport : public Transport {
public:
    explicit UsbTransport(libusb_device_handle* handle) : m_handle(handle) {}

    int GetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Transfer(kRequestTypeIn, kGetCur, selector, data, length);
    }
    int SetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Transfer(kRequestTypeOut, kSetCur, selector, data, length);
    }
    int GetLen(int selector, std::uint8_t (&answer)[2]) override {
        return Transfer(kRequestTypeIn, kGetLen, selector, answer, sizeof answer);
    }

private:
    int Transfer(std::uint8_t requestType, std::uint8_t request, int selector, std::uint8_t* data,
                 std::uint16_t length) {
        return libusb_control_transfer(m_handle, requestType, request,
                                       static_cast<std::uint16_t>(selector << 8), kUnitAndInterface,
                                       data, length, g_timeoutMs.load());
    }

    libusb_device_handle* m_handle;
};

}  // namespace

std::unique_ptr<Transport> MakeUsbTransport(libusb_device_handle* handle) {
    return std::make_unique<UsbTransport>(handle);
}

namespace transport {
void set_control_timeout_ms(unsigned ms) { g_timeoutMs.store(ms); }
}  // namespace transport

}  // namespace tarvik
