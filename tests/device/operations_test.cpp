// Every public operation as one row, crossed with what the camera can do to
// it (answer, stall, short transfer, timeout, gone, one failure then an
// answer) and with the transport: the frames on the wire, the lines, the
// record and the result.
#include <algorithm>
#include <cstring>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

using Call = std::function<HRESULT(TarvikImpl&, Bytes& record)>;

// What a failed read leaves in the caller's record.
enum class Left { kZeros, kUntouched };

struct Operation {
    const char* name;   // as in the operation's failure lines
    const char* arrow;  // "<-----" or "----->"
    const char* retry;  // as in the retry routine's lines
    int item;
    Call call;  // the record after a read, or the record a write sends
    const char* request;
    const char* answer;  // reads only
    const char* record;  // reads: what the caller gets from `answer`
    Left left;
    bool crossed;  // also run against the faults
};

constexpr std::uint8_t kPoison = 0xAB;
// Bytes 0-3 hold no echo of anything: the library must not look at them.
constexpr const char* kAnswer = "40..7B";

// The record with guard bytes after it: a read that writes one byte too many
// shows, whatever the item.
template <typename R, typename F>
Call Reads(F member) {
    return [member](TarvikImpl& t, Bytes& record) {
        struct {
            R value;
            std::uint8_t guard[8];
        } g;
        std::memset(&g, kPoison, sizeof g);
        const HRESULT r = member(t, &g.value);
        record = BytesOf(g.value);
        for (std::uint8_t b : g.guard) EXPECT_EQ(b, kPoison) << "written past the record";
        return r;
    };
}

template <typename R>
Call Reads(HRESULT (TarvikImpl::*member)(R*)) {
    return Reads<R>([member](TarvikImpl& t, R* p) { return (t.*member)(p); });
}

template <typename R>
Call Writes(HRESULT (TarvikImpl::*member)(const R&), const R& value) {
    return [member, value](TarvikImpl& t, Bytes&) { return (t.*member)(value); };
}

const Call kReadVcm = Reads<unsigned short>(
    [](TarvikImpl& t, unsigned short* p) { return t.zq_ReadVCM(static_cast<_VCM_MODE_E>(0x102), p); });

const Operation kOperations[] = {
    {"ReadVersion", "<-----", "ReadVersion", 5, Reads(&TarvikImpl::zq_ReadVersion),
     "00 10 00 00 05", kAnswer, "44..7B", Left::kZeros, true},
    {"ReadMJpegQp", "<-----", "ReadMJpegQp", 2, Reads(&TarvikImpl::zq_ReadMJpegQp),
     "00 10 00 00 02", kAnswer, "44..53", Left::kZeros, true},
    {"ReadGyro", "<-----", "ReadGyro", 16, Reads(&TarvikImpl::zq_ReadGyro), "00 10 00 00 10",
     kAnswer, "DE FF FF FF 23 00 00 00", Left::kZeros, true},
    {"ReadRoiStatus", "<-----", "ReadRoiStatus", 7, Reads(&TarvikImpl::zq_ReadRoiStatus),
     "00 10 00 00 07", kAnswer, "44 45 46 47", Left::kZeros, true},
    {"ReadROI", "<-----", "ReadROI", 6, Reads(&TarvikImpl::zq_ReadROI), "00 10 00 00 06", kAnswer,
     "44..53", Left::kZeros, true},
    {"ReadDeviceId", "<-----", "ReadDeviceId", 9, Reads(&TarvikImpl::zq_ReadDeviceId),
     "00 10 00 00 09", kAnswer, "44..57", Left::kZeros, true},
    {"ReadDeviceSn", "<-----", "ReadDeviceSn", 8, Reads(&TarvikImpl::zq_ReadDeviceSn),
     "00 10 00 00 08", kAnswer, "44..57", Left::kZeros, true},
    {"ReadVCM", "----->", "ReadVCM", 18, kReadVcm, "00 10 00 00 12 00 00 00 02", kAnswer, "46 47",
     Left::kZeros, true},
    {"ReadStreamState", "<-----", "ReadStreamState", 13,
     Reads(&TarvikImpl::zq_ReadAutoFocusState), "00 10 00 00 0D", "FF FF FF FF FF FF FF 12", "12",
     Left::kUntouched, true},
    {"ReadStreamState", "<-----", "ReadStreamState", 13,
     Reads(&TarvikImpl::zq_ReadAutoFocusState), "00 10 00 00 0D", "FF FF FF FF FF FF FF 00", "00",
     Left::kUntouched, false},
    {"ReadStreamState", "<-----", "ReadStreamState", 13, Reads(&TarvikImpl::ReadStreamState),
     "00 10 00 00 0D", "FF FF FF FF 10 02 FF FF", "01 00 00 00", Left::kUntouched, true},
    {"ReadStreamState", "<-----", "ReadStreamState", 13, Reads(&TarvikImpl::ReadStreamState),
     "00 10 00 00 0D", "00 00 00 00 00 00 10 02", "00 00 00 00", Left::kUntouched, false},
    {"ReadLastId", "<-----", "ReadLastId", 14, Reads(&TarvikImpl::ReadLastId), "00 10 00 00 0E",
     kAnswer, "44 45", Left::kUntouched, true},
    {"WriteMJpegQp", "----->", "WriteMJpegQp", 2,
     Writes(&TarvikImpl::zq_WriteMJpegQp, Counting<_MJPEG_QP_PARAM>(0x10)), "02 10 00 00 10..1F",
     nullptr, nullptr, Left::kUntouched, true},
    {"WriteROI", "----->", "WriteROI", 6, Writes(&TarvikImpl::zq_WriteROI, Counting<_ROI_PARAM>(0x10)),
     "06 10 00 00 10..1F", nullptr, nullptr, Left::kUntouched, true},
    {"WriteDeviceId", "----->", "WriteDeviceId", 9,
     Writes(&TarvikImpl::zq_WriteDeviceId, Counting<_DEVICE_ID_PARAM>(0x20)), "09 10 00 00 20..33",
     nullptr, nullptr, Left::kUntouched, true},
    {"WriteDeviceSn", "----->", "WriteDeviceSn", 8,
     Writes(&TarvikImpl::zq_WriteDeviceSn, Counting<_DEVICE_SN_PARAM>(0x20)), "08 10 00 00 20..33",
     nullptr, nullptr, Left::kUntouched, true},
    {"WriteGpio", "----->", "WriteGPIO", 17,
     Writes(&TarvikImpl::zq_WriteGpio, Counting<_GPIO_PARAM>(0x10)), "11 10 00 00 10..17", nullptr,
     nullptr, Left::kUntouched, true},
    {"WriteVCM", "----->", "WriteVCM", 18,
     Writes(&TarvikImpl::zq_WriteVCM, _VCM_PARAM{0x11, 0x22, 0x3344, static_cast<_VCM_MODE_E>(0x155)}),
     "12 10 00 00 11 22 44 33 55", nullptr, nullptr, Left::kUntouched, true},
};

// What the camera does to the operation's transactions.
enum class Fault { kNone, kStall, kShort, kTimeout, kGone, kOnce };

struct FaultCase {
    Fault fault;
    const char* name;
    HRESULT result;    // of a call that runs out of attempts
    const char* hr;    // the same, as the lines print it
    bool atRequest;    // reads fail at the request, not at the answer
};

const FaultCase kFaults[] = {
    {Fault::kNone, "Answer", 0, "0x0", false},
    {Fault::kStall, "Stall", LIBUSB_ERROR_PIPE, "0xfffffff7", false},
    {Fault::kShort, "Short", 40, "0x28", false},
    {Fault::kTimeout, "Timeout", LIBUSB_ERROR_TIMEOUT, "0xfffffff9", true},
    {Fault::kGone, "Gone", LIBUSB_ERROR_NO_DEVICE, "0xfffffffc", true},
    {Fault::kOnce, "StallOnce", 0, "0xfffffff7", false},
};

bool IsRead(const Operation& op) { return op.answer != nullptr; }

std::string Timing(const Operation& op) {
    return std::string("########## ") + op.name + " end, consumed time: * ms\n";
}

// The lines of a call whose every attempt fails (or, for kOnce, whose first does).
std::vector<std::string> FailureLines(const Operation& op, const FaultCase& f) {
    const std::string hr = std::string("hr=") + f.hr;
    const std::string own = std::string(op.arrow) + " " + op.name + ", ";
    const std::string retry = std::string("----- ") + op.retry + ", retry times=";
    const std::string transaction =
        std::string("ReadByExtItem, ") + (f.atRequest ? "_SetBytes" : "_GetBytes") +
        " error. extItemType=" + std::to_string(op.item) + ", " + hr;
    std::vector<std::string> lines;
    auto attempt = [&] {
        if (IsRead(op)) lines.push_back(transaction);
    };
    attempt();
    lines.push_back(own + "error, " + hr);
    if (f.fault == Fault::kOnce) {
        lines.push_back(retry + "1, ok, hr=0x0");
        lines.push_back(Timing(op));
        return lines;
    }
    for (const char* times : {"1", "2"}) {
        attempt();
        lines.push_back(retry + times + ", still error, " + hr);
    }
    lines.push_back(own + hr);
    if (std::string(op.name) == "ReadMJpegQp") lines.push_back(Timing(op));  // its time after all
    return lines;
}

class Operations : public DeviceTest,
                   public testing::WithParamInterface<std::tuple<Operation, FaultCase, Transport>> {
protected:
    void Inject(const Operation& op, Fault fault, Transport path) {
        const sim::Direction at = IsRead(op) ? sim::Direction::kIn : sim::Direction::kOut;
        switch (fault) {
            case Fault::kNone:
                break;
            case Fault::kStall:
            case Fault::kOnce:
                Model().InjectFault({sim::FaultKind::kStall, 14, at, sim::kAnyRequest,
                                     fault == Fault::kOnce ? 1 : 3});
                break;
            case Fault::kShort:
                Model().InjectFault({sim::FaultKind::kShort, 14, at, sim::kAnyRequest, 3, 0, 20});
                break;
            case Fault::kTimeout:
                // Every transfer of every attempt stays unanswered, whatever the machine's load.
                SetTimeout(path, 30);
                Model().InjectFault({sim::FaultKind::kDelay, 14, sim::Direction::kAny,
                                     sim::kAnyRequest, 100});
                break;
            case Fault::kGone:
                Model().InjectFault({sim::FaultKind::kGoneForGood, sim::kAnySelector});
                break;
        }
    }
};

// A call that took a second or more adds the slow-call line (checked with the
// timing form); how long a call takes here is the machine's business.
std::vector<std::string> WithoutSlowCall(std::vector<std::string> lines) {
    lines.erase(std::remove(lines.begin(), lines.end(),
                            "########## operator time too long, more than 1s\n"),
                lines.end());
    return lines;
}

TEST_P(Operations, WireLinesRecordAndResult) {
    const auto& [op, f, path] = GetParam();
    TarvikPtr t = Open(path);
    ASSERT_NE(t, nullptr);
    const Bytes request = Hex(op.request, 60);
    for (int i = 0; IsRead(op) && i < 3; ++i) QueueAnswer({op.answer});
    Inject(op, f.fault, path);

    Bytes record;
    const Outcome o = Run([&, &op = op] { return op.call(*t, record); });

    // The video driver fills a short answer up with zeros and calls it success
    // (kernels since 6.14): the kernel path never sees a short transfer.
    if (f.fault == Fault::kShort && path == Transport::kKernel) {
        EXPECT_EQ(o.result, 0);
        EXPECT_TRUE(LinesMatch(WithoutSlowCall(Lines(o.out)), {Timing(op)}));
        EXPECT_EQ(o.wire.size(), IsRead(op) ? 2u : 1u);
        return;
    }
    const bool succeeds = f.fault == Fault::kNone || f.fault == Fault::kOnce;
    EXPECT_EQ(o.result, f.result);
    const std::vector<std::string> lines = WithoutSlowCall(Lines(o.out));
    if (f.fault == Fault::kNone) {
        EXPECT_TRUE(LinesMatch(lines, {Timing(op)}));
    } else {
        EXPECT_TRUE(LinesMatch(lines, FailureLines(op, f)));
    }
    // Each attempt sends the same request; a read fetches its answer after it.
    // A camera gone away sees only the first.
    const size_t attempts = f.fault == Fault::kNone ? 1 : (f.fault == Fault::kOnce ? 2 : 3);
    const size_t perAttempt = IsRead(op) && !f.atRequest ? 2 : 1;
    ASSERT_EQ(o.wire.size(), f.fault == Fault::kGone ? 1 : attempts * perAttempt);
    for (size_t i = 0; i < o.wire.size(); i += perAttempt) {
        EXPECT_TRUE(IsSetCur(o.wire[i], 14, request));
        if (perAttempt == 2) {
            EXPECT_TRUE(IsGetCur(o.wire[i + 1], 14, 60));
        }
    }
    if (IsRead(op) && succeeds) {
        EXPECT_EQ(record, Hex(op.record)) << "from the answer " << op.answer;
    } else if (IsRead(op)) {
        EXPECT_EQ(record, Bytes(record.size(), op.left == Left::kZeros ? 0 : kPoison));
    }
    // The kernel path never takes the video driver away.
    if (path == Transport::kKernel && f.fault != Fault::kGone) {
        EXPECT_TRUE(Cam().DriverBound());
    }
}

std::vector<std::tuple<Operation, FaultCase, Transport>> Cases() {
    std::vector<std::tuple<Operation, FaultCase, Transport>> cases;
    for (const Operation& op : kOperations) {
        for (const FaultCase& f : kFaults) {
            if (f.fault != Fault::kNone && !op.crossed) continue;
            for (Transport path : {Transport::kUsb, Transport::kKernel}) cases.emplace_back(op, f, path);
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Table, Operations, testing::ValuesIn(Cases()), [](const auto& p) {
    return std::string(std::get<0>(p.param).name) + "_" + std::to_string(p.index) + "_" +
           std::get<1>(p.param).name + "_" + TransportName({std::get<2>(p.param), 0});
});

// A zero gyro sample is no transaction failure: no retry, no time, result 13.
TEST_F(DeviceTest, AllZeroGyroSampleIsRejectedWithoutRetry) {
    TarvikPtr t = Open();
    QueueAnswer({"FF FF FF FF 00 00 00 00 00 00 61 62"});
    _GYRO_PARAM gyro{7, 7};
    const Outcome o = Run([&] { return t->zq_ReadGyro(&gyro); });
    EXPECT_EQ(o.result, 13);
    EXPECT_TRUE(LinesAre(o.out, {"ReadGyro, return invalid data, return Failed"}));
    EXPECT_EQ(o.wire.size(), 2u);
    EXPECT_EQ(BytesOf(gyro), Bytes(8, 0));
}

// Members that never reach the camera: their fixed results, their checks and
// lines, and not one transfer.
TEST_F(DeviceTest, MembersWithoutTransfers) {
    TarvikPtr t = Open();
    _MAE_PARAM mae{1, 2};
    _DUAL_ET_RANGE range{1, 2, 3, 4};
    _DUAL_ET_MODE mode{5, 6};
    _DUAL_ET_PARAM et{};
    _SAM_OUT_PARAM sam{};
    _I2C_PARAM i2c{};
    int type = 0;
    struct Row {
        std::function<HRESULT()> call;
        HRESULT result;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        {[&] { return t->zq_ReadManualAE(&mae); }, -2, {}},
        {[&] { return t->zq_ReadManualAE(nullptr); }, 1, {}},
        {[&] { return t->zq_ReadETRange(&range); }, -2, {}},
        {[&] { return t->zq_ReadETRange(nullptr); }, 1, {}},
        {[&] { return t->zq_ReadETMode(&mode); }, -2, {}},
        {[&] { return t->zq_ReadETMode(nullptr); }, 1, {}},
        {[&] { return t->zq_WriteManualAE(_MAE_PARAM{100, 100}); }, -2, {}},
        {[&] { return t->zq_WriteETMode(_DUAL_ET_MODE{0x101, 0x101}); },
         -2,
         {"-----> WriteETMode, hr=0xfffffffe"}},
        {[&] { return t->zq_WriteETMode(_DUAL_ET_MODE{1, 0}); },
         -103,
         {"-----> WriteETMode, error, left eye mode [1] should be same as right eye mode [0]"}},
        {[&] { return t->zq_ReadET(&et); }, -2, {}},
        {[&] { return t->zq_WriteET(et); }, -2, {}},
        {[&] { return t->zq_WriteBeep(1); }, -2, {}},
        {[&] { return t->zq_WriteLed(_LED_CONTROL_PARAM{}); }, -2, {}},
        {[&] { return t->zq_WriteStatusLed(_STATUS_LED_PARAM{}); }, -2, {}},
        {[&] { return t->zq_ReadI2C(&i2c); }, -2, {}},
        {[&] { return t->zq_WriteI2C(i2c); }, -2, {}},
        {[&] { return t->zq_ReadSAM(nullptr, &sam); }, -2, {}},
        {[&] { return t->zq_WriteUVCMode(1); }, -2, {}},
        {[&] { return t->open_v4l2_device("/dev/video0"); }, -1, {}},
        {[&] { return t->zq_ReadProductType(&type) * 10 + type; }, 1, {}},
        {[&] { return t->zq_ReadProductType(nullptr); }, 1, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        const Outcome o = Run(row.call);
        EXPECT_EQ(o.result, row.result);
        EXPECT_TRUE(LinesAre(o.out, row.lines));
        EXPECT_TRUE(o.wire.empty());
    }
    EXPECT_EQ(BytesOf(mae), BytesOf(_MAE_PARAM{1, 2}));
    EXPECT_EQ(BytesOf(range), BytesOf(_DUAL_ET_RANGE{1, 2, 3, 4}));
    EXPECT_EQ(BytesOf(mode), BytesOf(_DUAL_ET_MODE{5, 6}));
}

// Null records: 1, nothing logged, nothing sent.
TEST_F(DeviceTest, NullRecordsAreRefusedBeforeTheCamera) {
    TarvikPtr t = Open(Transport::kUsb, false);
    const std::function<HRESULT()> calls[] = {
        [&] { return t->zq_ReadVersion(nullptr); },
        [&] { return t->zq_ReadMJpegQp(nullptr); },
        [&] { return t->zq_ReadGyro(nullptr); },
        [&] { return t->zq_ReadRoiStatus(nullptr); },
        [&] { return t->zq_ReadROI(nullptr); },
        [&] { return t->zq_ReadDeviceId(nullptr); },
        [&] { return t->zq_ReadDeviceSn(nullptr); },
        [&] { return t->zq_ReadVCM(VCM_MODE_0, nullptr); },
        [&] { return t->zq_ReadAutoFocusState(nullptr); },
        [&] { return t->ReadStreamState(nullptr); },
        [&] { return t->ReadLastId(nullptr); },
    };
    for (const auto& call : calls) {
        const Outcome o = Run(call);
        EXPECT_EQ(o.result, 1);
        EXPECT_EQ(o.out, "");
        EXPECT_TRUE(o.wire.empty());
    }
}

}  // namespace
}  // namespace tarvik::test
