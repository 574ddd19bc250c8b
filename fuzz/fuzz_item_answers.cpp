// Every extension item's answer and request through the library's transactions
// and operations, with the device's answers and failures taken from the input.
// Input: operation byte, argument byte, 64 record bytes, then the device
// script (device_script.h). Records are heap blocks of exactly their size, so
// a byte written or read past one is caught.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "TarvikImpl.h"
#include "byte_pack.h"
#include "device_script.h"

using namespace tarvik::fuzz;

namespace {

constexpr std::size_t kRecordBytes = 64;

class QuietLogger : public AssertLogger {
public:
    void Log(char*) override {}
};

// A heap block of exactly `size` bytes, filled from the input's record bytes.
struct Block {
    Block(std::size_t size, const std::uint8_t* fill)
        : bytes(new unsigned char[std::max<std::size_t>(size, 1)]), n(size) {
        if (size > 0) std::memcpy(bytes.get(), fill, std::min(size, kRecordBytes));
    }
    template <typename T>
    T* as() {
        return reinterpret_cast<T*>(bytes.get());
    }
    bool allZero() const {
        return std::all_of(bytes.get(), bytes.get() + n, [](unsigned char b) { return b == 0; });
    }
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t n;
};

// Results an operation may give: success, its own codes, a libusb code of the
// script, or a short count.
bool Documented(HRESULT r) {
    switch (r) {
        case 0:
        case 1:
        case 7:
        case 13:
        case -2:
        case LIBUSB_ERROR_PIPE:
        case LIBUSB_ERROR_NO_DEVICE:
        case LIBUSB_ERROR_TIMEOUT:
        case LIBUSB_ERROR_IO:
            return true;
        default:
            return r > 0 && r < 60;
    }
}

// The last answer frame the library received in full.
const SeenTransfer* LastAnswer() {
    const SeenTransfer* last = nullptr;
    for (const SeenTransfer& t : Seen()) {
        // Moving nothing counts as success too (libusb returns 0, not a short count).
        if (t.selector == 14 && t.request == 0x81 && (t.result == 60 || t.result == 0)) last = &t;
    }
    return last;
}

template <typename R, HRESULT (TarvikImpl::*Op)(R*)>
HRESULT Call(TarvikImpl& t, void* p) {
    return (t.*Op)(static_cast<R*>(p));
}

struct ReadOp {
    HRESULT (*call)(TarvikImpl&, void*);
    std::size_t size;
    int copiedFrom;  // answer byte the record is copied from unchanged; -1: decoded
    bool local;      // works on a local record: the caller's is written only on success
};

const ReadOp kReads[] = {
    {Call<_VERSION_PARAM, &TarvikImpl::zq_ReadVersion>, sizeof(_VERSION_PARAM), 4, false},
    {Call<_MJPEG_QP_PARAM, &TarvikImpl::zq_ReadMJpegQp>, sizeof(_MJPEG_QP_PARAM), 4, false},
    {Call<unsigned int, &TarvikImpl::zq_ReadRoiStatus>, sizeof(unsigned int), 4, false},
    {Call<_ROI_PARAM, &TarvikImpl::zq_ReadROI>, sizeof(_ROI_PARAM), 4, false},
    {Call<_DEVICE_ID_PARAM, &TarvikImpl::zq_ReadDeviceId>, sizeof(_DEVICE_ID_PARAM), 4, false},
    {Call<_DEVICE_SN_PARAM, &TarvikImpl::zq_ReadDeviceSn>, sizeof(_DEVICE_SN_PARAM), 4, false},
    {Call<_GYRO_PARAM, &TarvikImpl::zq_ReadGyro>, sizeof(_GYRO_PARAM), -1, false},
    {Call<unsigned char, &TarvikImpl::zq_ReadAutoFocusState>, sizeof(unsigned char), -1, true},
    {Call<unsigned int, &TarvikImpl::ReadStreamState>, sizeof(unsigned int), -1, true},
    {Call<short, &TarvikImpl::ReadLastId>, sizeof(short), 4, true},
};

struct WriteOp {
    HRESULT (*call)(TarvikImpl&, const void*);
    std::size_t size;
    unsigned item;
};

template <typename R, HRESULT (TarvikImpl::*Op)(const R&)>
HRESULT CallWrite(TarvikImpl& t, const void* p) {
    return (t.*Op)(*static_cast<const R*>(p));
}

const WriteOp kWrites[] = {
    {CallWrite<_MJPEG_QP_PARAM, &TarvikImpl::zq_WriteMJpegQp>, sizeof(_MJPEG_QP_PARAM), 2},
    {CallWrite<_ROI_PARAM, &TarvikImpl::zq_WriteROI>, sizeof(_ROI_PARAM), 6},
    {CallWrite<_DEVICE_ID_PARAM, &TarvikImpl::zq_WriteDeviceId>, sizeof(_DEVICE_ID_PARAM), 9},
    {CallWrite<_DEVICE_SN_PARAM, &TarvikImpl::zq_WriteDeviceSn>, sizeof(_DEVICE_SN_PARAM), 8},
    {CallWrite<_GPIO_PARAM, &TarvikImpl::zq_WriteGpio>, sizeof(_GPIO_PARAM), 17},
    {CallWrite<_VCM_PARAM, &TarvikImpl::zq_WriteVCM>, sizeof(_VCM_PARAM), 18},
};

// Record sizes of ReadByExtItem's output (item 10 answers into its input).
std::size_t ReadOutputSize(unsigned item) {
    switch (item) {
        case EXT_ITEM_ET:
            return sizeof(_DUAL_ET_PARAM);
        case EXT_ITEM_MJPEG_QP:
            return sizeof(_MJPEG_QP_PARAM);
        case EXT_ITEM_VERSION:
            return sizeof(_VERSION_PARAM);
        case EXT_ITEM_ROI:
            return sizeof(_ROI_PARAM);
        case EXT_ITEM_ROI_STATUS:
        case EXT_ITEM_STREAM_STATE:
            return sizeof(unsigned int);
        case EXT_ITEM_DEVICE_SN:
            return sizeof(_DEVICE_SN_PARAM);
        case EXT_ITEM_DEVICE_ID:
            return sizeof(_DEVICE_ID_PARAM);
        case EXT_ITEM_LAST_ID:
        case EXT_ITEM_VCM:
            return sizeof(unsigned short);
        case EXT_ITEM_GYRO:
            return 14;
        default:
            return 0;  // passed as null: nothing may be written
    }
}

std::size_t WriteRecordSize(unsigned item) {
    switch (item) {
        case EXT_ITEM_ET:
            return sizeof(_DUAL_ET_PARAM);
        case EXT_ITEM_MJPEG_QP:
            return sizeof(_MJPEG_QP_PARAM);
        case EXT_ITEM_BEEP:
        case EXT_ITEM_UVC_MODE:
            return sizeof(unsigned int);
        case EXT_ITEM_STATUS_LED:
            return sizeof(_STATUS_LED_PARAM);
        case EXT_ITEM_ROI:
            return sizeof(_ROI_PARAM);
        case EXT_ITEM_DEVICE_SN:
            return sizeof(_DEVICE_SN_PARAM);
        case EXT_ITEM_DEVICE_ID:
            return sizeof(_DEVICE_ID_PARAM);
        case EXT_ITEM_DATA_BLOCK:
            return sizeof(uvc_extDataBlock);
        case EXT_ITEM_SAM:
            return sizeof(_SAM_IN_PARAM);
        case EXT_ITEM_LED:
            return sizeof(_LED_CONTROL_PARAM);
        case EXT_ITEM_GPIO:
            return sizeof(_GPIO_PARAM);
        case EXT_ITEM_VCM:
            return sizeof(_VCM_PARAM);
        default:
            return 1;  // required, never read
    }
}

// What every run must show on the wire: at most three attempts of one
// transaction, each request a well-formed 60-byte frame, the marker a single
// 8-byte zero write that succeeds at most once.
void CheckWire(unsigned writeItem) {
    int requests = 0, markersDone = 0;
    for (const SeenTransfer& t : Seen()) {
        if (t.selector == 1) {
            FUZZ_CHECK(t.request == 0x01 && t.length == 8);
            FUZZ_CHECK(
                std::all_of(t.out.begin(), t.out.end(), [](std::uint8_t b) { return b == 0; }));
            markersDone += t.result == 8;
            continue;
        }
        FUZZ_CHECK(t.selector == 14 && t.length == 60);
        if (t.request != 0x01) continue;
        ++requests;
        FUZZ_CHECK((t.out[1] >> 4) == 1);  // product type 1
        const unsigned item = t.out[0] | ((t.out[1] & 0x0F) << 8);
        if (writeItem != 0) FUZZ_CHECK(item == writeItem);
    }
    FUZZ_CHECK(requests <= 3);
    FUZZ_CHECK(markersDone <= 1);
}

void RunRead(TarvikImpl& impl, const ReadOp& op, const std::uint8_t* record) {
    Block out(op.size, record);
    const std::vector<unsigned char> before(out.bytes.get(), out.bytes.get() + op.size);
    const HRESULT r = op.call(impl, out.bytes.get());
    FUZZ_CHECK(Documented(r));
    const bool gyro = op.call == kReads[6].call;
    if (gyro && r == 13) {  // an all-zero sample (or a short count of 13 bytes)
        FUZZ_CHECK(out.allZero());
        return;
    }
    if (r != 0) {
        // A failed read delivers nothing: the caller's record is cleared, or
        // left as it was by the members that work on a local record.
        if (op.local) {
            FUZZ_CHECK(std::equal(before.begin(), before.end(), out.bytes.get()));
        } else {
            FUZZ_CHECK(out.allZero());
        }
        return;
    }
    const SeenTransfer* answer = LastAnswer();
    FUZZ_CHECK(answer != nullptr);
    if (op.copiedFrom >= 0) {
        FUZZ_CHECK(std::memcmp(out.bytes.get(), answer->in.data() + op.copiedFrom, op.size) == 0);
    }
    if (gyro) {
        const auto* g = out.as<_GYRO_PARAM>();
        FUZZ_CHECK(g->pitch >= -90 && g->pitch <= 90 && g->roll >= -90 && g->roll <= 90);
    }
}

void RunWrite(TarvikImpl& impl, const WriteOp& op, const std::uint8_t* record) {
    Block in(op.size, record);
    const std::vector<unsigned char> before(in.bytes.get(), in.bytes.get() + op.size);
    FUZZ_CHECK(Documented(op.call(impl, in.bytes.get())));
    FUZZ_CHECK(std::equal(before.begin(), before.end(), in.bytes.get()));  // never modified
    CheckWire(op.item);
}

void RunRawRead(TarvikImpl& impl, unsigned item, const std::uint8_t* record) {
    if (item == EXT_ITEM_SAM) return;  // fuzz_sam_channel's business
    const std::size_t outSize = ReadOutputSize(item);
    Block out(outSize, record);
    const bool needsInput = item == EXT_ITEM_DATA_BLOCK || item == EXT_ITEM_VCM;
    Block in(item == EXT_ITEM_DATA_BLOCK ? sizeof(uvc_extDataBlock) : sizeof(_VCM_MODE_E), record);
    const HRESULT r =
        impl.ReadByExtItem(static_cast<UVC_EXT_ITEM_E>(item), needsInput ? in.bytes.get() : nullptr,
                           outSize > 0 ? out.bytes.get() : nullptr);
    FUZZ_CHECK(Documented(r));
    const bool handled = outSize > 0 || item == EXT_ITEM_DATA_BLOCK;
    if (!handled) FUZZ_CHECK(r != 0);
    CheckWire(0);
}

void RunRawWrite(TarvikImpl& impl, unsigned item, const std::uint8_t* record) {
    Block in(WriteRecordSize(item), record);
    FUZZ_CHECK(Documented(impl.WriteByExtItem(static_cast<UVC_EXT_ITEM_E>(item), in.bytes.get())));
    CheckWire(item & 0x0FFF);
}

// _GetValue and _SetValue trust the length the device answers to GET_LEN.
void RunValue(TarvikImpl& impl, unsigned selector, const std::uint8_t* record) {
    unsigned int value = 0;
    const HRESULT g = impl._GetValue(static_cast<int>(selector), &value);
    FUZZ_CHECK(Documented(g));
    unsigned int v;
    std::memcpy(&v, record, sizeof v);
    FUZZ_CHECK(Documented(impl._SetValue(static_cast<int>(selector), v)));
}

// The members that never reach the device.
void RunFixed(TarvikImpl& impl, const std::uint8_t* record) {
    Block mae(sizeof(_MAE_PARAM), record), range(sizeof(_DUAL_ET_RANGE), record),
        mode(sizeof(_DUAL_ET_MODE), record);
    FUZZ_CHECK(impl.zq_ReadManualAE(mae.as<_MAE_PARAM>()) == -2);
    FUZZ_CHECK(impl.zq_ReadETRange(range.as<_DUAL_ET_RANGE>()) == -2);
    FUZZ_CHECK(impl.zq_ReadETMode(mode.as<_DUAL_ET_MODE>()) == -2);
    FUZZ_CHECK(impl.zq_WriteManualAE(*mae.as<_MAE_PARAM>()) == -2);
    const HRESULT m = impl.zq_WriteETMode(*mode.as<_DUAL_ET_MODE>());
    FUZZ_CHECK(m == -2 || m == -103);
    FUZZ_CHECK(Seen().empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SilenceStdout();
    static QuietLogger logger;
    SetAssertLogger(&logger);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 + kRecordBytes) return 0;
    const unsigned op = data[0];
    const unsigned arg = data[1];
    const std::uint8_t* record = data + 2;
    StartScript(data + 2 + kRecordBytes, size - 2 - kRecordBytes);

    TarvikImpl impl(FakeHandle());
    constexpr unsigned nReads = sizeof kReads / sizeof kReads[0];
    constexpr unsigned nWrites = sizeof kWrites / sizeof kWrites[0];
    const unsigned choice = op % (nReads + nWrites + 5);
    if (choice < nReads) {
        RunRead(impl, kReads[choice], record);
        CheckWire(0);
    } else if (choice < nReads + nWrites) {
        RunWrite(impl, kWrites[choice - nReads], record);
    } else if (choice == nReads + nWrites) {
        unsigned short value = 0xFFFF;
        const HRESULT r = impl.zq_ReadVCM(static_cast<_VCM_MODE_E>(arg), &value);
        FUZZ_CHECK(Documented(r));
        if (r != 0) FUZZ_CHECK(value == 0);
        CheckWire(0);
    } else if (choice == nReads + nWrites + 1) {
        RunRawRead(impl, arg % 32, record);
    } else if (choice == nReads + nWrites + 2) {
        // 0-31 are the values an item may take (the enumeration's range).
        RunRawWrite(impl, arg % 32, record);
    } else if (choice == nReads + nWrites + 3) {
        RunValue(impl, arg, record);
    } else {
        RunFixed(impl, record);
    }
    return 0;
}
