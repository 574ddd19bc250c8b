// The shared shape of the read and write operations: one attempt, then the
// retry routine once, with the operation's failure lines (internal).
#ifndef TARVIK_OPERATION_RUNNER_H
#define TARVIK_OPERATION_RUNNER_H

#include "TarvikImpl.h"

namespace tarvik {

// How an operation names itself in its lines: "<arrow> <name>, error, hr=..."
struct OperationName {
    const char* arrow;  // "<-----" for reads, "----->" for writes and ReadVCM
    const char* name;
};

constexpr const char* kReadArrow = "<-----";
constexpr const char* kWriteArrow = "----->";

HRESULT RunRead(TarvikImpl& impl, const OperationName& op, UVC_EXT_ITEM_E item, void* input,
                void* output);
HRESULT RunWrite(TarvikImpl& impl, const OperationName& op, UVC_EXT_ITEM_E item, void* input);

}  // namespace tarvik

#endif
