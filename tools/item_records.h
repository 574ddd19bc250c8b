// The extension items as `item read` / `item write` see them: which direction each item
// has, and how the library's record of it (tarvik_read_item, tarvik_write_item) maps to
// the hex bytes the user reads and types.
#pragma once

#include <tarvik.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvikctl {

struct ItemInfo {
    int number;
    const char* name;
    // Size of the record as hex bytes; -1 when the item has no such direction. The data
    // block (10) reads and writes up to 48 data bytes chosen by options instead.
    int readBytes;
    int writeBytes;
    tarvik_item_info record;  // the library's record of the item
};

constexpr int kExposureItem = 1;
constexpr int kMjpegQpItem = 2;
constexpr int kRoiItem = 6;
constexpr int kDeviceSnItem = 8;
constexpr int kDeviceIdItem = 9;
constexpr int kDataBlockItem = 10;
constexpr int kSamItem = 12;
constexpr int kGyroItem = 16;
constexpr int kGpioItem = 17;
constexpr int kVcmItem = 18;
constexpr size_t kDataBlockMax = 48;

// The lens motor's write record (item 18), as `item write vcm` takes it: two
// leading bytes sent unchanged, the value and the mode that chooses it.
struct VcmWrite {
    uint8_t ctrl0;
    uint8_t ctrl1;
    uint16_t value;
    int32_t mode;
};
static_assert(sizeof(VcmWrite) == 8, "the library's record of a lens motor write");

// Every item the library knows, in number order.
const std::vector<ItemInfo>& Items();

// An item by number ("6") or name ("roi"). Throws ValueError for anything else.
const ItemInfo& FindItem(const std::string& numberOrName);

// Room for any item's record, suitably aligned.
struct RecordBuffer {
    alignas(8) unsigned char bytes[64] = {};
};

// The record's bytes as the user sees them: the record itself, except the exposure item,
// whose two 22-byte eye blocks are shown without the record's alignment padding (so the
// hex is the bytes on the wire).
std::vector<uint8_t> RecordBytes(const ItemInfo& item, const RecordBuffer& record, int size);
// The reverse: fills `record` from exactly `size` user bytes.
void FillRecord(const ItemInfo& item, const std::vector<uint8_t>& bytes, RecordBuffer& record);

// What `item read` / `item write` were given.
struct ItemOptions {
    std::string item;
    std::string hex;
    bool blockGiven = false;   // any of target, length, offset
    std::string target = "0";  // data block
    bool lengthGiven = false;
    std::string length = "48";
    std::string offset = "0";
    bool modeGiven = false;
    std::string mode = "0";  // vcm read
};

// A checked request: the item, and for a write the user's bytes.
struct ItemRequest {
    const ItemInfo* item = nullptr;
    std::vector<uint8_t> bytes;  // write: the record's bytes, or the data block's data
    uint8_t target = 0;          // data block
    uint8_t length = 0;
    uint16_t offset = 0;
    uint8_t mode = 0;  // vcm read
};

// Check everything before anything is sent. Throw ValueError.
ItemRequest ParseItemRead(const ItemOptions& options);
ItemRequest ParseItemWrite(const ItemOptions& options);

}  // namespace tarvikctl
