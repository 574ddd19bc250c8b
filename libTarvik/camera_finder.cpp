// Sysfs: a USB device is a directory with busnum, devnum, idVendor and
// idProduct; uvcvideo binds to its interface 0 ("<name>:1.0"), whose
// video4linux directory holds one capture and one metadata node per stream.
#include "camera_finder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace tarvik {
namespace {

constexpr const char* kUsbDevices = "/sys/bus/usb/devices";
constexpr const char* kVendor = "0ac8";
constexpr const char* kProduct = "010c";
constexpr unsigned kVideoMajor = 81;

std::string attribute(const std::string& dir, const char* name) {
    std::ifstream in(dir + "/" + name);
    std::string value;
    std::getline(in, value);
    return value;
}

int number(const std::string& text) {
    try {
        return std::stoi(text);
    } catch (const std::exception&) {
        return 0;
    }
}

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            if (e->d_name[0] != '.') names.emplace_back(e->d_name);
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool is_camera(const std::string& dir) {
    return attribute(dir, "idVendor") == kVendor && attribute(dir, "idProduct") == kProduct;
}

// A path with the ".." and "." of a link's target resolved.
std::string resolve(const std::string& linkDir, const std::string& target) {
    std::vector<std::string> parts;
    std::string whole = target[0] == '/' ? target : linkDir + "/" + target;
    size_t pos = 0;
    while (pos <= whole.size()) {
        const size_t slash = std::min(whole.find('/', pos), whole.size());
        const std::string part = whole.substr(pos, slash - pos);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = slash + 1;
    }
    std::string out;
    for (const std::string& p : parts) out += "/" + p;
    return out;
}

std::string parent(const std::string& path) { return path.substr(0, path.rfind('/')); }

// VIDIOC_QUERYCAP's answer: whether the node captures video. A node that
// cannot be opened is taken for one; opening it for use will tell.
bool captures(const std::string& node) {
    const int fd = ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return true;
    v4l2_capability cap{};
    const bool asked = ::ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0;
    ::close(fd);
    const unsigned caps =
        (cap.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? cap.device_caps : cap.capabilities;
    return asked && (caps & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

UsbCamera camera_at(const std::string& path) {
    UsbCamera c;
    c.bus = number(attribute(path, "busnum"));
    c.address = number(attribute(path, "devnum"));
    c.name = path.substr(path.rfind('/') + 1);
    c.path = path;
    c.serial = attribute(path, "serial");
    return c;
}

}  // namespace

std::vector<UsbCamera> find_cameras() {
    std::vector<UsbCamera> cameras;
    for (const std::string& name : entries(kUsbDevices)) {
        const std::string path = std::string(kUsbDevices) + "/" + name;
        if (name.find(':') == std::string::npos && is_camera(path))
            cameras.push_back(camera_at(path));
    }
    std::sort(cameras.begin(), cameras.end(), [](const UsbCamera& a, const UsbCamera& b) {
        return a.bus != b.bus ? a.bus < b.bus : a.address < b.address;
    });
    return cameras;
}

std::optional<UsbCamera> find_camera(int bus, int address) {
    const bool any = bus == -1 || address == -1;
    for (const UsbCamera& c : find_cameras()) {
        if (any || (c.bus == bus && c.address == address)) return c;
    }
    return std::nullopt;
}

std::optional<UsbCamera> find_camera_by_serial(const std::string& serial) {
    for (const UsbCamera& c : find_cameras()) {
        if (c.serial == serial) return c;
    }
    return std::nullopt;
}

bool video_driver_bound(const UsbCamera& camera) {
    char target[256] = {};
    const std::string link = camera.path + "/" + camera.name + ":1.0/driver";
    if (::readlink(link.c_str(), target, sizeof target - 1) <= 0) return false;
    const std::string driver(target);
    return driver.substr(driver.rfind('/') + 1) == "uvcvideo";
}

std::string capture_node(const UsbCamera& camera) {
    if (!video_driver_bound(camera)) return {};
    for (const std::string& name : entries(camera.path + "/" + camera.name + ":1.0/video4linux")) {
        const std::string node = "/dev/" + name;
        if (captures(node)) return node;
    }
    return {};
}

std::optional<UsbCamera> camera_of_node(const std::string& node, std::string& why) {
    struct stat st {};
    if (::stat(node.c_str(), &st) != 0 || !S_ISCHR(st.st_mode) ||
        major(st.st_rdev) != kVideoMajor) {
        why = "not a video node";
        return std::nullopt;
    }
    // /sys/dev/char/81:N leads to <device>/<device>:1.0/video4linux/videoN.
    const std::string link = "/sys/dev/char/" + std::to_string(major(st.st_rdev)) + ":" +
                             std::to_string(minor(st.st_rdev));
    char target[512] = {};
    if (::readlink(link.c_str(), target, sizeof target - 1) <= 0) {
        why = "not in sysfs";
        return std::nullopt;
    }
    const std::string device = parent(parent(parent(resolve(parent(link), target))));
    if (!is_camera(device)) {
        why = "a node of another device (" + attribute(device, "idVendor") + ":" +
              attribute(device, "idProduct") + ")";
        return std::nullopt;
    }
    if (!captures(node)) {
        why = "not a capture node";
        return std::nullopt;
    }
    return camera_at(device);
}

}  // namespace tarvik
