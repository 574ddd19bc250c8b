#include "operation_runner.h"

#include "tarvik_log.h"

namespace tarvik {

HRESULT RunRead(TarvikImpl& impl, const OperationName& op, UVC_EXT_ITEM_E item, void* input,
                void* output) {
    const HRESULT r = impl.ReadByExtItem(item, input, output);
    if (r == 0) {
        return 0;
    }
    TLOG_WARN("%s %s, error, hr=0x%x", op.arrow, op.name, static_cast<unsigned>(r));
    const HRESULT r2 = impl.RetryReadByExtCmd(item, input, output);
    if (r2 != 0) {
        TLOG_WARN("%s %s, hr=0x%x", op.arrow, op.name, static_cast<unsigned>(r2));
    }
    return r2;
}

HRESULT RunWrite(TarvikImpl& impl, const OperationName& op, UVC_EXT_ITEM_E item, void* input) {
    const HRESULT r = impl.WriteByExtItem(item, input);
    if (r == 0) {
        return 0;
    }
    TLOG_WARN("%s %s, error, hr=0x%x", op.arrow, op.name, static_cast<unsigned>(r));
    const HRESULT r2 = impl.RetryWriteByExtCmd(item, input);
    if (r2 != 0) {
        TLOG_WARN("%s %s, hr=0x%x", op.arrow, op.name, static_cast<unsigned>(r2));
    }
    return r2;
}

}  // namespace tarvik
