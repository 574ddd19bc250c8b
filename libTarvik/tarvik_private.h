// What a TarvikImpl holds beyond its described members: how the camera is
// reached, which camera it is, and the lock shared with other processes.
// Internal to the library.
#ifndef TARVIK_PRIVATE_H
#define TARVIK_PRIVATE_H

#include <memory>
#include <string>

#include "camera_lock.h"
#include "transport.h"

namespace tarvik {

class TarvikPrivate {
public:
    // Null while no device is open.
    std::unique_ptr<Transport> transport;
    // The kernel path: the capture node this object opened.
    std::string videoNode;
    // The USB path: interface 0 claimed after the kernel driver was detached.
    bool interfaceClaimed = false;
    // Where the camera sits, once open, and which camera it is: its USB
    // serial and its sysfs directory (kept when the camera leaves).
    int bus = 0;
    int address = 0;
    std::string serial;
    std::string sysfsPath;
    std::string port;  // its sysfs name ("1-2"), the same after a replug into it
    // Why the last open failed, or found the camera held by another program: a
    // libusb code (ACCESS, BUSY, NO_DEVICE, ...); 0 when nothing was noted.
    int openFailure = 0;
    CameraLock cameraLock;
};

}  // namespace tarvik

#endif
