#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "IDCardData.h"
#include "TarvikImpl.h"
#include "frame_helpers.h"
#include "sam_packet.h"

using namespace tarvik;
using namespace tarvik::test;
using frame::Frame;

namespace {

// ---------------------------------------------------------------------------
// Response codes
// ---------------------------------------------------------------------------

struct CodeCase {
    std::uint8_t sw1, sw2, sw3;
    int code;
};

class ResponseCode : public testing::TestWithParam<CodeCase> {};

TEST_P(ResponseCode, MapsStatusBytes) {
    const CodeCase& c = GetParam();
    EXPECT_EQ(GetSAMResponseCode(c.sw1, c.sw2, c.sw3), c.code);
}

INSTANTIATE_TEST_SUITE_P(Sw3DecidesAlone, ResponseCode,
                         testing::Values(CodeCase{0x6A, 0x82, 0x31, 7},
                                         CodeCase{0xFF, 0x00, 0x32, 8},
                                         CodeCase{0x00, 0xFF, 0x40, 12},
                                         CodeCase{0x12, 0x34, 0x41, 13}, CodeCase{1, 1, 0x47, 14},
                                         CodeCase{0x90, 0x00, 0x81, 18}));

INSTANTIATE_TEST_SUITE_P(CleanSw1Sw2, ResponseCode,
                         testing::Values(CodeCase{0, 0, 0x90, 0}, CodeCase{0, 0, 0x9F, 1},
                                         CodeCase{0, 0, 0x10, 2}, CodeCase{0, 0, 0x11, 3},
                                         CodeCase{0, 0, 0x21, 4}, CodeCase{0, 0, 0x23, 5},
                                         CodeCase{0, 0, 0x24, 6}, CodeCase{0, 0, 0x33, 9},
                                         CodeCase{0, 0, 0x60, 15}, CodeCase{0, 0, 0x66, 16},
                                         CodeCase{0, 0, 0x80, 17}, CodeCase{0, 0, 0x91, 19}));

INSTANTIATE_TEST_SUITE_P(Unknown, ResponseCode,
                         testing::Values(CodeCase{0, 1, 0x9F, -1}, CodeCase{1, 0, 0x90, -1},
                                         CodeCase{0x90, 0x00, 0x90, -1}, CodeCase{0, 0, 0x00, -1},
                                         CodeCase{0, 0, 0x0A, -1}, CodeCase{0, 0, 0x0B, -1},
                                         CodeCase{0, 0, 0xFF, -1}));

// ---------------------------------------------------------------------------
// Request and first answer
// ---------------------------------------------------------------------------

TEST(SamRequest, CarriesCommandAndFlag) {
    Frame f;
    f.fill(0xAA);
    frame::build_read_request(f, EXT_ITEM_SAM, 1, 0, nullptr);
    sam::put_request(f, 0x0304);
    EXPECT_EQ(
        f,
        frame_of(
            {{0, {0x00, 0x10, 0x00, 0x00, 0x0C, 0x00, 0x00, 0x00, 0x04, 0x03, 0x00, 0x00, 0x01}}}));
}

TEST(SamFirstAnswer, DecodesSignedLittleEndianAndBigEndianLength) {
    Frame f;
    f.fill(0x55);
    const Bytes fields = {0xFE, 0xFF, 0x01, 0x80, 0x12, 0x34, 0x61, 0x62, 0x63};
    std::copy(fields.begin(), fields.end(), f.begin() + 4);
    const sam::FirstAnswer a = sam::decode_first_answer(f);
    EXPECT_EQ(a.cmd, -2);
    EXPECT_EQ(a.samResult, -32767);
    EXPECT_EQ(a.dataLen, 0x1234);
    EXPECT_EQ(a.sw1, 0x61);
    EXPECT_EQ(a.sw2, 0x62);
    EXPECT_EQ(a.sw3, 0x63);
}

TEST(SamCommands, HandlingAndBufferByCommand) {
    using sam::Handling;
    struct Row {
        unsigned cmd;
        Handling handling;
        unsigned buffer;
    };
    const Row rows[] = {
        {0, Handling::Packet, 64},    {2, Handling::Packet, 64}, {3, Handling::Packet, 4096},
        {4, Handling::Packet, 4096},  {5, Handling::Invalid, 0}, {6, Handling::ResultOnly, 0},
        {7, Handling::ResultOnly, 0}, {8, Handling::Invalid, 0}, {0x103, Handling::Invalid, 0}};
    for (const Row& r : rows) {
        EXPECT_EQ(sam::handling_of(r.cmd), r.handling) << "cmd " << r.cmd;
        EXPECT_EQ(sam::receive_buffer_size(r.cmd), r.buffer) << "cmd " << r.cmd;
    }
}

// ---------------------------------------------------------------------------
// Joining a packet. The device's packet stream is cut into frames of 52
// bytes at 8-59; frame bytes 0-7 hold junk that must never reach the packet.
// ---------------------------------------------------------------------------

Bytes packet_stream(std::uint16_t dataLen) {
    Bytes p(dataLen + 2u + 60u);  // followed by bytes the packet does not own
    for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<std::uint8_t>(i * 7 + 3);
    p[0] = static_cast<std::uint8_t>(dataLen >> 8);
    p[1] = static_cast<std::uint8_t>(dataLen);
    return p;
}

std::vector<Frame> frames_of(const Bytes& stream) {
    std::vector<Frame> frames;
    for (size_t at = 0; at < stream.size(); at += sam::kPacketBytesPerFrame) {
        Frame f;
        f.fill(0xEE);
        const size_t n = std::min<size_t>(sam::kPacketBytesPerFrame, stream.size() - at);
        std::copy_n(stream.begin() + static_cast<long>(at), n, f.begin() + 8);
        frames.push_back(f);
    }
    return frames;
}

struct JoinCase {
    std::uint16_t dataLen;
    unsigned buffer;
    unsigned continuations;
};

class PacketJoin : public testing::TestWithParam<JoinCase> {};

TEST_P(PacketJoin, TakesExactlyTheNeededFrames) {
    const JoinCase& c = GetParam();
    const Bytes stream = packet_stream(c.dataLen);
    const std::vector<Frame> frames = frames_of(stream);
    const unsigned total = c.dataLen + 2u;

    sam::PacketAssembler a;
    ASSERT_TRUE(a.start(frames[0], c.buffer));
    unsigned used = 0;
    while (!a.complete()) {
        ASSERT_LT(used + 1, frames.size());
        a.append(frames[++used]);
    }
    EXPECT_EQ(used, c.continuations);
    EXPECT_EQ(a.packet(), Bytes(stream.begin(), stream.begin() + total));
}

INSTANTIATE_TEST_SUITE_P(Lengths, PacketJoin,
                         testing::Values(JoinCase{0, 64, 0}, JoinCase{50, 64, 0},
                                         JoinCase{51, 64, 1}, JoinCase{61, 64, 1},
                                         JoinCase{102, 4096, 1}, JoinCase{103, 4096, 2},
                                         JoinCase{2313, 4096, 44}, JoinCase{4093, 4096, 78}));

struct RejectCase {
    std::uint16_t dataLen;
    unsigned buffer;
};

class PacketTooLong : public testing::TestWithParam<RejectCase> {};

TEST_P(PacketTooLong, IsRejectedBeforeAnyContinuation) {
    const std::vector<Frame> frames = frames_of(packet_stream(GetParam().dataLen));
    sam::PacketAssembler a;
    ASSERT_TRUE(a.start(frames_of(packet_stream(40))[0], 64));  // earlier content is dropped
    EXPECT_FALSE(a.start(frames[0], GetParam().buffer));
    EXPECT_TRUE(a.packet().empty());
    EXPECT_EQ(a.missing(), 0u);
}

// T = dataLen + 2 must stay below the buffer; 0xFFFF must not wrap.
INSTANTIATE_TEST_SUITE_P(Lengths, PacketTooLong,
                         testing::Values(RejectCase{62, 64}, RejectCase{0xFFFF, 64},
                                         RejectCase{4094, 4096}, RejectCase{0xFFFF, 4096},
                                         RejectCase{0, 0}));

// ---------------------------------------------------------------------------
// Checksum: the worked example of command 0, then damaged and short packets.
// ---------------------------------------------------------------------------

Frame command0_answer(std::uint8_t checksum) {
    return frame_of({{4,
                      {0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x9F, 0x00, 0x00, 0x00, 0x00,
                       checksum}}});
}

struct ChecksumCase {
    std::uint8_t sent;
    bool ok;
};

class Command0Example : public testing::TestWithParam<ChecksumCase> {};

TEST_P(Command0Example, FitsOneFrameAndChecks) {
    const Frame f = command0_answer(GetParam().sent);
    const sam::FirstAnswer first = sam::decode_first_answer(f);
    EXPECT_EQ(first.cmd, 0);
    EXPECT_EQ(first.samResult, 0);
    EXPECT_EQ(GetSAMResponseCode(first.sw1, first.sw2, first.sw3), 1);

    sam::PacketAssembler a;
    ASSERT_TRUE(a.start(f, sam::receive_buffer_size(0)));
    ASSERT_TRUE(a.complete());
    ASSERT_EQ(a.packet().size(), 10u);
    const sam::Checksum sum = sam::verify_checksum(a.packet());
    EXPECT_EQ(sum.computed, 0x97);
    EXPECT_EQ(sum.received, GetParam().sent);
    EXPECT_EQ(sum.ok(), GetParam().ok);
}

INSTANTIATE_TEST_SUITE_P(Checksums, Command0Example,
                         testing::Values(ChecksumCase{0x97, true}, ChecksumCase{0x96, false}));

TEST(Checksum, PacketShorterThanItsLengthReadsZerosBeyond) {
    // dataLen 4 claims six bytes; only three are there.
    const sam::Checksum sum = sam::verify_checksum({0x00, 0x04, 0x90});
    EXPECT_EQ(sum.computed, 0x94);
    EXPECT_EQ(sum.received, 0x00);
}

// ---------------------------------------------------------------------------
// Command 2: the number
// ---------------------------------------------------------------------------

TEST(NumberLength, SignedDataLenMinusFourAtMostSixteen) {
    const std::pair<std::uint16_t, bool> rows[] = {
        {0, true}, {3, true}, {4, true}, {20, true}, {21, false}, {0x8000, false}, {0xFFFF, false}};
    for (const auto& [dataLen, ok] : rows) {
        EXPECT_EQ(sam::number_length_ok(dataLen), ok) << "dataLen " << dataLen;
    }
}

struct NumberCase {
    Bytes packet;
    Bytes number;
};

class DeliverNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(DeliverNumber, AlwaysSixteenBytesFromFive) {
    _SAM_OUT_PARAM out;
    std::memset(&out, 0xCC, sizeof out);
    sam::deliver_number(GetParam().packet, &out);
    EXPECT_EQ(Bytes(out.number, out.number + 16), GetParam().number);
    EXPECT_EQ(out.result, static_cast<int>(0xCCCCCCCC));
    EXPECT_EQ(reinterpret_cast<const std::uint8_t*>(out.name)[16], 0xCC);
}

INSTANTIATE_TEST_SUITE_P(Packets, DeliverNumber,
                         testing::Values(
                             // 8 data bytes: they, the checksum, then zeros
                             NumberCase{{0, 12, 0, 0, 0x90, 1, 2, 3, 4, 5, 6, 7, 8, 0xAB},
                                        {1, 2, 3, 4, 5, 6, 7, 8, 0xAB, 0, 0, 0, 0, 0, 0, 0}},
                             // 16 data bytes: exactly them
                             NumberCase{{0, 20, 0, 0, 0x90, 9, 8, 7, 6, 5, 4,
                                         3, 2,  1, 0, 1,    2, 3, 4, 5, 6, 0x77},
                                        {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6}},
                             // a packet cut inside its header
                             NumberCase{{0, 0}, Bytes(16, 0)}));

// ---------------------------------------------------------------------------
// Commands 3 and 4: the card blocks
// ---------------------------------------------------------------------------

struct BlocksCase {
    unsigned cmd;
    size_t text, photo, third;  // packet offsets; third 0: none
};

class CardBlocks : public testing::TestWithParam<BlocksCase> {};

Bytes card_packet(size_t n) {
    Bytes p(n);
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<std::uint8_t>((i * 31) ^ (i >> 8));
    return p;
}

Bytes slice(const Bytes& p, size_t from, size_t n) {
    Bytes out(n, 0);
    for (size_t i = 0; i < n && from + i < p.size(); ++i) out[i] = p[from + i];
    return out;
}

TEST_P(CardBlocks, TakesBlocksAtFixedOffsets) {
    const BlocksCase& c = GetParam();
    const Bytes packet = card_packet(2400);
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::uint8_t text[sam::kTextBlockSize];
    std::memset(text, 0xCC, sizeof text);

    sam::copy_card_blocks(c.cmd, packet, text, out.get());

    EXPECT_EQ(Bytes(text, text + 256), slice(packet, c.text, 256));
    EXPECT_EQ(Bytes(out->photo, out->photo + 1024), slice(packet, c.photo, 1024));
    const Bytes third = c.third ? slice(packet, c.third, 1024) : Bytes(1024, 0);
    EXPECT_EQ(Bytes(out->fingerprint, out->fingerprint + 1024), third);
    EXPECT_EQ(out->result, 0);
    EXPECT_EQ(out->name[0], L'\0');
}

TEST_P(CardBlocks, BytesBeyondAShortPacketAreZero) {
    const BlocksCase& c = GetParam();
    const Bytes packet = card_packet(c.photo + 100);
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::memset(out->photo, 0xCC, sizeof out->photo);
    std::uint8_t text[sam::kTextBlockSize];

    sam::copy_card_blocks(c.cmd, packet, text, out.get());

    EXPECT_EQ(Bytes(text, text + 256), slice(packet, c.text, 256));
    EXPECT_EQ(Bytes(out->photo, out->photo + 1024), slice(packet, c.photo, 1024));
}

INSTANTIATE_TEST_SUITE_P(Commands, CardBlocks,
                         testing::Values(BlocksCase{3, 9, 265, 0}, BlocksCase{4, 11, 267, 1291}));

TEST(CardFields, CopiedWithTerminatorAndCutToFit) {
    IDCardData card;
    card.name = std::wstring(40, L'\x4E00');  // longer than its 30 places
    card.sex = L"\x7537";
    card.nation = L"\x6C49";
    card.birth = L"19991231";
    card.address = std::wstring(69, L'a');  // exactly fits with its terminator
    card.id_number = L"11010519991231002X";
    card.authority = L"auth";
    card.valid_from = L"20200101";
    card.valid_to = L"20300101";
    card.reserved = L"";
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::wmemset(out->reserved, L'z', 36);

    sam::copy_card_fields(card, out.get());

    EXPECT_EQ(std::wstring(out->name), std::wstring(29, L'\x4E00'));
    EXPECT_EQ(std::wstring(out->sex), card.sex);
    EXPECT_EQ(std::wstring(out->nation), card.nation);
    EXPECT_EQ(std::wstring(out->birth), card.birth);
    EXPECT_EQ(std::wstring(out->address), card.address);
    EXPECT_EQ(std::wstring(out->id_number), card.id_number);
    EXPECT_EQ(std::wstring(out->authority), card.authority);
    EXPECT_EQ(std::wstring(out->valid_from), card.valid_from);
    EXPECT_EQ(std::wstring(out->valid_to), card.valid_to);
    EXPECT_EQ(out->reserved[0], L'\0');
    EXPECT_EQ(out->photo[0], 0);  // the field after `reserved` is untouched
}

}  // namespace
