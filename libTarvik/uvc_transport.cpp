#include "uvc_transport.h"

#include <libusb.h>

#include <atomic>

namespace tarvik::transport {
namespace {

constexpr std::uint8_t kRequestTypeIn = 0xA1;   // device to host, class, interface
constexpr std::uint8_t kRequestTypeOut = 0x21;  // host to device, class, interface
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint8_t kGetLen = 0x85;
constexpr std::uint16_t kUnitAndInterface = 0x0500;  // unit id 5 in the high byte, interface 0

std::atomic<unsigned> g_timeoutMs{kControlTimeoutMs};

std::uint16_t controlAddress(int selector) { return static_cast<std::uint16_t>(selector << 8); }

int transfer(libusb_device_handle* handle, std::uint8_t requestType, std::uint8_t request,
             int selector, unsigned char* data, std::uint16_t length) {
    return libusb_control_transfer(handle, requestType, request, controlAddress(selector),
                                   kUnitAndInterface, data, length, g_timeoutMs.load());
}

}  // namespace

void set_control_timeout_ms(unsigned ms) { g_timeoutMs.store(ms); }
unsigned control_timeout_ms() { return g_timeoutMs.load(); }

int get_cur(libusb_device_handle* handle, int selector, unsigned char* data, std::uint16_t length) {
    return transfer(handle, kRequestTypeIn, kGetCur, selector, data, length);
}

int set_cur(libusb_device_handle* handle, int selector, unsigned char* data, std::uint16_t length) {
    return transfer(handle, kRequestTypeOut, kSetCur, selector, data, length);
}

int get_len(libusb_device_handle* handle, int selector, unsigned char (&answer)[2]) {
    return transfer(handle, kRequestTypeIn, kGetLen, selector, answer, sizeof answer);
}

}  // namespace tarvik::transport
