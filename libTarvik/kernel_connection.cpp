// Opening the camera through the kernel's video driver (its capture node), and
// choosing that path or libusb's from the environment.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "TarvikImpl.h"
#include "call_status.h"
#include "camera_finder.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace tarvik {
namespace {

Choice choice_from_environment() {
    const char* value = std::getenv("TARVIK_TRANSPORT");
    if (value != nullptr && std::strcmp(value, "kernel") == 0) return Choice::kKernel;
    if (value != nullptr && std::strcmp(value, "auto") == 0) return Choice::kAuto;
    return Choice::kUsb;
}

// The kernel path fits when the driver holds the camera and its capture node
// opens for reading and writing.
bool kernel_path_usable(int bus, int address) {
    const std::optional<UsbCamera> camera = find_camera(bus, address);
    if (!camera) return false;
    const std::string node = capture_node(*camera);
    const int fd = node.empty() ? -1 : ::open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

int open_checked_node(TarvikImpl& impl, const std::string& node) {
    std::string why;
    const std::optional<UsbCamera> camera = camera_of_node(node, why);
    if (!camera) {
        TLOG("libTarvik: %s refused: %s.\n", node.c_str(), why.c_str());
        return -1;
    }
    const int fd = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        note_open_failure(usb_error_of_open(error));
        TLOG("libTarvik: open %s failed. errno=%d, %s.\n", node.c_str(), error,
             std::strerror(error));
        return -1;
    }
    TarvikPrivate& p = impl.Private();
    p.transport = MakeKernelTransport(fd);
    p.videoNode = node;
    TLOG("libTarvik: video node %s (bus %d, device %d), the video driver stays bound.\n",
         node.c_str(), camera->bus, camera->address);
    open_camera_lock(impl, camera->bus, camera->address);
    return 0;
}

int open_kernel_path(TarvikImpl& impl, int bus, int address) {
    const std::optional<UsbCamera> camera = find_camera(bus, address);
    if (!camera) {
        TLOG("libTarvik: not found, bus: %d dev: %d.\n", bus, address);
        return -1;
    }
    const std::string node = capture_node(*camera);
    if (node.empty()) {
        TLOG("libTarvik: no video node at bus: %d dev: %d, the video driver does not hold it.\n",
             camera->bus, camera->address);
        return -1;
    }
    return open_checked_node(impl, node);
}

}  // namespace

int open_by_environment(TarvikImpl& impl, int bus, int address) {
    return open_camera(impl, bus, address, choice_from_environment());
}

int open_camera(TarvikImpl& impl, int bus, int address, Choice choice) {
    switch (choice) {
        case Choice::kKernel:
            return open_kernel_path(impl, bus, address);
        case Choice::kAuto:
            if (kernel_path_usable(bus, address)) return open_kernel_path(impl, bus, address);
            break;
        case Choice::kUsb:
            break;
    }
    return impl.initialize_libusb(bus, address);
}

int open_video_node(TarvikImpl& impl, const char* node) {
    if (node != nullptr) return open_checked_node(impl, node);
    return open_kernel_path(impl, -1, -1);
}

void release_video_node(TarvikImpl& impl) {
    TarvikPrivate& p = impl.Private();
    if (p.videoNode.empty()) return;
    p.transport.reset();
    p.cameraLock.Close();
    TLOG("libTarvik: release video node %s.\n", p.videoNode.c_str());
    p.videoNode.clear();
}

void open_camera_lock(TarvikImpl& impl, int bus, int address) {
    impl.Private().bus = bus;
    impl.Private().address = address;
    const std::optional<UsbCamera> camera = find_camera(bus, address);
    std::string why = "the camera is not in sysfs";
    if (camera && impl.Private().cameraLock.Open(camera->name, why)) return;
    TLOG(
        "libTarvik: no lock file for the camera (%s); other programs using it may come between "
        "the frames of a transaction.\n",
        why.c_str());
}

}  // namespace tarvik

extern "C" TARVIK_API libTarvik* zq_CreateTarvikOnVideo(const char* videoNode) {
    auto* impl = new TarvikImpl();
    const int r = tarvik::open_video_node(*impl, videoNode);
    TLOG("libTarvik: sdk inner open device %s.\n", r == 0 ? "ok" : "failed");
    if (r != 0) {
        delete impl;
        return nullptr;
    }
    return impl;
}
