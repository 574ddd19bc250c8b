// The SAM behind item 12: packets, their split over answer frames, and the SAM faults.
#include <gtest/gtest.h>

#include "model_host.h"
#include "sam_answer.h"

namespace tarvik::sim {
namespace {

using host::Bytes;
using host::GetCur;
using host::ReadRequest;
using host::SetCur;

Frame SamRequest(uint16_t command) {
    Frame f = ReadRequest(kItemSam);
    PutLe16(&f[8], command);
    f[12] = 1;
    return f;
}

struct SamAnswer {
    int16_t echo = 0;
    int16_t result = 0;
    std::vector<uint8_t> packet;
    size_t frames = 0;
};

// Reads the first frame, then as many continuation frames as the length field asks for, the
// way a host does.
SamAnswer ReadSam(CameraModel& model, uint16_t command) {
    SetCur(model, kSelectorChannel, Bytes(SamRequest(command)));
    SamAnswer a;
    std::vector<uint8_t> f = GetCur(model, kSelectorChannel, kFrameLength).data;
    a.frames = 1;
    a.echo = static_cast<int16_t>(GetLe16(&f[4]));
    a.result = static_cast<int16_t>(GetLe16(&f[6]));
    if (a.result != 0 || command > 4) return a;
    const size_t total = ((f[8] << 8) | f[9]) + 2u;
    while (true) {
        const size_t n = std::min(kSamChunk, total - a.packet.size());
        a.packet.insert(a.packet.end(), f.begin() + 8, f.begin() + 8 + static_cast<long>(n));
        if (a.packet.size() == total) break;
        f = GetCur(model, kSelectorChannel, kFrameLength).data;
        ++a.frames;
    }
    return a;
}

bool ChecksumHolds(const std::vector<uint8_t>& packet) {
    return XorOf(packet.data(), packet.size() - 1) == packet.back();
}

std::u16string Ucs2At(const std::vector<uint8_t>& p, size_t offset, size_t units) {
    std::u16string s;
    for (size_t i = 0; i < units; ++i)
        s.push_back(static_cast<char16_t>(GetLe16(&p[offset + 2 * i])));
    return s;
}

struct CardCase {
    uint16_t command;
    size_t packetLength;  // T = dataLen + 2
    size_t textAt;
    size_t photoAt;
};

class CardCommand : public ::testing::TestWithParam<CardCase> {};

TEST_P(CardCommand, PacketCarriesTheCardAtItsOffsets) {
    const CardCase& c = GetParam();
    CameraModel model;
    model.Update([](CameraState& s) { s.sam.card.name = "王五"; });
    const SamAnswer a = ReadSam(model, c.command);
    EXPECT_EQ(a.echo, c.command);
    EXPECT_EQ(a.result, 0);
    ASSERT_EQ(a.packet.size(), c.packetLength);
    EXPECT_EQ(a.frames, (c.packetLength + kSamChunk - 1) / kSamChunk);
    EXPECT_EQ(std::vector<uint8_t>(a.packet.begin() + 2, a.packet.begin() + 5),
              (std::vector<uint8_t>{0x00, 0x00, 0x90}));
    EXPECT_TRUE(ChecksumHolds(a.packet));
    EXPECT_EQ(Ucs2At(a.packet, c.textAt, 3), u"王五 ");
    EXPECT_EQ(Ucs2At(a.packet, c.textAt + 30, 1), u"1");   // sex code
    EXPECT_EQ(Ucs2At(a.packet, c.textAt + 32, 2), u"01");  // nation code
    EXPECT_EQ(a.packet[c.photoAt], 0x00);
    EXPECT_EQ(a.packet[c.photoAt + 1023], 0xFF);  // default photo counts 00..FF repeatedly
    if (c.command == 4) {
        EXPECT_EQ(a.packet[c.photoAt + 1024], 0xFF);  // the third block counts down
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, CardCommand,
                         ::testing::Values(CardCase{3, 1290, 9, 265}, CardCase{4, 2316, 11, 267}));

TEST(Sam, NumberCommandCarriesTheNumberAfterTheStatus) {
    CameraModel model;
    model.Update([](CameraState& s) { s.sam.number = {1, 2, 3, 4, 5, 6, 7, 8}; });
    const SamAnswer a = ReadSam(model, 2);
    ASSERT_EQ(a.packet.size(), 8u + 4 + 2);
    EXPECT_EQ(std::vector<uint8_t>(a.packet.begin() + 5, a.packet.begin() + 13),
              (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_TRUE(ChecksumHolds(a.packet));
}

// Packet lengths around the frame boundary and far beyond it.
class PacketLength : public ::testing::TestWithParam<uint16_t> {};

TEST_P(PacketLength, IsSplitIntoFramesOf52) {
    const uint16_t dataLen = GetParam();
    CameraModel model;
    model.Update([&](CameraState& s) {
        s.sam.dataLen = dataLen;
        s.sam.sw3 = 0x9F;
    });
    const SamAnswer a = ReadSam(model, 0);
    ASSERT_EQ(a.packet.size(), dataLen + 2u);
    EXPECT_EQ(a.frames, (dataLen + 2u + 51) / 52);
    EXPECT_EQ(a.packet[4], 0x9F);
    EXPECT_TRUE(ChecksumHolds(a.packet));
}

INSTANTIATE_TEST_SUITE_P(Lengths, PacketLength, ::testing::Values(8, 50, 51, 102, 103, 4094, 6000));

TEST(Sam, ShortestPacketMatchesTheWireExample) {
    // dataLen 8, status 00 00 9F, four zero data bytes: checksum 0x97.
    CameraModel model;
    model.Update([](CameraState& s) {
        s.sam.commandData[0] = {0, 0, 0, 0};
        s.sam.sw3 = 0x9F;
    });
    SetCur(model, kSelectorChannel, Bytes(SamRequest(0)));
    const std::vector<uint8_t> f = GetCur(model, kSelectorChannel, kFrameLength).data;
    EXPECT_EQ(std::vector<uint8_t>(f.begin() + 4, f.begin() + 18),
              (std::vector<uint8_t>{0, 0, 0, 0, 0, 8, 0, 0, 0x9F, 0, 0, 0, 0, 0x97}));
}

TEST(Sam, NonZeroResultSendsNoPacket) {
    CameraModel model;
    model.Update([](CameraState& s) { s.sam.samResult = 1; });
    SetCur(model, kSelectorChannel, Bytes(SamRequest(3)));
    const std::vector<uint8_t> f = GetCur(model, kSelectorChannel, kFrameLength).data;
    EXPECT_EQ(GetLe16(&f[6]), 1);
    EXPECT_EQ(std::vector<uint8_t>(f.begin() + 8, f.end()), std::vector<uint8_t>(52, 0));
    EXPECT_EQ(GetCur(model, kSelectorChannel, kFrameLength).data, std::vector<uint8_t>(60, 0));
}

TEST(Sam, CommandsSixAndSevenAnswerTheResultOnly) {
    CameraModel model;
    model.Update([](CameraState& s) { s.sam.resultOfCommand[7] = -5; });
    for (uint16_t command : {uint16_t{6}, uint16_t{7}}) {
        SetCur(model, kSelectorChannel, Bytes(SamRequest(command)));
        const std::vector<uint8_t> f = GetCur(model, kSelectorChannel, kFrameLength).data;
        EXPECT_EQ(GetLe16(&f[4]), command);
        EXPECT_EQ(static_cast<int16_t>(GetLe16(&f[6])), command == 7 ? -5 : 0);
        EXPECT_EQ(std::vector<uint8_t>(f.begin() + 8, f.end()), std::vector<uint8_t>(52, 0));
    }
}

TEST(SamFaults, EachSpoilsOneAnswer) {
    CameraModel model;
    model.InjectSamFault(SamFault::kWrongEcho);
    EXPECT_NE(ReadSam(model, 3).echo, 3);
    EXPECT_EQ(ReadSam(model, 3).echo, 3);

    model.InjectSamFault(SamFault::kBadChecksum);
    EXPECT_FALSE(ChecksumHolds(ReadSam(model, 1).packet));
    EXPECT_TRUE(ChecksumHolds(ReadSam(model, 1).packet));

    model.InjectSamFault(SamFault::kOversize);
    EXPECT_EQ(ReadSam(model, 3).packet.size(), 5002u);
    EXPECT_EQ(ReadSam(model, 3).packet.size(), 1290u);
}

TEST(SamFaults, GoneMidPacketFailsTheFirstContinuation) {
    CameraModel model;
    model.InjectSamFault(SamFault::kGoneMidPacket);
    SetCur(model, kSelectorChannel, Bytes(SamRequest(3)));
    EXPECT_EQ(GetCur(model, kSelectorChannel, 60).status, TransferStatus::kCompleted);
    EXPECT_EQ(GetCur(model, kSelectorChannel, 60).status, TransferStatus::kNoDevice);
    EXPECT_EQ(ReadSam(model, 3).packet.size(), 1290u);
}

}  // namespace
}  // namespace tarvik::sim
