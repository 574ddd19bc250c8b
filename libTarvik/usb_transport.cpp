// The extension unit through libusb control transfers. On a camera the
// library opened itself, each transfer runs on a buffer of the library's own
// (libusb's asynchronous submission, which is what its synchronous call does
// inside), wiped afterwards: the synchronous call would copy card data through
// a buffer of libusb's and free it as it is.
#include <libusb.h>
#include <string.h>

#include <array>
#include <atomic>
#include <vector>

#include "transport.h"

namespace tarvik {
namespace {

constexpr std::uint8_t kRequestTypeIn = 0xA1;   // device to host, class, interface
constexpr std::uint8_t kRequestTypeOut = 0x21;  // host to device, class, interface
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint8_t kGetLen = 0x85;
constexpr std::uint16_t kUnitAndInterface = 0x0500;  // unit id 5 in the high byte, interface 0

std::atomic<unsigned> g_timeoutMs{transport::kControlTimeoutMs};

// The setup packet and the data, wiped when it goes. A transaction's frame
// (60 bytes) fits on the stack; anything longer goes to the heap.
class TransferBuffer {
public:
    explicit TransferBuffer(std::uint16_t length) : m_size(LIBUSB_CONTROL_SETUP_SIZE + length) {
        if (m_size > m_inline.size()) m_heap.resize(m_size);
    }
    ~TransferBuffer() { explicit_bzero(data(), m_size); }
    TransferBuffer(const TransferBuffer&) = delete;
    TransferBuffer& operator=(const TransferBuffer&) = delete;
    unsigned char* data() { return m_heap.empty() ? m_inline.data() : m_heap.data(); }

private:
    std::size_t m_size;
    std::array<unsigned char, LIBUSB_CONTROL_SETUP_SIZE + 64> m_inline;
    std::vector<unsigned char> m_heap;
};

void LIBUSB_CALL on_done(libusb_transfer* transfer) { *static_cast<int*>(transfer->user_data) = 1; }

// What the synchronous call answers for a transfer's end.
int result_of(const libusb_transfer& t) {
    switch (t.status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return t.actual_length;
        case LIBUSB_TRANSFER_TIMED_OUT:
            return LIBUSB_ERROR_TIMEOUT;
        case LIBUSB_TRANSFER_STALL:
            return LIBUSB_ERROR_PIPE;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return LIBUSB_ERROR_NO_DEVICE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return LIBUSB_ERROR_OVERFLOW;
        case LIBUSB_TRANSFER_ERROR:
        case LIBUSB_TRANSFER_CANCELLED:
            return LIBUSB_ERROR_IO;
    }
    return LIBUSB_ERROR_OTHER;
}

// Handles `context`'s events until the transfer is done; cancels it when
// event handling fails, and waits for the cancellation.
void wait_for(libusb_context* context, libusb_transfer* transfer, int& done) {
    while (done == 0) {
        const int r = libusb_handle_events_completed(context, &done);
        if (r >= 0 || r == LIBUSB_ERROR_INTERRUPTED) continue;
        libusb_cancel_transfer(transfer);
        while (done == 0 && libusb_handle_events_completed(context, &done) >= 0) {
        }
        return;
    }
}

class UsbTransport : public Transport {
public:
    UsbTransport(libusb_device_handle* handle, libusb_context* context)
        : m_handle(handle), m_context(context) {}

    int GetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Transfer(kRequestTypeIn, kGetCur, selector, data, length);
    }
    int SetCur(int selector, std::uint8_t* data, std::uint16_t length) override {
        return Transfer(kRequestTypeOut, kSetCur, selector, data, length);
    }
    int GetLen(int selector, std::uint8_t (&answer)[2]) override {
        return Transfer(kRequestTypeIn, kGetLen, selector, answer, sizeof answer);
    }

private:
    int Transfer(std::uint8_t requestType, std::uint8_t request, int selector, std::uint8_t* data,
                 std::uint16_t length) {
        const auto value = static_cast<std::uint16_t>(selector << 8);
        // An application's handle belongs to a context the library can't name.
        if (m_context == nullptr) {
            return libusb_control_transfer(m_handle, requestType, request, value, kUnitAndInterface,
                                           data, length, g_timeoutMs.load());
        }
        libusb_transfer* transfer = libusb_alloc_transfer(0);
        if (transfer == nullptr) return LIBUSB_ERROR_NO_MEM;
        TransferBuffer buffer(length);
        unsigned char* payload = buffer.data() + LIBUSB_CONTROL_SETUP_SIZE;
        libusb_fill_control_setup(buffer.data(), requestType, request, value,
                                  kUnitAndInterface, length);
        const bool in = (requestType & LIBUSB_ENDPOINT_IN) != 0;
        if (!in) std::copy(data, data + length, payload);
        int done = 0;
        libusb_fill_control_transfer(transfer, m_handle, buffer.data(), on_done, &done,
                                     g_timeoutMs.load());
        int r = libusb_submit_transfer(transfer);
        if (r == 0) {
            wait_for(m_context, transfer, done);
            r = result_of(*transfer);
            if (in && r > 0) std::copy(payload, payload + r, data);
        }
        libusb_free_transfer(transfer);
        return r;
    }

    libusb_device_handle* m_handle;
    libusb_context* m_context;
};

}  // namespace

std::unique_ptr<Transport> MakeUsbTransport(libusb_device_handle* handle, libusb_context* context) {
    return std::make_unique<UsbTransport>(handle, context);
}

namespace transport {
void set_control_timeout_ms(unsigned ms) { g_timeoutMs.store(ms); }
}  // namespace transport

}  // namespace tarvik
