// Identity-card reads and the other SAM commands through ReadByExtItem.
#include <libusb.h>

#include <cwchar>

#include "byte_pack.h"
#include "device_fixture.h"

namespace tarvik::test {
namespace {

using sim::SamFault;

class RecordingLogger : public AssertLogger {
public:
    void Log(char* message) override { messages.emplace_back(message); }
    std::vector<std::string> messages;
};

struct SamRun {
    HRESULT result = 0;
    std::unique_ptr<_SAM_OUT_PARAM> out = std::make_unique<_SAM_OUT_PARAM>();
    std::vector<std::string> lines;
    std::vector<sim::Transfer> channel;  // selector 14
};

class Sam : public CameraTest {
protected:
    SamRun Run(unsigned cmd) {
        if (!m_impl) m_impl = OpenPrimed();
        Cam().ClearLog();
        SamRun run;
        std::memset(run.out.get(), 0xCD, sizeof(_SAM_OUT_PARAM));
        _SAM_IN_PARAM in{static_cast<unsigned char>(cmd)};
        StdoutCapture capture;
        capture.Start();
        run.result = m_impl->ReadByExtItem(EXT_ITEM_SAM, &in, run.out.get());
        run.lines = Messages(capture.Take());
        run.channel = OnSelector(Cam().Log(), 14);
        return run;
    }
    void SetSam(const std::function<void(sim::SamState&)>& change) {
        Model().Update([&](sim::CameraState& s) { change(s.sam); });
    }
    TarvikPtr m_impl;
};

// Everything of the record but `result` is zero.
bool OnlyResult(const _SAM_OUT_PARAM& out) {
    _SAM_OUT_PARAM zero;
    std::memset(&zero, 0, sizeof zero);
    zero.result = out.result;
    return std::memcmp(&zero, &out, sizeof zero) == 0;
}

size_t Frames(unsigned packetLength) {
    return 2 + (packetLength > 52 ? (packetLength - 52 + 51) / 52 : 0);
}

TEST_F(Sam, CardReadDeliversTheTenFieldsAndThePhoto) {
    for (unsigned cmd : {3u, 4u}) {
        SamRun run = Run(cmd);
        ASSERT_EQ(run.result, 0) << cmd;
        ASSERT_TRUE(run.lines.empty()) << run.lines.front();
        const _SAM_OUT_PARAM& out = *run.out;
        EXPECT_EQ(out.result, 0);
        EXPECT_STREQ(out.name, L"张三");
        EXPECT_STREQ(out.sex, L"男");
        EXPECT_STREQ(out.nation, L"汉");
        EXPECT_STREQ(out.birth, L"19900101");
        EXPECT_STREQ(out.address, L"示例省虚构市测试路1号");
        EXPECT_STREQ(out.id_number, L"000000199001010000");
        EXPECT_STREQ(out.authority, L"虚构市测试局");
        EXPECT_STREQ(out.valid_from, L"20200101");
        EXPECT_STREQ(out.valid_to, L"20300101");
        EXPECT_STREQ(out.reserved, L"");
        const sim::IdentityCard card = Model().State().sam.card;
        EXPECT_EQ(Bytes(out.photo, out.photo + 1024), card.photo);
        if (cmd == 4) {
            EXPECT_EQ(Bytes(out.fingerprint, out.fingerprint + 1024), card.fingerprint);
        } else {
            EXPECT_EQ(Bytes(out.fingerprint, out.fingerprint + 1024), Zeros(1024));
        }
        // The request, and a packet of many frames fetched one by one.
        Bytes request = ReadRequest(EXT_ITEM_SAM);
        request[8] = static_cast<std::uint8_t>(cmd);
        request[12] = 1;
        ASSERT_FALSE(run.channel.empty());
        EXPECT_EQ(run.channel[0].out, request);
        EXPECT_GT(run.channel.size(), 20u);
        for (size_t i = 1; i < run.channel.size(); ++i) EXPECT_TRUE(run.channel[i].isIn());
    }
}

TEST_F(Sam, NumberAndResultOnlyCommands) {
    SamRun number = Run(2);
    EXPECT_EQ(number.result, 0);
    EXPECT_EQ(number.out->result, 0);
    EXPECT_EQ(Bytes(number.out->number, number.out->number + 16), Model().State().sam.number);

    SetSam([](sim::SamState& s) { s.resultOfCommand[7] = 5; });
    SamRun six = Run(6);
    EXPECT_EQ(six.result, 0);
    EXPECT_EQ(six.out->result, 0);
    EXPECT_TRUE(OnlyResult(*six.out));
    EXPECT_EQ(six.lines, std::vector<std::string>{"SAM > input command: 6, return result: 0"});
    EXPECT_EQ(six.channel.size(), 2u);
    SamRun seven = Run(7);
    EXPECT_EQ(seven.out->result, -1);
    EXPECT_EQ(seven.lines, std::vector<std::string>{"SAM > input command: 7, return result: 5"});
}

TEST_F(Sam, InvalidCommandsSendNothingOnTheChannel) {
    for (unsigned cmd : {5u, 8u, 255u}) {
        SamRun run = Run(cmd);
        EXPECT_EQ(run.result, 1);
        EXPECT_EQ(run.lines, std::vector<std::string>{"ReadByExtItem, invalid sam cmd: " +
                                                      std::to_string(cmd)});
        EXPECT_TRUE(run.channel.empty());
        EXPECT_EQ(run.out->result, static_cast<int>(0xCDCDCDCD)) << "the record is untouched";
    }
}

// Packets that fit the first frame exactly, need one more byte, or many frames.
TEST_F(Sam, PacketLengthDecidesTheContinuationFrames) {
    for (unsigned dataLen : {8u, 50u, 51u, 61u}) {
        SetSam([&](sim::SamState& s) {
            s.dataLen = static_cast<std::uint16_t>(dataLen);
            s.commandData[1] = Bytes(dataLen - 4, 0x77);
        });
        SamRun run = Run(1);
        EXPECT_EQ(run.result, 0) << dataLen;
        EXPECT_EQ(run.out->result, 0) << dataLen;
        EXPECT_EQ(run.channel.size(), Frames(dataLen + 2)) << dataLen;
    }
    SetSam([](sim::SamState& s) { s.dataLen.reset(); });
    SamRun card = Run(3);
    const std::uint16_t dataLen =
        static_cast<std::uint16_t>(card.channel.at(1).in.at(8) << 8 | card.channel.at(1).in.at(9));
    EXPECT_EQ(card.channel.size(), Frames(dataLen + 2u));
}

struct StatusCase {
    std::uint8_t sw1, sw2, sw3;
    int result;
    bool delivered;
};

class SamStatus : public Sam, public testing::WithParamInterface<StatusCase> {};

TEST_P(SamStatus, StatusBytesGiveTheResult) {
    const StatusCase& c = GetParam();
    SetSam([&](sim::SamState& s) {
        s.sw1 = c.sw1;
        s.sw2 = c.sw2;
        s.sw3 = c.sw3;
    });
    SamRun run = Run(3);
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out->result, c.result);
    if (c.delivered) {
        EXPECT_TRUE(run.lines.empty());
        EXPECT_STREQ(run.out->name, L"张三");
    } else {
        EXPECT_TRUE(OnlyResult(*run.out));
        char line[128];
        std::snprintf(line, sizeof line,
                      "SAM > response error! cmd:3, SW1:0x%X, SW2:0x%X, SW3:0x%X, ResponseCode:%d.",
                      c.sw1, c.sw2, c.sw3, c.result);
        EXPECT_EQ(run.lines, std::vector<std::string>{line});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, SamStatus,
    testing::Values(StatusCase{0, 0, 0x90, 0, true}, StatusCase{0, 0, 0x9F, 1, true},
                    StatusCase{0, 1, 0x9F, -1, false}, StatusCase{0x6A, 0x82, 0x41, 13, false},
                    StatusCase{0, 0, 0x80, 17, false}, StatusCase{0, 0, 0x55, -1, false}));

TEST_F(Sam, DeviceResultWithoutPacket) {
    for (auto [samResult, expected] : {std::pair{1, -3}, std::pair{4, -1}, std::pair{-1, -1}}) {
        SetSam([&](sim::SamState& s) { s.samResult = static_cast<std::int16_t>(samResult); });
        SamRun run = Run(3);
        EXPECT_EQ(run.result, 0);
        EXPECT_EQ(run.out->result, expected) << samResult;
        EXPECT_TRUE(OnlyResult(*run.out));
        EXPECT_EQ(run.channel.size(), 2u) << "no data phase";
    }
}

TEST_F(Sam, ChecksumMismatchDeliversNothing) {
    Model().InjectSamFault(SamFault::kBadChecksum);
    SamRun run = Run(3);
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out->result, 2);
    EXPECT_TRUE(OnlyResult(*run.out));
    ASSERT_EQ(run.lines.size(), 1u);
    EXPECT_EQ(run.lines[0].rfind("SAM > data checksum error! cmd:3, calc value [0x", 0), 0u)
        << run.lines[0];
}

// The camera's first answer frame, given byte for byte.
TEST_F(Sam, ExactFirstFrameOfCommandZero) {
    for (auto [last, result] : {std::pair{0x97, 1}, std::pair{0x96, 2}}) {
        sim::Frame answer{};
        const std::uint8_t head[] = {0, 0, 0, 0, 0, 8, 0, 0, 0x9F, 0, 0, 0, 0};
        std::copy(std::begin(head), std::end(head), answer.begin() + 4);
        answer[17] = static_cast<std::uint8_t>(last);
        Model().QueueAnswer({answer});
        SamRun run = Run(0);
        EXPECT_EQ(run.result, 0);
        EXPECT_EQ(run.out->result, result);
        EXPECT_EQ(run.channel.size(), 2u);
        if (result == 2) {
            EXPECT_EQ(run.lines,
                      std::vector<std::string>{
                          "SAM > data checksum error! cmd:0, calc value [0x97] != [0x96]."});
        } else {
            EXPECT_TRUE(run.lines.empty());
        }
    }
}

TEST_F(Sam, LostContinuationFrame) {
    Model().InjectSamFault(SamFault::kGoneMidPacket);
    SamRun run = Run(3);
    EXPECT_EQ(run.result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(run.out->result, -2);
    EXPECT_TRUE(OnlyResult(*run.out));
    EXPECT_EQ(run.lines, std::vector<std::string>{"SAM > Get bytes error. hr=0xfffffffc"});
}

TEST_F(Sam, FirstFrameFailureLeavesTheRecord) {
    Model().InjectFault(sim::Fault{sim::FaultKind::kStall, 14, sim::Direction::kIn});
    SamRun run = Run(3);
    EXPECT_EQ(run.result, LIBUSB_ERROR_PIPE);
    EXPECT_EQ(run.lines, std::vector<std::string>{
                             "ReadByExtItem, _GetBytes error. extItemType=12, hr=0xfffffff7"});
    EXPECT_EQ(run.out->result, static_cast<int>(0xCDCDCDCD));
}

// Answers that break a condition deliver nothing but result 2, and nothing is
// read or written outside a buffer.
struct BrokenCase {
    const char* label;
    unsigned cmd;
    std::function<void(sim::CameraModel&)> arrange;
    const char* condition;
    size_t frames;  // transfers on the channel
};

class SamBroken : public Sam, public testing::WithParamInterface<BrokenCase> {};

TEST_P(SamBroken, ReportedAndNothingDelivered) {
    const BrokenCase& c = GetParam();
    c.arrange(Model());
    RecordingLogger logger;
    SetAssertLogger(&logger);
    SamRun run = Run(c.cmd);
    SetAssertLogger(nullptr);
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.out->result, 2);
    EXPECT_TRUE(OnlyResult(*run.out));
    ASSERT_EQ(logger.messages.size(), 1u);
    EXPECT_NE(logger.messages[0].find(c.condition), std::string::npos) << logger.messages[0];
    EXPECT_EQ(run.channel.size(), c.frames) << Describe(run.channel);
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, SamBroken,
    testing::Values(BrokenCase{"WrongEcho", 3,
                               [](sim::CameraModel& m) { m.InjectSamFault(SamFault::kWrongEcho); },
                               "input->cmd == proc->extItemSAM.cmd", 2},
                    BrokenCase{"CardPacketTooLong", 3,
                               [](sim::CameraModel& m) { m.InjectSamFault(SamFault::kOversize); },
                               "data_len < recv_buf_len", 2},
                    BrokenCase{"ShortBufferJustTooSmall", 1,
                               [](sim::CameraModel& m) {
                                   m.Update([](sim::CameraState& s) { s.sam.dataLen = 62; });
                               },
                               "data_len < recv_buf_len", 2},
                    BrokenCase{"NumberOverSixteenBytes", 2,
                               [](sim::CameraModel& m) {
                                   m.Update([](sim::CameraState& s) {
                                       s.sam.dataLen = 21;
                                       s.sam.number = Bytes(17, 0x42);
                                   });
                               },
                               "num_len <= 16", 2}),
    [](const auto& p) { return std::string(p.param.label); });

TEST_F(Sam, ShortNumberStillFillsSixteenBytes) {
    SetSam([](sim::SamState& s) {
        s.dataLen = 12;
        s.number = Bytes{1, 2, 3, 4, 5, 6, 7, 8};
    });
    SamRun run = Run(2);
    EXPECT_EQ(run.out->result, 0);
    std::uint8_t checksum = 0;
    for (std::uint8_t b : {0, 12, 0, 0, 0x90, 1, 2, 3, 4, 5, 6, 7, 8}) checksum ^= b;
    EXPECT_EQ(Bytes(run.out->number, run.out->number + 16),
              (Bytes{1, 2, 3, 4, 5, 6, 7, 8, checksum, 0, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace tarvik::test
