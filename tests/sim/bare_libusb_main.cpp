// A bare libusb program, no library code: run under `tarvik-sim run`, it finds the camera at
// the bus and address given, detaches the kernel driver, reads the version item and a whole
// card (SAM command 3) frame by frame, checks the packet's XOR checksum and the card's name,
// releases the interface its transfers claimed and puts the driver back. Exit status 0 when all of
// that holds.
#include <libusb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr unsigned kTimeoutMs = 2000;
constexpr uint16_t kUnit = 0x0500;
constexpr uint16_t kChannel = 14 << 8;

int Fail(const char* what, int code = 0) {
    std::fprintf(stderr, "bare_libusb: %s (%d %s)\n", what, code, libusb_error_name(code));
    return 1;
}

bool Request(libusb_device_handle* h, const std::vector<unsigned char>& frame) {
    auto copy = frame;
    return libusb_control_transfer(h, 0x21, 0x01, kChannel, kUnit, copy.data(), 60, kTimeoutMs) ==
           60;
}

bool Answer(libusb_device_handle* h, std::vector<unsigned char>& frame) {
    frame.assign(60, 0);
    return libusb_control_transfer(h, 0xA1, 0x81, kChannel, kUnit, frame.data(), 60, kTimeoutMs) ==
           60;
}

std::vector<unsigned char> ReadRequest(unsigned item) {
    std::vector<unsigned char> f(60, 0);
    f[1] = 0x10;
    f[4] = static_cast<unsigned char>(item);
    return f;
}

int Exchange(libusb_device_handle* h) {
    std::vector<unsigned char> marker(8, 0);
    if (libusb_control_transfer(h, 0x21, 0x01, 1 << 8, kUnit, marker.data(), 8, kTimeoutMs) != 8) {
        return Fail("marker");
    }
    std::vector<unsigned char> frame;
    if (!Request(h, ReadRequest(5)) || !Answer(h, frame)) return Fail("version transfer");
    if (std::memcmp(&frame[4], "SIMFW", 5) != 0) return Fail("version content");

    std::vector<unsigned char> sam = ReadRequest(12);
    sam[8] = 3;
    sam[12] = 1;
    if (!Request(h, sam) || !Answer(h, frame)) return Fail("SAM first frame");
    if (frame[4] != 3 || frame[5] != 0 || frame[6] != 0 || frame[7] != 0)
        return Fail("SAM echo/result");
    const size_t total = ((frame[8] << 8) | frame[9]) + 2u;
    if (total != 1290) return Fail("SAM packet length", static_cast<int>(total));
    std::vector<unsigned char> packet;
    while (true) {
        const size_t n = std::min<size_t>(52, total - packet.size());
        packet.insert(packet.end(), frame.begin() + 8, frame.begin() + 8 + static_cast<long>(n));
        if (packet.size() == total) break;
        if (!Answer(h, frame)) return Fail("SAM continuation frame");
    }
    unsigned char x = 0;
    for (size_t i = 0; i + 1 < total; ++i) x ^= packet[i];
    if (x != packet[total - 1]) return Fail("SAM checksum");
    if (packet[4] != 0x90) return Fail("SAM status");
    // 张三 as UCS-2 little-endian at the start of the text block.
    const unsigned char name[] = {0x20, 0x5F, 0x09, 0x4E};
    if (std::memcmp(&packet[9], name, sizeof name) != 0) return Fail("card name");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return Fail("usage: bare_libusb BUS ADDRESS");
    const int bus = std::atoi(argv[1]);
    const int address = std::atoi(argv[2]);
    libusb_context* ctx = nullptr;
    int r = libusb_init(&ctx);
    if (r != 0) return Fail("libusb_init", r);
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(ctx, &list);
    libusb_device* camera = nullptr;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor d{};
        if (libusb_get_device_descriptor(list[i], &d) == 0 && d.idVendor == 0x0AC8 &&
            d.idProduct == 0x010C && libusb_get_bus_number(list[i]) == bus &&
            libusb_get_device_address(list[i]) == address) {
            camera = list[i];
        }
    }
    int status = 1;
    libusb_device_handle* h = nullptr;
    if (camera == nullptr) {
        Fail("camera not found");
    } else if ((r = libusb_open(camera, &h)) != 0) {
        Fail("libusb_open", r);
    } else if ((r = libusb_kernel_driver_active(h, 0)) != 1) {
        Fail("kernel driver not bound", r);
    } else if ((r = libusb_detach_kernel_driver(h, 0)) != 0 ||
               libusb_kernel_driver_active(h, 0) != 0) {
        Fail("detach", r);
    } else {
        // usbfs re-binds the driver only once interface 0 is released, and libusb releases only
        // what it claimed itself: claim it rather than let the first transfer do it.
        if ((r = libusb_claim_interface(h, 0)) != 0) Fail("claim", r);
        status = Exchange(h);
        if ((r = libusb_release_interface(h, 0)) != 0) status = Fail("release", r);
        if ((r = libusb_attach_kernel_driver(h, 0)) != 0) status = Fail("attach", r);
    }
    if (h != nullptr) libusb_close(h);
    libusb_free_device_list(list, 1);
    libusb_exit(ctx);
    return status;
}
