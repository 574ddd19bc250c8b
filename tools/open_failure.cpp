#include "open_failure.h"

#include <cstdio>
#include <optional>
#include <string>

namespace tarvikctl {

namespace {

tarvik_transport Transport(const std::string& name) {
    if (name == "usb") return TARVIK_TRANSPORT_USB;
    if (name == "kernel") return TARVIK_TRANSPORT_KERNEL;
    return TARVIK_TRANSPORT_AUTO;
}

bool KernelPath(const Selection& s) { return !s.video.empty() || s.transport == "kernel"; }

// The camera the selection names, among those found.
std::optional<tarvik_camera_info> Chosen(const std::vector<tarvik_camera_info>& cameras,
                                         const Selection& s) {
    for (const tarvik_camera_info& c : cameras) {
        const bool match = !s.video.empty()    ? s.video == c.video_node
                           : !s.serial.empty() ? s.serial == c.serial
                           : s.bus >= 0        ? c.bus == s.bus && c.address == s.address
                                               : true;
        if (match) return c;
    }
    return std::nullopt;
}

std::string Where(const tarvik_camera_info& c) {
    return "the camera at bus " + std::to_string(c.bus) + ", address " + std::to_string(c.address);
}

std::string UsbNode(const tarvik_camera_info& c) {
    char node[40];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", c.bus, c.address);
    return node;
}

// What the user may pick instead: "1:2, 1:3" or the serials or the capture nodes.
std::string Candidates(const std::vector<tarvik_camera_info>& cameras, const Selection& s) {
    std::string out;
    for (const tarvik_camera_info& c : cameras) {
        const std::string one = !s.video.empty() ? std::string(c.video_node)
                                : !s.serial.empty()
                                    ? std::string(c.serial)
                                    : std::to_string(c.bus) + ":" + std::to_string(c.address);
        if (!one.empty()) out += (out.empty() ? "" : ", ") + one;
    }
    return out.empty() ? "none" : out;
}

std::string NotFound(const std::vector<tarvik_camera_info>& cameras, const Selection& s,
                     const std::optional<tarvik_camera_info>& chosen) {
    const std::string ids = std::string("(") + kCameraIds + ")";
    if (cameras.empty()) return "no camera " + ids + " found";
    if (!s.video.empty() && !chosen) {
        return s.video + " is no camera's capture node (capture nodes: " + Candidates(cameras, s) +
               ")";
    }
    if (!s.serial.empty() && !chosen) {
        return "no camera with serial '" + s.serial + "' (serials: " + Candidates(cameras, s) + ")";
    }
    if (s.bus >= 0 && !chosen) {
        return "no camera at bus " + std::to_string(s.bus) + ", address " +
               std::to_string(s.address) + " (cameras at bus:address " + Candidates(cameras, s) +
               ")";
    }
    if (chosen && KernelPath(s) && chosen->video_node[0] == '\0') {
        return Where(*chosen) +
               " has no video node (the kernel's video driver does not hold it); "
               "--transport usb reaches it";
    }
    return chosen ? Where(*chosen) + " could not be opened" : "no camera " + ids + " found";
}

// The kernel path shares the camera only while the video driver holds it; a program
// that holds it through libusb has detached the driver, and with it the capture node.
std::string Busy(const tarvik_camera_info& c, const Selection& s) {
    const std::string busy = Where(c) + " is in use by another program";
    if (KernelPath(s)) return busy;
    if (c.video_node[0] != '\0') {
        return busy +
               "; the kernel path (--transport kernel) lets several programs share the "
               "camera";
    }
    return busy + " through libusb; it is free again when that program closes it";
}

std::string Explain(int result, const Selection& s) {
    const std::vector<tarvik_camera_info> cameras = ListCameras();
    const std::optional<tarvik_camera_info> chosen = Chosen(cameras, s);
    if (result == TARVIK_E_NO_CAMERA || !chosen) return NotFound(cameras, s, chosen);
    const std::string node = !s.video.empty() ? s.video : std::string(chosen->video_node);
    switch (result) {
        case TARVIK_LIBUSB_ERROR_ACCESS:
            return KernelPath(s) ? "permission denied on " + node + ": join the video group"
                                 : "permission denied on " + UsbNode(*chosen) +
                                       ": install the udev rule (or join plugdev), see README";
        case TARVIK_LIBUSB_ERROR_BUSY:
            return Busy(*chosen, s);
        case TARVIK_LIBUSB_ERROR_NO_DEVICE:
            return Where(*chosen) + " is gone (unplugged while it was being opened)";
        default:
            return "cannot open " + Where(*chosen) + ": " + DescribeResult(result);
    }
}

}  // namespace

OpenRequest::OpenRequest(const Selection& s) : options(tarvik_default_options()) {
    options.bus = s.bus;
    options.address = s.address;
    options.video_node = s.video.empty() ? nullptr : s.video.c_str();
    options.serial = s.serial.empty() ? nullptr : s.serial.c_str();
    options.transport = Transport(s.transport);
}

std::vector<tarvik_camera_info> ListCameras() {
    std::vector<tarvik_camera_info> cameras;
    // Cameras may come between the count and the copy: ask until everything fits.
    for (int count = tarvik_list(nullptr, 0);;
         count = tarvik_list(cameras.data(), cameras.size())) {
        if (count < 0) {
            throw ToolError(kExitFailed, count,
                            "cannot list the cameras: " + DescribeResult(count));
        }
        if (static_cast<size_t>(count) <= cameras.size()) {
            cameras.resize(static_cast<size_t>(count));
            return cameras;
        }
        cameras.resize(static_cast<size_t>(count));
    }
}

ToolError OpenError(int result, const Selection& selection) {
    return ToolError(kExitNoCamera, result, Explain(result, selection));
}

}  // namespace tarvikctl
