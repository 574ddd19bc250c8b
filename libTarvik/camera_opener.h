// The one place that opens and closes a camera: which camera and which path,
// then one of the two leaf connections (usb_connection.cpp through libusb,
// kernel_connection.cpp through the video driver's capture node), then the
// camera's lock. The leaves never call each other or this file. An object can
// be closed and opened again. Internal.
#ifndef TARVIK_CAMERA_OPENER_H
#define TARVIK_CAMERA_OPENER_H

#include <libusb.h>

#include <optional>
#include <string>

class TarvikImpl;

namespace tarvik {

// How to reach the camera: libusb, the kernel's video driver, or the driver
// when it holds the camera and libusb otherwise.
enum class Choice { kUsb, kKernel, kAuto };

// The way TARVIK_TRANSPORT says (usb, the default; kernel; auto).
Choice choice_from_environment();

// Which camera: its capture node, or its serial, or its place on the bus
// (-1 in either: the first), tried in that order.
struct CameraTarget {
    int bus = -1;
    int address = -1;
    std::string videoNode;
    std::optional<std::string> serial;  // "" is a serial no camera has
    Choice choice = Choice::kUsb;
};

// A camera found, but held by another program (the USB path sees that when
// it claims interface 0). The described C++ factory keeps such an object,
// whose transfers fail until the other program lets go; every newer front
// end refuses it with LIBUSB_ERROR_BUSY.
enum class InUse { kKeep, kRefuse };

// Closes what `impl` has open, then opens `target`. 0, or why not: a libusb
// code (ACCESS, BUSY, NO_DEVICE, ...) or TARVIK_E_NO_CAMERA; the leaves have
// logged the lines.
int open_camera(TarvikImpl& impl, const CameraTarget& target, InUse inUse);

// The line every factory ends its open with: "sdk inner open device ok" (or
// "failed", an error).
void say_opened(int result);

// An application's libusb handle, adopted: the USB path, never closed here.
void adopt_handle(TarvikImpl& impl, libusb_device_handle* handle);

// Closing is TarvikImpl::CloseCamera, here too: it gives back the camera's
// lock, the capture node or the libusb device and context, and forgets the
// marker, so that a reopened camera is sent it again.

}  // namespace tarvik

#endif
