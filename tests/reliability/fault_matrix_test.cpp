// Every public operation and every SAM command against every fault the camera
// can show: the documented result, nothing delivered that shouldn't be, no
// hang, and the object working again once the camera is healthy (unless the
// camera is gone for good).
#include <libusb.h>

#include <cwchar>

#include "reliability_fixture.h"

namespace tarvik::reliability {
namespace {

using sim::Direction;
using sim::Fault;
using sim::FaultKind;
using Clock = std::chrono::steady_clock;

constexpr int kPersistent = 1000;
constexpr int kShortBy = 20;
constexpr unsigned kShortTimeoutMs = 50;
// A call gives up within three attempts of one shortened timeout each.
constexpr std::chrono::milliseconds kPromptly{2000};

struct FaultCase {
    const char* name;
    FaultKind kind;
    int selector;      // where the fault is aimed
    bool atAnswer;     // reads: at the answer (GET_CUR); otherwise at the request
    HRESULT expected;  // the operation's result while the fault lasts
    bool gone;         // the camera does not come back
};

const FaultCase kFaults[] = {
    {"Stall", FaultKind::kStall, 14, true, LIBUSB_ERROR_PIPE, false},
    {"StallRequest", FaultKind::kStall, 14, false, LIBUSB_ERROR_PIPE, false},
    {"Short", FaultKind::kShort, 14, true, 60 - kShortBy, false},
    {"Timeout", FaultKind::kDelay, 14, true, LIBUSB_ERROR_TIMEOUT, false},
    {"Garbage", FaultKind::kGarbage, 14, true, 0, false},
    {"GoneBeforeTheTransaction", FaultKind::kGoneForGood, sim::kAnySelector, false,
     LIBUSB_ERROR_NO_DEVICE, true},
    {"GoneInTheMiddle", FaultKind::kGoneForGood, 14, true, LIBUSB_ERROR_NO_DEVICE, true},
};

Fault MakeFault(const FaultCase& c, Kind kind, int count) {
    Fault f;
    f.kind = c.kind;
    f.selector = c.selector;
    if (c.selector == 14)
        f.direction = kind == Kind::kRead && c.atAnswer ? Direction::kIn : Direction::kOut;
    f.count = count;
    f.shortBy = kShortBy;
    f.delay = std::chrono::milliseconds(5000);
    return f;
}

bool AllBytes(const Bytes& b, std::uint8_t v) {
    return std::all_of(b.begin(), b.end(), [v](std::uint8_t x) { return x == v; });
}

// The last answer frame the camera sent.
Bytes LastAnswer(const std::vector<sim::Transfer>& log) {
    for (auto it = log.rbegin(); it != log.rend(); ++it) {
        if (it->selector() == 14 && it->isIn()) return it->in;
    }
    return {};
}

class FaultMatrix : public ReliabilityTest, public testing::WithParamInterface<FaultCase> {
protected:
    HRESULT Run(const Operation& op, TarvikImpl& t, Bytes& record) {
        const auto start = Clock::now();
        const HRESULT r = Quiet([&] { return op.run(t, record); });
        EXPECT_LT(Since(start), kPromptly) << "the call must not hang";
        return r;
    }

    // A healthy camera gives the operation's content.
    void ExpectHealthy(const Operation& op, TarvikImpl& t, sim::Camera& cam, const char* when) {
        Bytes record;
        ASSERT_EQ(Run(op, t, record), 0) << when;
        const sim::CameraState state = cam.Model().State();
        if (op.kind == Kind::kRead) {
            EXPECT_EQ(record, op.expected(state)) << when;
        } else {
            EXPECT_TRUE(op.applied(state)) << when;
        }
    }

    // What a failed call may leave behind.
    void ExpectNothingDelivered(const Operation& op, const Bytes& record, sim::Camera& cam) {
        if (op.kind == Kind::kRead) {
            // Cleared in place, or left as the caller had it.
            EXPECT_TRUE(AllBytes(record, op.clearsRecord ? 0 : kPoison));
        } else if (GetParam().kind != FaultKind::kDelay) {
            // A timed-out write may still reach the camera; the others don't.
            EXPECT_FALSE(op.applied(cam.Model().State()));
        }
    }
};

TEST_P(FaultMatrix, EveryOperation) {
    const FaultCase& c = GetParam();
    for (const Operation& op : Operations()) {
        SCOPED_TRACE(op.name);
        sim::Camera& cam = NewCamera();
        TarvikPtr t = Open(cam);
        ASSERT_NE(t, nullptr);
        if (c.kind == FaultKind::kDelay) transport::set_control_timeout_ms(kShortTimeoutMs);

        // While the fault lasts.
        cam.Model().InjectFault(MakeFault(c, op.kind, kPersistent));
        Bytes record;
        const HRESULT r = Run(op, *t, record);
        const std::vector<sim::Transfer> log = cam.TakeLog();
        if (op.kind == Kind::kFixed) {
            EXPECT_EQ(r, FixedResult(op.name));
            EXPECT_TRUE(log.empty()) << test::Describe(log);
            continue;
        }
        if (c.kind == FaultKind::kGarbage && op.kind == Kind::kRead) {
            // The answer's content is never judged: the record is the garbage
            // answer's bytes, nothing else (the gyro computes a tilt from them).
            ASSERT_EQ(r == 13 ? 0 : r, 0);
            if (op.fromAnswer) {
                EXPECT_EQ(record, op.fromAnswer(LastAnswer(log)));
            }
            EXPECT_EQ(Count(log, 14, false), 1u);
        } else if (c.kind == FaultKind::kGarbage) {
            EXPECT_EQ(r, 0) << "a write has no answer to spoil";
        } else {
            EXPECT_EQ(r, c.expected);
            ExpectNothingDelivered(op, record, cam);
            // The operation's own attempt and two retries, no more.
            if (!c.gone) {
                EXPECT_EQ(Count(log, 14, false), 3u) << test::Describe(log);
            }
        }

        if (c.gone) {
            // Every later call fails the same way, at once; release works.
            EXPECT_EQ(Run(op, *t, record), LIBUSB_ERROR_NO_DEVICE);
            const auto start = Clock::now();
            Quiet([&] {
                t.reset();
                return 0;
            });
            EXPECT_LT(Since(start), kPromptly);
            continue;
        }
        // The camera is healthy again: the same object works.
        cam.Model().ClearFaults();
        ExpectHealthy(op, *t, cam, "after the fault");
        // A fault that lasts one transfer is absorbed by the retry (garbage is
        // an answer, not a failure).
        if (c.kind == FaultKind::kGarbage) continue;
        cam.Model().InjectFault(MakeFault(c, op.kind, 1));
        ExpectHealthy(op, *t, cam, "after a single fault");
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrix, testing::ValuesIn(kFaults),
                         [](const auto& p) { return std::string(p.param.name); });

// --- the SAM commands ---

constexpr unsigned kSamCommands[] = {0, 1, 2, 3, 4, 6, 7};

struct SamFaultCase {
    const char* name;
    FaultKind kind;
    Direction direction;
    bool betweenFrames;  // aimed at the second continuation frame (card reads)
    HRESULT expected;
    bool gone;
};

const SamFaultCase kSamFaults[] = {
    {"StallRequest", FaultKind::kStall, Direction::kOut, false, LIBUSB_ERROR_PIPE, false},
    {"StallFirstAnswer", FaultKind::kStall, Direction::kIn, false, LIBUSB_ERROR_PIPE, false},
    {"StallBetweenFrames", FaultKind::kStall, Direction::kIn, true, LIBUSB_ERROR_PIPE, false},
    {"ShortFirstAnswer", FaultKind::kShort, Direction::kIn, false, 60 - kShortBy, false},
    {"ShortBetweenFrames", FaultKind::kShort, Direction::kIn, true, 60 - kShortBy, false},
    {"TimeoutFirstAnswer", FaultKind::kDelay, Direction::kIn, false, LIBUSB_ERROR_TIMEOUT, false},
    {"TimeoutBetweenFrames", FaultKind::kDelay, Direction::kIn, true, LIBUSB_ERROR_TIMEOUT, false},
    {"GarbageFirstAnswer", FaultKind::kGarbage, Direction::kIn, false, 0, false},
    {"GarbageBetweenFrames", FaultKind::kGarbage, Direction::kIn, true, 0, false},
    {"GoneBefore", FaultKind::kGoneForGood, Direction::kAny, false, LIBUSB_ERROR_NO_DEVICE, true},
    {"GoneBetweenFrames", FaultKind::kGoneForGood, Direction::kIn, true, LIBUSB_ERROR_NO_DEVICE,
     true},
};

bool CardCommand(unsigned cmd) { return cmd == 3 || cmd == 4; }

struct SamRun {
    HRESULT result;
    std::unique_ptr<_SAM_OUT_PARAM> out;
};

bool Untouched(const _SAM_OUT_PARAM& out) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&out);
    return std::all_of(p, p + sizeof out, [](std::uint8_t b) { return b == kPoison; });
}

bool OnlyResult(const _SAM_OUT_PARAM& out) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&out);
    return std::all_of(p + sizeof out.result, p + sizeof out,
                       [](std::uint8_t b) { return b == 0; });
}

class SamFaultMatrix : public ReliabilityTest, public testing::WithParamInterface<SamFaultCase> {
protected:
    SamRun Read(TarvikImpl& t, unsigned cmd) {
        SamRun run{0, std::make_unique<_SAM_OUT_PARAM>()};
        std::memset(run.out.get(), kPoison, sizeof(_SAM_OUT_PARAM));
        _SAM_IN_PARAM in{static_cast<unsigned char>(cmd)};
        const auto start = Clock::now();
        run.result = Quiet([&] { return t.ReadByExtItem(EXT_ITEM_SAM, &in, run.out.get()); });
        EXPECT_LT(Since(start), kPromptly);
        return run;
    }

    void ExpectDelivered(TarvikImpl& t, sim::Camera& cam, unsigned cmd) {
        const SamRun run = Read(t, cmd);
        ASSERT_EQ(run.result, 0);
        EXPECT_EQ(run.out->result, 0);
        const sim::SamState sam = cam.Model().State().sam;
        if (CardCommand(cmd)) {
            EXPECT_STREQ(run.out->name, L"测试A");
            EXPECT_EQ(Bytes(run.out->photo, run.out->photo + 1024), sam.card.photo);
        } else if (cmd == 2) {
            EXPECT_EQ(Bytes(run.out->number, run.out->number + 16), sam.number);
        } else {
            EXPECT_TRUE(OnlyResult(*run.out));
        }
    }
};

TEST_P(SamFaultMatrix, EveryCommand) {
    const SamFaultCase& c = GetParam();
    for (unsigned cmd : kSamCommands) {
        SCOPED_TRACE("command " + std::to_string(cmd));
        sim::Camera& cam = NewCamera();
        TarvikPtr t = Open(cam);
        ASSERT_NE(t, nullptr);
        if (c.kind == FaultKind::kDelay) transport::set_control_timeout_ms(kShortTimeoutMs);
        // Between frames: after the first answer and one continuation frame.
        // Commands whose packet fits one frame meet the fault at the answer.
        const bool between = c.betweenFrames && CardCommand(cmd);
        Fault f{c.kind, c.direction == Direction::kAny ? sim::kAnySelector : 14, c.direction};
        f.skip = between ? 2 : 0;
        f.count = c.gone ? 1 : kPersistent;
        f.shortBy = kShortBy;
        f.delay = std::chrono::milliseconds(5000);
        cam.Model().InjectFault(f);

        const SamRun run = Read(*t, cmd);
        if (c.kind == FaultKind::kGarbage) {
            // The exchange took place; the garbage is never delivered.
            EXPECT_EQ(run.result, 0);
            EXPECT_NE(run.out->result, 0);
            EXPECT_NE(run.out->result, 1);
            EXPECT_TRUE(OnlyResult(*run.out));
        } else {
            EXPECT_EQ(run.result, c.expected);
            if (between) {
                EXPECT_EQ(run.out->result, -2) << "a lost continuation frame";
                EXPECT_TRUE(OnlyResult(*run.out));
            } else {
                EXPECT_TRUE(Untouched(*run.out));
            }
        }
        if (c.gone) {
            EXPECT_EQ(Read(*t, cmd).result, LIBUSB_ERROR_NO_DEVICE);
            continue;
        }
        cam.Model().ClearFaults();
        ExpectDelivered(*t, cam, cmd);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, SamFaultMatrix, testing::ValuesIn(kSamFaults),
                         [](const auto& p) { return std::string(p.param.name); });

// Command bytes that name no command are refused before anything is sent,
// whatever the byte (values outside the command enumeration included).
TEST_F(ReliabilityTest, SamCommandBytesThatNameNoCommand) {
    sim::Camera& cam = NewCamera();
    TarvikPtr t = Open(cam);
    for (unsigned cmd : {5u, 8u, 127u, 128u, 255u}) {
        auto out = std::make_unique<_SAM_OUT_PARAM>();
        std::memset(out.get(), kPoison, sizeof *out);
        _SAM_IN_PARAM in{static_cast<unsigned char>(cmd)};
        EXPECT_EQ(Quiet([&] { return t->ReadByExtItem(EXT_ITEM_SAM, &in, out.get()); }), 1) << cmd;
        EXPECT_TRUE(Untouched(*out)) << cmd;
        EXPECT_EQ(Count(cam.TakeLog(), 14, false), 0u) << cmd;
    }
}

}  // namespace
}  // namespace tarvik::reliability
