// Under `tarvik-sim run`, a program that follows the camera as a real one does (a libudev
// monitor on usb_device and video4linux, libusb's hotplug callbacks) while `tarvik-sim ctl`
// (argv[1]) unplugs it and plugs it in again. It prints what it saw, in order for each source,
// then reaches the camera at its new address through both doors.
#include <fcntl.h>
#include <libudev.h>
#include <libusb.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

static std::string g_udev, g_libusb;

static int OnHotplug(libusb_context*, libusb_device* d, libusb_hotplug_event e, void*) {
    g_libusb += std::string(e == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED ? "arrived " : "left ") +
                std::to_string(libusb_get_bus_number(d)) + ":" +
                std::to_string(libusb_get_device_address(d)) + "\n";
    return 0;
}

// Runs `tarvik-sim ctl verb`, then takes events until `events` udev events came (or 5 s).
static void Step(udev_monitor* monitor, libusb_context* ctx, const std::string& ctl,
                 const char* verb, size_t events) {
    if (std::system((ctl + " ctl " + verb + " > /dev/null").c_str()) != 0) std::exit(3);
    const size_t until = g_udev.size();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (size_t n = 0; n < events && std::chrono::steady_clock::now() < end;) {
        pollfd p{udev_monitor_get_fd(monitor), POLLIN, 0};
        timeval none{0, 0};
        libusb_handle_events_timeout_completed(ctx, &none, nullptr);
        if (poll(&p, 1, 20) <= 0) continue;
        if (udev_device* d = udev_monitor_receive_device(monitor)) {
            g_udev +=
                std::string(udev_device_get_action(d)) + " " + udev_device_get_devnode(d) + "\n";
            udev_device_unref(d);
            ++n;
        }
    }
    timeval settle{0, 200000};  // libusb's own monitor thread may be a moment behind
    libusb_handle_events_timeout_completed(ctx, &settle, nullptr);
    if (g_udev.size() == until) std::exit(4);
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    udev* u = udev_new();
    udev_monitor* monitor = udev_monitor_new_from_netlink(u, "udev");
    udev_monitor_filter_add_match_subsystem_devtype(monitor, "usb", "usb_device");
    udev_monitor_filter_add_match_subsystem_devtype(monitor, "video4linux", nullptr);
    udev_monitor_enable_receiving(monitor);
    libusb_context* ctx = nullptr;
    libusb_init(&ctx);
    libusb_hotplug_register_callback(
        ctx, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
        LIBUSB_HOTPLUG_NO_FLAGS, 0x0AC8, 0x010C, LIBUSB_HOTPLUG_MATCH_ANY, OnHotplug, nullptr,
        nullptr);
    Step(monitor, ctx, argv[1], "unplug", 3);
    Step(monitor, ctx, argv[1], "replug", 3);
    std::printf("%s%s", g_udev.c_str(), g_libusb.c_str());

    // The usbfs door at the new address: the same serial.
    libusb_device_handle* handle = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
    unsigned char serial[32] = {};
    if (handle != nullptr) {
        libusb_device* d = libusb_get_device(handle);
        libusb_get_string_descriptor_ascii(handle, 3, serial, sizeof serial);
        std::printf("usbfs %d:%d %s\n", libusb_get_bus_number(d), libusb_get_device_address(d),
                    serial);
        libusb_close(handle);
    }
    // The video door through the new capture node; the old one is gone for good.
    for (const char* node : {"/dev/video2", "/dev/video0"}) {
        const int fd = open(node, O_RDWR);
        unsigned char length[2] = {};
        uvc_xu_control_query q{5, 14, UVC_GET_LEN, 2, length};
        const bool answered = fd >= 0 && ioctl(fd, UVCIOC_CTRL_QUERY, &q) == 0;
        std::printf("%s %s\n", node, answered ? std::to_string(length[0]).c_str() : "refused");
        if (fd >= 0) close(fd);
    }
    libusb_exit(ctx);
    udev_monitor_unref(monitor);
    udev_unref(u);
    return 0;
}
