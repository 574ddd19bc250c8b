// The SAM channel: scripted answers of the camera for every command and every
// way an answer can be wrong, and identity cards read from the camera's SAM.
#include <cstring>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

constexpr std::uint8_t kPoison = 0xAB;

// The request for a command below 10: item 12, the command, the constant 1.
Bytes Request(unsigned cmd) {
    return Hex("00 10 00 00 0C 00 00 00 0" + std::to_string(cmd) + " 00 00 00 01", 60);
}

struct SamCase {
    const char* name;
    unsigned cmd;
    std::vector<const char*> frames;  // the camera's answer frames, in order
    HRESULT transaction;
    int result;
    std::vector<std::string> lines;
    size_t answers;                // GET_CURs made
    const char* number = nullptr;  // command 2: what reaches `number`
};

const SamCase kCases[] = {
    // T = 10: the packet fits the first frame; status 9F is success 1.
    {"StatusOne", 0, {"A5 A5 A5 A5 00 00 00 00 00 08 00 00 9F 00 00 00 00 97"}, 0, 1, {}, 1},
    {"ChecksumMismatch",
     0,
     {"A5 A5 A5 A5 00 00 00 00 00 08 00 00 9F 00 00 00 00 96"},
     0,
     2,
     {"SAM > data checksum error! cmd:0, calc value [0x97] != [0x96]."},
     1},
    // The XOR runs over the length, the status and every data byte, the last one too.
    {"ChecksumOverTheLastDataByte", 1, {"A5 A5 A5 A5 01 00 00 00 00 0C 00 00 90 31..38 94"}, 0, 0, {}, 1},
    {"NumberShorterThanSixteen",
     2,
     {"A5 A5 A5 A5 02 00 00 00 00 0C 00 00 90 31..38 94"},
     0,
     0,
     {},
     1,
     "31..38 94 00 00 00 00 00 00 00"},
    {"NumberOfSixteen", 2, {"A5 A5 A5 A5 02 00 00 00 00 14 00 00 90 31..40 F4"}, 0, 0, {}, 1, "31..40"},
    {"NumberOverSixteen",
     2,
     {"A5 A5 A5 A5 02 00 00 00 00 15 00 00 90 31..41 B4"},
     0,
     2,
     {"| Assertion `num_len <= 16' failed in ReadByExtItem\n"},
     1},
    {"PacketOfFiftyTwoFitsOneFrame", 1, {"A5 A5 A5 A5 01 00 00 00 00 32 00 00 9F 10..3D AC"}, 0, 1, {}, 1},
    {"PacketOfFiftyThreeNeedsTwo",
     1,
     {"A5 A5 A5 A5 01 00 00 00 00 33 00 00 9F 10..3E", "A5 A5 A5 A5 A5 A5 A5 A5 93"},
     0,
     1,
     {},
     2},
    {"PacketJustBelowTheBuffer",
     0,
     {"A5 A5 A5 A5 00 00 00 00 00 3D 00 00 90 10..3E", "A5 A5 A5 A5 A5 A5 A5 A5 3F..48 E5"},
     0,
     0,
     {},
     2},
    // Judged before any continuation frame is fetched.
    {"PacketAsLongAsTheBuffer",
     0,
     {"A5 A5 A5 A5 00 00 00 00 00 3E 00 00 90 10..3E", "A5 A5 A5 A5 A5 A5 A5 A5 3F..49 AF"},
     0,
     2,
     {"| Assertion `data_len < recv_buf_len' failed in ReadByExtItem\n"},
     1},
    {"WrongEcho",
     2,
     {"A5 A5 A5 A5 03 00 00 00 00 0C 00 00 90 31..38 94"},
     0,
     2,
     {"| Assertion `input->cmd == proc->extItemSAM.cmd' failed in ReadByExtItem\n"},
     1},
    // The status decides before the checksum, which is wrong here too.
    {"StatusError",
     0,
     {"A5 A5 A5 A5 00 00 00 00 00 0C 00 00 80 31..38 85"},
     0,
     17,
     {"SAM > response error! cmd:0, SW1:0x0, SW2:0x0, SW3:0x80, ResponseCode:17."},
     1},
    {"UnknownStatus",
     0,
     {"A5 A5 A5 A5 00 00 00 00 00 0C 00 01 9F 31..38 9A"},
     0,
     -1,
     {"SAM > response error! cmd:0, SW1:0x0, SW2:0x1, SW3:0x9F, ResponseCode:-1."},
     1},
    {"SamBusy", 3, {"A5 A5 A5 A5 03 00 01 00"}, 0, -3, {}, 1},
    {"SamFailed", 1, {"A5 A5 A5 A5 01 00 05 00"}, 0, -1, {}, 1},
    {"ResultOnlyOk",
     6,
     {"A5 A5 A5 A5 06 00 00 00 00 08 00 00 80"},
     0,
     0,
     {"SAM > input command: 6, return result: 0"},
     1},
    {"ResultOnlyFailed",
     7,
     {"A5 A5 A5 A5 07 00 03 00"},
     0,
     -1,
     {"SAM > input command: 7, return result: 3"},
     1},
};

class SamAnswers : public DeviceTest, public testing::WithParamInterface<std::tuple<SamCase, Transport>> {};

TEST_P(SamAnswers, ResultLinesAndDelivery) {
    const auto& [c, path] = GetParam();
    TarvikPtr t = Open(path);
    QueueAnswer(c.frames);
    _SAM_IN_PARAM in{static_cast<unsigned char>(c.cmd)};
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    std::memset(out.get(), kPoison, sizeof *out);

    const Outcome o = Run([&] { return t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get()); });

    EXPECT_EQ(o.result, c.transaction);
    EXPECT_EQ(out->result, c.result);
    EXPECT_TRUE(LinesAre(o.out, c.lines));
    ASSERT_EQ(o.wire.size(), 1 + c.answers);
    EXPECT_TRUE(IsSetCur(o.wire[0], 14, Request(c.cmd)));
    for (size_t i = 1; i < o.wire.size(); ++i) EXPECT_TRUE(IsGetCur(o.wire[i], 14, 60));
    // Nothing but `result` (and a command 2 number) is delivered from a scripted answer.
    out->result = 0;
    Bytes expected(sizeof *out, 0);
    if (c.number != nullptr) {
        const Bytes number = Hex(c.number);
        std::copy(number.begin(), number.end(), expected.begin() + offsetof(_SAM_OUT_PARAM, number));
    }
    EXPECT_EQ(BytesOf(*out), expected);
}

INSTANTIATE_TEST_SUITE_P(Table, SamAnswers,
                         testing::Combine(testing::ValuesIn(kCases), BothTransports()),
                         [](const auto& p) {
                             return std::string(std::get<0>(p.param).name) + "_" +
                                    TransportName({std::get<1>(p.param), 0});
                         });

class Sam : public DeviceTest, public testing::WithParamInterface<Transport> {
protected:
    Outcome Read(TarvikImpl& t, unsigned cmd, _SAM_OUT_PARAM* out, _SAM_IN_PARAM* in = nullptr) {
        _SAM_IN_PARAM given{static_cast<unsigned char>(cmd)};
        return Run([&] { return t.ReadByExtItem(EXT_ITEM_SAM, in != nullptr ? in : &given, out); });
    }
};

// Commands that are none, and missing records: refused before selector 14.
TEST_P(Sam, RefusedRequestsSendNothing) {
    TarvikPtr t = Open(GetParam());
    _SAM_OUT_PARAM out;
    std::memset(&out, kPoison, sizeof out);
    for (unsigned cmd : {5u, 8u, 255u}) {
        const Outcome o = Read(*t, cmd, &out);
        EXPECT_EQ(o.result, 1);
        EXPECT_TRUE(LinesAre(o.out, {"ReadByExtItem, invalid sam cmd: " + std::to_string(cmd)}));
        EXPECT_TRUE(o.wire.empty());
    }
    _SAM_IN_PARAM in{3};
    EXPECT_EQ(Run([&] { return t->ReadByExtItem(EXT_ITEM_SAM, nullptr, &out); }).result, 1);
    EXPECT_EQ(Run([&] { return t->ReadByExtItem(EXT_ITEM_SAM, &in, nullptr); }).result, 1);
    EXPECT_EQ(out.result, static_cast<int>(0xABABABAB));
}

// A failed transfer: the first answer leaves the record alone, a lost
// continuation frame delivers -2.
TEST_P(Sam, LostFrames) {
    TarvikPtr t = Open(GetParam());
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    out->result = 99;
    Model().InjectFault({sim::FaultKind::kStall, 14, sim::Direction::kIn});
    Outcome o = Read(*t, 3, out.get());
    EXPECT_EQ(o.result, LIBUSB_ERROR_PIPE);
    EXPECT_EQ(out->result, 99);
    EXPECT_TRUE(LinesAre(o.out, {"ReadByExtItem, _GetBytes error. extItemType=12, hr=0xfffffff7"}));

    Model().InjectFault({sim::FaultKind::kGone, 14, sim::Direction::kIn, sim::kAnyRequest, 1, 1});
    o = Read(*t, 3, out.get());
    EXPECT_EQ(o.result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(out->result, -2);
    EXPECT_EQ(out->name[0], L'\0');
    EXPECT_TRUE(LinesAre(o.out, {"SAM > Get bytes error. hr=0xfffffffc"}));
}

// The card the camera's SAM holds, read with commands 3 and 4. Blanks inside a
// field and a trailing tab are part of the text; padding blanks are not.
TEST_P(Sam, CardReads) {
    Model().Update([](sim::CameraState& s) {
        s.sam.card.address = "示例省 虚构市测试路1号\t";
        s.sam.card.reserved = "R 1";
        s.sam.card.nation = "98";
    });
    TarvikPtr t = Open(GetParam());
    for (unsigned cmd : {3u, 4u}) {
        SCOPED_TRACE(cmd);
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        const Outcome o = Read(*t, cmd, out.get());
        EXPECT_EQ(o.result, 0);
        EXPECT_EQ(out->result, 0);
        EXPECT_EQ(o.out, "");
        ASSERT_EQ(o.wire.size(), cmd == 3 ? 26u : 46u) << "one request, then frames of 52 bytes";
        EXPECT_STREQ(out->name, L"张三");
        EXPECT_STREQ(out->sex, L"男");
        EXPECT_STREQ(out->nation, L"外国血统中国籍人士");
        EXPECT_STREQ(out->birth, L"19900101");
        EXPECT_STREQ(out->address, L"示例省 虚构市测试路1号\t");
        EXPECT_STREQ(out->id_number, L"000000199001010000");
        EXPECT_STREQ(out->authority, L"虚构市测试局");
        EXPECT_STREQ(out->valid_from, L"20200101");
        EXPECT_STREQ(out->valid_to, L"20300101");
        EXPECT_STREQ(out->reserved, L"R 1");
        EXPECT_EQ(Bytes(out->photo, out->photo + 4), Hex("00 01 02 03"));
        EXPECT_EQ(out->photo[1023], 0xFF);
        EXPECT_TRUE(IsSetCur(o.wire[0], 14, Request(cmd)));
        const Bytes ends = {out->fingerprint[0], out->fingerprint[1], out->fingerprint[1022],
                            out->fingerprint[1023]};
        EXPECT_EQ(ends, cmd == 4 ? Hex("FF FE 01 00") : Hex("00 00 00 00"));
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, Sam, BothTransports(), TransportName);

}  // namespace
}  // namespace tarvik::test
