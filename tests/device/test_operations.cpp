// The public operations: their lines, retries, records and results.
#include <libusb.h>

#include <regex>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

using sim::Direction;
using sim::Fault;
using sim::FaultKind;

const std::regex kTiming(R"(########## (.+) end, consumed time: \d+\.\d+ ms\n)");

std::string TimingName(const std::string& line) {
    std::smatch m;
    return std::regex_match(line, m, kTiming) ? m[1].str() : std::string();
}

// One public operation: how to call it, what it sends and how it names itself.
struct OperationCase {
    const char* label;
    std::function<HRESULT(TarvikImpl&)> call;
    std::uint32_t item;
    bool write;
    const char* arrowName;   // "<----- ReadVersion" as in its failure lines
    const char* retryName;   // as in the retry routine's lines
    const char* timingName;  // as in its timing line
};

// Drops the read transactions' own failure lines.
std::vector<std::string> WithoutTransactionLines(const std::vector<std::string>& lines) {
    std::vector<std::string> kept;
    for (const std::string& l : lines) {
        if (l.rfind("ReadByExtItem", 0) != 0) kept.push_back(l);
    }
    return kept;
}

const OperationCase kOperations[] = {
    {"ReadVersion",
     [](TarvikImpl& t) {
         _VERSION_PARAM p{};
         return t.zq_ReadVersion(&p);
     },
     5, false, "<----- ReadVersion", "ReadVersion", "ReadVersion"},
    {"ReadMJpegQp",
     [](TarvikImpl& t) {
         _MJPEG_QP_PARAM p{};
         return t.zq_ReadMJpegQp(&p);
     },
     2, false, "<----- ReadMJpegQp", "ReadMJpegQp", "ReadMJpegQp"},
    {"ReadGyro",
     [](TarvikImpl& t) {
         _GYRO_PARAM p{};
         return t.zq_ReadGyro(&p);
     },
     16, false, "<----- ReadGyro", "ReadGyro", "ReadGyro"},
    {"ReadRoiStatus",
     [](TarvikImpl& t) {
         unsigned p = 0;
         return t.zq_ReadRoiStatus(&p);
     },
     7, false, "<----- ReadRoiStatus", "ReadRoiStatus", "ReadRoiStatus"},
    {"ReadROI",
     [](TarvikImpl& t) {
         _ROI_PARAM p{};
         return t.zq_ReadROI(&p);
     },
     6, false, "<----- ReadROI", "ReadROI", "ReadROI"},
    {"ReadDeviceId",
     [](TarvikImpl& t) {
         _DEVICE_ID_PARAM p{};
         return t.zq_ReadDeviceId(&p);
     },
     9, false, "<----- ReadDeviceId", "ReadDeviceId", "ReadDeviceId"},
    {"ReadDeviceSn",
     [](TarvikImpl& t) {
         _DEVICE_SN_PARAM p{};
         return t.zq_ReadDeviceSn(&p);
     },
     8, false, "<----- ReadDeviceSn", "ReadDeviceSn", "ReadDeviceSn"},
    {"ReadVCM",
     [](TarvikImpl& t) {
         unsigned short v = 0;
         return t.zq_ReadVCM(VCM_MODE_0, &v);
     },
     18, false, "-----> ReadVCM", "ReadVCM", "ReadVCM"},
    {"ReadAutoFocusState",
     [](TarvikImpl& t) {
         unsigned char s = 0;
         return t.zq_ReadAutoFocusState(&s);
     },
     13, false, "<----- ReadStreamState", "ReadStreamState", "ReadStreamState"},
    {"ReadStreamState",
     [](TarvikImpl& t) {
         unsigned s = 0;
         return t.ReadStreamState(&s);
     },
     13, false, "<----- ReadStreamState", "ReadStreamState", "ReadStreamState"},
    {"ReadLastId",
     [](TarvikImpl& t) {
         short s = 0;
         return t.ReadLastId(&s);
     },
     14, false, "<----- ReadLastId", "ReadLastId", "ReadLastId"},
    {"WriteMJpegQp",
     [](TarvikImpl& t) {
         return t.zq_WriteMJpegQp(_MJPEG_QP_PARAM{{1, 2, 3, 4}});
     },
     2, true, "-----> WriteMJpegQp", "WriteMJpegQp", "WriteMJpegQp"},
    {"WriteROI",
     [](TarvikImpl& t) {
         return t.zq_WriteROI(_ROI_PARAM{{1, 2, 3, 4}});
     },
     6, true, "-----> WriteROI", "WriteROI", "WriteROI"},
    {"WriteDeviceId", [](TarvikImpl& t) { return t.zq_WriteDeviceId(_DEVICE_ID_PARAM{}); }, 9, true,
     "-----> WriteDeviceId", "WriteDeviceId", "WriteDeviceId"},
    {"WriteDeviceSn", [](TarvikImpl& t) { return t.zq_WriteDeviceSn(_DEVICE_SN_PARAM{}); }, 8, true,
     "-----> WriteDeviceSn", "WriteDeviceSn", "WriteDeviceSn"},
    {"WriteGpio",
     [](TarvikImpl& t) {
         return t.zq_WriteGpio(_GPIO_PARAM{{1, 0}});
     },
     17, true, "-----> WriteGpio", "WriteGPIO", "WriteGpio"},
    {"WriteVCM",
     [](TarvikImpl& t) {
         return t.zq_WriteVCM(_VCM_PARAM{0, 0, 5, VCM_MODE_0});
     },
     18, true, "-----> WriteVCM", "WriteVCM", "WriteVCM"},
};

class Operations : public CameraTest, public testing::WithParamInterface<OperationCase> {
protected:
    struct Outcome {
        HRESULT result;
        std::vector<std::string> lines;
        std::vector<sim::Transfer> requests;  // SET_CURs on selector 14
    };
    Outcome Call(TarvikImpl& t) {
        Cam().ClearLog();
        StdoutCapture capture;
        capture.Start();
        Outcome o{GetParam().call(t), {}, {}};
        o.lines = Messages(capture.Take());
        for (const sim::Transfer& x : OnSelector(Cam().Log(), 14)) {
            if (!x.isIn()) o.requests.push_back(x);
        }
        return o;
    }
    // Makes every transfer of the operation's direction fail `count` times.
    void Fail(int count) {
        Model().InjectFault(Fault{FaultKind::kStall, 14,
                                  GetParam().write ? Direction::kOut : Direction::kIn,
                                  sim::kAnyRequest, count});
    }
};

TEST_P(Operations, SuccessSendsOneFrameAndLogsTheTime) {
    TarvikPtr t = OpenPrimed();
    const Outcome o = Call(*t);
    EXPECT_EQ(o.result, 0);
    ASSERT_EQ(o.requests.size(), 1u);
    if (GetParam().write) {
        EXPECT_EQ(o.requests[0].out[0], GetParam().item);
    } else {
        EXPECT_EQ(o.requests[0].out[4], GetParam().item);
    }
    ASSERT_EQ(o.lines.size(), 1u);
    EXPECT_EQ(TimingName(o.lines[0]), GetParam().timingName) << o.lines[0];
}

TEST_P(Operations, OneFailureIsRetriedOnce) {
    TarvikPtr t = OpenPrimed();
    Fail(1);
    const Outcome o = Call(*t);
    const OperationCase& c = GetParam();
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.requests.size(), 2u);
    const std::vector<std::string> lines = WithoutTransactionLines(o.lines);
    ASSERT_EQ(lines.size(), 3u) << testing::PrintToString(o.lines);
    EXPECT_EQ(lines[0], std::string(c.arrowName) + ", error, hr=0xfffffff7");
    EXPECT_EQ(lines[1], std::string("----- ") + c.retryName + ", retry times=1, ok, hr=0x0");
    EXPECT_EQ(TimingName(lines[2]), c.timingName);
}

TEST_P(Operations, PersistentFailureEndsAfterThreeAttempts) {
    TarvikPtr t = OpenPrimed();
    Fail(3);
    const Outcome o = Call(*t);
    const OperationCase& c = GetParam();
    EXPECT_EQ(o.result, LIBUSB_ERROR_PIPE);
    EXPECT_EQ(o.requests.size(), 3u);
    std::vector<std::string> expected = {
        std::string(c.arrowName) + ", error, hr=0xfffffff7",
        std::string("----- ") + c.retryName + ", retry times=1, still error, hr=0xfffffff7",
        std::string("----- ") + c.retryName + ", retry times=2, still error, hr=0xfffffff7",
        std::string(c.arrowName) + ", hr=0xfffffff7"};
    std::vector<std::string> lines = WithoutTransactionLines(o.lines);
    // zq_ReadMJpegQp reports its time after a final failure too.
    if (std::string(c.label) == "ReadMJpegQp") {
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(TimingName(lines.back()), "ReadMJpegQp");
        lines.pop_back();
    }
    EXPECT_EQ(lines, expected);
    // The camera is healthy again for the next call.
    EXPECT_EQ(Call(*t).result, 0);
}

INSTANTIATE_TEST_SUITE_P(All, Operations, testing::ValuesIn(kOperations),
                         [](const auto& p) { return std::string(p.param.label); });

class ReadOperations : public CameraTest {};

TEST_F(ReadOperations, NullPointersAreRejectedSilently) {
    TarvikPtr t = Open();
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->zq_ReadVersion(nullptr), 1);
    EXPECT_EQ(t->zq_ReadMJpegQp(nullptr), 1);
    EXPECT_EQ(t->zq_ReadGyro(nullptr), 1);
    EXPECT_EQ(t->zq_ReadRoiStatus(nullptr), 1);
    EXPECT_EQ(t->zq_ReadROI(nullptr), 1);
    EXPECT_EQ(t->zq_ReadDeviceId(nullptr), 1);
    EXPECT_EQ(t->zq_ReadDeviceSn(nullptr), 1);
    EXPECT_EQ(t->zq_ReadVCM(VCM_MODE_0, nullptr), 1);
    EXPECT_EQ(t->zq_ReadAutoFocusState(nullptr), 1);
    EXPECT_EQ(t->ReadStreamState(nullptr), 1);
    EXPECT_EQ(t->ReadLastId(nullptr), 1);
    EXPECT_EQ(t->zq_ReadManualAE(nullptr), 1);
    EXPECT_EQ(t->zq_ReadETRange(nullptr), 1);
    EXPECT_EQ(t->zq_ReadETMode(nullptr), 1);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_TRUE(Cam().Log().empty());
}

TEST_F(ReadOperations, RecordsAfterACompleteFailure) {
    TarvikPtr t = OpenPrimed();
    Model().InjectFault(Fault{FaultKind::kStall, 14, Direction::kIn, sim::kAnyRequest, 6});
    _VERSION_PARAM version;
    std::memset(&version, 0x5A, sizeof version);
    short lastId = 1234;
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(t->zq_ReadVersion(&version), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(t->ReadLastId(&lastId), LIBUSB_ERROR_PIPE);
    quiet.Take();
    EXPECT_EQ(BytesOf(version), Zeros(sizeof version)) << "cleared in place";
    EXPECT_EQ(lastId, 1234) << "a local record leaves the caller's value alone";
}

TEST_F(ReadOperations, ValuesAsTheCameraHoldsThem) {
    TarvikPtr t = OpenPrimed();
    Model().Update([](sim::CameraState& s) {
        s.streamCode = 0x0210;
        s.streamUnusedBits = 0xFF;
        s.autofocusState = 0x12;
        s.lastId = 0xBEEF;
        s.roiStatus = 0xA5A50001;
        s.vcm[2] = sim::VcmEntry{0, 0, 0x0321};
    });
    StdoutCapture quiet;
    quiet.Start();
    unsigned streaming = 9, roiStatus = 0;
    unsigned char af = 0;
    short lastId = 0;
    unsigned short vcm = 0;
    EXPECT_EQ(t->ReadStreamState(&streaming), 0);
    EXPECT_EQ(t->zq_ReadAutoFocusState(&af), 0);
    EXPECT_EQ(t->ReadLastId(&lastId), 0);
    EXPECT_EQ(t->zq_ReadRoiStatus(&roiStatus), 0);
    EXPECT_EQ(t->zq_ReadVCM(static_cast<_VCM_MODE_E>(0x102), &vcm), 0);
    EXPECT_EQ(streaming, 1u);
    EXPECT_EQ(af, 0x12);
    EXPECT_EQ(lastId, static_cast<short>(0xBEEF));
    EXPECT_EQ(roiStatus, 0xA5A50001u);
    EXPECT_EQ(vcm, 0x0321);

    // 0x0210 only in the upper half is not streaming; autofocus 0 with every other bit set.
    Model().Update([](sim::CameraState& s) {
        s.streamCode = 0xFFFF;
        s.streamUnusedBits = 0xFF;
        s.autofocusState = 0;
    });
    EXPECT_EQ(t->ReadStreamState(&streaming), 0);
    EXPECT_EQ(t->zq_ReadAutoFocusState(&af), 0);
    quiet.Take();
    EXPECT_EQ(streaming, 0u);
    EXPECT_EQ(af, 0);
}

TEST_F(ReadOperations, RetryStartsEveryAttemptFromAZeroRecord) {
    TarvikPtr t = OpenPrimed();
    Model().InjectFault(Fault{FaultKind::kStall, 14, Direction::kIn, sim::kAnyRequest, 2});
    _DEVICE_SN_PARAM sn;
    std::memset(&sn, 0xEE, sizeof sn);
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(t->RetryReadByExtCmd(EXT_ITEM_DEVICE_SN, nullptr, &sn), LIBUSB_ERROR_PIPE);
    quiet.Take();
    EXPECT_EQ(BytesOf(sn), Zeros(sizeof sn));
}

TEST_F(ReadOperations, RetryOfAnItemOutsideItsTableIsRefusedAtOnce) {
    TarvikPtr t = OpenPrimed();
    Bytes record(64, 0xEE);
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->RetryReadByExtCmd(EXT_ITEM_BEEP, nullptr, record.data()), 7);
    EXPECT_EQ(t->RetryReadByExtCmd(static_cast<UVC_EXT_ITEM_E>(0), nullptr, record.data()), 7);
    EXPECT_EQ(t->RetryWriteByExtCmd(EXT_ITEM_VERSION, record.data()), 7);
    EXPECT_EQ(t->RetryWriteByExtCmd(EXT_ITEM_SAM, record.data()), 7);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_TRUE(Cam().Log().empty());
    EXPECT_EQ(record, Bytes(64, 0xEE));
}

TEST_F(ReadOperations, SlowCallIsReported) {
    TarvikPtr t = OpenPrimed();
    Fault slow{FaultKind::kDelay, 14, Direction::kIn};
    slow.delay = std::chrono::milliseconds(1100);
    Model().InjectFault(slow);
    _ROI_PARAM roi{};
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->zq_ReadROI(&roi), 0);
    const std::vector<std::string> lines = Messages(capture.Take());
    ASSERT_EQ(lines.size(), 2u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        lines[0], m, std::regex(R"(########## ReadROI end, consumed time: (\d+)\.\d+ ms\n)")));
    EXPECT_GE(std::stoi(m[1]), 1100);
    EXPECT_EQ(lines[1], "########## operator time too long, more than 1s\n");
}

TEST_F(ReadOperations, GyroTiltAndInvalidSample) {
    TarvikPtr t = OpenPrimed();
    Model().Update([](sim::CameraState& s) {
        s.gyro = {0xF0, 0x00, 0x08, 0x00, 0x30, 0x00, 1, 2, 3, 4, 5, 6, 7, 8};
    });
    _GYRO_PARAM gyro{};
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->zq_ReadGyro(&gyro), 0);
    capture.Take();
    EXPECT_EQ(gyro.pitch, 18);
    EXPECT_EQ(gyro.roll, 8);

    Model().InjectZeroGyro();
    Cam().ClearLog();
    gyro = {5, 5};
    capture.Start();
    EXPECT_EQ(t->zq_ReadGyro(&gyro), 13);
    EXPECT_EQ(Messages(capture.Take()),
              std::vector<std::string>{"ReadGyro, return invalid data, return Failed"});
    EXPECT_EQ(gyro.pitch, 0);
    EXPECT_EQ(gyro.roll, 0);
    EXPECT_EQ(OnSelector(Cam().Log(), 14).size(), 2u) << "an invalid sample is not retried";
}

TEST_F(ReadOperations, WriteOperationsLeaveTheRecordAndTheCameraKeepsIt) {
    TarvikPtr t = OpenPrimed();
    const _VCM_PARAM vcm{1, 2, 0x0456, static_cast<_VCM_MODE_E>(0x103)};
    const _VCM_PARAM before = vcm;
    StdoutCapture quiet;
    quiet.Start();
    EXPECT_EQ(t->zq_WriteVCM(vcm), 0);
    unsigned short back = 0;
    EXPECT_EQ(t->zq_ReadVCM(static_cast<_VCM_MODE_E>(3), &back), 0);
    quiet.Take();
    EXPECT_EQ(BytesOf(vcm), BytesOf(before));
    EXPECT_EQ(back, 0x0456);
    EXPECT_EQ(Cam().Log().front().out.at(8), 0x03);
}

// The exposure members this camera does not provide answer -2; the operations
// built on them act on that.
TEST_F(ReadOperations, ExposureOperationsOnTheFixedResultMembers) {
    TarvikPtr t = OpenPrimed();
    _MAE_PARAM mae{7, 7};
    _DUAL_ET_RANGE range{1, 2, 3, 4};
    _DUAL_ET_MODE mode{5, 6};
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->zq_ReadManualAE(&mae), -2);
    EXPECT_EQ(t->zq_ReadETRange(&range), -2);
    EXPECT_EQ(t->zq_ReadETMode(&mode), -2);
    EXPECT_EQ(t->zq_WriteManualAE(_MAE_PARAM{1, 2}), -2);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_EQ(BytesOf(mae), BytesOf(_MAE_PARAM{7, 7}));
    EXPECT_EQ(BytesOf(range), BytesOf(_DUAL_ET_RANGE{1, 2, 3, 4}));
    EXPECT_EQ(BytesOf(mode), BytesOf(_DUAL_ET_MODE{5, 6}));

    capture.Start();
    EXPECT_EQ(t->zq_WriteETMode(_DUAL_ET_MODE{1, 1}), -2);
    EXPECT_EQ(t->zq_WriteETMode(_DUAL_ET_MODE{1, 0}), -103);
    EXPECT_EQ(
        Messages(capture.Take()),
        (std::vector<std::string>{
            "-----> WriteETMode, hr=0xfffffffe",
            "-----> WriteETMode, error, left eye mode [1] should be same as right eye mode [0]"}));
    EXPECT_TRUE(Cam().Log().empty());
}

}  // namespace
}  // namespace tarvik::test
