// The 60-byte transaction frame on selector 14: building requests and taking
// each item's data out of an answer. Pure functions: no I/O, no clock, no log.
#ifndef TARVIK_FRAME_CODEC_H
#define TARVIK_FRAME_CODEC_H

#include <array>
#include <cstdint>

namespace tarvik::frame {

constexpr int kMarkerSelector = 1;        // the 8-byte marker control
constexpr int kTransactionSelector = 14;  // the transaction channel
constexpr unsigned kFrameSize = 60;
constexpr unsigned kDataBlockMax = 48;  // data bytes a data-block transaction carries at most
constexpr unsigned kGyroRawSize = 14;   // raw gyro sample delivered by item 16

using Frame = std::array<std::uint8_t, kFrameSize>;

// `width` little-endian bytes of `v` at frame byte `at`, and back.
inline void put_le(Frame& f, unsigned at, std::uint32_t v, unsigned width) {
    for (unsigned i = 0; i < width; ++i) f[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

inline std::uint32_t get_le(const Frame& f, unsigned at, unsigned width) {
    std::uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i) v |= static_cast<std::uint32_t>(f[at + i]) << (8 * i);
    return v;
}

// Which caller records a read of `item` requires (checked before anything is sent).
struct ReadRecords {
    bool output;
    bool input;
};
ReadRecords read_records_needed(std::uint32_t item);

// Zero-fills `f` and makes a read request for `item`: header with writeItem 0,
// the product code and transId, itemType at bytes 4-7, and the parameters of
// the items that have any (10 from a uvc_extDataBlock, 18 from the mode's low
// byte). `input` may be null for items without parameters. The SAM's
// parameters are put by sam::put_request.
void build_read_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                        std::uint16_t transId, const void* input);

// Copies the item's bytes from `answer` into the caller's record (item 10
// answers into `input`, every other item into `output`). Returns false, writing
// nothing, for an item without a read answer (0, 3, 4, 11, 12, 15, 17, 19+).
bool decode_read_answer(std::uint32_t item, const Frame& answer, void* input, void* output);

// Zero-fills `f` and makes a write request: writeItem = item & 0x0FFF, the
// product code, transId 0, and the item's payload from `record`. Returns false
// for an item without write handling (0, 5, 7, 13, 14, 16, 19+); `f` is then
// only zero-filled and must not be sent.
bool build_write_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                         const void* record);

// Stores the transaction id at bytes 2-3.
void set_trans_id(Frame& f, std::uint16_t transId);

}  // namespace tarvik::frame

#endif
