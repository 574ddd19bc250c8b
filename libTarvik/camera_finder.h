// Finding the camera through sysfs: its place on the bus, whether the kernel's
// video driver holds it, its capture node, and the camera behind a node.
// Internal to the library.
#ifndef TARVIK_CAMERA_FINDER_H
#define TARVIK_CAMERA_FINDER_H

#include <optional>
#include <string>
#include <vector>

namespace tarvik {

struct UsbCamera {
    int bus = 0;
    int address = 0;
    std::string name;  // its sysfs name, e.g. "1-2": the camera's port, the same for every process
    std::string path;  // its sysfs directory
    std::string serial;  // its USB serial number, empty when it shows none
};

// Every camera (0x0AC8:0x010C) sysfs shows, by bus, then address.
std::vector<UsbCamera> find_cameras();

// The camera at `bus`/`address`; -1 in either: the first.
std::optional<UsbCamera> find_camera(int bus, int address);

// The camera whose USB serial number is `serial`.
std::optional<UsbCamera> find_camera_by_serial(const std::string& serial);

// Whether the kernel's uvcvideo driver is bound to the camera's interface 0.
bool video_driver_bound(const UsbCamera& camera);

// The camera's capture node ("/dev/videoN"), or empty when it has none.
std::string capture_node(const UsbCamera& camera);

// The camera that `node` is the capture node of; none, with `why` said, when
// it is no video node, another device's, or not a capture node.
std::optional<UsbCamera> camera_of_node(const std::string& node, std::string& why);

}  // namespace tarvik

#endif
