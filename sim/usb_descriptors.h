// What a simulated USB device looks like in sysfs: descriptors and the umockdev device text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarvik::sim {

// Device descriptor followed by the configuration descriptor: a video-class camera whose
// interface 0 (VideoControl) carries extension unit 5.
std::vector<uint8_t> CameraDescriptors();
// A vendor-specific device with one interface and no endpoints.
std::vector<uint8_t> OtherDeviceDescriptors(uint16_t vendorId, uint16_t productId);

// "/dev/bus/usb/BBB/DDD"
std::string DeviceNodePath(int bus, int address);
// The umockdev text that creates the device and its node.
std::string UmockdevDeviceText(int bus, int address, const std::vector<uint8_t>& descriptors);

}  // namespace tarvik::sim
