#include "usb_descriptors.h"

#include <cstdio>

#include "camera_state.h"

namespace tarvik::sim {

namespace {

uint8_t Lo(uint16_t v) { return static_cast<uint8_t>(v & 0xFF); }
uint8_t Hi(uint16_t v) { return static_cast<uint8_t>(v >> 8); }

std::vector<uint8_t> DeviceDescriptor(uint8_t cls, uint8_t sub, uint8_t proto, uint16_t vid,
                                      uint16_t pid) {
    return {0x12,    0x01,    0x00,    0x02, cls,  sub,  proto, 0x40, Lo(vid),
            Hi(vid), Lo(pid), Hi(pid), 0x00, 0x01, 0x00, 0x00,  0x00, 0x01};
}

void AppendConfig(std::vector<uint8_t>& out, const std::vector<uint8_t>& body) {
    const auto total = static_cast<uint16_t>(9 + body.size());
    const std::vector<uint8_t> config = {0x09, 0x02, Lo(total), Hi(total), 0x01,
                                         0x01, 0x00, 0x80,      0xFA};
    out.insert(out.end(), config.begin(), config.end());
    out.insert(out.end(), body.begin(), body.end());
}

}  // namespace

std::vector<uint8_t> CameraDescriptors() {
    std::vector<uint8_t> out =
        DeviceDescriptor(0xEF, 0x02, 0x01, kCameraVendorId, kCameraProductId);
    std::vector<uint8_t> body = {
        // Interface 0: VideoControl, no endpoints.
        0x09, 0x04, kInterface, 0x00, 0x00, 0x0E, 0x01, 0x00, 0x00,
        // Class-specific VC header: UVC 1.00, total length 12 + 27, 48 MHz clock, no streaming.
        0x0C, 0x24, 0x01, 0x00, 0x01, 0x27, 0x00, 0x00, 0x6C, 0xDC, 0x02, 0x00,
        // Extension unit 5, one input pin (unit 1), two bytes of control bits.
        0x1B, 0x24, 0x06, kUnitId, 0x53, 0x49, 0x4D, 0x2D, 0x54, 0x41, 0x52, 0x56, 0x49, 0x4B, 0x2D,
        0x58, 0x55, 0x00, 0x00, 0x01, 0x0E, 0x01, 0x01, 0x02, 0xFF, 0x3F, 0x00};
    AppendConfig(out, body);
    return out;
}

std::vector<uint8_t> OtherDeviceDescriptors(uint16_t vendorId, uint16_t productId) {
    std::vector<uint8_t> out = DeviceDescriptor(0xFF, 0x00, 0x00, vendorId, productId);
    AppendConfig(out, {0x09, 0x04, 0x00, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x00});
    return out;
}

std::string DeviceNodePath(int bus, int address) {
    char path[64];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", bus, address);
    return path;
}

std::string UmockdevDeviceText(int bus, int address, const std::vector<uint8_t>& descriptors) {
    char head[512];
    std::snprintf(head, sizeof head,
                  "P: /devices/pci0000:00/0000:00:14.0/usb%d/%d-%d\n"
                  "N: bus/usb/%03d/%03d\n"
                  "E: SUBSYSTEM=usb\n"
                  "E: DEVTYPE=usb_device\n"
                  "E: DEVNAME=/dev/bus/usb/%03d/%03d\n"
                  "E: BUSNUM=%03d\n"
                  "E: DEVNUM=%03d\n"
                  "A: busnum=%d\\n\n"
                  "A: devnum=%d\\n\n"
                  "A: speed=480\\n\n"
                  "A: bConfigurationValue=1\\n\n"
                  "A: idVendor=%04x\\n\n"
                  "A: idProduct=%04x\\n\n"
                  "H: descriptors=",
                  bus, bus, address, bus, address, bus, address, bus, address, bus, address,
                  descriptors[8] | descriptors[9] << 8, descriptors[10] | descriptors[11] << 8);
    std::string text = head;
    for (uint8_t b : descriptors) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", b);
        text += hex;
    }
    text += "\n";
    return text;
}

}  // namespace tarvik::sim
