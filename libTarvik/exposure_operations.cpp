// Exposure of the two eyes, on top of the members zq_ReadET and zq_WriteET.
// This camera's library provides neither (both answer -2), so every operation
// ends with -2 unless one of its own checks ends it first; the checks are
// complete all the same.
#include "TarvikImpl.h"
#include "os_time.h"
#include "sensor_math.h"
#include "tarvik_log.h"
#include "timing_log.h"

namespace {

constexpr HRESULT kMissingRecord = 1;

// Reads the exposure block; logs the timing line only when it was read.
HRESULT readExposure(TarvikImpl& impl, const char* timingName, _DUAL_ET_PARAM* et) {
    const unsigned long start = os_gettime_us();
    *et = _DUAL_ET_PARAM{};
    const HRESULT r = impl.zq_ReadET(et);
    if (r != 0) {
        return r;
    }
    TLOG_CONSUMED(timingName, start);
    return 0;
}

}  // namespace

HRESULT TarvikImpl::zq_ReadManualAE(_MAE_PARAM* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    _DUAL_ET_PARAM et;
    if (const HRESULT r = readExposure(*this, "ReadET", &et); r != 0) {
        return r;
    }
    param->leftEt = et.left.et;
    param->rightEt = et.right.et;
    return 0;
}

HRESULT TarvikImpl::zq_ReadETRange(_DUAL_ET_RANGE* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    _DUAL_ET_PARAM et;
    if (const HRESULT r = readExposure(*this, "ReadETRange by ReadET", &et); r != 0) {
        return r;
    }
    param->leftMax = et.left.etMax;
    param->leftMin = et.left.etMin;
    param->rightMax = et.right.etMax;
    param->rightMin = et.right.etMin;
    return 0;
}

HRESULT TarvikImpl::zq_ReadETMode(_DUAL_ET_MODE* param) {
    if (param == nullptr) {
        return kMissingRecord;
    }
    _DUAL_ET_PARAM et;
    if (const HRESULT r = readExposure(*this, "ReadETMode by ReadET", &et); r != 0) {
        return r;
    }
    param->leftMode = et.left.flags[4];
    param->rightMode = et.right.flags[4];
    return 0;
}

HRESULT TarvikImpl::zq_WriteManualAE(const _MAE_PARAM& param) {
    _DUAL_ET_PARAM et;
    // The time is logged after the read, before the checks and the write.
    if (const HRESULT r = readExposure(*this, "WriteManualAE", &et); r != 0) {
        return r;
    }
    const HRESULT check = tarvik::check_manual_ae(et, param);
    if (check == tarvik::kErrOutOfRange) {
        TLOG_WARN("-----> WriteManualAE, error, value is out of range: [%u, %u], [%u, %u]",
                  et.left.etMin, et.left.etMax, et.right.etMin, et.right.etMax);
        return check;
    }
    if (check == tarvik::kErrNotManualMode) {
        TLOG_WARN("-----> WriteManualAE, error, current is not manual exp. mode");
        return check;
    }
    return zq_WriteET(tarvik::manual_ae_record(et, param));
}

HRESULT TarvikImpl::zq_WriteETMode(const _DUAL_ET_MODE& param) {
    if (param.leftMode != param.rightMode) {
        TLOG_WARN(
            "-----> WriteETMode, error, left eye mode [%d] should be same as right eye mode [%d]",
            param.leftMode, param.rightMode);
        return tarvik::kErrModeMismatch;
    }
    const unsigned long start = os_gettime_us();
    const HRESULT r = zq_WriteET(tarvik::et_mode_record(param));
    if (r != 0) {
        TLOG_WARN("-----> WriteETMode, hr=0x%x", static_cast<unsigned>(r));
        return r;
    }
    TLOG_CONSUMED("WriteETMode by WriteET", start);
    return 0;
}
