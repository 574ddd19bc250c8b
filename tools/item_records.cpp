#include "item_records.h"

#include <tarvik.h>

#include <cstddef>
#include <cstring>

#include "value_parse.h"

namespace tarvikctl {

namespace {

constexpr int kEtBlockWire = 22;  // three 32-bit, one 16-bit and eight single bytes
constexpr int kEtBytes = 2 * kEtBlockWire;

static_assert(sizeof(tarvik_exposure) <= sizeof(RecordBuffer::bytes));
static_assert(offsetof(tarvik_eye_exposure, flags) + 8 == kEtBlockWire);

// The hex bytes a user reads and types for a record of `size` bytes: the exposure
// block without its alignment padding, the data block's data alone.
int HexBytes(int number, int size) {
    if (size < 0) return -1;
    if (number == kExposureItem) return kEtBytes;
    if (number == kDataBlockItem) return static_cast<int>(kDataBlockMax);
    return size;
}

std::vector<ItemInfo> LibraryItems() {
    std::vector<ItemInfo> items;
    tarvik_item_info info;
    for (int n = 1; tarvik_item(n, &info) == 0; ++n) {
        // The SAM item is read with the sam and idcard commands, written as a bare header.
        items.push_back(ItemInfo{n, info.name, HexBytes(n, info.read_size),
                                 HexBytes(n, info.write_size), info});
    }
    return items;
}

const std::vector<ItemInfo> kItems = LibraryItems();

// Where the user's bytes sit in the record: one span, or the two eye blocks.
struct Span {
    size_t recordOffset;
    size_t length;
};

std::vector<Span> Spans(const ItemInfo& item, size_t size) {
    if (item.number == kExposureItem) {
        return {{offsetof(tarvik_exposure, left), kEtBlockWire},
                {offsetof(tarvik_exposure, right), kEtBlockWire}};
    }
    return {{0, size}};
}

}  // namespace

const std::vector<ItemInfo>& Items() { return kItems; }

const ItemInfo& FindItem(const std::string& numberOrName) {
    for (const ItemInfo& item : kItems) {
        if (numberOrName == item.name) return item;
    }
    const bool digits =
        !numberOrName.empty() && numberOrName.find_first_not_of("0123456789") == std::string::npos;
    if (digits && numberOrName.size() <= 2) {
        const int n = std::stoi(numberOrName);
        if (n >= 1 && n <= static_cast<int>(kItems.size())) return kItems[n - 1];
    }
    throw ValueError("item: '" + numberOrName +
                     "' is no extension item (1-18, or a name such as roi; see item --help)");
}

std::vector<uint8_t> RecordBytes(const ItemInfo& item, const RecordBuffer& record, int size) {
    std::vector<uint8_t> out;
    for (const Span& span : Spans(item, static_cast<size_t>(size))) {
        out.insert(out.end(), record.bytes + span.recordOffset,
                   record.bytes + span.recordOffset + span.length);
    }
    return out;
}

void FillRecord(const ItemInfo& item, const std::vector<uint8_t>& bytes, RecordBuffer& record) {
    const bool fits = item.number == kExposureItem ? bytes.size() == kEtBytes
                                                   : bytes.size() <= sizeof(record.bytes);
    if (!fits) throw ValueError(std::string("record of ") + item.name + ": wrong size");
    size_t at = 0;
    for (const Span& span : Spans(item, bytes.size())) {
        if (span.length == 0) continue;  // the SAM item's write has no record bytes
        std::memcpy(record.bytes + span.recordOffset, bytes.data() + at, span.length);
        at += span.length;
    }
}

namespace {

std::string Describe(const ItemInfo& item) {
    return "item " + std::to_string(item.number) + " (" + item.name + ")";
}

std::string Listing(bool write) {
    std::string out;
    for (const ItemInfo& item : kItems) {
        const int size = write ? item.writeBytes : item.readBytes;
        if (size < 0) continue;
        out += (out.empty() ? "" : ", ") + std::to_string(item.number) + " " + item.name;
    }
    return out;
}

void CheckOptions(const ItemInfo& item, const ItemOptions& o, bool write) {
    if (o.blockGiven && item.number != kDataBlockItem) {
        throw ValueError("--target, --length and --offset apply to item 10 (data-block) only");
    }
    if (o.modeGiven && (write || item.number != kVcmItem)) {
        throw ValueError(
            "--mode applies to reading item 18 (vcm) only; a vcm write carries "
            "its mode in the record");
    }
}

void ParseBlockAddress(const ItemOptions& o, ItemRequest& r) {
    r.target = static_cast<uint8_t>(ParseInteger(o.target, "--target", 0, 255));
    r.offset = static_cast<uint16_t>(ParseInteger(o.offset, "--offset", 0, 65535));
}

}  // namespace

ItemRequest ParseItemRead(const ItemOptions& o) {
    ItemRequest r;
    r.item = &FindItem(o.item);
    if (r.item->number == kSamItem) {
        throw ValueError("item 12 (sam) is read with the sam and idcard commands");
    }
    if (r.item->readBytes < 0) {
        throw ValueError(Describe(*r.item) + " can't be read; readable items: " + Listing(false));
    }
    CheckOptions(*r.item, o, false);
    if (r.item->number == kDataBlockItem) {
        ParseBlockAddress(o, r);
        r.length = static_cast<uint8_t>(ParseInteger(o.length, "--length", 0, kDataBlockMax));
    }
    r.mode = static_cast<uint8_t>(ParseInteger(o.mode, "--mode", 0, 255));
    return r;
}

ItemRequest ParseItemWrite(const ItemOptions& o) {
    ItemRequest r;
    r.item = &FindItem(o.item);
    if (r.item->writeBytes < 0) {
        throw ValueError(Describe(*r.item) + " can't be written; writable items: " + Listing(true));
    }
    CheckOptions(*r.item, o, true);
    r.bytes = ParseHex(o.hex, "record of " + Describe(*r.item));
    const size_t want = static_cast<size_t>(r.item->writeBytes);
    if (r.item->number == kDataBlockItem) {
        if (r.bytes.size() > want) {
            throw ValueError("data of item 10 (data-block): at most 48 bytes, got " +
                             std::to_string(r.bytes.size()));
        }
        if (o.lengthGiven) {
            throw ValueError("--length is the number of data bytes given; leave it out");
        }
        ParseBlockAddress(o, r);
        r.length = static_cast<uint8_t>(r.bytes.size());
    } else if (r.bytes.size() != want) {
        throw ValueError("record of " + Describe(*r.item) + ": " + std::to_string(want) +
                         " bytes (" + std::to_string(2 * want) + " hex digits), got " +
                         std::to_string(r.bytes.size()));
    }
    return r;
}

}  // namespace tarvikctl
