// The descriptors a C-interface camera waits on (see camera_watch.h).
#include "camera_watch.h"

#include <libudev.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace tarvik {
namespace {

bool watch(int epoll, int fd) {
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &e) == 0;
}

// Reads a counter descriptor (timerfd, eventfd); true when it had counted.
bool drain(int fd) {
    std::uint64_t count = 0;
    ssize_t n;
    do {
        n = ::read(fd, &count, sizeof count);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof count) && count > 0;
}

const char* text_or_empty(const char* s) { return s != nullptr ? s : ""; }

}  // namespace

CameraWatch::~CameraWatch() {
    if (m_monitor != nullptr) udev_monitor_unref(m_monitor);
    if (m_udev != nullptr) udev_unref(m_udev);
    for (int fd : {m_epoll, m_timer, m_cancel}) {
        if (fd >= 0) ::close(fd);
    }
}

bool CameraWatch::Start() {
    if (m_epoll >= 0) return true;
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    m_cancel = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_epoll < 0 || m_timer < 0 || m_cancel < 0 || !watch(m_epoll, m_timer) ||
        !watch(m_epoll, m_cancel)) {
        return false;
    }
    return true;
}

bool CameraWatch::StartMonitor() {
    if (m_monitor != nullptr) return true;
    // Hot-plug from udev's own events (after its rules ran, so nodes have their
    // owners); a machine without udev only misses the camera coming back.
    m_udev = udev_new();
    if (m_udev != nullptr) m_monitor = udev_monitor_new_from_netlink(m_udev, "udev");
    if (m_monitor != nullptr) {
        udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "usb", "usb_device");
        udev_monitor_filter_add_match_subsystem_devtype(m_monitor, "video4linux", nullptr);
        if (udev_monitor_enable_receiving(m_monitor) == 0) {
            watch(m_epoll, udev_monitor_get_fd(m_monitor));
        }
    }
    return m_monitor != nullptr;
}

void CameraWatch::SetPollInterval(unsigned intervalMs) {
    itimerspec spec{};
    spec.it_interval.tv_sec = intervalMs / 1000;
    spec.it_interval.tv_nsec = static_cast<long>(intervalMs % 1000) * 1000000L;
    spec.it_value = spec.it_interval;
    if (m_timer >= 0) timerfd_settime(m_timer, 0, &spec, nullptr);
}

void CameraWatch::Cancel() {
    const std::uint64_t one = 1;
    if (m_cancel >= 0) {
        const ssize_t ignored = ::write(m_cancel, &one, sizeof one);
        (void)ignored;  // a full counter is still readable
    }
}

CameraWatch::Due CameraWatch::Take() {
    Due due;
    if (m_epoll < 0) return due;
    epoll_event events[4];
    const int n = epoll_wait(m_epoll, events, 4, 0);
    for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == m_timer) {
            due.poll = drain(m_timer) || due.poll;
        } else if (fd == m_cancel) {
            due.cancelled = drain(m_cancel) || due.cancelled;
        } else {
            TakeChanges(due.changes);
        }
    }
    return due;
}

void CameraWatch::TakeChanges(std::vector<DeviceChange>& out) {
    while (udev_device* dev = m_monitor != nullptr ? udev_monitor_receive_device(m_monitor)
                                                   : nullptr) {
        const std::string action = text_or_empty(udev_device_get_action(dev));
        const bool video = std::strcmp(text_or_empty(udev_device_get_subsystem(dev)),
                                       "video4linux") == 0;
        udev_device* usb =
            video ? udev_device_get_parent_with_subsystem_devtype(dev, "usb", "usb_device") : dev;
        if ((action == "add" || action == "remove") && usb != nullptr) {
            out.push_back(DeviceChange{action == "add", video,
                                       text_or_empty(udev_device_get_sysname(usb)),
                                       text_or_empty(udev_device_get_sysattr_value(usb, "serial"))});
        }
        udev_device_unref(dev);
    }
}

}  // namespace tarvik
