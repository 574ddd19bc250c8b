// The extension unit through the kernel's video driver: UVCIOC_CTRL_QUERY on
// the camera's capture node. The driver stays bound and video keeps streaming.
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "transport.h"

namespace tarvik {
namespace {

constexpr std::uint8_t kUnit = 5;

class KernelTransport : public Transport {
public:
    explicit KernelTransport(int fd) : m_fd(fd) {}
    ~KernelTransport() override { ::close(m_fd); }
    KernelTransport(const KernelTransport&) = delete;
    KernelTransport& operator=(const KernelTransport&) = delete;

    int GetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Query(selector, UVC_GET_CUR, data, length);
    }
    int SetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Query(selector, UVC_SET_CUR, data, length);
    }
    int GetLen(int selector, std::uint8_t (&answer)[2]) override {
        return Query(selector, UVC_GET_LEN, answer, sizeof answer);
    }

private:
    // The driver answers whole controls only: success is every byte asked for.
    int Query(int selector, std::uint8_t query, std::uint8_t* data, std::uint16_t size) {
        uvc_xu_control_query q{};
        q.unit = kUnit;
        q.selector = static_cast<std::uint8_t>(selector);
        q.query = query;
        q.size = size;
        q.data = data;
        while (::ioctl(m_fd, UVCIOC_CTRL_QUERY, &q) != 0) {
            if (errno != EINTR) return usb_error_of_query(errno);
        }
        return size;
    }

    int m_fd;
};

}  // namespace

int usb_error_of_query(int error) {
    switch (error) {
        case ETIMEDOUT:
            return LIBUSB_ERROR_TIMEOUT;
        case ENODEV:
        case ESHUTDOWN:
            return LIBUSB_ERROR_NO_DEVICE;
        // A stall, and what the driver makes of one (EINVAL from a well-formed query).
        case EPIPE:
        case EBUSY:
        case EACCES:
        case EREMOTE:
        case ERANGE:
        case EILSEQ:
        case EINVAL:
            return LIBUSB_ERROR_PIPE;
        case EPROTO:
        case EIO:
            return LIBUSB_ERROR_IO;
        case ENOENT:
        case ENOBUFS:
        case EBADRQC:
        case ENOTTY:
            return LIBUSB_ERROR_NOT_SUPPORTED;
        default:
            return LIBUSB_ERROR_OTHER;
    }
}

int usb_error_of_open(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return LIBUSB_ERROR_ACCESS;
        case ENOENT:
        case ENODEV:
            return LIBUSB_ERROR_NO_DEVICE;
        case EBUSY:
            return LIBUSB_ERROR_BUSY;
        default:
            return LIBUSB_ERROR_OTHER;
    }
}

std::unique_ptr<Transport> MakeKernelTransport(int fd) {
    return std::make_unique<KernelTransport>(fd);
}

}  // namespace tarvik
