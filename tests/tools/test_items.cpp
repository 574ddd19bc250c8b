// Item requests of tarvikctl: directions, options, and the record bytes as the user sees them.
#include <TarvikImpl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "item_records.h"
#include "value_parse.h"

namespace tarvikctl {
namespace {

ItemOptions Item(const std::string& item, const std::string& hex = "") {
    ItemOptions o;
    o.item = item;
    o.hex = hex;
    return o;
}

TEST(Items, FoundByNumberOrName) {
    EXPECT_EQ(FindItem("6").number, 6);
    EXPECT_EQ(FindItem("roi").number, 6);
    EXPECT_EQ(FindItem("18").name, std::string("vcm"));
    for (const char* bad : {"0", "19", "06x", "-1", "", "ROI", "100", "99999999999"}) {
        EXPECT_THROW(FindItem(bad), ValueError) << bad;
    }
}

TEST(Items, DirectionsFollowTheTransactions) {
    // Items a read transaction answers, and items a write transaction sends.
    const std::vector<int> readable = {1, 2, 5, 6, 7, 8, 9, 10, 13, 14, 16, 18};
    const std::vector<int> writable = {1, 2, 3, 4, 6, 8, 9, 10, 11, 12, 15, 17, 18};
    for (int n = 1; n <= 18; ++n) {
        const ItemOptions o = Item(std::to_string(n));
        const bool r = std::find(readable.begin(), readable.end(), n) != readable.end();
        const bool w = std::find(writable.begin(), writable.end(), n) != writable.end();
        if (r) {
            EXPECT_NO_THROW(ParseItemRead(o)) << n;
        } else {
            EXPECT_THROW(ParseItemRead(o), ValueError) << n;
        }
        ItemOptions write = o;
        write.hex = std::string(2 * std::max(FindItem(o.item).writeBytes, 0), '0');
        if (n == kDataBlockItem) write.hex = "00";
        if (w) {
            EXPECT_NO_THROW(ParseItemWrite(write)) << n;
        } else {
            EXPECT_THROW(ParseItemWrite(write), ValueError) << n;
        }
    }
}

TEST(Items, RecordSizesAreTheRecords) {
    EXPECT_EQ(FindItem("mjpeg-qp").writeBytes, static_cast<int>(sizeof(_MJPEG_QP_PARAM)));
    EXPECT_EQ(FindItem("version").readBytes, 56);
    EXPECT_EQ(FindItem("led").writeBytes, 32);
    EXPECT_EQ(FindItem("vcm").readBytes, 2);
    EXPECT_EQ(FindItem("vcm").writeBytes, static_cast<int>(sizeof(_VCM_PARAM)));
    EXPECT_EQ(FindItem("et").readBytes, 44);  // two 22-byte eye blocks, no padding
}

TEST(Items, WriteNeedsTheWholeRecord) {
    EXPECT_THROW(ParseItemWrite(Item("roi", std::string(30, '0'))), ValueError);
    EXPECT_THROW(ParseItemWrite(Item("roi", std::string(34, '0'))), ValueError);
    EXPECT_EQ(ParseItemWrite(Item("roi", std::string(32, '0'))).bytes.size(), 16u);
    EXPECT_EQ(ParseItemWrite(Item("sam")).bytes.size(), 0u);
}

TEST(Items, DataBlockAddressAndLength) {
    ItemOptions read = Item("data-block");
    read.target = "0xff";
    read.offset = "65535";
    read.length = "5";
    const ItemRequest r = ParseItemRead(read);
    EXPECT_EQ(r.target, 0xFF);
    EXPECT_EQ(r.offset, 65535);
    EXPECT_EQ(r.length, 5);
    read.length = "49";
    EXPECT_THROW(ParseItemRead(read), ValueError);
    read.length = "5";
    read.offset = "65536";
    EXPECT_THROW(ParseItemRead(read), ValueError);

    ItemOptions write = Item("10", "a1a2a3");
    write.blockGiven = true;
    write.target = "2";
    const ItemRequest w = ParseItemWrite(write);
    EXPECT_EQ(w.length, 3);  // the data's own length
    EXPECT_EQ(w.target, 2);
    write.lengthGiven = true;
    EXPECT_THROW(ParseItemWrite(write), ValueError);
    EXPECT_THROW(ParseItemWrite(Item("10", std::string(98, 'a'))), ValueError);
    EXPECT_NO_THROW(ParseItemWrite(Item("10", std::string(96, 'a'))));
}

TEST(Items, OptionsOnlyWhereTheyApply) {
    ItemOptions blockOnRoi = Item("roi");
    blockOnRoi.blockGiven = true;
    EXPECT_THROW(ParseItemRead(blockOnRoi), ValueError);
    ItemOptions modeOnRoi = Item("roi");
    modeOnRoi.modeGiven = true;
    EXPECT_THROW(ParseItemRead(modeOnRoi), ValueError);
    ItemOptions modeOnVcm = Item("vcm");
    modeOnVcm.modeGiven = true;
    modeOnVcm.mode = "3";
    EXPECT_EQ(ParseItemRead(modeOnVcm).mode, 3);
    ItemOptions modeOnVcmWrite = Item("vcm", std::string(16, '0'));
    modeOnVcmWrite.modeGiven = true;
    EXPECT_THROW(ParseItemWrite(modeOnVcmWrite), ValueError);
}

TEST(Records, ExposureBytesAreTheWireBlocksWithoutPadding) {
    std::vector<uint8_t> bytes(44);
    std::iota(bytes.begin(), bytes.end(), 1);
    RecordBuffer record;
    std::memset(record.bytes, 0xEE, sizeof record.bytes);
    const ItemInfo& et = FindItem("et");
    FillRecord(et, bytes, record);
    _DUAL_ET_PARAM p;
    std::memcpy(&p, record.bytes, sizeof p);
    EXPECT_EQ(p.left.et, 0x04030201u);
    EXPECT_EQ(p.left.extra, 0x0E0D);
    EXPECT_EQ(p.left.flags[7], 22);
    EXPECT_EQ(p.right.et, 0x1A191817u);
    EXPECT_EQ(p.right.flags[7], 44);
    EXPECT_EQ(RecordBytes(et, record, et.readBytes), bytes);
    EXPECT_THROW(FillRecord(et, std::vector<uint8_t>(43), record), ValueError);
}

TEST(Records, OtherItemsAreTheRecordBytes) {
    RecordBuffer record;
    _VCM_PARAM vcm{1, 2, 0x0304, static_cast<_VCM_MODE_E>(5)};
    std::memcpy(record.bytes, &vcm, sizeof vcm);
    const ItemInfo& item = FindItem("vcm");
    EXPECT_EQ(RecordBytes(item, record, item.writeBytes),
              (std::vector<uint8_t>{1, 2, 4, 3, 5, 0, 0, 0}));
}

}  // namespace
}  // namespace tarvikctl
