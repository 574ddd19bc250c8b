// The cameras on the USB buses, found with libusb directly (for `list`, and to explain
// why the camera could not be opened).
#pragma once

#include <string>
#include <vector>

namespace tarvikctl {

constexpr unsigned kCameraVendorId = 0x0AC8;
constexpr unsigned kCameraProductId = 0x010C;

struct CameraLocation {
    int bus;
    int address;
};

// Every accepted camera, in libusb's order. Throws ToolError when libusb can't start.
std::vector<CameraLocation> ScanCameras();

// Why opening a camera at bus/address (-1: any) failed, given the cameras on the buses.
std::string ExplainOpenFailure(const std::vector<CameraLocation>& cameras, int bus, int address);

}  // namespace tarvikctl
