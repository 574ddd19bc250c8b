// The raw requests on the camera's extension unit (unit 5, interface 0). This
// is the one place where a transport plugs in: everything above it speaks in
// selectors and bytes. Internal to the library.
#ifndef TARVIK_UVC_TRANSPORT_H
#define TARVIK_UVC_TRANSPORT_H

#include <cstdint>

struct libusb_device_handle;

namespace tarvik::transport {

// Every control transfer gives up after this long; the caller then gets
// libusb's timeout code like any other libusb error.
constexpr unsigned kControlTimeoutMs = 5000;

// Test seam: shortens (or restores) the timeout of later transfers.
void set_control_timeout_ms(unsigned ms);
unsigned control_timeout_ms();

// GET_CUR / SET_CUR of `length` bytes on `selector`. Return libusb's result:
// the bytes moved, or a negative libusb error code.
int get_cur(libusb_device_handle* handle, int selector, unsigned char* data, std::uint16_t length);
int set_cur(libusb_device_handle* handle, int selector, unsigned char* data, std::uint16_t length);

// GET_LEN on `selector` into the 2-byte `answer`; libusb's result as above.
int get_len(libusb_device_handle* handle, int selector, unsigned char (&answer)[2]);

}  // namespace tarvik::transport

#endif
