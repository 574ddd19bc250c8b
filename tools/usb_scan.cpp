#include "usb_scan.h"

#include <libusb.h>

#include <algorithm>

#include "result_codes.h"
#include "session.h"

namespace tarvikctl {

std::vector<CameraLocation> ScanCameras() {
    libusb_context* context = nullptr;
    const int r = libusb_init(&context);
    if (r != 0) {
        throw ToolError(kExitFailed, "libusb could not start: result " + DescribeResult(r));
    }
    std::vector<CameraLocation> found;
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor desc{};
        if (libusb_get_device_descriptor(list[i], &desc) != 0) continue;
        if (desc.idVendor == kCameraVendorId && desc.idProduct == kCameraProductId) {
            found.push_back({libusb_get_bus_number(list[i]), libusb_get_device_address(list[i])});
        }
    }
    if (count >= 0) libusb_free_device_list(list, 1);
    std::sort(found.begin(), found.end(), [](const CameraLocation& a, const CameraLocation& b) {
        return a.bus != b.bus ? a.bus < b.bus : a.address < b.address;
    });
    libusb_exit(context);
    if (count < 0) {
        throw ToolError(kExitFailed, "libusb could not list the devices: result " +
                                         DescribeResult(static_cast<int>(count)));
    }
    return found;
}

std::string ExplainOpenFailure(const std::vector<CameraLocation>& cameras, int bus, int address) {
    if (cameras.empty()) return "no camera (0ac8:010c) found";
    const bool any = bus < 0 || address < 0;
    for (const CameraLocation& c : cameras) {
        if (any || (c.bus == bus && c.address == address)) {
            return "the camera at bus " + std::to_string(c.bus) + ", address " +
                   std::to_string(c.address) +
                   " could not be opened (is it in use, or does this user lack access?)";
        }
    }
    std::string where;
    for (const CameraLocation& c : cameras) {
        where +=
            (where.empty() ? "" : ", ") + std::to_string(c.bus) + ":" + std::to_string(c.address);
    }
    return "no camera at bus " + std::to_string(bus) + ", address " + std::to_string(address) +
           " (cameras at bus:address " + where + ")";
}

}  // namespace tarvikctl
