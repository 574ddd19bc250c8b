// Request frames and answer decoding for the transaction channel. Every item's
// place in the frame is a row of a table; records are read and written through
// memcpy so neither their alignment nor their padding matters.
#include "frame_codec.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "TarvikImpl.h"

namespace tarvik::frame {
namespace {

constexpr unsigned kHeaderSize = 4;
constexpr unsigned kItemTypeOffset = 4;
constexpr unsigned kWireEtBlockSize = 22;
constexpr unsigned kLeftEtOffset = 4;
constexpr unsigned kRightEtOffset = 32;
constexpr std::uint8_t kLedCommand = 0x1A;

// --- little-endian fields of the frame ---

void put_le(Frame& f, unsigned at, std::uint32_t v, unsigned width) {
    for (unsigned i = 0; i < width; ++i) f[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint32_t get_le(const Frame& f, unsigned at, unsigned width) {
    std::uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i) v |= static_cast<std::uint32_t>(f[at + i]) << (8 * i);
    return v;
}

void put_header(Frame& f, std::uint32_t writeItem, std::uint16_t productType,
                std::uint16_t transId) {
    const auto word =
        static_cast<std::uint16_t>((writeItem & 0x0FFFu) | ((productType & 0x000Fu) << 12));
    put_le(f, 0, word, 2);
    set_trans_id(f, transId);
}

// --- native fields of a caller's record ---

std::uint32_t record_field(const void* record, unsigned index, unsigned width) {
    const auto* p = static_cast<const unsigned char*>(record) + index * width;
    if (width == 2) {
        std::uint16_t v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void set_record_field(void* record, unsigned index, unsigned width, std::uint32_t v) {
    auto* p = static_cast<unsigned char*>(record) + index * width;
    if (width == 2) {
        const auto v16 = static_cast<std::uint16_t>(v);
        std::memcpy(p, &v16, sizeof v16);
    } else {
        std::memcpy(p, &v, sizeof v);
    }
}

template <typename T>
T load(const void* record) {
    T v;
    std::memcpy(&v, record, sizeof v);
    return v;
}

unsigned clamped_length(std::uint8_t length) { return std::min<unsigned>(length, kDataBlockMax); }

// --- the exposure block: 24 bytes in memory, 22 packed on the wire ---

void put_et_block(Frame& f, unsigned at, const _ET_PARAM& e) {
    put_le(f, at + 0, e.et, 4);
    put_le(f, at + 4, e.etMax, 4);
    put_le(f, at + 8, e.etMin, 4);
    put_le(f, at + 12, e.extra, 2);
    std::copy(std::begin(e.flags), std::end(e.flags), f.begin() + at + 14);
}

void get_et_block(const Frame& f, unsigned at, _ET_PARAM& e) {
    e.et = get_le(f, at + 0, 4);
    e.etMax = get_le(f, at + 4, 4);
    e.etMin = get_le(f, at + 8, 4);
    e.extra = static_cast<unsigned short>(get_le(f, at + 12, 2));
    std::copy_n(f.begin() + at + 14, sizeof e.flags, std::begin(e.flags));
}
static_assert(14 + sizeof(_ET_PARAM::flags) == kWireEtBlockSize);

// --- how each item's data sits in the frame ---

enum class Layout {
    Bytes,      // `count` bytes unchanged
    Words,      // `count` little-endian fields of `width` bytes
    Et,         // the two exposure blocks
    DataBlock,  // uvc_extDataBlock
    Led,        // LED record
    Vcm,        // _VCM_PARAM
    HeaderOnly  // no payload
};

struct Placement {
    std::uint32_t item;
    Layout layout;
    std::uint8_t offset;  // first frame byte of the item's data
    std::uint8_t count;
    std::uint8_t width;
};

constexpr Placement kReadAnswers[] = {
    {EXT_ITEM_ET, Layout::Et, 0, 0, 0},
    {EXT_ITEM_MJPEG_QP, Layout::Words, 4, 4, 4},
    {EXT_ITEM_VERSION, Layout::Bytes, 4, 56, 1},
    {EXT_ITEM_ROI, Layout::Words, 4, 4, 4},
    {EXT_ITEM_ROI_STATUS, Layout::Words, 4, 1, 4},
    {EXT_ITEM_DEVICE_SN, Layout::Bytes, 4, 20, 1},
    {EXT_ITEM_DEVICE_ID, Layout::Bytes, 4, 20, 1},
    {EXT_ITEM_DATA_BLOCK, Layout::DataBlock, 8, 0, 0},
    {EXT_ITEM_STREAM_STATE, Layout::Words, 4, 1, 4},
    {EXT_ITEM_LAST_ID, Layout::Words, 4, 1, 2},
    {EXT_ITEM_GYRO, Layout::Bytes, 4, kGyroRawSize, 1},
    {EXT_ITEM_VCM, Layout::Words, 6, 1, 2},  // bytes 4-5 are not the value
};

constexpr Placement kWritePayloads[] = {
    {EXT_ITEM_ET, Layout::Et, 0, 0, 0},
    {EXT_ITEM_MJPEG_QP, Layout::Words, 4, 4, 4},
    {EXT_ITEM_BEEP, Layout::Words, 4, 1, 4},
    {EXT_ITEM_STATUS_LED, Layout::Words, 4, 2, 4},
    {EXT_ITEM_ROI, Layout::Words, 4, 4, 4},
    {EXT_ITEM_DEVICE_SN, Layout::Bytes, 4, 20, 1},
    {EXT_ITEM_DEVICE_ID, Layout::Bytes, 4, 20, 1},
    {EXT_ITEM_DATA_BLOCK, Layout::DataBlock, 4, 0, 0},
    {EXT_ITEM_UVC_MODE, Layout::Words, 4, 1, 4},
    {EXT_ITEM_SAM, Layout::HeaderOnly, 0, 0, 0},
    {EXT_ITEM_LED, Layout::Led, 4, 0, 0},
    {EXT_ITEM_GPIO, Layout::Words, 4, 2, 4},
    {EXT_ITEM_VCM, Layout::Vcm, 4, 0, 0},
};

template <std::size_t N>
const Placement* find(const Placement (&table)[N], std::uint32_t item) {
    for (const Placement& p : table) {
        if (p.item == item) return &p;
    }
    return nullptr;
}

// --- answers into records ---

void decode_data_block(const Frame& answer, unsigned at, void* record) {
    auto block = load<uvc_extDataBlock>(record);
    std::fill(std::begin(block.data), std::end(block.data), 0);
    std::copy_n(answer.begin() + at, clamped_length(block.length), std::begin(block.data));
    // Only `data` changes; the addressing fields stay the caller's.
    std::memcpy(static_cast<unsigned char*>(record) + offsetof(uvc_extDataBlock, data), block.data,
                sizeof block.data);
}

void decode(const Placement& p, const Frame& answer, void* record) {
    switch (p.layout) {
        case Layout::Bytes:
            std::memcpy(record, answer.data() + p.offset, p.count);
            break;
        case Layout::Words:
            for (unsigned i = 0; i < p.count; ++i) {
                set_record_field(record, i, p.width,
                                 get_le(answer, p.offset + i * p.width, p.width));
            }
            break;
        case Layout::Et: {
            _DUAL_ET_PARAM et = load<_DUAL_ET_PARAM>(record);
            get_et_block(answer, kLeftEtOffset, et.left);
            get_et_block(answer, kRightEtOffset, et.right);
            std::memcpy(record, &et, sizeof et);
            break;
        }
        case Layout::DataBlock:
            decode_data_block(answer, p.offset, record);
            break;
        case Layout::Led:
        case Layout::Vcm:
        case Layout::HeaderOnly:
            break;  // write-only layouts
    }
}

// --- records into write payloads ---

void encode_data_block(Frame& f, unsigned at, const uvc_extDataBlock& b) {
    const unsigned n = clamped_length(b.length);
    f[at] = b.target;
    f[at + 1] = static_cast<std::uint8_t>(n);
    put_le(f, at + 2, b.offset, 2);
    std::copy_n(std::begin(b.data), n, f.begin() + at + kHeaderSize);
}

void encode_led(Frame& f, unsigned at, const _LED_CONTROL_PARAM& led) {
    std::uint8_t modeByte;  // the first byte of the second field
    std::memcpy(&modeByte, &led.mode, 1);
    f[at] = kLedCommand;
    f[at + 1] = static_cast<std::uint8_t>((modeByte & 0x0F) | (led.state == 0 ? 0x10 : 0x00));
    for (unsigned i = 0; i < 6; ++i) put_le(f, at + 2 + 4 * i, led.param[i], 4);
}

void encode_vcm(Frame& f, unsigned at, const _VCM_PARAM& v) {
    f[at] = v.ctrl0;
    f[at + 1] = v.ctrl1;
    put_le(f, at + 2, v.value, 2);
    f[at + 4] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(v.mode) & 0xFFu);
}

void encode(const Placement& p, Frame& f, const void* record) {
    switch (p.layout) {
        case Layout::Bytes:
            std::memcpy(f.data() + p.offset, record, p.count);
            break;
        case Layout::Words:
            for (unsigned i = 0; i < p.count; ++i) {
                put_le(f, p.offset + i * p.width, record_field(record, i, p.width), p.width);
            }
            break;
        case Layout::Et: {
            const auto et = load<_DUAL_ET_PARAM>(record);
            put_et_block(f, kLeftEtOffset, et.left);
            put_et_block(f, kRightEtOffset, et.right);
            break;
        }
        case Layout::DataBlock:
            encode_data_block(f, p.offset, load<uvc_extDataBlock>(record));
            break;
        case Layout::Led:
            encode_led(f, p.offset, load<_LED_CONTROL_PARAM>(record));
            break;
        case Layout::Vcm:
            encode_vcm(f, p.offset, load<_VCM_PARAM>(record));
            break;
        case Layout::HeaderOnly:
            break;
    }
}

// --- read request parameters (bytes 8-11) ---

constexpr unsigned kParamOffset = 8;

void put_read_params(Frame& f, std::uint32_t item, const void* input) {
    if (input == nullptr) return;
    if (item == EXT_ITEM_DATA_BLOCK) {
        const auto b = load<uvc_extDataBlock>(input);
        f[kParamOffset] = b.target;
        f[kParamOffset + 1] = static_cast<std::uint8_t>(clamped_length(b.length));
        put_le(f, kParamOffset + 2, b.offset, 2);
    } else if (item == EXT_ITEM_VCM) {
        // The mode's low byte, which is its first byte in memory; only that
        // byte is read, whatever record the caller passes.
        f[kParamOffset] = *static_cast<const std::uint8_t*>(input);
    }
}

}  // namespace

ReadRecords read_records_needed(std::uint32_t item) {
    switch (item) {
        case EXT_ITEM_DATA_BLOCK:
            return {false, true};
        case EXT_ITEM_SAM:
        case EXT_ITEM_VCM:
            return {true, true};
        default:
            break;
    }
    // Every other item with an answer layout delivers into the output record.
    return {find(kReadAnswers, item) != nullptr, false};
}

void build_read_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                        std::uint16_t transId, const void* input) {
    f.fill(0);
    put_header(f, 0, productType, transId);
    put_le(f, kItemTypeOffset, item, 4);
    put_read_params(f, item, input);
}

bool decode_read_answer(std::uint32_t item, const Frame& answer, void* input, void* output) {
    const Placement* p = find(kReadAnswers, item);
    if (p == nullptr) return false;
    void* record = item == EXT_ITEM_DATA_BLOCK ? input : output;
    if (record == nullptr) return false;
    decode(*p, answer, record);
    return true;
}

bool build_write_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                         const void* record) {
    f.fill(0);
    const Placement* p = find(kWritePayloads, item);
    if (p == nullptr || record == nullptr) return false;
    put_header(f, item, productType, 0);
    encode(*p, f, record);
    return true;
}

void set_trans_id(Frame& f, std::uint16_t transId) { put_le(f, 2, transId, 2); }

}  // namespace tarvik::frame
