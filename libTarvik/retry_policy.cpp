// The retry routines: after an operation's own first attempt failed, the same
// transaction runs at most twice more, each attempt logged.
#include <cstring>

#include "TarvikImpl.h"
#include "item_table.h"
#include "tarvik_log.h"

namespace {

constexpr int kAttempts = 2;
constexpr HRESULT kItemNotInTable = 7;

// Runs `attempt` up to twice, logging each outcome under `name`.
template <typename Attempt>
HRESULT retry(const char* name, Attempt attempt) {
    HRESULT r = 0;
    for (int times = 1; times <= kAttempts; ++times) {
        r = attempt();
        if (r == 0) {
            TLOG_WARN("----- %s, retry times=%d, ok, hr=0x%x", name, times, 0u);
            return 0;
        }
        TLOG_WARN("----- %s, retry times=%d, still error, hr=0x%x", name, times,
                  static_cast<unsigned>(r));
    }
    return r;
}

}  // namespace

// An item's retry line is its row's retry name; items without one are not
// in the routine's table.
HRESULT TarvikImpl::RetryReadByExtCmd(UVC_EXT_ITEM_E item, void* input, void* output) {
    const tarvik::items::Item* row = tarvik::items::find(item);
    if (row == nullptr || row->read.retryName == nullptr) {
        return kItemNotInTable;
    }
    void* passed = row->read.needsInput ? input : nullptr;
    return retry(row->read.retryName, [&] {
        if (output != nullptr) {  // a null record is the transaction's to reject
            std::memset(output, 0, row->read.record);
        }
        return ReadByExtItem(item, passed, output);
    });
}

HRESULT TarvikImpl::RetryWriteByExtCmd(UVC_EXT_ITEM_E item, void* input) {
    const tarvik::items::Item* row = tarvik::items::find(item);
    if (row == nullptr || row->write.retryName == nullptr) {
        return kItemNotInTable;
    }
    return retry(row->write.retryName, [&] { return WriteByExtItem(item, input); });
}
