// The one place that opens and closes a camera (see camera_opener.h).
#include "camera_opener.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include "TarvikImpl.h"
#include "camera_finder.h"
#include "kernel_connection.h"
#include "tarvik.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace tarvik {
namespace {

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

// Which camera the object opened, and its lock file; says so once when none
// can be made.
void note_identity_and_lock(TarvikPrivate& p) {
    const std::optional<UsbCamera> camera = find_camera(p.bus, p.address);
    if (camera) {
        p.serial = camera->serial;
        p.sysfsPath = camera->path;
        p.port = camera->name;
    }
    std::string why = "the camera is not in sysfs";
    if (camera && p.cameraLock.Open(camera->name, why)) return;
    TLOG_WARN(
        "libTarvik: no lock file for the camera (%s); other programs using it may come between "
        "the frames of a transaction.\n",
        why.c_str());
}

// The leaf the target asks for: 0, or -1 after its lines.
int open_leaf(TarvikImpl& impl, const CameraTarget& t, int bus, int address) {
    if (!t.videoNode.empty()) return open_video_leaf(impl, t.videoNode);
    switch (t.choice) {
        case Choice::kKernel:
            return open_kernel_leaf(impl, bus, address);
        case Choice::kAuto:
            if (kernel_path_usable(bus, address)) return open_kernel_leaf(impl, bus, address);
            break;
        case Choice::kUsb:
            break;
    }
    return impl.initialize_libusb(bus, address);
}

}  // namespace

Choice choice_from_environment() {
    const char* value = std::getenv("TARVIK_TRANSPORT");
    if (value != nullptr && std::strcmp(value, "kernel") == 0) return Choice::kKernel;
    if (value != nullptr && std::strcmp(value, "auto") == 0) return Choice::kAuto;
    return Choice::kUsb;
}

int open_camera(TarvikImpl& impl, const CameraTarget& target, InUse inUse) {
    impl.CloseCamera();
    int bus = target.bus;
    int address = target.address;
    if (target.videoNode.empty() && target.serial) {
        const std::optional<UsbCamera> camera = find_camera_by_serial(*target.serial);
        if (!camera) return TARVIK_E_NO_CAMERA;
        bus = camera->bus;
        address = camera->address;
    }
    TarvikPrivate& p = impl.Private();
    p.openFailure = 0;
    if (open_leaf(impl, target, bus, address) != 0) {
        return p.openFailure != 0 ? p.openFailure : TARVIK_E_NO_CAMERA;
    }
    if (p.openFailure == TARVIK_LIBUSB_ERROR_BUSY && inUse == InUse::kRefuse) {
        impl.CloseCamera();
        return TARVIK_LIBUSB_ERROR_BUSY;
    }
    note_identity_and_lock(p);
    return 0;
}

void say_opened(int result) {
    TLOG_AT(result == 0 ? Level::kDebug : Level::kError, "libTarvik: sdk inner open device %s.\n",
            result == 0 ? "ok" : "failed");
}

void adopt_handle(TarvikImpl& impl, libusb_device_handle* handle) {
    TarvikPrivate& p = impl.Private();
    p.transport = MakeUsbTransport(handle, nullptr);
    libusb_device* device = libusb_get_device(handle);
    p.bus = libusb_get_bus_number(device);
    p.address = libusb_get_device_address(device);
    note_identity_and_lock(p);
}

}  // namespace tarvik

void TarvikImpl::CloseCamera() {
    if (m_bInnerOpened) {
        release_libusb();
        m_bInnerOpened = false;
    }
    tarvik::release_video_leaf(*this);
    m_pPrivate->transport.reset();  // an adopted handle stays the application's
    m_pPrivate->cameraLock.Close();
    m_bMarkerSet = false;
}
