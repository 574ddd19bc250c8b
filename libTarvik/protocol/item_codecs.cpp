// The irregular extension items: data that is not one run of little-endian
// values at a fixed place of the frame. Records are read and written through
// memcpy, so neither their alignment nor their padding matters.
#include "item_codecs.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "libTarvik.h"
#include "tarvik_items.h"

namespace tarvik::codec {
namespace {

using frame::Frame;
using frame::get_le;
using frame::put_le;

constexpr unsigned kParamOffset = 8;  // read-request parameters
constexpr unsigned kLeftEtOffset = 4;
constexpr unsigned kRightEtOffset = 32;
constexpr std::uint8_t kLedCommand = 0x1A;

template <typename T>
T load(const void* record) {
    T v;
    std::memcpy(&v, record, sizeof v);
    return v;
}

unsigned clamped_length(std::uint8_t length) {
    return std::min<unsigned>(length, frame::kDataBlockMax);
}

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

// The data block's address and length: at bytes 8-11 of a read request, 4-7
// of a write.
void data_block_address(Frame& f, unsigned at, const uvc_extDataBlock& b) {
    f[at] = b.target;
    f[at + 1] = static_cast<std::uint8_t>(clamped_length(b.length));
    put_le(f, at + 2, b.offset, 2);
}

}  // namespace

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

void data_block_from_answer(const Frame& f, void* input, void* /*output*/) {
    auto block = load<uvc_extDataBlock>(input);
    std::fill(std::begin(block.data), std::end(block.data), 0);
    std::copy_n(f.begin() + kParamOffset, clamped_length(block.length), std::begin(block.data));
    std::memcpy(static_cast<unsigned char*>(input) + offsetof(uvc_extDataBlock, data), block.data,
                sizeof block.data);
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

}  // namespace tarvik::codec
