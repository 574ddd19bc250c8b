// The retry routines: after an operation's own first attempt failed, the same
// transaction runs at most twice more, each attempt logged.
#include <cstring>
#include <iterator>

#include "TarvikImpl.h"
#include "frame_codec.h"
#include "tarvik_log.h"

namespace {

constexpr int kAttempts = 2;
constexpr HRESULT kItemNotInTable = 7;

struct ReadRetryRow {
    UVC_EXT_ITEM_E item;
    const char* name;
    size_t outputSize;  // zero-filled before each attempt
    bool passInput;
};

// In the order the routine tests them.
constexpr ReadRetryRow kReadRows[] = {
    {EXT_ITEM_VERSION, "ReadVersion", sizeof(_VERSION_PARAM), false},
    {EXT_ITEM_ET, "ReadET", sizeof(_DUAL_ET_PARAM), false},
    {EXT_ITEM_MJPEG_QP, "ReadMJpegQp", sizeof(_MJPEG_QP_PARAM), false},
    {EXT_ITEM_GYRO, "ReadGyro", tarvik::frame::kGyroRawSize, false},
    {EXT_ITEM_ROI_STATUS, "ReadRoiStatus", sizeof(unsigned int), false},
    {EXT_ITEM_ROI, "ReadROI", sizeof(_ROI_PARAM), false},
    {EXT_ITEM_DEVICE_ID, "ReadDeviceId", sizeof(_DEVICE_ID_PARAM), false},
    {EXT_ITEM_DEVICE_SN, "ReadDeviceSn", sizeof(_DEVICE_SN_PARAM), false},
    {EXT_ITEM_SAM, "ReadSAM", sizeof(_SAM_OUT_PARAM), true},
    {EXT_ITEM_STREAM_STATE, "ReadStreamState", sizeof(unsigned int), false},
    {EXT_ITEM_LAST_ID, "ReadLastId", sizeof(unsigned short), false},
    {EXT_ITEM_VCM, "ReadVCM", sizeof(unsigned short), true},
};

struct WriteRetryRow {
    UVC_EXT_ITEM_E item;
    const char* name;
};

constexpr WriteRetryRow kWriteRows[] = {
    {EXT_ITEM_ET, "WriteET"},
    {EXT_ITEM_BEEP, "WriteBeep"},
    {EXT_ITEM_LED, "WriteLed"},
    {EXT_ITEM_MJPEG_QP, "WriteMJpegQp"},
    {EXT_ITEM_ROI, "WriteROI"},
    {EXT_ITEM_STATUS_LED, "WriteStatusLed"},
    {EXT_ITEM_DEVICE_ID, "WriteDeviceId"},
    {EXT_ITEM_DEVICE_SN, "WriteDeviceSn"},
    {EXT_ITEM_UVC_MODE, "WriteUVCMode"},
    {EXT_ITEM_GPIO, "WriteGPIO"},
    {EXT_ITEM_VCM, "WriteVCM"},
};

template <typename Row, size_t N>
const Row* findRow(const Row (&rows)[N], UVC_EXT_ITEM_E item) {
    for (const Row& row : rows) {
        if (row.item == item) return &row;
    }
    return nullptr;
}

// Runs `attempt` up to twice, logging each outcome under `name`.
template <typename Attempt>
HRESULT retry(const char* name, Attempt attempt) {
    HRESULT r = 0;
    for (int times = 1; times <= kAttempts; ++times) {
        r = attempt();
        if (r == 0) {
            TLOG("----- %s, retry times=%d, ok, hr=0x%x", name, times, 0u);
            return 0;
        }
        TLOG("----- %s, retry times=%d, still error, hr=0x%x", name, times,
             static_cast<unsigned>(r));
    }
    return r;
}

}  // namespace

HRESULT TarvikImpl::RetryReadByExtCmd(UVC_EXT_ITEM_E item, void* input, void* output) {
    const ReadRetryRow* row = findRow(kReadRows, item);
    if (row == nullptr) {
        return kItemNotInTable;
    }
    void* passed = row->passInput ? input : nullptr;
    return retry(row->name, [&] {
        if (output != nullptr) {  // a null record is the transaction's to reject
            std::memset(output, 0, row->outputSize);
        }
        return ReadByExtItem(item, passed, output);
    });
}

HRESULT TarvikImpl::RetryWriteByExtCmd(UVC_EXT_ITEM_E item, void* input) {
    const WriteRetryRow* row = findRow(kWriteRows, item);
    if (row == nullptr) {
        return kItemNotInTable;
    }
    return retry(row->name, [&] { return WriteByExtItem(item, input); });
}
