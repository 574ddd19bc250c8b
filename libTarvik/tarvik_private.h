// What a TarvikImpl holds beyond its described members: how the camera is
// reached, and the lock shared with other processes. Internal to the library.
#ifndef TARVIK_PRIVATE_H
#define TARVIK_PRIVATE_H

#include <memory>
#include <string>

#include "camera_lock.h"
#include "transport.h"

class TarvikImpl;

namespace tarvik {

class TarvikPrivate {
public:
    // Null while no device is open.
    std::unique_ptr<Transport> transport;
    // The kernel path: the capture node this object opened.
    std::string videoNode;
    // The USB path: interface 0 claimed after the kernel driver was detached.
    bool interfaceClaimed = false;
    // Where the camera sits, once open.
    int bus = 0;
    int address = 0;
    CameraLock cameraLock;
};

// How to reach the camera: libusb, the kernel's video driver, or the driver
// when it holds the camera and libusb otherwise.
enum class Choice { kUsb, kKernel, kAuto };

// Opens the camera at `bus`/`address` (-1 in either: the first) the chosen
// way. 0, or -1 after the lines saying why.
int open_camera(TarvikImpl& impl, int bus, int address, Choice choice);

// The same, the way TARVIK_TRANSPORT says (usb, the default; kernel; auto).
int open_by_environment(TarvikImpl& impl, int bus, int address);

// The kernel path to `node`, or to the first camera's capture node when it is
// null. 0, or -1 after the lines saying why.
int open_video_node(TarvikImpl& impl, const char* node);

// Closes what the kernel path opened; nothing when it opened nothing.
void release_video_node(TarvikImpl& impl);

// The camera's lock file, for the camera at `bus`/`address`; says so once
// when it cannot be made.
void open_camera_lock(TarvikImpl& impl, int bus, int address);

}  // namespace tarvik

#endif
