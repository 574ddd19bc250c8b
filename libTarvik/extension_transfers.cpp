// GET_CUR, SET_CUR and GET_LEN on the extension unit, each under m_mutex, and
// the one-time transaction marker on selector 1.
#include <fstream>
#include <vector>

#include "TarvikImpl.h"
#include "byte_pack.h"
#include "call_status.h"
#include "frame_codec.h"
#include "scoped_lock.h"
#include "tarvik_log.h"
#include "tarvik_private.h"
#include "transport.h"

namespace {
constexpr int kNoHandle = 6;
constexpr int kNotOpened = 11;
constexpr unsigned kMarkerLength = 8;  // selector 1 is never asked for its length
constexpr unsigned kValueBytes = 4;

thread_local int t_lastTransferFailure = 0;

// Whether the camera `p` opened is still on the bus: its sysfs directory is
// there with the same device number. Unknown (an adopted handle outside
// sysfs) counts as there.
bool still_there(const tarvik::TarvikPrivate& p) {
    if (p.sysfsPath.empty()) return true;
    std::ifstream devnum(p.sysfsPath + "/devnum");
    int address = 0;
    return static_cast<bool>(devnum >> address) && address == p.address;
}

// 0 when exactly `length` bytes moved; otherwise libusb's result: a negative
// error code, or the short count. Once the camera has left the bus every
// failure is LIBUSB_ERROR_NO_DEVICE, whatever the path made of it (the video
// driver answers a control it cannot size any more as unsupported).
int transferResult(const tarvik::TarvikPrivate& p, int moved, int length) {
    if (moved == length) return 0;
    if (moved < 0 && moved != LIBUSB_ERROR_NO_DEVICE && !still_there(p)) {
        moved = LIBUSB_ERROR_NO_DEVICE;
    }
    tarvik::note_transfer_failure(moved);
    return moved;
}
}  // namespace

namespace tarvik {
int last_transfer_failure() { return t_lastTransferFailure; }
void note_transfer_failure(int result) { t_lastTransferFailure = result; }
void clear_transfer_failure() { t_lastTransferFailure = 0; }
}  // namespace tarvik

// The camera's handle, in whichever way it is reached, is the transport.
int TarvikImpl::read_from_uvc_extension(int selector, int length, unsigned char* data) {
    tarvik::Transport* transport = m_pPrivate->transport.get();
    if (transport == nullptr) {
        return kNoHandle;
    }
    return transferResult(*m_pPrivate, transport->GetCur(selector, data, static_cast<std::uint16_t>(length)),
                          length);
}

int TarvikImpl::write_to_uvc_extension(int selector, int length, unsigned char* data) {
    tarvik::Transport* transport = m_pPrivate->transport.get();
    if (transport == nullptr) {
        return kNoHandle;
    }
    return transferResult(*m_pPrivate, transport->SetCur(selector, data, static_cast<std::uint16_t>(length)),
                          length);
}

int TarvikImpl::check_dev_opened() { return m_pPrivate->transport != nullptr ? 0 : kNotOpened; }

HRESULT TarvikImpl::_GetBytes(int selector, unsigned char* data, unsigned int length) {
    tarvik::ScopedLock lock(m_mutex);
    if (check_dev_opened() != 0) {
        return kNotOpened;
    }
    return read_from_uvc_extension(selector, static_cast<int>(length), data);
}

HRESULT TarvikImpl::_SetBytes(int selector, unsigned char* data, unsigned int length) {
    tarvik::ScopedLock lock(m_mutex);
    if (check_dev_opened() != 0) {
        return kNotOpened;
    }
    return write_to_uvc_extension(selector, static_cast<int>(length), data);
}

HRESULT TarvikImpl::_GetLength(int selector, unsigned int* length) {
    tarvik::ScopedLock lock(m_mutex);
    if (check_dev_opened() != 0) {
        return kNotOpened;
    }
    if (selector == tarvik::frame::kMarkerSelector) {
        *length = kMarkerLength;
        return 0;
    }
    unsigned char answer[2] = {0, 0};
    const int r = m_pPrivate->transport->GetLen(selector, answer);
    if (r < 0) {
        tarvik::note_transfer_failure(r);
        return r;
    }
    // Bytes the camera did not send stay 0.
    *length = answer[0] + 256u * answer[1];
    return 0;
}

namespace {
// The length of a control that carries a 32-bit value, asked with m_mutex
// held. A control shorter than a value is reported and refused (result 1), so
// that nothing is read or written past its buffer.
HRESULT valueControlLength(TarvikImpl& impl, int selector, const char* function,
                           unsigned int* length) {
    if (impl.check_dev_opened() != 0) {
        return kNotOpened;
    }
    *length = 0;
    if (const HRESULT r = impl._GetLength(selector, length); r != 0) {
        return r;
    }
    if (*length < kValueBytes) {
        tarvik::ReportAssertion("size >= 4", function);
        return 1;
    }
    return 0;
}
}  // namespace

HRESULT TarvikImpl::_GetValue(int selector, unsigned int* value) {
    if (value == nullptr) {
        TLOG_WARN("get value: invalid input arg.\n");
        return 1;
    }
    tarvik::ScopedLock lock(m_mutex);
    unsigned int length = 0;
    if (const HRESULT r = valueControlLength(*this, selector, "_GetValue", &length); r != 0) {
        return r;
    }
    std::vector<unsigned char> buffer(length, 0);
    if (const int r = read_from_uvc_extension(selector, static_cast<int>(length), buffer.data());
        r != 0) {
        return r;
    }
    const int decoded = Byte2Int(buffer.data(), static_cast<int>(length));
    TLOG_DEBUG("get value ok. id: %d, value: %d.\n", selector, decoded);
    *value = static_cast<unsigned int>(decoded);
    return 0;
}

HRESULT TarvikImpl::_SetValue(int selector, unsigned int value) {
    tarvik::ScopedLock lock(m_mutex);
    unsigned int length = 0;
    if (const HRESULT r = valueControlLength(*this, selector, "_SetValue", &length); r != 0) {
        return r;
    }
    std::vector<unsigned char> buffer(length, 0);
    Int2Byte(static_cast<int>(value), buffer.data(), static_cast<int>(length));
    return write_to_uvc_extension(selector, static_cast<int>(length), buffer.data());
}

HRESULT TarvikImpl::SpecialOperator(unsigned int value) {
    return _SetValue(tarvik::frame::kMarkerSelector, value);
}

HRESULT TarvikImpl::SetMarker() {
    // Tested and set under the lock, so racing threads send the marker once.
    tarvik::ScopedLock lock(m_mutex);
    if (m_bMarkerSet) {
        return 0;
    }
    const HRESULT r = SpecialOperator(0);
    if (r != 0) {
        TLOG_WARN("-----> SetMarker, hr=0x%x", static_cast<unsigned>(r));
        return r;
    }
    m_bMarkerSet = true;
    return 0;
}

// Exported members that do nothing on this camera: the marker stays set for the
// object's life and the frame size is fixed; kept for applications that call them.
HRESULT TarvikImpl::RecoveryMarker() { return 0; }

HRESULT TarvikImpl::CheckDataSize() { return 0; }
