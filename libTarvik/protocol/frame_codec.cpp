// Request frames and answer decoding for the transaction channel. Regular
// items are rows: their data is a run of little-endian values at a fixed place
// of the frame. The few irregular items have a function of their own. Records
// are read and written through memcpy, so neither their alignment nor their
// padding matters.
#include "frame_codec.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "libTarvik.h"
#include "tarvik_items.h"

namespace tarvik::frame {
namespace {

constexpr unsigned kItemTypeOffset = 4;
constexpr unsigned kParamOffset = 8;  // read-request parameters
constexpr unsigned kLeftEtOffset = 4;
constexpr unsigned kRightEtOffset = 32;
constexpr std::uint8_t kLedCommand = 0x1A;

void put_le(Frame& f, unsigned at, std::uint32_t v, unsigned width) {
    for (unsigned i = 0; i < width; ++i) f[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint32_t get_le(const Frame& f, unsigned at, unsigned width) {
    std::uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i) v |= static_cast<std::uint32_t>(f[at + i]) << (8 * i);
    return v;
}

template <typename T>
T load(const void* record) {
    T v;
    std::memcpy(&v, record, sizeof v);
    return v;
}

unsigned clamped_length(std::uint8_t length) { return std::min<unsigned>(length, kDataBlockMax); }

// A regular item's data: `size` bytes from frame byte `offset`. Its values are
// little-endian on the wire as in the records of the (little-endian) hosts the
// library runs on, so they travel as they are.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are copied as wire bytes");

struct Run {
    std::uint8_t offset;
    std::uint8_t size;
};

// --- the irregular items ---

// One eye's exposure block: 24 bytes in memory, 22 packed on the wire.
void et_block_from_frame(const Frame& f, unsigned at, _ET_PARAM& e) {
    e.et = get_le(f, at + 0, 4);
    e.etMax = get_le(f, at + 4, 4);
    e.etMin = get_le(f, at + 8, 4);
    e.extra = static_cast<unsigned short>(get_le(f, at + 12, 2));
    std::copy_n(f.begin() + at + 14, sizeof e.flags, std::begin(e.flags));
}

void et_block_into_frame(Frame& f, unsigned at, const _ET_PARAM& e) {
    put_le(f, at + 0, e.et, 4);
    put_le(f, at + 4, e.etMax, 4);
    put_le(f, at + 8, e.etMin, 4);
    put_le(f, at + 12, e.extra, 2);
    std::copy(std::begin(e.flags), std::end(e.flags), f.begin() + at + 14);
}

void et_from_answer(const Frame& f, void* /*input*/, void* output) {
    auto et = load<_DUAL_ET_PARAM>(output);
    et_block_from_frame(f, kLeftEtOffset, et.left);
    et_block_from_frame(f, kRightEtOffset, et.right);
    std::memcpy(output, &et, sizeof et);
}

void et_into_request(Frame& f, const void* record) {
    const auto et = load<_DUAL_ET_PARAM>(record);
    et_block_into_frame(f, kLeftEtOffset, et.left);
    et_block_into_frame(f, kRightEtOffset, et.right);
}

// The data block answers into the caller's input record: `data` only, from byte 8.
void data_block_from_answer(const Frame& f, void* input, void* /*output*/) {
    auto block = load<uvc_extDataBlock>(input);
    std::fill(std::begin(block.data), std::end(block.data), 0);
    std::copy_n(f.begin() + kParamOffset, clamped_length(block.length), std::begin(block.data));
    std::memcpy(static_cast<unsigned char*>(input) + offsetof(uvc_extDataBlock, data), block.data,
                sizeof block.data);
}

// Its address and length: at bytes 8-11 of a read request, 4-7 of a write.
void data_block_address(Frame& f, unsigned at, const uvc_extDataBlock& b) {
    f[at] = b.target;
    f[at + 1] = static_cast<std::uint8_t>(clamped_length(b.length));
    put_le(f, at + 2, b.offset, 2);
}

void data_block_read_params(Frame& f, const void* input) {
    data_block_address(f, kParamOffset, load<uvc_extDataBlock>(input));
}

void data_block_into_request(Frame& f, const void* record) {
    const auto b = load<uvc_extDataBlock>(record);
    data_block_address(f, 4, b);
    std::copy_n(std::begin(b.data), clamped_length(b.length), f.begin() + kParamOffset);
}

// The mode's low byte, which is its first byte in memory; only that byte is
// read, whatever record the caller passes.
void vcm_read_params(Frame& f, const void* input) {
    f[kParamOffset] = *static_cast<const std::uint8_t*>(input);
}

void vcm_into_request(Frame& f, const void* record) {
    const auto v = load<_VCM_PARAM>(record);
    f[4] = v.ctrl0;
    f[5] = v.ctrl1;
    put_le(f, 6, v.value, 2);
    f[8] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(v.mode) & 0xFFu);
}

void led_into_request(Frame& f, const void* record) {
    const auto led = load<_LED_CONTROL_PARAM>(record);
    std::uint8_t modeByte;  // the first byte of the second field
    std::memcpy(&modeByte, &led.mode, 1);
    f[4] = kLedCommand;
    f[5] = static_cast<std::uint8_t>((modeByte & 0x0F) | (led.state == 0 ? 0x10 : 0x00));
    for (unsigned i = 0; i < 6; ++i) put_le(f, 6 + 4 * i, led.param[i], 4);
}

// --- the items ---

struct ReadRule {
    std::uint32_t item;
    ReadRecords records;
    Run answer;                                               // regular items
    void (*decode)(const Frame&, void* input, void* output);  // irregular ones
    void (*params)(Frame&, const void* input);                // request parameters
};

// The SAM's answer is the SAM channel's: its row gives only the records.
constexpr ReadRule kReads[] = {
    {EXT_ITEM_ET, {true, false}, {}, et_from_answer, nullptr},
    {EXT_ITEM_MJPEG_QP, {true, false}, {4, 16}, nullptr, nullptr},
    {EXT_ITEM_VERSION, {true, false}, {4, 56}, nullptr, nullptr},
    {EXT_ITEM_ROI, {true, false}, {4, 16}, nullptr, nullptr},
    {EXT_ITEM_ROI_STATUS, {true, false}, {4, 4}, nullptr, nullptr},
    {EXT_ITEM_DEVICE_SN, {true, false}, {4, 20}, nullptr, nullptr},
    {EXT_ITEM_DEVICE_ID, {true, false}, {4, 20}, nullptr, nullptr},
    {EXT_ITEM_DATA_BLOCK, {false, true}, {}, data_block_from_answer, data_block_read_params},
    {EXT_ITEM_SAM, {true, true}, {}, nullptr, nullptr},
    {EXT_ITEM_STREAM_STATE, {true, false}, {4, 4}, nullptr, nullptr},
    {EXT_ITEM_LAST_ID, {true, false}, {4, 2}, nullptr, nullptr},
    {EXT_ITEM_GYRO, {true, false}, {4, kGyroRawSize}, nullptr, nullptr},
    {EXT_ITEM_VCM, {true, true}, {6, 2}, nullptr, vcm_read_params},  // bytes 4-5 are not the value
};

struct WriteRule {
    std::uint32_t item;
    Run payload;                                 // regular items
    void (*encode)(Frame&, const void* record);  // irregular ones
};

// clang-format off
constexpr WriteRule kWrites[] = {
    {EXT_ITEM_ET, {}, et_into_request},
    {EXT_ITEM_MJPEG_QP, {4, 16}, nullptr},
    {EXT_ITEM_BEEP, {4, 4}, nullptr},
    {EXT_ITEM_STATUS_LED, {4, 8}, nullptr},
    {EXT_ITEM_ROI, {4, 16}, nullptr},
    {EXT_ITEM_DEVICE_SN, {4, 20}, nullptr},
    {EXT_ITEM_DEVICE_ID, {4, 20}, nullptr},
    {EXT_ITEM_DATA_BLOCK, {}, data_block_into_request},
    {EXT_ITEM_UVC_MODE, {4, 4}, nullptr},
    {EXT_ITEM_SAM, {4, 0}, nullptr},  // the header alone
    {EXT_ITEM_LED, {}, led_into_request},
    {EXT_ITEM_GPIO, {4, 8}, nullptr},
    {EXT_ITEM_VCM, {}, vcm_into_request},
};
// clang-format on

template <typename Rule, std::size_t N>
const Rule* find(const Rule (&rules)[N], std::uint32_t item) {
    for (const Rule& rule : rules) {
        if (rule.item == item) return &rule;
    }
    return nullptr;
}

void put_header(Frame& f, std::uint32_t writeItem, std::uint16_t productType) {
    put_le(f, 0, (writeItem & 0x0FFFu) | ((productType & 0x000Fu) << 12), 2);
}

}  // namespace

ReadRecords read_records_needed(std::uint32_t item) {
    const ReadRule* rule = find(kReads, item);
    return rule != nullptr ? rule->records : ReadRecords{false, false};
}

void build_read_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                        std::uint16_t transId, const void* input) {
    f.fill(0);
    put_header(f, 0, productType);
    set_trans_id(f, transId);
    put_le(f, kItemTypeOffset, item, 4);
    const ReadRule* rule = find(kReads, item);
    if (rule != nullptr && rule->params != nullptr && input != nullptr) rule->params(f, input);
}

bool decode_read_answer(std::uint32_t item, const Frame& answer, void* input, void* output) {
    const ReadRule* rule = find(kReads, item);
    if (rule == nullptr || (rule->decode == nullptr && rule->answer.size == 0)) return false;
    if (rule->decode != nullptr) {
        rule->decode(answer, input, output);
    } else {
        std::memcpy(output, answer.data() + rule->answer.offset, rule->answer.size);
    }
    return true;
}

bool build_write_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                         const void* record) {
    f.fill(0);
    const WriteRule* rule = find(kWrites, item);
    if (rule == nullptr || record == nullptr) return false;
    put_header(f, item, productType);
    if (rule->encode != nullptr) {
        rule->encode(f, record);
    } else {
        std::memcpy(f.data() + rule->payload.offset, record, rule->payload.size);
    }
    return true;
}

void set_trans_id(Frame& f, std::uint16_t transId) { put_le(f, 2, transId, 2); }

}  // namespace tarvik::frame
