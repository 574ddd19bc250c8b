// The write operations: start the clock, one transaction and the retry
// routine once, then the timing line. Records are never modified.
#include "TarvikImpl.h"
#include "operation_runner.h"
#include "os_time.h"
#include "tarvik_log.h"
#include "timing_log.h"

namespace {

template <typename Record>
HRESULT writeRecord(TarvikImpl& impl, const char* name, UVC_EXT_ITEM_E item, const Record& record) {
    const unsigned long start = os_gettime_us();
    // The transaction only reads the record; its untyped parameter is not const.
    const HRESULT r = tarvik::RunWrite(impl, tarvik::OperationName{tarvik::kWriteArrow, name}, item,
                                       const_cast<Record*>(&record));
    if (r != 0) {
        return r;
    }
    TLOG_CONSUMED(name, start);
    return 0;
}

}  // namespace

HRESULT TarvikImpl::zq_WriteMJpegQp(const _MJPEG_QP_PARAM& param) {
    return writeRecord(*this, "WriteMJpegQp", EXT_ITEM_MJPEG_QP, param);
}

HRESULT TarvikImpl::zq_WriteROI(const _ROI_PARAM& param) {
    return writeRecord(*this, "WriteROI", EXT_ITEM_ROI, param);
}

HRESULT TarvikImpl::zq_WriteDeviceId(const _DEVICE_ID_PARAM& param) {
    return writeRecord(*this, "WriteDeviceId", EXT_ITEM_DEVICE_ID, param);
}

HRESULT TarvikImpl::zq_WriteDeviceSn(const _DEVICE_SN_PARAM& param) {
    return writeRecord(*this, "WriteDeviceSn", EXT_ITEM_DEVICE_SN, param);
}

HRESULT TarvikImpl::zq_WriteGpio(const _GPIO_PARAM& param) {
    return writeRecord(*this, "WriteGpio", EXT_ITEM_GPIO, param);
}

HRESULT TarvikImpl::zq_WriteVCM(const _VCM_PARAM& param) {
    return writeRecord(*this, "WriteVCM", EXT_ITEM_VCM, param);
}
