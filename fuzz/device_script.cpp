#include "device_script.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarvik::fuzz {
namespace {

const std::uint8_t* g_data = nullptr;
std::size_t g_left = 0;
std::vector<SeenTransfer> g_seen;
alignas(16) unsigned char g_handleStorage[16];

std::uint8_t takeByte() {
    if (g_left == 0) return kOk;
    --g_left;
    return *g_data++;
}

// Fills `to` with the next `n` script bytes; zeros once the script is spent.
void takeBytes(unsigned char* to, std::size_t n) {
    const std::size_t k = std::min(n, g_left);
    if (k > 0) std::memcpy(to, g_data, k);
    std::memset(to + k, 0, n - k);
    g_data += k;
    g_left -= k;
}

int errorFor(std::uint8_t status) {
    if (status >= kIoError) return LIBUSB_ERROR_IO;
    if (status >= kTimeout) return LIBUSB_ERROR_TIMEOUT;
    if (status >= kGone) return LIBUSB_ERROR_NO_DEVICE;
    return LIBUSB_ERROR_PIPE;
}

}  // namespace

void StartScript(const std::uint8_t* data, std::size_t size) {
    g_data = data;
    g_left = size;
    g_seen.clear();
}

const std::vector<SeenTransfer>& Seen() { return g_seen; }

libusb_device_handle* FakeHandle() {
    return reinterpret_cast<libusb_device_handle*>(g_handleStorage);
}

void SilenceStdout() {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
}

void Fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "\nINVARIANT BROKEN: %s (%s:%d)\n", condition, file, line);
    std::abort();
}

}  // namespace tarvik::fuzz

using namespace tarvik::fuzz;

// The library's one way to the device, served from the script.
extern "C" int libusb_control_transfer(libusb_device_handle* handle, uint8_t requestType,
                                       uint8_t request, uint16_t value, uint16_t index,
                                       unsigned char* data, uint16_t length, unsigned int) {
    FUZZ_CHECK(handle == FakeHandle());
    FUZZ_CHECK(index == 0x0500);
    SeenTransfer seen{requestType, request, value >> 8, length, {}, {}, 0};
    const bool in = (requestType & 0x80) != 0;
    if (!in) seen.out.assign(data, data + length);

    const std::uint8_t status = takeByte();
    int result = length;
    if (status >= kStall) {
        result = errorFor(status);
    } else if (status >= kShortFirst) {
        result = length == 0 ? 0 : (status & 0x0F) % length;
    }
    if (in && result > 0) takeBytes(data, static_cast<std::size_t>(result));
    // A device may also move nothing at all; the caller then holds what its
    // buffer held before.
    if (in && result >= 0) seen.in.assign(data, data + length);
    seen.result = result;
    g_seen.push_back(std::move(seen));
    return result;
}

// The SAM path pauses a microsecond before each continuation frame; the pause
// means nothing to a scripted device and would cost a scheduler round trip.
extern "C" int usleep(useconds_t) { return 0; }
