// Protocol functions that the camera's wire cannot reach cheaply: the SAM's
// status table, the gyro conversion, the exposure checks and the SAM commands.
#include <gtest/gtest.h>

#include <cerrno>

#include "event_queue.h"
#include "presence.h"
#include "sensor_math.h"
#include "tarvik.h"
#include "test_support.h"
#include "transport.h"

namespace tarvik::test {
namespace {

TEST(SamStatus, EveryCode) {
    struct Row {
        unsigned char sw3;
        int code;
    };
    // These sw3 values decide whatever sw1 and sw2 hold.
    for (const Row& r :
         {Row{0x31, 7}, Row{0x32, 8}, Row{0x40, 12}, Row{0x41, 13}, Row{0x47, 14}, Row{0x81, 18}}) {
        EXPECT_EQ(GetSAMResponseCode(0, 0, r.sw3), r.code);
        EXPECT_EQ(GetSAMResponseCode(0x6A, 0x01, r.sw3), r.code);
    }
    for (const Row& r :
         {Row{0x90, 0}, Row{0x9F, 1}, Row{0x10, 2}, Row{0x11, 3}, Row{0x21, 4}, Row{0x23, 5},
          Row{0x24, 6}, Row{0x33, 9}, Row{0x60, 15}, Row{0x66, 16}, Row{0x80, 17}, Row{0x91, 19}}) {
        EXPECT_EQ(GetSAMResponseCode(0, 0, r.sw3), r.code) << int(r.sw3);
        EXPECT_EQ(GetSAMResponseCode(1, 0, r.sw3), -1);
        EXPECT_EQ(GetSAMResponseCode(0, 1, r.sw3), -1);
    }
    int known = 0;
    for (int sw3 = 0; sw3 < 256; ++sw3)
        known += GetSAMResponseCode(0, 0, static_cast<unsigned char>(sw3)) != -1;
    EXPECT_EQ(known, 18) << "every other status is unknown";
}

TEST(Gyro, TiltFromTheSample) {
    struct Row {
        const char* raw;
        int pitch, roll;
    };
    const Row rows[] = {
        {"00 00 00 00 40 00", 0, 0},   {"00 00 00 00 00 01", 0, 0},   {"40 00 00 00 00 00", -90, 0},
        {"C0 00 00 00 00 00", 90, 0},  {"00 01 00 00 00 00", -90, 0}, {"00 00 40 00 00 00", 0, 90},
        {"00 00 C0 00 00 00", 0, -90}, {"FC 18 03 E8 03 E8", 35, 35}, {"F0 00 08 00 30 00", 18, 8},
        {"80 00 7F FF 80 00", 35, 35}, {"FF FF 00 00 00 00", 90, 0},  {"00 00 00 01 00 00", 0, 90},
    };
    for (const Row& r : rows) {
        std::uint8_t raw[14];
        std::fill(std::begin(raw), std::end(raw), 0xEE);  // bytes 6-13 play no part
        const Bytes b = Hex(r.raw);
        std::copy(b.begin(), b.end(), raw);
        _GYRO_PARAM out{};
        ASSERT_TRUE(gyro_to_tilt(raw, &out)) << r.raw;
        EXPECT_EQ(out.pitch, r.pitch) << r.raw;
        EXPECT_EQ(out.roll, r.roll) << r.raw;
    }
    std::uint8_t zero[14] = {0, 0, 0, 0, 0, 0, 1, 2, 3};
    _GYRO_PARAM out{5, 6};
    EXPECT_FALSE(gyro_to_tilt(zero, &out));
    EXPECT_EQ(out.pitch, 5);
}

_DUAL_ET_PARAM Block(unsigned leftMode, unsigned rightMode) {
    _DUAL_ET_PARAM et{};
    et.left = {500, 1000, 100, 0x1234, {1, 2, 3, 4, static_cast<unsigned char>(leftMode), 6, 7, 8}};
    et.right = {
        600, 2000, 200, 0x5678, {9, 10, 11, 12, static_cast<unsigned char>(rightMode), 14, 15, 16}};
    return et;
}

TEST(Exposure, ManualTimesWithinInclusiveBoundsAndModes) {
    struct Row {
        unsigned left, right;
        unsigned leftMode, rightMode;
        HRESULT result;
    };
    const Row rows[] = {
        {100, 200, 1, 1, 0},
        {1000, 2000, 1, 1, 0},
        {99, 200, 1, 1, kErrOutOfRange},
        {1001, 200, 1, 1, kErrOutOfRange},
        {100, 199, 1, 1, kErrOutOfRange},
        {100, 2001, 1, 1, kErrOutOfRange},
        {100, 200, 0, 1, kErrNotManualMode},
        {100, 200, 1, 2, kErrNotManualMode},
        {99, 200, 0, 0, kErrOutOfRange},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(check_manual_ae(Block(r.leftMode, r.rightMode), _MAE_PARAM{r.left, r.right}),
                  r.result)
            << r.left << " " << r.right << " " << r.leftMode << r.rightMode;
    }
}

TEST(Exposure, RecordsSent) {
    const _DUAL_ET_PARAM manual = manual_ae_record(Block(0, 3), _MAE_PARAM{700, 800});
    _DUAL_ET_PARAM expected = Block(1, 1);
    expected.left.et = 700;
    expected.right.et = 800;
    expected.left.flags[2] = expected.right.flags[2] = 0;
    EXPECT_EQ(BytesOf(manual), BytesOf(expected));

    const _DUAL_ET_PARAM mode = et_mode_record(_DUAL_ET_MODE{0x101, 0x102});
    _DUAL_ET_PARAM modeExpected{};
    modeExpected.left.flags[2] = modeExpected.right.flags[2] = 1;
    modeExpected.left.flags[4] = 1;
    modeExpected.right.flags[4] = 2;
    EXPECT_EQ(BytesOf(mode), BytesOf(modeExpected));
}

// The kernel path answers with the libusb codes callers already handle.
TEST(KernelErrors, MappedToLibusbCodes) {
    struct Row {
        int error;
        int query;
        int open;
    };
    const Row rows[] = {
        {ETIMEDOUT, LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_OTHER},
        {ENODEV, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_NO_DEVICE},
        {ESHUTDOWN, LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_OTHER},
        {EPIPE, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_OTHER},
        {EBUSY, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_BUSY},
        {EACCES, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_ACCESS},
        {EPERM, LIBUSB_ERROR_OTHER, LIBUSB_ERROR_ACCESS},
        {EREMOTE, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_OTHER},
        {ERANGE, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_OTHER},
        {EILSEQ, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_OTHER},
        {EINVAL, LIBUSB_ERROR_PIPE, LIBUSB_ERROR_OTHER},
        {EPROTO, LIBUSB_ERROR_IO, LIBUSB_ERROR_OTHER},
        {EIO, LIBUSB_ERROR_IO, LIBUSB_ERROR_OTHER},
        {ENOENT, LIBUSB_ERROR_NOT_SUPPORTED, LIBUSB_ERROR_NO_DEVICE},
        {ENOBUFS, LIBUSB_ERROR_NOT_SUPPORTED, LIBUSB_ERROR_OTHER},
        {EBADRQC, LIBUSB_ERROR_NOT_SUPPORTED, LIBUSB_ERROR_OTHER},
        {ENOTTY, LIBUSB_ERROR_NOT_SUPPORTED, LIBUSB_ERROR_OTHER},
        {EAGAIN, LIBUSB_ERROR_OTHER, LIBUSB_ERROR_OTHER},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(usb_error_of_query(r.error), r.query) << r.error;
        EXPECT_EQ(usb_error_of_open(r.error), r.open) << r.error;
    }
}

TEST(SamCommands, OnlyTheCommandsMapToTheWire) {
    StdoutCapture quiet;
    TarvikImpl t;
    for (int cmd = 0; cmd < 256; ++cmd) {
        uvc_extItem_SAM_E wire = EXT_SAM_CMD_6;  // a refused command leaves it as it was
        const bool valid = cmd <= 7 && cmd != 5;
        EXPECT_EQ(t.SamCmdTransfer(static_cast<_SAM_CMD_E>(cmd), wire), valid ? 0 : 1) << cmd;
        EXPECT_EQ(static_cast<int>(wire), valid ? cmd : 6);
    }
}

// Polls of command 0 (1: a card answered) and what each says: one missed
// answer is no removal, two in a row are; the first card found is placed.
TEST(Presence, PlacedOnceRemovedAfterTwoMisses) {
    struct Row {
        const char* polls;
        const char* changes;  // P placed, R removed, - nothing
    };
    const Row rows[] = {
        {"0011", "--P-"}, {"1010", "P---"}, {"100100", "P-RP-R"}, {"11001", "P--RP"}};
    for (const Row& r : rows) {
        presence::Tracker t;
        std::string got;
        for (const char* p = r.polls; *p != 0; ++p) {
            const presence::Change c = t.Poll(*p == '1');
            got += c == presence::Change::kPlaced    ? 'P'
                   : c == presence::Change::kRemoved ? 'R'
                                                     : '-';
        }
        EXPECT_EQ(got, r.changes) << r.polls;
    }
    EXPECT_TRUE(presence::card_answered(1) && !presence::card_answered(17) &&
                !presence::card_answered(-1));
}

// A full queue keeps its last place for the overflow event; numbers go on, so
// the lost events leave a gap.
TEST(EventQueue, OverflowEventAndAGap) {
    EventQueue q(4);
    for (int i = 0; i < 10; ++i) q.Push(TARVIK_EVENT_CARD_PLACED, 100u + i);
    std::vector<std::pair<int, std::uint64_t>> got;
    Event e{};
    while (q.Pop(e)) got.emplace_back(e.type, e.sequence);
    q.Push(TARVIK_EVENT_CARD_REMOVED, 200u);
    ASSERT_TRUE(q.Pop(e));
    got.emplace_back(e.type, e.sequence);
    const std::vector<std::pair<int, std::uint64_t>> want = {{TARVIK_EVENT_CARD_PLACED, 1},
                                                             {TARVIK_EVENT_CARD_PLACED, 2},
                                                             {TARVIK_EVENT_CARD_PLACED, 3},
                                                             {TARVIK_EVENT_OVERFLOW, 4},
                                                             {TARVIK_EVENT_CARD_REMOVED, 11}};
    EXPECT_EQ(got, want);
    EXPECT_FALSE(q.Pop(e));
}

}  // namespace
}  // namespace tarvik::test
