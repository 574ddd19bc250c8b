#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "TarvikImpl.h"
#include "frame_codec.h"
#include "frame_helpers.h"

using namespace tarvik;
using namespace tarvik::test;
using frame::Frame;

namespace {

constexpr std::uint16_t kProduct = 1;

// ---------------------------------------------------------------------------
// Read requests
// ---------------------------------------------------------------------------

struct ReadRequestCase {
    std::string name;
    std::uint32_t item;
    std::uint16_t productType;
    std::uint16_t transId;
    std::function<Bytes()> input;  // the input record's bytes, or empty
    std::vector<Run> expected;
};

class ReadRequest : public testing::TestWithParam<ReadRequestCase> {};

TEST_P(ReadRequest, HasExactBytes) {
    const ReadRequestCase& c = GetParam();
    Frame f;
    f.fill(0xAA);  // every byte must be set or cleared
    Bytes input = c.input ? c.input() : Bytes{};
    frame::build_read_request(f, c.item, c.productType, c.transId,
                              input.empty() ? nullptr : input.data());
    EXPECT_EQ(f, frame_of(c.expected));
}

Bytes data_block_record(std::uint8_t target, std::uint8_t length, std::uint16_t offset) {
    uvc_extDataBlock b{};
    b.target = target;
    b.length = length;
    b.offset = offset;
    std::memset(b.data, 0x5A, sizeof b.data);
    Bytes out(sizeof b);
    std::memcpy(out.data(), &b, sizeof b);
    return out;
}

INSTANTIATE_TEST_SUITE_P(
    Items, ReadRequest,
    testing::Values(
        ReadRequestCase{"Version",
                        EXT_ITEM_VERSION,
                        kProduct,
                        0,
                        nullptr,
                        {{0, {0x00, 0x10, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}}}},
        ReadRequestCase{"NoReadItemStillNamed", 25, kProduct, 0, nullptr, {{1, {0x10}}, {4, {25}}}},
        ReadRequestCase{
            "ItemTypeIs32Bit", 0x01020304, kProduct, 0, nullptr, {{1, {0x10}}, {4, {4, 3, 2, 1}}}},
        ReadRequestCase{
            "OnlyLowFourBitsOfProduct", EXT_ITEM_ROI, 0x23, 0, nullptr, {{1, {0x30}}, {4, {6}}}},
        ReadRequestCase{"DataBlockClampsLength",
                        EXT_ITEM_DATA_BLOCK,
                        kProduct,
                        0xBEEF,
                        [] { return data_block_record(0xA1, 200, 0x1234); },
                        {{1, {0x10, 0xEF, 0xBE, 10}}, {8, {0xA1, 48, 0x34, 0x12}}}},
        ReadRequestCase{"DataBlockShortLength",
                        EXT_ITEM_DATA_BLOCK,
                        kProduct,
                        1,
                        [] { return data_block_record(0x00, 5, 0xFFFF); },
                        {{1, {0x10, 0x01}}, {4, {10}}, {9, {5, 0xFF, 0xFF}}}},
        ReadRequestCase{"VcmModeLowByte",
                        EXT_ITEM_VCM,
                        kProduct,
                        0,
                        [] { return le32(0x000201FE); },
                        {{1, {0x10}}, {4, {18}}, {8, {0xFE}}}},
        ReadRequestCase{"InputIgnoredWithoutParameters",
                        EXT_ITEM_MJPEG_QP,
                        kProduct,
                        0,
                        [] { return le32(0xFFFFFFFF); },
                        {{1, {0x10}}, {4, {2}}}}),
    ByName());

TEST(ReadRecordsNeeded, MatchesEachItemsRecords) {
    struct Row {
        std::uint32_t item;
        bool output, input;
    };
    const Row rows[] = {{EXT_ITEM_ET, true, false},         {EXT_ITEM_VERSION, true, false},
                        {EXT_ITEM_LAST_ID, true, false},    {EXT_ITEM_GYRO, true, false},
                        {EXT_ITEM_DATA_BLOCK, false, true}, {EXT_ITEM_VCM, true, true},
                        {EXT_ITEM_SAM, true, true},         {0, false, false},
                        {EXT_ITEM_BEEP, false, false},      {EXT_ITEM_STATUS_LED, false, false},
                        {EXT_ITEM_UVC_MODE, false, false},  {EXT_ITEM_LED, false, false},
                        {EXT_ITEM_GPIO, false, false},      {19, false, false}};
    for (const Row& r : rows) {
        const frame::ReadRecords got = frame::read_records_needed(r.item);
        EXPECT_EQ(got.output, r.output) << "item " << r.item;
        EXPECT_EQ(got.input, r.input) << "item " << r.item;
    }
}

// ---------------------------------------------------------------------------
// Read answers: the edges of the data block and the items without an answer.
// Every item's record bytes are checked end to end by the device tests.
// ---------------------------------------------------------------------------

constexpr std::uint8_t kGuard = 0xEE;

Frame patterned_answer() {
    Frame a;
    for (unsigned i = 0; i < a.size(); ++i) a[i] = static_cast<std::uint8_t>(0x80 + i);
    return a;
}

struct DataBlockCase {
    std::uint8_t length;
    unsigned copied;
};

class ReadAnswerDataBlock : public testing::TestWithParam<DataBlockCase> {};

TEST_P(ReadAnswerDataBlock, ClearsAllDataThenCopiesClampedLength) {
    const Frame answer = patterned_answer();
    uvc_extDataBlock in{};
    in.target = 7;
    in.length = GetParam().length;
    in.offset = 0x4321;
    std::memset(in.data, 0x11, sizeof in.data);
    std::uint8_t output[8];
    std::memset(output, kGuard, sizeof output);

    ASSERT_TRUE(frame::decode_read_answer(EXT_ITEM_DATA_BLOCK, answer, &in, output));

    for (unsigned i = 0; i < frame::kDataBlockMax; ++i) {
        EXPECT_EQ(in.data[i], i < GetParam().copied ? answer[8 + i] : 0) << "data byte " << i;
    }
    EXPECT_EQ(in.target, 7);
    EXPECT_EQ(in.length, GetParam().length);
    EXPECT_EQ(in.offset, 0x4321);
    for (std::uint8_t b : output) EXPECT_EQ(b, kGuard);
}

INSTANTIATE_TEST_SUITE_P(Lengths, ReadAnswerDataBlock,
                         testing::Values(DataBlockCase{0, 0}, DataBlockCase{5, 5},
                                         DataBlockCase{48, 48}, DataBlockCase{49, 48},
                                         DataBlockCase{200, 48}, DataBlockCase{255, 48}));

TEST(ReadAnswerNone, ItemsWithoutAnswerWriteNothing) {
    const Frame answer = patterned_answer();
    for (std::uint32_t item : {0u, 3u, 4u, 11u, 12u, 15u, 17u, 19u, 25u, 0xFFFFFFFFu}) {
        std::uint8_t in[64], out[64];
        std::memset(in, kGuard, sizeof in);
        std::memset(out, kGuard, sizeof out);
        EXPECT_FALSE(frame::decode_read_answer(item, answer, in, out)) << "item " << item;
        for (size_t i = 0; i < sizeof out; ++i) {
            ASSERT_EQ(in[i], kGuard) << "item " << item;
            ASSERT_EQ(out[i], kGuard) << "item " << item;
        }
    }
}

// ---------------------------------------------------------------------------
// Write requests: what the device tests can't show (padding of the caller's
// record, clamped and empty data blocks, the LED mode's dropped bits).
// ---------------------------------------------------------------------------

template <typename T>
Bytes bytes_of(const T& record) {
    Bytes out(sizeof record);
    std::memcpy(out.data(), &record, sizeof record);
    return out;
}

struct WriteCase {
    std::string name;
    std::uint32_t item;
    std::function<Bytes()> record;
    std::vector<Run> expected;
};

class WriteRequest : public testing::TestWithParam<WriteCase> {};

TEST_P(WriteRequest, HasExactBytes) {
    const WriteCase& c = GetParam();
    const Bytes record = c.record();
    Frame f;
    f.fill(0xAA);
    ASSERT_TRUE(frame::build_write_request(f, c.item, kProduct, record.data()));
    EXPECT_EQ(f, frame_of(c.expected));
}

_LED_CONTROL_PARAM led(unsigned state, unsigned mode) {
    _LED_CONTROL_PARAM l{};
    l.state = state;
    l.mode = mode;
    for (unsigned i = 0; i < 6; ++i) l.param[i] = 0x01010101u * (i + 1);
    return l;
}

const Bytes kLedParams = concat({le32(0x01010101), le32(0x02020202), le32(0x03030303),
                                 le32(0x04040404), le32(0x05050505), le32(0x06060606)});

uvc_extDataBlock data_block(std::uint8_t length) {
    uvc_extDataBlock b{};
    b.target = 0xC3;
    b.length = length;
    b.offset = 0x0102;
    for (unsigned i = 0; i < sizeof b.data; ++i) b.data[i] = static_cast<std::uint8_t>(0x40 + i);
    return b;
}

Bytes data_bytes(unsigned n) {
    Bytes out;
    for (unsigned i = 0; i < n; ++i) out.push_back(static_cast<std::uint8_t>(0x40 + i));
    return out;
}

_ET_PARAM et_block(std::uint32_t base) {
    _ET_PARAM e{};
    e.et = base;
    e.etMax = base + 1;
    e.etMin = base + 2;
    e.extra = 0xBEEF;
    for (unsigned i = 0; i < 8; ++i) e.flags[i] = static_cast<std::uint8_t>(0xF0 + i);
    return e;
}

Bytes et_wire(std::uint32_t base) {
    return concat({le32(base),
                   le32(base + 1),
                   le32(base + 2),
                   {0xEF, 0xBE},
                   {0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7}});
}

INSTANTIATE_TEST_SUITE_P(
    Items, WriteRequest,
    testing::Values(WriteCase{"Et",
                              EXT_ITEM_ET,
                              [] {
                                  _DUAL_ET_PARAM p;
                                  std::memset(&p, 0xCC, sizeof p);  // padding must not leak
                                  p.left = et_block(0x100);
                                  p.right = et_block(0x200);
                                  return bytes_of(p);
                              },
                              {{0, {0x01, 0x10}}, {4, et_wire(0x100)}, {32, et_wire(0x200)}}},
                    WriteCase{
                        "DataBlockClamped",
                        EXT_ITEM_DATA_BLOCK,
                        [] { return bytes_of(data_block(60)); },
                        {{0, {0x0A, 0x10}}, {4, {0xC3, 48, 0x02, 0x01}}, {8, data_bytes(48)}}},
                    WriteCase{"DataBlockShort",
                              EXT_ITEM_DATA_BLOCK,
                              [] { return bytes_of(data_block(3)); },
                              {{0, {0x0A, 0x10}}, {4, {0xC3, 3, 0x02, 0x01}}, {8, data_bytes(3)}}},
                    WriteCase{"DataBlockEmpty",
                              EXT_ITEM_DATA_BLOCK,
                              [] { return bytes_of(data_block(0)); },
                              {{0, {0x0A, 0x10}}, {4, {0xC3, 0, 0x02, 0x01}}}},
                    WriteCase{"LedStateSevenModeHighBitsDropped",
                              EXT_ITEM_LED,
                              [] { return bytes_of(led(7, 0xFFFFFFF0)); },
                              {{0, {0x0F, 0x10, 0x00, 0x00, 0x1A, 0x00}}, {6, kLedParams}}}),
    ByName());

TEST(WriteRequestNone, ItemsWithoutWriteHandlingLeaveOnlyZeros) {
    const Bytes record(64, 0x77);
    for (std::uint32_t item : {0u, 5u, 7u, 13u, 14u, 16u, 19u, 0x1002u, 0xFFFFFFFFu}) {
        Frame f;
        f.fill(0xAA);
        EXPECT_FALSE(frame::build_write_request(f, item, kProduct, record.data())) << item;
        EXPECT_EQ(f, Frame{}) << "item " << item;
    }
}

// A write of the exposure item carries the blocks where a read answer has them.
TEST(EtRoundTrip, WritePayloadDecodesAsTheSameRecord) {
    _DUAL_ET_PARAM sent{};
    sent.left = et_block(0xFFFFFFF0);
    sent.right = et_block(7);
    Frame f;
    ASSERT_TRUE(frame::build_write_request(f, EXT_ITEM_ET, kProduct, &sent));
    _DUAL_ET_PARAM got{};
    ASSERT_TRUE(frame::decode_read_answer(EXT_ITEM_ET, f, nullptr, &got));
    for (const auto& [a, b] : {std::pair{&sent.left, &got.left}, {&sent.right, &got.right}}) {
        EXPECT_EQ(a->et, b->et);
        EXPECT_EQ(a->etMax, b->etMax);
        EXPECT_EQ(a->etMin, b->etMin);
        EXPECT_EQ(a->extra, b->extra);
        EXPECT_EQ(0, std::memcmp(a->flags, b->flags, sizeof a->flags));
    }
}

TEST(SetTransId, StoresLittleEndianAtBytesTwoAndThree) {
    Frame f{};
    frame::set_trans_id(f, 0xFFFF);
    frame::set_trans_id(f, 0x0201);
    EXPECT_EQ(f, frame_of({{2, {0x01, 0x02}}}));
}

}  // namespace
