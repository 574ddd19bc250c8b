// Request frames and answer decoding for the transaction channel, driven by
// the item table: a regular item's data is a run of little-endian values at a
// fixed place of the frame; an irregular item has a codec function of its own.
#include "frame_codec.h"

#include <cstring>

#include "item_table.h"

namespace tarvik::frame {
namespace {

constexpr unsigned kItemTypeOffset = 4;

// A regular item's values are little-endian on the wire as in the records of
// the (little-endian) hosts the library runs on, so they travel as they are.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are copied as wire bytes");

void put_header(Frame& f, std::uint32_t writeItem, std::uint16_t productType) {
    put_le(f, 0, (writeItem & 0x0FFFu) | ((productType & 0x000Fu) << 12), 2);
}

}  // namespace

ReadRecords read_records_needed(std::uint32_t item) {
    const items::Item* it = items::find(item);
    return it != nullptr ? ReadRecords{it->read.needsOutput, it->read.needsInput}
                         : ReadRecords{false, false};
}

void build_read_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                        std::uint16_t transId, const void* input) {
    f.fill(0);
    put_header(f, 0, productType);
    set_trans_id(f, transId);
    put_le(f, kItemTypeOffset, item, 4);
    const items::Item* it = items::find(item);
    if (it != nullptr && it->read.params != nullptr && input != nullptr) it->read.params(f, input);
}

bool decode_read_answer(std::uint32_t item, const Frame& answer, void* input, void* output) {
    const items::Item* it = items::find(item);
    if (it == nullptr || (it->read.decode == nullptr && it->read.answer.size == 0)) return false;
    if (it->read.decode != nullptr) {
        it->read.decode(answer, input, output);
    } else {
        std::memcpy(output, answer.data() + it->read.answer.offset, it->read.answer.size);
    }
    return true;
}

bool build_write_request(Frame& f, std::uint32_t item, std::uint16_t productType,
                         const void* record) {
    f.fill(0);
    const items::Item* it = items::find(item);
    if (it == nullptr || !it->write.handled || record == nullptr) return false;
    put_header(f, item, productType);
    if (it->write.encode != nullptr) {
        it->write.encode(f, record);
    } else {
        std::memcpy(f.data() + it->write.payload.offset, record, it->write.payload.size);
    }
    return true;
}

void set_trans_id(Frame& f, std::uint16_t transId) { put_le(f, 2, transId, 2); }

}  // namespace tarvik::frame
