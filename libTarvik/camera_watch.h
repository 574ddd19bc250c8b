// What a C-interface camera waits on, behind one descriptor (internal): an
// epoll set of a timer (the next card poll), an eventfd (a cancel from any
// thread, even a signal handler) and libudev's monitor of USB devices and
// video nodes (a camera leaving or coming back). The library starts no thread:
// the application waits on Fd() and calls dispatch when it is readable.
#ifndef TARVIK_CAMERA_WATCH_H
#define TARVIK_CAMERA_WATCH_H

#include <string>
#include <vector>

struct udev;
struct udev_monitor;

namespace tarvik {

// One uevent about a USB device or a video node, with the USB device's
// identity (for a video node, its parent's).
struct DeviceChange {
    bool added;          // "add"; false for "remove"
    bool videoNode;      // video4linux; false for usb_device
    std::string port;    // the USB device's sysfs name ("1-2")
    std::string serial;  // its serial number, "" when it shows none (or is gone)
};

class CameraWatch {
public:
    CameraWatch() = default;
    ~CameraWatch();
    CameraWatch(const CameraWatch&) = delete;
    CameraWatch& operator=(const CameraWatch&) = delete;

    // Makes the descriptors; false (errno set) when one cannot be made.
    bool Start();
    // Listens to udev from now on (a program that never waits is not sent
    // every uevent); false when udev cannot be listened to.
    bool StartMonitor();
    int Fd() const { return m_epoll; }

    // Polls every `intervalMs` from now on; 0 stops polling.
    void SetPollInterval(unsigned intervalMs);

    // Async-signal-safe: wakes whoever waits on Fd().
    void Cancel();

    // What is due now, without blocking: each source's readiness, consumed.
    struct Due {
        bool poll = false;
        bool cancelled = false;
        std::vector<DeviceChange> changes;
    };
    Due Take();

private:
    void TakeChanges(std::vector<DeviceChange>& out);

    int m_epoll = -1;
    int m_timer = -1;
    int m_cancel = -1;
    struct udev* m_udev = nullptr;
    struct udev_monitor* m_monitor = nullptr;
};

}  // namespace tarvik

#endif
