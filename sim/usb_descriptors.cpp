#include "usb_descriptors.h"

#include <cstdio>

#include "byte_order.h"
#include "camera_state.h"

namespace tarvik::sim {

namespace {

constexpr char kBusRoot[] = "/sys/devices/pci0000:00/0000:00:14.0";

uint8_t Lo(uint16_t v) { return static_cast<uint8_t>(v & 0xFF); }
uint8_t Hi(uint16_t v) { return static_cast<uint8_t>(v >> 8); }

std::vector<uint8_t> DeviceDescriptor(uint8_t cls, uint8_t sub, uint8_t proto, uint16_t vid,
                                      uint16_t pid, uint8_t product, uint8_t serial) {
    return {0x12,    0x01,    0x00,    0x02, cls,  sub,  proto,   0x40,   Lo(vid),
            Hi(vid), Lo(pid), Hi(pid), 0x00, 0x01, 0x00, product, serial, 0x01};
}

void AppendConfig(std::vector<uint8_t>& out, const std::vector<uint8_t>& body) {
    const auto total = static_cast<uint16_t>(9 + body.size());
    const std::vector<uint8_t> config = {0x09, 0x02, Lo(total), Hi(total), 0x01,
                                         0x01, 0x00, 0x80,      0xFA};
    out.insert(out.end(), config.begin(), config.end());
    out.insert(out.end(), body.begin(), body.end());
}

std::string Padded(int value, int width) {
    std::string text = std::to_string(value);
    return std::string(text.size() < static_cast<size_t>(width) ? width - text.size() : 0, '0') +
           text;
}

std::string Hex4(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value);
    return text;
}

}  // namespace

std::vector<uint8_t> CameraDescriptors() {
    std::vector<uint8_t> out = DeviceDescriptor(0xEF, 0x02, 0x01, kCameraVendorId, kCameraProductId,
                                                kProductStringIndex, kSerialStringIndex);
    std::vector<uint8_t> body = {
        // Interface 0: VideoControl, no endpoints.
        0x09, 0x04, kInterface, 0x00, 0x00, 0x0E, 0x01, 0x00, 0x00,
        // Class-specific VC header: UVC 1.00, total length 12 + 27, 48 MHz clock, no streaming.
        0x0C, 0x24, 0x01, 0x00, 0x01, 0x27, 0x00, 0x00, 0x6C, 0xDC, 0x02, 0x00,
        // Extension unit 5, one input pin (unit 1), two bytes of control bits.
        0x1B, 0x24, 0x06, kUnitId, 0x53, 0x49, 0x4D, 0x2D, 0x54, 0x41, 0x52, 0x56, 0x49, 0x4B, 0x2D,
        0x58, 0x55, 0x00, 0x00, 0x01, 0x0E, 0x01, 0x01, 0x02, Lo(kExtensionControls),
        Hi(kExtensionControls), 0x00};
    AppendConfig(out, body);
    return out;
}

std::vector<uint8_t> OtherDeviceDescriptors(uint16_t vendorId, uint16_t productId) {
    std::vector<uint8_t> out = DeviceDescriptor(0xFF, 0x00, 0x00, vendorId, productId, 0, 0);
    AppendConfig(out, {0x09, 0x04, 0x00, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x00});
    return out;
}

std::string DeviceNodePath(int bus, int address) {
    return "/dev/bus/usb/" + Padded(bus, 3) + "/" + Padded(address, 3);
}

std::string DeviceSysPath(int bus, int port) {
    const std::string b = std::to_string(bus);
    return std::string(kBusRoot) + "/usb" + b + "/" + b + "-" + std::to_string(port);
}

std::string InterfaceName(int bus, int port) {
    return std::to_string(bus) + "-" + std::to_string(port) + ":1.0";
}

std::string DriverLinkTarget() { return "../../../../../../bus/usb/drivers/uvcvideo"; }

std::string UmockdevDeviceText(int bus, int port, int address,
                               const std::vector<uint8_t>& descriptors, const std::string& serial) {
    const std::string b = Padded(bus, 3);
    const std::string d = Padded(address, 3);
    std::string text = "P: " + DeviceSysPath(bus, port).substr(4) + "\n" +
                       "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n" + "E: DEVNAME=/dev/bus/usb/" +
                       b + "/" + d + "\n" + "E: BUSNUM=" + b + "\nE: DEVNUM=" + d + "\n" +
                       "A: busnum=" + std::to_string(bus) + "\\n\n" +
                       "A: devnum=" + std::to_string(address) + "\\n\n" +
                       "A: devpath=" + std::to_string(port) + "\\n\n" +
                       "A: speed=480\\n\nA: bConfigurationValue=1\\n\n" +
                       "A: idVendor=" + Hex4(GetLe16(&descriptors[8])) + "\\n\n" +
                       "A: idProduct=" + Hex4(GetLe16(&descriptors[10])) + "\\n\n";
    if (descriptors[15] == kProductStringIndex) {
        text += std::string("A: product=") + kCameraProductName + "\\n\n";
    }
    if (!serial.empty()) {
        text += "A: serial=" + serial + "\\n\nE: ID_SERIAL_SHORT=" + serial + "\n";
    }
    return text;
}

std::string UmockdevInterfaceText(int bus, int port, bool driverBound) {
    std::string text =
        "P: " + DeviceSysPath(bus, port).substr(4) + "/" + InterfaceName(bus, port) + "\n";
    text +=
        "E: SUBSYSTEM=usb\n"
        "E: DEVTYPE=usb_interface\n"
        "A: bInterfaceNumber=00\\n\n"
        "A: bInterfaceClass=0e\\n\n"
        "A: bInterfaceSubClass=01\\n\n";
    if (driverBound) text += "E: DRIVER=uvcvideo\n";
    return text;
}

std::string UmockdevVideoText(int bus, int port, int index, bool metadata) {
    const std::string name = "video" + std::to_string(index);
    const std::string number = std::to_string(index);
    return "P: " + DeviceSysPath(bus, port).substr(4) + "/" + InterfaceName(bus, port) +
           "/video4linux/" + name + "\n" +
           "E: SUBSYSTEM=video4linux\n"
           "E: DEVNAME=/dev/" +
           name + "\n" + "E: MAJOR=" + std::to_string(kVideoMajor) + "\nE: MINOR=" + number + "\n" +
           "A: dev=" + std::to_string(kVideoMajor) + ":" + number + "\\n\n" +
           "A: name=" + kCameraProductName + "\\n\n" + "A: index=" + (metadata ? "1" : "0") +
           "\\n\n";
}

std::string VideoDeviceLinkTarget(int bus, int port) {
    return "../../../" + InterfaceName(bus, port);
}

}  // namespace tarvik::sim
