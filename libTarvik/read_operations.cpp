// The read operations: check the pointer, start the clock, clear the record,
// one transaction and the retry routine once, then the timing line.
#include <cstring>

#include "TarvikImpl.h"
#include "frame_codec.h"
#include "operation_runner.h"
#include "os_time.h"
#include "sensor_math.h"
#include "tarvik_log.h"
#include "timing_log.h"

using tarvik::kReadArrow;
using tarvik::kWriteArrow;

namespace {

constexpr HRESULT kMissingRecord = 1;
constexpr HRESULT kInvalidGyroSample = 13;
constexpr unsigned kStreamCodeMask = 0xFFFF;
constexpr unsigned kStreamCodeStreaming = 0x0210;
constexpr unsigned kAutoFocusShift = 24;

struct ReadOp {
    tarvik::OperationName name;
    UVC_EXT_ITEM_E item;
    bool timesFailure = false;  // the timing line also after a final failure
};

// The family's steps after the record is ready: the transaction with its
// retry, `finish` once it succeeded, and the timing line when all did.
template <typename Finish>
HRESULT timedRead(TarvikImpl& impl, const ReadOp& op, unsigned long start, void* input, void* into,
                  Finish finish) {
    HRESULT r = tarvik::RunRead(impl, op.name, op.item, input, into);
    if (r == 0) r = finish();
    if (r == 0 || op.timesFailure) TLOG_CONSUMED(op.name.name, start);
    return r;
}

// Members that fill the caller's record in place, cleared first.
template <typename Record>
HRESULT readInPlace(TarvikImpl& impl, const ReadOp& op, Record* record, void* input = nullptr) {
    if (record == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    std::memset(record, 0, sizeof *record);
    return timedRead(impl, op, start, input, record, [] { return HRESULT{0}; });
}

// Members that read into a local record and hand the caller a value derived
// from it: the caller's variable is written only on success.
template <typename Local, typename Out, typename Convert>
HRESULT readThroughLocal(TarvikImpl& impl, const ReadOp& op, Out* out, Convert convert) {
    if (out == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    Local local{};
    return timedRead(impl, op, start, nullptr, &local, [&] {
        *out = convert(local);
        return HRESULT{0};
    });
}

}  // namespace

HRESULT TarvikImpl::zq_ReadVersion(_VERSION_PARAM* param) {
    return readInPlace(*this, {{kReadArrow, "ReadVersion"}, EXT_ITEM_VERSION}, param);
}

HRESULT TarvikImpl::zq_ReadMJpegQp(_MJPEG_QP_PARAM* param) {
    return readInPlace(*this, {{kReadArrow, "ReadMJpegQp"}, EXT_ITEM_MJPEG_QP, true}, param);
}

HRESULT TarvikImpl::zq_ReadRoiStatus(unsigned int* status) {
    return readInPlace(*this, {{kReadArrow, "ReadRoiStatus"}, EXT_ITEM_ROI_STATUS}, status);
}

HRESULT TarvikImpl::zq_ReadROI(_ROI_PARAM* param) {
    return readInPlace(*this, {{kReadArrow, "ReadROI"}, EXT_ITEM_ROI}, param);
}

HRESULT TarvikImpl::zq_ReadDeviceId(_DEVICE_ID_PARAM* param) {
    return readInPlace(*this, {{kReadArrow, "ReadDeviceId"}, EXT_ITEM_DEVICE_ID}, param);
}

HRESULT TarvikImpl::zq_ReadDeviceSn(_DEVICE_SN_PARAM* param) {
    return readInPlace(*this, {{kReadArrow, "ReadDeviceSn"}, EXT_ITEM_DEVICE_SN}, param);
}

HRESULT TarvikImpl::zq_ReadVCM(_VCM_MODE_E mode, unsigned short* value) {
    _VCM_MODE_E requested = mode;  // the request carries its low byte
    return readInPlace(*this, {{kWriteArrow, "ReadVCM"}, EXT_ITEM_VCM}, value, &requested);
}

HRESULT TarvikImpl::zq_ReadAutoFocusState(unsigned char* state) {
    return readThroughLocal<unsigned int>(
        *this, {{kReadArrow, "ReadStreamState"}, EXT_ITEM_STREAM_STATE}, state,
        [](unsigned int streamState) {
            return static_cast<unsigned char>(streamState >> kAutoFocusShift);
        });
}

HRESULT TarvikImpl::ReadStreamState(unsigned int* state) {
    return readThroughLocal<unsigned int>(
        *this, {{kReadArrow, "ReadStreamState"}, EXT_ITEM_STREAM_STATE}, state,
        [](unsigned int streamState) {
            return (streamState & kStreamCodeMask) == kStreamCodeStreaming ? 1u : 0u;
        });
}

HRESULT TarvikImpl::ReadLastId(short* lastId) {
    return readThroughLocal<short>(*this, {{kReadArrow, "ReadLastId"}, EXT_ITEM_LAST_ID}, lastId,
                                   [](short id) { return id; });
}

HRESULT TarvikImpl::zq_ReadGyro(_GYRO_PARAM* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    *param = _GYRO_PARAM{};
    std::uint8_t raw[tarvik::frame::kGyroRawSize] = {};
    return timedRead(*this, {{kReadArrow, "ReadGyro"}, EXT_ITEM_GYRO}, start, nullptr, raw, [&] {
        if (tarvik::gyro_to_tilt(raw, param)) return HRESULT{0};
        TLOG_WARN("ReadGyro, return invalid data, return Failed");
        return kInvalidGyroSample;
    });
}
