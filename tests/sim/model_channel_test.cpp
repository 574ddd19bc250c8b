// The transaction channel (selector 14): items written and read back as a device keeps them.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "model_host.h"

namespace tarvik::sim {
namespace {

using host::Bytes;
using host::GetCur;
using host::ReadRequest;
using host::SetCur;
using host::Transact;
using host::WriteRequest;

struct Span {
    size_t from, to;  // inclusive frame offsets
};

struct RoundTrip {
    const char* name;
    uint16_t item;
    std::vector<Span> written;            // write-request bytes carrying data
    std::vector<Span> answered;           // where the same bytes come back in the answer, in order
    std::function<void(Frame&)> request;  // read-request parameters
};

class ItemRoundTrip : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(ItemRoundTrip, WrittenBytesComeBackWhereTheReadTakesThem) {
    const RoundTrip& c = GetParam();
    CameraModel model;
    Frame write = WriteRequest(c.item);
    std::vector<uint8_t> payload;
    uint8_t next = 0x3B;
    for (const Span& s : c.written) {
        for (size_t i = s.from; i <= s.to; ++i) {
            write[i] = next;
            payload.push_back(next);
            next = static_cast<uint8_t>(next * 5 + 1);
        }
    }
    if (c.request) c.request(write);  // data-block / VCM addressing is part of the write too
    ASSERT_EQ(SetCur(model, kSelectorChannel, Bytes(write)).actualLength, kFrameLength);

    Frame read = ReadRequest(c.item);
    if (c.request) c.request(read);
    const std::vector<uint8_t> answer = Transact(model, read);
    ASSERT_EQ(answer.size(), kFrameLength);
    std::vector<uint8_t> got;
    for (const Span& s : c.answered) got.insert(got.end(), &answer[s.from], &answer[s.to] + 1);
    EXPECT_EQ(got, payload);
}

// Data block and VCM: the write carries its address at 4-7 (data block) or mode at 8 (VCM);
// the read asks at 8-11 or 8.
void DataBlockAddress(Frame& f) {
    const bool isRead = (GetLe16(&f[0]) & 0x0FFF) == 0;
    const size_t at = isRead ? 8 : 4;
    f[at] = 0x07;                 // target
    f[at + 1] = 20;               // length
    PutLe16(&f[at + 2], 0x1230);  // offset
}
void VcmMode(Frame& f) { f[8] = 0x02; }

INSTANTIATE_TEST_SUITE_P(
    Items, ItemRoundTrip,
    ::testing::Values(RoundTrip{"Et", kItemEt, {{4, 25}, {32, 53}}, {{4, 25}, {32, 53}}, nullptr},
                      RoundTrip{"MjpegQp", kItemMjpegQp, {{4, 19}}, {{4, 19}}, nullptr},
                      RoundTrip{"Roi", kItemRoi, {{4, 19}}, {{4, 19}}, nullptr},
                      RoundTrip{"DeviceSn", kItemDeviceSn, {{4, 23}}, {{4, 23}}, nullptr},
                      RoundTrip{"DeviceId", kItemDeviceId, {{4, 23}}, {{4, 23}}, nullptr},
                      RoundTrip{"Vcm", kItemVcm, {{4, 7}}, {{4, 7}}, VcmMode},
                      RoundTrip{
                          "DataBlock", kItemDataBlock, {{8, 27}}, {{8, 27}}, DataBlockAddress}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST(Channel, DataBlockMemoryIsAddressedByTargetAndOffset) {
    CameraModel model;
    Frame write = WriteRequest(kItemDataBlock);
    write[4] = 1;
    write[5] = 2;
    PutLe16(&write[6], 100);
    write[8] = 0xAA;
    write[9] = 0xBB;
    SetCur(model, kSelectorChannel, Bytes(write));

    auto read = [&](uint8_t target, uint16_t offset) {
        Frame r = ReadRequest(kItemDataBlock);
        r[8] = target;
        r[9] = 4;
        PutLe16(&r[10], offset);
        return Transact(model, r);
    };
    const auto sameTarget = read(1, 99);
    EXPECT_EQ(sameTarget[8], DefaultDataByte(1, 99));
    EXPECT_EQ(sameTarget[9], 0xAA);
    EXPECT_EQ(sameTarget[10], 0xBB);
    EXPECT_EQ(sameTarget[11], DefaultDataByte(1, 102));
    const auto otherTarget = read(2, 100);
    EXPECT_EQ(otherTarget[8], DefaultDataByte(2, 100));
}

TEST(Channel, VcmValuesAreKeptPerMode) {
    CameraModel model;
    Frame write = WriteRequest(kItemVcm);
    PutLe16(&write[6], 0xBEEF);
    write[8] = 3;
    SetCur(model, kSelectorChannel, Bytes(write));
    for (uint8_t mode : {uint8_t{1}, uint8_t{3}}) {
        Frame r = ReadRequest(kItemVcm);
        r[8] = mode;
        const auto answer = Transact(model, r);
        EXPECT_EQ(GetLe16(&answer[6]), mode == 3 ? 0xBEEF : DefaultVcm(1).value) << int(mode);
    }
}

TEST(Channel, DataBlockRequestsSetTheLastId) {
    CameraModel model;
    Frame write = WriteRequest(kItemDataBlock);
    PutLe16(&write[2], 41);
    SetCur(model, kSelectorChannel, Bytes(write));
    EXPECT_EQ(GetLe16(&Transact(model, ReadRequest(kItemLastId))[4]), 41);
    Frame read = ReadRequest(kItemDataBlock);
    PutLe16(&read[2], 43);
    Transact(model, read);
    EXPECT_EQ(GetLe16(&Transact(model, ReadRequest(kItemLastId))[4]), 43);
}

// Read-only items answer the state where the read takes it.
struct ReadLayout {
    const char* name;
    uint16_t item;
    std::function<void(CameraState&)> set;
    size_t at;
    std::vector<uint8_t> expected;
};

class ReadOnlyItem : public ::testing::TestWithParam<ReadLayout> {};

TEST_P(ReadOnlyItem, AnswersTheStateAtItsPlace) {
    const ReadLayout& c = GetParam();
    CameraModel model;
    model.Update(c.set);
    const auto answer = Transact(model, ReadRequest(c.item));
    EXPECT_EQ(std::vector<uint8_t>(answer.begin() + static_cast<long>(c.at),
                                   answer.begin() + static_cast<long>(c.at + c.expected.size())),
              c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Items, ReadOnlyItem,
    ::testing::Values(
        ReadLayout{"RoiStatus",
                   kItemRoiStatus,
                   [](CameraState& s) { s.roiStatus = 0x01020304; },
                   4,
                   {0x04, 0x03, 0x02, 0x01}},
        ReadLayout{"StreamState",
                   kItemStreamState,
                   [](CameraState& s) {
                       s.streamCode = 0x0210;
                       s.streamUnusedBits = 0x00;
                       s.autofocusState = 0x7F;
                   },
                   4,
                   {0x10, 0x02, 0x00, 0x7F}},
        ReadLayout{
            "LastId", kItemLastId, [](CameraState& s) { s.lastId = 0xFFFE; }, 4, {0xFE, 0xFF}},
        ReadLayout{"Gyro",
                   kItemGyro,
                   [](CameraState& s) {
                       s.gyro = {0xFC, 0x18, 0x03, 0xE8, 0x03, 0xE8, 1, 2, 3, 4, 5, 6, 7, 8};
                   },
                   4,
                   {0xFC, 0x18, 0x03, 0xE8, 0x03, 0xE8, 1, 2, 3, 4, 5, 6, 7, 8}},
        ReadLayout{"Version", kItemVersion, [](CameraState& s) { s.version.fill(0x56); }, 4,
                   std::vector<uint8_t>(56, 0x56)}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

TEST(Channel, EveryReadableItemHasItsOwnDefaultAnswer) {
    CameraModel model;
    std::set<std::vector<uint8_t>> seen;
    // The last id first: a data-block request sets it.
    for (uint16_t item :
         {kItemLastId, kItemEt, kItemMjpegQp, kItemVersion, kItemRoi, kItemRoiStatus, kItemDeviceSn,
          kItemDeviceId, kItemDataBlock, kItemStreamState, kItemGyro, kItemVcm}) {
        const auto answer = Transact(model, ReadRequest(item));
        EXPECT_TRUE(seen.insert({answer.begin() + 4, answer.end()}).second) << item;
        EXPECT_NE(std::vector<uint8_t>(answer.begin() + 4, answer.end()),
                  std::vector<uint8_t>(56, 0))
            << item;
    }
}

TEST(Channel, EtAnswerFillsTheBytesBetweenTheBlocks) {
    CameraModel model;
    const auto answer = Transact(model, ReadRequest(kItemEt));
    for (size_t i : {26u, 31u, 54u, 59u}) EXPECT_EQ(answer[i], 0xEE) << i;
}

TEST(Channel, WriteOnlyItemsLandInTheState) {
    CameraModel model;
    Frame gpio = WriteRequest(kItemGpio);
    PutLe32(&gpio[4], 7);
    PutLe32(&gpio[8], 0x80000001);
    SetCur(model, kSelectorChannel, Bytes(gpio));
    Frame beep = WriteRequest(kItemBeep);
    PutLe32(&beep[4], 2);
    SetCur(model, kSelectorChannel, Bytes(beep));
    Frame led = WriteRequest(kItemLed);
    led[4] = 0x1A;
    led[5] = 0x15;
    led[29] = 0x99;
    SetCur(model, kSelectorChannel, Bytes(led));
    const CameraState s = model.State();
    EXPECT_EQ(s.gpio, (std::array<uint32_t, 2>{7, 0x80000001}));
    EXPECT_EQ(s.beep, 2u);
    EXPECT_EQ(s.led[0], 0x1A);
    EXPECT_EQ(s.led[1], 0x15);
    EXPECT_EQ(s.led[25], 0x99);
}

TEST(Channel, AnswerEchoesTheHeaderAndIsConsumedOnce) {
    CameraModel model;
    Frame request = ReadRequest(kItemRoi);
    request[2] = 0x77;
    const auto answer = Transact(model, request);
    EXPECT_EQ(std::vector<uint8_t>(answer.begin(), answer.begin() + 4),
              (std::vector<uint8_t>{0x00, 0x10, 0x77, 0x00}));
    EXPECT_EQ(GetCur(model, kSelectorChannel, kFrameLength).data,
              std::vector<uint8_t>(kFrameLength, 0));
}

TEST(Channel, AWriteDropsAPendingAnswer) {
    CameraModel model;
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    SetCur(model, kSelectorChannel, Bytes(WriteRequest(kItemBeep)));
    EXPECT_EQ(GetCur(model, kSelectorChannel, kFrameLength).data,
              std::vector<uint8_t>(kFrameLength, 0));
}

TEST(Channel, QueuedFramesAnswerTheNextReadWhateverItAsks) {
    CameraModel model;
    Frame a{}, b{};
    a.fill(0xA1);
    b.fill(0xB2);
    model.QueueAnswer({a, b});
    SetCur(model, kSelectorChannel, Bytes(ReadRequest(kItemVersion)));
    EXPECT_EQ(GetCur(model, kSelectorChannel, kFrameLength).data, Bytes(a));
    EXPECT_EQ(GetCur(model, kSelectorChannel, kFrameLength).data, Bytes(b));
    // The script is used up: the next read is answered normally again.
    const auto version = Transact(model, ReadRequest(kItemVersion));
    EXPECT_EQ(version[4], 'S');
}

TEST(Channel, ZeroGyroFaultLastsForItsCount) {
    CameraModel model;
    model.InjectZeroGyro(1);
    const auto zero = Transact(model, ReadRequest(kItemGyro));
    EXPECT_EQ(std::vector<uint8_t>(zero.begin() + 4, zero.begin() + 18),
              std::vector<uint8_t>(14, 0));
    const auto normal = Transact(model, ReadRequest(kItemGyro));
    EXPECT_EQ(normal[8], 0x40);
}

}  // namespace
}  // namespace tarvik::sim
