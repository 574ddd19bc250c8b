#include "scripted_camera.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarvik_log.h"
#include "tarvik_private.h"

namespace tarvik::fuzz {
namespace {

class Script : public Transport {
public:
    Script(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

    int GetCur(int, std::uint8_t* data, std::uint16_t length) override {
        return Read(data, length);
    }
    int SetCur(int, std::uint8_t*, std::uint16_t length) override { return Status(length); }
    int GetLen(int, std::uint8_t (&answer)[2]) override { return Read(answer, sizeof answer); }

private:
    std::uint8_t Take() {
        if (m_left == 0) return 0;
        --m_left;
        return *m_data++;
    }

    int Status(std::uint16_t length) {
        const std::uint8_t s = Take();
        if (s >= 0xF8) return LIBUSB_ERROR_IO;
        if (s >= 0xF0) return LIBUSB_ERROR_TIMEOUT;
        if (s >= 0xE0) return LIBUSB_ERROR_NO_DEVICE;
        if (s >= 0xD0) return LIBUSB_ERROR_PIPE;
        if (s >= 0xC0) return length == 0 ? 0 : (s & 0x0F) % length;
        return length;
    }

    int Read(std::uint8_t* data, std::uint16_t length) {
        const int moved = Status(length);
        const std::size_t n = moved > 0 ? std::min<std::size_t>(moved, m_left) : 0;
        std::copy_n(m_data, n, data);
        std::fill(data + n, data + std::max(moved, 0), 0);
        m_data += n;
        m_left -= n;
        return moved;
    }

    const std::uint8_t* m_data;
    std::size_t m_left;
};

void discard(int, const char*, void*) {}

}  // namespace

std::unique_ptr<TarvikImpl> ScriptedCamera(const std::uint8_t* data, std::size_t size) {
    set_log_handler(discard, nullptr);
    auto impl = std::make_unique<TarvikImpl>();
    impl->Private().transport = std::make_unique<Script>(data, size);
    return impl;
}

bool Documented(HRESULT r) {
    switch (r) {
        case 0:
        case 1:
        case 7:
        case 13:
        case LIBUSB_ERROR_PIPE:
        case LIBUSB_ERROR_NO_DEVICE:
        case LIBUSB_ERROR_TIMEOUT:
        case LIBUSB_ERROR_IO:
            return true;
        default:
            return r > 0 && r < 60;
    }
}

}  // namespace tarvik::fuzz
