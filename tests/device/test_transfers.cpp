// The locked control transfers on the extension unit and the one-time marker.
#include <libusb.h>

#include <chrono>

#include "byte_pack.h"
#include "device_fixture.h"

namespace tarvik::test {
namespace {

using sim::Direction;
using sim::Fault;
using sim::FaultKind;

class RecordingLogger : public AssertLogger {
public:
    void Log(char* message) override { messages.emplace_back(message); }
    std::vector<std::string> messages;
};

class Transfers : public CameraTest {};

TEST_F(Transfers, MarkerIsOneSetCurOfEightZerosPerObject) {
    TarvikPtr t = Open();
    _VERSION_PARAM version{};
    StdoutCapture quiet;
    quiet.Start();
    for (int i = 0; i < 3; ++i) ASSERT_EQ(t->ReadByExtItem(EXT_ITEM_VERSION, nullptr, &version), 0);
    EXPECT_EQ(t->SetMarker(), 0);
    quiet.Take();

    const std::vector<sim::Transfer> log = Cam().Log();
    const std::vector<sim::Transfer> marker = OnSelector(log, 1);
    ASSERT_EQ(marker.size(), 1u) << Describe(log);
    EXPECT_EQ(marker[0].setup.bmRequestType, 0x21);
    EXPECT_EQ(marker[0].setup.bRequest, 0x01);
    EXPECT_EQ(marker[0].setup.wValue, 0x0100);
    EXPECT_EQ(marker[0].setup.wIndex, 0x0500);
    EXPECT_EQ(marker[0].out, Zeros(8));
    EXPECT_EQ(log.front().selector(), 1) << "the marker goes before the first frame";
    EXPECT_TRUE(ImplAccess::MarkerSet(*t));
    EXPECT_EQ(t->RecoveryMarker(), 0);
    EXPECT_TRUE(ImplAccess::MarkerSet(*t));
}

TEST_F(Transfers, FailedMarkerIsReportedAndSentAgain) {
    TarvikPtr t = Open();
    Model().InjectFault(Fault{FaultKind::kStall, 1, Direction::kOut});
    _ROI_PARAM roi{};
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->ReadByExtItem(EXT_ITEM_ROI, nullptr, &roi), LIBUSB_ERROR_PIPE);
    const std::vector<std::string> lines = Messages(capture.Take());
    EXPECT_EQ(lines, (std::vector<std::string>{"-----> SetMarker, hr=0xfffffff7",
                                               "ReadByExtItem 1 error. hr = 0xfffffff7"}));
    EXPECT_TRUE(OnSelector(Cam().Log(), 14).empty()) << "no frame after a failed marker";
    EXPECT_FALSE(ImplAccess::MarkerSet(*t));

    capture.Start();
    EXPECT_EQ(t->WriteByExtItem(EXT_ITEM_ROI, &roi), 0);
    capture.Take();
    EXPECT_EQ(OnSelector(Cam().Log(), 1).size(), 2u) << "sent again by the next transaction";
    EXPECT_TRUE(ImplAccess::MarkerSet(*t));
}

TEST_F(Transfers, LengthsOfControls) {
    TarvikPtr t = Open();
    struct Case {
        int selector;
        unsigned length;
    } cases[] = {{1, 8}, {14, 60}, {2, 4}, {3, 2}, {4, 16}};
    for (const Case& c : cases) {
        unsigned length = 12345;
        EXPECT_EQ(t->_GetLength(c.selector, &length), 0) << c.selector;
        EXPECT_EQ(length, c.length) << c.selector;
    }
    const std::vector<sim::Transfer> log = Cam().Log();
    EXPECT_TRUE(OnSelector(log, 1).empty()) << "selector 1's length is never asked";
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].setup.bRequest, 0x85);
    EXPECT_EQ(log[0].setup.bmRequestType, 0xA1);
    EXPECT_EQ(log[0].setup.wLength, 2);

    // One byte of answer gives that byte; an error leaves the length untouched.
    Model().InjectFault(Fault{FaultKind::kShort, 14, Direction::kIn, 0x85, 1, 0, 1});
    unsigned length = 0;
    EXPECT_EQ(t->_GetLength(14, &length), 0);
    EXPECT_EQ(length, 60u);
    Model().InjectFault(Fault{FaultKind::kStall, 14, Direction::kIn, 0x85});
    length = 777;
    EXPECT_EQ(t->_GetLength(14, &length), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(length, 777u);
}

TEST_F(Transfers, ValuesAreLittleEndianInTheWholeControl) {
    TarvikPtr t = Open();
    EXPECT_EQ(t->_SetValue(4, 0x12345678u), 0);
    unsigned value = 0;
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->_GetValue(4, &value), 0);
    EXPECT_EQ(Messages(capture.Take()),
              std::vector<std::string>{"get value ok. id: 4, value: 305419896.\n"});
    EXPECT_EQ(value, 0x12345678u);

    const std::vector<sim::Transfer> set = OnSelector(Cam().Log(), 4);
    ASSERT_EQ(set.size(), 4u) << Describe(set);  // GET_LEN, SET_CUR, GET_LEN, GET_CUR
    EXPECT_EQ(set[1].setup.bRequest, 0x01);
    EXPECT_EQ(set[1].out, (Bytes{0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(set[3].setup.bRequest, 0x81);
    EXPECT_EQ(set[3].setup.wLength, 16);

    EXPECT_EQ(t->SpecialOperator(258), 0);
    const std::vector<sim::Transfer> marker = OnSelector(Cam().Log(), 1);
    ASSERT_EQ(marker.size(), 1u);
    EXPECT_EQ(marker[0].out, (Bytes{0x02, 0x01, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Transfers, ControlShorterThanAValueIsReportedWithoutTransfer) {
    TarvikPtr t = Open();
    RecordingLogger logger;
    SetAssertLogger(&logger);
    unsigned value = 99;
    EXPECT_EQ(t->_GetValue(3, &value), 1);
    EXPECT_EQ(t->_SetValue(3, 5), 1);
    SetAssertLogger(nullptr);
    EXPECT_EQ(value, 99u);
    ASSERT_EQ(logger.messages.size(), 2u);
    for (const std::string& m : logger.messages) EXPECT_NE(m.find("size >= 4"), std::string::npos);
    for (const sim::Transfer& x : Cam().Log())
        EXPECT_EQ(x.setup.bRequest, 0x85) << sim::Describe(x);
}

TEST_F(Transfers, NullValuePointerIsRejectedWithoutLocking) {
    TarvikPtr t = Open();
    StdoutCapture capture;
    capture.Start();
    EXPECT_EQ(t->_GetValue(2, nullptr), 1);
    EXPECT_EQ(Messages(capture.Take()),
              std::vector<std::string>{"get value: invalid input arg.\n"});
    EXPECT_TRUE(Cam().Log().empty());
}

TEST(NoDevice, EveryPrimitiveAnswersNotOpen) {
    StdoutCapture quiet;
    quiet.Start();
    TarvikImpl t(nullptr);
    quiet.Take();
    unsigned char buf[60] = {};
    unsigned value = 0;
    EXPECT_EQ(t.check_dev_opened(), 11);
    EXPECT_EQ(t._GetBytes(14, buf, 60), 11);
    EXPECT_EQ(t._SetBytes(14, buf, 60), 11);
    EXPECT_EQ(t._GetLength(14, &value), 11);
    EXPECT_EQ(t._GetValue(2, &value), 11);
    EXPECT_EQ(t._SetValue(2, 1), 11);
    EXPECT_EQ(t.read_from_uvc_extension(14, 60, buf), 6);
    EXPECT_EQ(t.write_to_uvc_extension(14, 60, buf), 6);
    _VERSION_PARAM version{};
    quiet.Start();
    EXPECT_EQ(t.ReadByExtItem(EXT_ITEM_VERSION, nullptr, &version), 11);
    EXPECT_EQ(t.WriteByExtItem(EXT_ITEM_ROI, &version), 11);
    quiet.Take();
}

// Every way a transfer can fail reaches the caller as its code: a short count
// or libusb's error.
struct FailureCase {
    const char* label;
    Fault fault;
    int expected;
};

class TransferFailures : public CameraTest, public testing::WithParamInterface<FailureCase> {};

TEST_P(TransferFailures, GetBytesAndSetBytesPassTheResultUp) {
    const FailureCase& c = GetParam();
    TarvikPtr t = Open();
    transport::set_control_timeout_ms(100);
    Model().InjectFault(c.fault);
    unsigned char frame[60] = {};
    const int r = c.fault.direction == Direction::kIn ? t->_GetBytes(14, frame, 60)
                                                      : t->_SetBytes(14, frame, 60);
    EXPECT_EQ(r, c.expected) << Describe(Cam().Log());
    // The camera is healthy again afterwards.
    EXPECT_EQ(t->_GetBytes(14, frame, 60), 0);
}

Fault Make(FaultKind kind, Direction direction, int shortBy = 0) {
    Fault f;
    f.kind = kind;
    f.selector = 14;
    f.direction = direction;
    f.shortBy = shortBy;
    f.delay = std::chrono::milliseconds(2000);
    return f;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TransferFailures,
    testing::Values(
        FailureCase{"ShortRead", Make(FaultKind::kShort, Direction::kIn, 30), 30},
        FailureCase{"ShortWrite", Make(FaultKind::kShort, Direction::kOut, 59), 1},
        FailureCase{"StallRead", Make(FaultKind::kStall, Direction::kIn), LIBUSB_ERROR_PIPE},
        FailureCase{"StallWrite", Make(FaultKind::kStall, Direction::kOut), LIBUSB_ERROR_PIPE},
        FailureCase{"GoneRead", Make(FaultKind::kGone, Direction::kIn), LIBUSB_ERROR_NO_DEVICE},
        FailureCase{"GoneWrite", Make(FaultKind::kGone, Direction::kOut), LIBUSB_ERROR_NO_DEVICE},
        FailureCase{"TimeoutRead", Make(FaultKind::kDelay, Direction::kIn), LIBUSB_ERROR_TIMEOUT},
        FailureCase{"TimeoutWrite", Make(FaultKind::kDelay, Direction::kOut),
                    LIBUSB_ERROR_TIMEOUT}),
    [](const auto& p) { return std::string(p.param.label); });

// The real timeout: a camera that never answers releases the caller after five seconds.
TEST_F(Transfers, RealTimeoutEndsAHungTransfer) {
    TarvikPtr t = Open();
    ASSERT_EQ(transport::control_timeout_ms(), 5000u);
    Fault hang = Make(FaultKind::kDelay, Direction::kIn);
    hang.delay = std::chrono::milliseconds(60000);
    Model().InjectFault(hang);
    unsigned char frame[60] = {};
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(t->_GetBytes(14, frame, 60), LIBUSB_ERROR_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - before;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LT(waited, std::chrono::seconds(30));
}

}  // namespace
}  // namespace tarvik::test
