// Two processes on simulated cameras at once, each through both doors: run under
// `tarvik-sim run --camera 1:2 --camera 1:3`, it starts itself again as a child; parent and
// child each detach the driver of 1:3 (one of them finds it detached already), then send 200
// marker transfers through their own libusb handle on 1:3 and 200 UVCIOC_CTRL_QUERYs on
// /dev/video0 (1:2), interleaved. usbfs lets one file hold the interface: each transfer is
// taken (8) or refused (LIBUSB_ERROR_IO). Exit status 0 when every answer was one of those,
// every query succeeded, and the child exited 0.
#include <fcntl.h>
#include <libusb.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

extern char** environ;

namespace {

int Loop(const char* who, int rounds = 200) {
    libusb_context* ctx = nullptr;
    libusb_device_handle* usb = nullptr;
    libusb_device** list = nullptr;
    libusb_init(&ctx);
    for (ssize_t i = 0, n = libusb_get_device_list(ctx, &list); i < n; ++i) {
        if (libusb_get_device_address(list[i]) == 3) libusb_open(list[i], &usb);
    }
    libusb_free_device_list(list, 1);
    if (usb != nullptr) libusb_detach_kernel_driver(usb, 0);
    const int video = ::open("/dev/video0", O_RDWR);
    int taken = 0, refused = 0, answered = 0;
    for (int i = 0; usb != nullptr && video >= 0 && i < rounds; ++i) {
        unsigned char marker[8] = {static_cast<unsigned char>(i)}, length[2] = {};
        const int r =
            libusb_control_transfer(usb, 0x21, UVC_SET_CUR, 1 << 8, 0x0500, marker, 8, 2000);
        taken += r == 8;
        refused += r == LIBUSB_ERROR_IO;
        uvc_xu_control_query query{5, 14, UVC_GET_LEN, 2, length};
        answered += ::ioctl(video, UVCIOC_CTRL_QUERY, &query) == 0 && length[0] == 60;
    }
    std::fprintf(stderr, "%s: taken %d refused %d video %d\n", who, taken, refused, answered);
    if (usb != nullptr) libusb_close(usb);
    libusb_exit(ctx);
    return taken + refused == rounds && answered == rounds ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) return Loop("child");
    char* childArgv[] = {argv[0], const_cast<char*>("child"), nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, argv[0], nullptr, nullptr, childArgv, environ) != 0) return 1;
    const int mine = Loop("parent");
    int status = 0;
    waitpid(child, &status, 0);
    return mine == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
