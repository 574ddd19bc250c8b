// Every operation makes exactly the least number of control transfers the
// camera needs: a read 2, a write 1, the marker once per object, a SAM packet
// of T bytes 2 + ceil((T - 52) / 52); members that reach no item make none.
// Counts only: how long anything takes is the benchmarks' business.
#include <functional>
#include <optional>

#include "device_fixture.h"

namespace tarvik::test {
namespace {

struct Census {
    unsigned markers = 0;  // SET_CUR on selector 1
    unsigned channel = 0;  // any transfer on selector 14
    unsigned other = 0;    // anything else (GET_LEN, other selectors)
};

Census Count(const std::vector<sim::Transfer>& log) {
    Census c;
    for (const sim::Transfer& t : log) {
        if (t.selector() == 1 && !t.isIn() && t.setup.bRequest == sim::kSetCur) {
            ++c.markers;
        } else if (t.selector() == 14) {
            ++c.channel;
        } else {
            ++c.other;
        }
    }
    return c;
}

struct OperationCase {
    const char* label;
    std::function<HRESULT(TarvikImpl&)> call;
    unsigned minimum;  // transfers on selector 14
    HRESULT result;
};

constexpr unsigned kRead = 2;
constexpr unsigned kWrite = 1;
constexpr unsigned kNone = 0;
constexpr HRESULT kNotProvided = -2;

const OperationCase kOperations[] = {
    {"ReadVersion",
     [](TarvikImpl& t) {
         _VERSION_PARAM p{};
         return t.zq_ReadVersion(&p);
     },
     kRead, 0},
    {"ReadMJpegQp",
     [](TarvikImpl& t) {
         _MJPEG_QP_PARAM p{};
         return t.zq_ReadMJpegQp(&p);
     },
     kRead, 0},
    {"ReadGyro",
     [](TarvikImpl& t) {
         _GYRO_PARAM p{};
         return t.zq_ReadGyro(&p);
     },
     kRead, 0},
    {"ReadRoiStatus",
     [](TarvikImpl& t) {
         unsigned p = 0;
         return t.zq_ReadRoiStatus(&p);
     },
     kRead, 0},
    {"ReadROI",
     [](TarvikImpl& t) {
         _ROI_PARAM p{};
         return t.zq_ReadROI(&p);
     },
     kRead, 0},
    {"ReadDeviceId",
     [](TarvikImpl& t) {
         _DEVICE_ID_PARAM p{};
         return t.zq_ReadDeviceId(&p);
     },
     kRead, 0},
    {"ReadDeviceSn",
     [](TarvikImpl& t) {
         _DEVICE_SN_PARAM p{};
         return t.zq_ReadDeviceSn(&p);
     },
     kRead, 0},
    {"ReadVCM",
     [](TarvikImpl& t) {
         unsigned short v = 0;
         return t.zq_ReadVCM(VCM_MODE_0, &v);
     },
     kRead, 0},
    {"ReadAutoFocusState",
     [](TarvikImpl& t) {
         unsigned char s = 0;
         return t.zq_ReadAutoFocusState(&s);
     },
     kRead, 0},
    {"ReadStreamState",
     [](TarvikImpl& t) {
         unsigned s = 0;
         return t.ReadStreamState(&s);
     },
     kRead, 0},
    {"ReadLastId",
     [](TarvikImpl& t) {
         short s = 0;
         return t.ReadLastId(&s);
     },
     kRead, 0},
    {"WriteMJpegQp",
     [](TarvikImpl& t) {
         return t.zq_WriteMJpegQp(_MJPEG_QP_PARAM{{1, 2, 3, 4}});
     },
     kWrite, 0},
    {"WriteROI",
     [](TarvikImpl& t) {
         return t.zq_WriteROI(_ROI_PARAM{{1, 2, 3, 4}});
     },
     kWrite, 0},
    {"WriteDeviceId", [](TarvikImpl& t) { return t.zq_WriteDeviceId(_DEVICE_ID_PARAM{}); }, kWrite,
     0},
    {"WriteDeviceSn", [](TarvikImpl& t) { return t.zq_WriteDeviceSn(_DEVICE_SN_PARAM{}); }, kWrite,
     0},
    {"WriteGpio",
     [](TarvikImpl& t) {
         return t.zq_WriteGpio(_GPIO_PARAM{{1, 0}});
     },
     kWrite, 0},
    {"WriteVCM",
     [](TarvikImpl& t) {
         return t.zq_WriteVCM(_VCM_PARAM{0, 0, 5, VCM_MODE_0});
     },
     kWrite, 0},
    // Built on the exposure members, which this camera does not provide.
    {"ReadManualAE",
     [](TarvikImpl& t) {
         _MAE_PARAM p{};
         return t.zq_ReadManualAE(&p);
     },
     kNone, kNotProvided},
    {"ReadETRange",
     [](TarvikImpl& t) {
         _DUAL_ET_RANGE p{};
         return t.zq_ReadETRange(&p);
     },
     kNone, kNotProvided},
    {"ReadETMode",
     [](TarvikImpl& t) {
         _DUAL_ET_MODE p{};
         return t.zq_ReadETMode(&p);
     },
     kNone, kNotProvided},
    {"WriteManualAE",
     [](TarvikImpl& t) {
         return t.zq_WriteManualAE(_MAE_PARAM{100, 100});
     },
     kNone, kNotProvided},
    {"WriteETMode",
     [](TarvikImpl& t) {
         return t.zq_WriteETMode(_DUAL_ET_MODE{1, 1});
     },
     kNone, kNotProvided},
    {"ReadProductType",
     [](TarvikImpl& t) {
         int p = 0;
         return t.zq_ReadProductType(&p);
     },
     kNone, 0},
};

void PrintTo(const OperationCase& c, std::ostream* os) { *os << c.label; }

class OperationCounts : public CameraTest, public testing::WithParamInterface<OperationCase> {};

// A fresh object: the first call carries the marker, later calls the minimum alone.
TEST_P(OperationCounts, MarkerOnceThenTheMinimum) {
    const OperationCase& c = GetParam();
    TarvikPtr t = Open();
    for (int call = 1; call <= 3; ++call) {
        StdoutCapture quiet;
        quiet.Start();
        const HRESULT r = c.call(*t);
        quiet.Take();
        const std::vector<sim::Transfer> log = Cam().TakeLog();
        const Census n = Count(log);
        SCOPED_TRACE("call " + std::to_string(call) + "\n" + Describe(log));
        EXPECT_EQ(r, c.result);
        EXPECT_EQ(n.markers, call == 1 && c.minimum > 0 ? 1u : 0u);
        EXPECT_EQ(n.channel, c.minimum);
        EXPECT_EQ(n.other, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, OperationCounts, testing::ValuesIn(kOperations),
                         [](const testing::TestParamInfo<OperationCase>& p) {
                             return std::string(p.param.label);
                         });

// SAM exchanges through ReadByExtItem, as applications read cards.
struct SamCase {
    const char* label;
    unsigned char cmd;
    std::optional<std::uint16_t> dataLen;  // the camera's length field, when forced
    std::int16_t samResult;
    unsigned packetLength;  // T on the wire; 0 when no packet follows
    unsigned transfers;
};

const SamCase kSamCases[] = {
    {"CardRead", 3, std::nullopt, 0, 1290, 26},
    {"CardReadWithThirdBlock", 4, std::nullopt, 0, 2316, 46},
    {"Number", 2, std::nullopt, 0, 22, 2},
    {"ResultOnlyCommand", 6, std::nullopt, 0, 0, 2},
    {"SamBusyNoPacket", 3, std::nullopt, 1, 0, 2},
    {"PacketFillsTheFirstFrame", 3, 50, 0, 52, 2},
    {"OneByteMore", 3, 51, 0, 53, 3},
    {"TwoFramesExactly", 3, 102, 0, 104, 3},
    {"TwoFramesAndOneByte", 3, 103, 0, 105, 4},
};

unsigned Minimum(unsigned packetLength) {
    return 2 + (packetLength > 52 ? (packetLength - 52 + 51) / 52 : 0);
}

void PrintTo(const SamCase& c, std::ostream* os) { *os << c.label; }

class SamCounts : public CameraTest, public testing::WithParamInterface<SamCase> {};

TEST_P(SamCounts, FramesFollowThePacketLength) {
    const SamCase& c = GetParam();
    Model().Update([&](sim::CameraState& s) {
        s.sam.dataLen = c.dataLen;
        s.sam.samResult = c.samResult;
    });
    TarvikPtr t = OpenPrimed();
    _SAM_IN_PARAM in{c.cmd};
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    StdoutCapture quiet;
    quiet.Start();
    const HRESULT r = t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
    quiet.Take();
    const std::vector<sim::Transfer> log = Cam().TakeLog();
    SCOPED_TRACE(Describe(log));
    ASSERT_EQ(r, 0);
    ASSERT_GE(log.size(), 2u);
    if (c.packetLength > 0) {
        ASSERT_GE(log[1].in.size(), 10u);
        EXPECT_EQ((log[1].in[8] << 8 | log[1].in[9]) + 2u, c.packetLength);
        EXPECT_EQ(c.transfers, Minimum(c.packetLength));
    }
    const Census n = Count(log);
    EXPECT_EQ(n.channel, c.transfers);
    EXPECT_EQ(n.markers + n.other, 0u);
    EXPECT_EQ(out->result, c.samResult == 1 ? -3 : 0);
}

INSTANTIATE_TEST_SUITE_P(Sam, SamCounts, testing::ValuesIn(kSamCases),
                         [](const testing::TestParamInfo<SamCase>& p) {
                             return std::string(p.param.label);
                         });

}  // namespace
}  // namespace tarvik::test
