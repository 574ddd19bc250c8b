// The read and write transactions: one 60-byte frame on selector 14 each way.
// A whole transaction holds m_mutex and the camera's lock, from the marker to
// its last transfer, so that neither threads sharing an object nor processes
// sharing the camera ever receive each other's answers.
#include "TarvikImpl.h"
#include "call_status.h"
#include "camera_lock.h"
#include "frame_codec.h"
#include "sam_channel.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

using tarvik::frame::Frame;
using tarvik::frame::kFrameSize;
using tarvik::frame::kTransactionSelector;

namespace {
constexpr HRESULT kMissingRecord = 1;
constexpr HRESULT kItemNotHandled = 7;

unsigned hex(HRESULT r) { return static_cast<unsigned>(r); }
}  // namespace

HRESULT TarvikImpl::ReadByExtItem(UVC_EXT_ITEM_E item, void* input, void* output) {
    const tarvik::frame::ReadRecords needed = tarvik::frame::read_records_needed(item);
    if ((needed.output && output == nullptr) || (needed.input && input == nullptr)) {
        return kMissingRecord;
    }
    tarvik::TransactionLock lock(m_mutex, m_pPrivate->cameraLock);
    tarvik::clear_transfer_failure();
    CheckDataSize();
    if (const HRESULT r = SetMarker(); r != 0) {
        TLOG_WARN("ReadByExtItem 1 error. hr = 0x%x", hex(r));
        return r;
    }
    if (item == EXT_ITEM_SAM) {
        return tarvik::sam::read_sam_item(*this, static_cast<const _SAM_IN_PARAM*>(input),
                                          static_cast<_SAM_OUT_PARAM*>(output));
    }

    Frame frame;
    tarvik::frame::build_read_request(frame, item, m_nProductType, 0, input);
    const bool dataBlock = item == EXT_ITEM_DATA_BLOCK;
    if (dataBlock) {
        ++m_nLastId;
        tarvik::frame::set_trans_id(frame, m_nLastId);
        TLOG_DEBUG("===== read, tell m_nLastId [%d] to device, next _SetBytes...", m_nLastId);
    }
    if (const HRESULT r = _SetBytes(kTransactionSelector, frame.data(), kFrameSize); r != 0) {
        TLOG_WARN("ReadByExtItem, _SetBytes error. extItemType=%d, hr=0x%x", static_cast<int>(item),
                  hex(r));
        RecoveryMarker();
        return r;
    }
    if (dataBlock) {
        ++m_nLastId;
        TLOG_DEBUG("===== read, m_nLastId [%d], next _GetBytes...", m_nLastId);
    }
    frame.fill(0);
    if (const HRESULT r = _GetBytes(kTransactionSelector, frame.data(), kFrameSize); r != 0) {
        TLOG_WARN("ReadByExtItem, _GetBytes error. extItemType=%d, hr=0x%x", static_cast<int>(item),
                  hex(r));
        RecoveryMarker();
        return r;
    }
    const HRESULT result =
        tarvik::frame::decode_read_answer(item, frame, input, output) ? 0 : kItemNotHandled;
    RecoveryMarker();
    return result;
}

HRESULT TarvikImpl::WriteByExtItem(UVC_EXT_ITEM_E item, void* input) {
    if (input == nullptr) {
        return kMissingRecord;
    }
    tarvik::TransactionLock lock(m_mutex, m_pPrivate->cameraLock);
    tarvik::clear_transfer_failure();
    if (const HRESULT r = SetMarker(); r != 0) {
        TLOG_WARN("WriteByExtItem 1 error. hr = 0x%x", hex(r));
        return r;
    }
    CheckDataSize();

    Frame frame;
    HRESULT result = kItemNotHandled;
    if (tarvik::frame::build_write_request(frame, item, m_nProductType, input)) {
        if (item == EXT_ITEM_DATA_BLOCK) {
            ++m_nLastId;
            tarvik::frame::set_trans_id(frame, m_nLastId);
            TLOG_DEBUG("===== write, tell m_nLastId [%d] to device, next _SetBytes...", m_nLastId);
        }
        result = _SetBytes(kTransactionSelector, frame.data(), kFrameSize);
    }
    RecoveryMarker();
    return result;
}
