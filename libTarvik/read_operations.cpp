// The read operations: check the pointer, start the clock, clear the record,
// one transaction and the retry routine once, then the timing line.
#include <cstring>

#include "TarvikImpl.h"
#include "frame_codec.h"
#include "operation_runner.h"
#include "os_time.h"
#include "sensor_math.h"
#include "tarvik_log.h"

using tarvik::kReadArrow;
using tarvik::kWriteArrow;
using tarvik::OperationName;

namespace {

constexpr HRESULT kMissingRecord = 1;
constexpr HRESULT kInvalidGyroSample = 13;
constexpr unsigned kStreamCodeMask = 0xFFFF;
constexpr unsigned kStreamCodeStreaming = 0x0210;
constexpr unsigned kAutoFocusShift = 24;

// The family's pattern for members that fill the caller's record in place.
template <typename Record>
HRESULT readInPlace(TarvikImpl& impl, const char* name, UVC_EXT_ITEM_E item, Record* record) {
    if (record == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    std::memset(record, 0, sizeof *record);
    const HRESULT r = tarvik::RunRead(impl, OperationName{kReadArrow, name}, item, nullptr, record);
    if (r != 0) {
        return r;
    }
    TLOG_CONSUMED(name, start);
    return 0;
}

// The pattern for members that read into a local record and hand the caller
// a value derived from it: the caller's variable is written only on success.
template <typename Local, typename Out, typename Convert>
HRESULT readThroughLocal(TarvikImpl& impl, const char* name, UVC_EXT_ITEM_E item, Out* out,
                         Convert convert) {
    if (out == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    Local local{};
    const HRESULT r = tarvik::RunRead(impl, OperationName{kReadArrow, name}, item, nullptr, &local);
    if (r != 0) {
        return r;
    }
    *out = convert(local);
    TLOG_CONSUMED(name, start);
    return 0;
}

}  // namespace

HRESULT TarvikImpl::zq_ReadVersion(_VERSION_PARAM* param) {
    return readInPlace(*this, "ReadVersion", EXT_ITEM_VERSION, param);
}

HRESULT TarvikImpl::zq_ReadMJpegQp(_MJPEG_QP_PARAM* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    std::memset(param, 0, sizeof *param);
    const HRESULT r = tarvik::RunRead(*this, OperationName{kReadArrow, "ReadMJpegQp"},
                                      EXT_ITEM_MJPEG_QP, nullptr, param);
    // This member reports its time after a final failure too.
    TLOG_CONSUMED("ReadMJpegQp", start);
    return r;
}

HRESULT TarvikImpl::zq_ReadRoiStatus(unsigned int* status) {
    return readInPlace(*this, "ReadRoiStatus", EXT_ITEM_ROI_STATUS, status);
}

HRESULT TarvikImpl::zq_ReadROI(_ROI_PARAM* param) {
    return readInPlace(*this, "ReadROI", EXT_ITEM_ROI, param);
}

HRESULT TarvikImpl::zq_ReadDeviceId(_DEVICE_ID_PARAM* param) {
    return readInPlace(*this, "ReadDeviceId", EXT_ITEM_DEVICE_ID, param);
}

HRESULT TarvikImpl::zq_ReadDeviceSn(_DEVICE_SN_PARAM* param) {
    return readInPlace(*this, "ReadDeviceSn", EXT_ITEM_DEVICE_SN, param);
}

HRESULT TarvikImpl::zq_ReadVCM(_VCM_MODE_E mode, unsigned short* value) {
    if (value == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    *value = 0;
    _VCM_MODE_E requested = mode;  // the request carries its low byte
    const HRESULT r = tarvik::RunRead(*this, OperationName{kWriteArrow, "ReadVCM"}, EXT_ITEM_VCM,
                                      &requested, value);
    if (r != 0) {
        return r;
    }
    TLOG_CONSUMED("ReadVCM", start);
    return 0;
}

HRESULT TarvikImpl::zq_ReadAutoFocusState(unsigned char* state) {
    return readThroughLocal<unsigned int>(
        *this, "ReadStreamState", EXT_ITEM_STREAM_STATE, state, [](unsigned int streamState) {
            return static_cast<unsigned char>(streamState >> kAutoFocusShift);
        });
}

HRESULT TarvikImpl::ReadStreamState(unsigned int* state) {
    return readThroughLocal<unsigned int>(
        *this, "ReadStreamState", EXT_ITEM_STREAM_STATE, state, [](unsigned int streamState) {
            return (streamState & kStreamCodeMask) == kStreamCodeStreaming ? 1u : 0u;
        });
}

HRESULT TarvikImpl::ReadLastId(short* lastId) {
    return readThroughLocal<short>(*this, "ReadLastId", EXT_ITEM_LAST_ID, lastId,
                                   [](short id) { return id; });
}

HRESULT TarvikImpl::zq_ReadGyro(_GYRO_PARAM* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    const unsigned long start = os_gettime_us();
    param->pitch = 0;
    param->roll = 0;
    std::uint8_t raw[tarvik::frame::kGyroRawSize] = {};
    const HRESULT r =
        tarvik::RunRead(*this, OperationName{kReadArrow, "ReadGyro"}, EXT_ITEM_GYRO, nullptr, raw);
    if (r != 0) {
        return r;
    }
    if (!tarvik::gyro_to_tilt(raw, param)) {
        TLOG("ReadGyro, return invalid data, return Failed");
        return kInvalidGyroSample;
    }
    TLOG_CONSUMED("ReadGyro", start);
    return 0;
}
