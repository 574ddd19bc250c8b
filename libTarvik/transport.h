// The raw requests on the camera's extension unit (unit 5, interface 0): the
// one place where a way of reaching the camera plugs in. Everything above it
// speaks in selectors and bytes and is the same whichever way is used.
// Internal to the library.
#ifndef TARVIK_TRANSPORT_H
#define TARVIK_TRANSPORT_H

#include <libusb.h>

#include <cstdint>
#include <memory>

namespace tarvik {

// GET_CUR, SET_CUR and GET_LEN on a selector. Each answers as libusb does:
// the bytes moved, or a negative libusb error code.
class Transport {
public:
    virtual ~Transport() = default;
    virtual int GetCur(int selector, std::uint8_t* data, std::uint16_t length) = 0;
    virtual int SetCur(int selector, std::uint8_t* data, std::uint16_t length) = 0;
    virtual int GetLen(int selector, std::uint8_t (&answer)[2]) = 0;
};

// Control transfers through libusb on an open device handle (not owned), in
// its libusb `context`; null for an application's handle, whose context the
// library doesn't know.
std::unique_ptr<Transport> MakeUsbTransport(libusb_device_handle* handle, libusb_context* context);

// UVCIOC_CTRL_QUERY on an open capture node, which it owns from then on.
std::unique_ptr<Transport> MakeKernelTransport(int fd);

// The libusb code a caller gets for a failed query or a failed open of a node.
int usb_error_of_query(int error);
int usb_error_of_open(int error);

namespace transport {

// Every control transfer gives up after this long; the caller then gets
// libusb's timeout code like any other libusb error.
constexpr unsigned kControlTimeoutMs = 5000;

// Test seam: shortens (or restores) the timeout of later transfers.
void set_control_timeout_ms(unsigned ms);

}  // namespace transport
}  // namespace tarvik

#endif
