// Two processes on simulated cameras at once, each through both doors: run under
// `tarvik-sim run --camera 1:2 --camera 1:3`, it detaches the driver of 1:3 and starts itself
// again as a child; parent and child then each send 200 marker transfers through their own
// libusb handle on 1:3 and 200 UVCIOC_CTRL_QUERYs on /dev/video0 (1:2), interleaved. usbfs
// lets one descriptor hold the interface: every transfer is either taken (8) or refused
// (LIBUSB_ERROR_IO). Exit status 0 when every answer was one of those, the holder's got through
// and the child exited 0.
#include <fcntl.h>
#include <libusb.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

extern char** environ;

namespace {

constexpr int kRounds = 200;

int Loop(const char* who) {
    libusb_context* ctx = nullptr;
    if (libusb_init(&ctx) != 0) return std::fprintf(stderr, "%s: libusb_init\n", who), 1;
    libusb_device_handle* usb = nullptr;
    libusb_device** list = nullptr;
    for (ssize_t i = 0, n = libusb_get_device_list(ctx, &list); i < n; ++i) {
        if (libusb_get_device_address(list[i]) == 3) libusb_open(list[i], &usb);
    }
    libusb_free_device_list(list, 1);
    const int video = ::open("/dev/video0", O_RDWR);
    int taken = 0, refused = 0, answered = 0;
    for (int i = 0; usb != nullptr && video >= 0 && i < kRounds; ++i) {
        unsigned char marker[8] = {static_cast<unsigned char>(i)};
        const int r =
            libusb_control_transfer(usb, 0x21, UVC_SET_CUR, 1 << 8, 0x0500, marker, 8, 2000);
        taken += r == 8;
        refused += r == LIBUSB_ERROR_IO;
        unsigned char length[2] = {};
        uvc_xu_control_query query{5, 14, UVC_GET_LEN, 2, length};
        answered += ::ioctl(video, UVCIOC_CTRL_QUERY, &query) == 0 && length[0] == 60;
    }
    std::fprintf(stderr, "%s: taken %d refused %d video %d\n", who, taken, refused, answered);
    if (usb != nullptr) libusb_close(usb);
    libusb_exit(ctx);
    return taken + refused == kRounds && answered == kRounds ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) return Loop("child");
    libusb_context* ctx = nullptr;
    libusb_init(&ctx);
    libusb_device_handle* h = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
    libusb_device_handle* other = nullptr;
    libusb_device** list = nullptr;
    for (ssize_t i = 0, n = libusb_get_device_list(ctx, &list); i < n; ++i) {
        if (libusb_get_device_address(list[i]) == 3) libusb_open(list[i], &other);
    }
    libusb_free_device_list(list, 1);
    if (h == nullptr || other == nullptr || libusb_detach_kernel_driver(other, 0) != 0) return 1;
    libusb_close(other);
    char child[] = "child";
    char* childArgv[] = {argv[0], child, nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, childArgv, environ) != 0) return 1;
    const int mine = Loop("parent");
    int status = 0;
    waitpid(pid, &status, 0);
    libusb_close(h);
    libusb_exit(ctx);
    return mine == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
