// What a simulated USB device looks like: descriptors, and its sysfs entries as umockdev text
// (the device, the camera's interface 0 and the video4linux nodes of its driver).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarvik::sim {

// The extension unit's bmControls: selectors 1-14.
inline constexpr uint16_t kExtensionControls = 0x3FFF;
inline constexpr uint8_t kProductStringIndex = 2;
inline constexpr uint8_t kSerialStringIndex = 3;
inline constexpr char kCameraProductName[] = "Tarvik Dual-Eye Camera";
inline constexpr unsigned kVideoMajor = 81;

// Device descriptor followed by the configuration descriptor: a video-class camera whose
// interface 0 (VideoControl) carries extension unit 5, with product and serial strings.
std::vector<uint8_t> CameraDescriptors();
// A vendor-specific device with one interface and no endpoints.
std::vector<uint8_t> OtherDeviceDescriptors(uint16_t vendorId, uint16_t productId);

// "/dev/bus/usb/BBB/DDD"
std::string DeviceNodePath(int bus, int address);
// "/sys/devices/.../usbB/B-A", the device's directory in sysfs.
std::string DeviceSysPath(int bus, int address);
// "B-A:1.0", the camera's interface 0 beside it.
std::string InterfaceName(int bus, int address);

// The umockdev text that creates the device and its node. `serial` may be empty (none).
std::string UmockdevDeviceText(int bus, int address, const std::vector<uint8_t>& descriptors,
                               const std::string& serial);
// Interface 0 of the camera, with uvcvideo's `driver` link when `driverBound`.
std::string UmockdevInterfaceText(int bus, int address, bool driverBound);
// /dev/video<index>: the capture node (metadata false) or the metadata node of the camera.
std::string UmockdevVideoText(int bus, int address, int index, bool metadata);
// The `driver` link's target as uvcvideo's binding makes it, relative to the interface.
std::string DriverLinkTarget();

}  // namespace tarvik::sim
