// The kernel path's leaf: the camera reached through the video driver's
// capture node, so that video keeps streaming. The node must belong to a
// camera; the lines say why when it does not.
#include "kernel_connection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "TarvikImpl.h"
#include "camera_finder.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace tarvik {

int open_video_leaf(TarvikImpl& impl, const std::string& node) {
    TarvikPrivate& p = impl.Private();
    std::string why;
    const std::optional<UsbCamera> camera = camera_of_node(node, why);
    if (!camera) {
        TLOG_ERROR("libTarvik: %s refused: %s.\n", node.c_str(), why.c_str());
        return -1;
    }
    const int fd = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        p.openFailure = usb_error_of_open(error);
        TLOG_ERROR("libTarvik: open %s failed. errno=%d, %s.\n", node.c_str(), error,
                   std::strerror(error));
        return -1;
    }
    p.transport = MakeKernelTransport(fd);
    p.videoNode = node;
    p.bus = camera->bus;
    p.address = camera->address;
    TLOG_DEBUG("libTarvik: video node %s (bus %d, device %d), the video driver stays bound.\n",
               node.c_str(), camera->bus, camera->address);
    return 0;
}

int open_kernel_leaf(TarvikImpl& impl, int bus, int address) {
    const std::optional<UsbCamera> camera = find_camera(bus, address);
    if (!camera) {
        TLOG_ERROR("libTarvik: not found, bus: %d dev: %d.\n", bus, address);
        return -1;
    }
    const std::string node = capture_node(*camera);
    if (node.empty()) {
        TLOG_ERROR(
            "libTarvik: no video node at bus: %d dev: %d, the video driver does not hold it.\n",
            camera->bus, camera->address);
        return -1;
    }
    return open_video_leaf(impl, node);
}

void release_video_leaf(TarvikImpl& impl) {
    TarvikPrivate& p = impl.Private();
    if (p.videoNode.empty()) return;
    p.transport.reset();
    TLOG_DEBUG("libTarvik: release video node %s.\n", p.videoNode.c_str());
    p.videoNode.clear();
}

}  // namespace tarvik
