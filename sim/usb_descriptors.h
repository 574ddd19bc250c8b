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

// A device has an address on its bus (its node, /dev/bus/usb/BBB/DDD, and sysfs devnum), which
// the host hands out anew each time the device is plugged in, and sits in a port of the root
// hub, which names its sysfs entries ("B-P") and stays the same across replugs into it.

// "/dev/bus/usb/BBB/DDD"
std::string DeviceNodePath(int bus, int address);
// "/sys/devices/.../usbB/B-P", the device's directory in sysfs.
std::string DeviceSysPath(int bus, int port);
// "B-P:1.0", the camera's interface 0 beside it.
std::string InterfaceName(int bus, int port);

// umockdev texts for sysfs entries: properties and text attributes only. umockdev sends the
// entry's "add" uevent before it writes binary attributes, links and the device node of a
// text, so the fixture makes those itself beforehand (testbed.cpp): a program told of a device
// finds it whole, as udev's monitor promises.
//
// The USB device (SUBSYSTEM usb, DEVTYPE usb_device), without its `descriptors` file.
// `serial` may be empty (none).
std::string UmockdevDeviceText(int bus, int port, int address,
                               const std::vector<uint8_t>& descriptors, const std::string& serial);
// Interface 0 of the camera, with DRIVER=uvcvideo when `driverBound` (not the `driver` link).
std::string UmockdevInterfaceText(int bus, int port, bool driverBound);
// /dev/video<index>: the capture node (metadata false) or the metadata node of the camera,
// without its `device` link.
std::string UmockdevVideoText(int bus, int port, int index, bool metadata);
// The `driver` link's target as uvcvideo's binding makes it, relative to the interface.
std::string DriverLinkTarget();
// The video node's `device` link's target: the interface it belongs to.
std::string VideoDeviceLinkTarget(int bus, int port);

}  // namespace tarvik::sim
