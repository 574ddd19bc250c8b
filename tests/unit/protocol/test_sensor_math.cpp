#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "frame_helpers.h"
#include "sensor_math.h"

using namespace tarvik;
using namespace tarvik::test;

namespace {

// ---------------------------------------------------------------------------
// Gyro
// ---------------------------------------------------------------------------

struct TiltCase {
    std::string name;
    Bytes raw;  // bytes 0-5
    int pitch, roll;
};

class GyroTilt : public testing::TestWithParam<TiltCase> {};

TEST_P(GyroTilt, ConvertsWhateverTheUnusedBytesHold) {
    const TiltCase& c = GetParam();
    for (std::uint8_t tail : {0x00, 0xFF}) {
        std::uint8_t raw[14];
        std::memset(raw, tail, sizeof raw);
        std::copy(c.raw.begin(), c.raw.end(), raw);
        _GYRO_PARAM out{-1000, -1000};
        ASSERT_TRUE(gyro_to_tilt(raw, &out));
        EXPECT_EQ(out.pitch, c.pitch) << "tail " << int(tail);
        EXPECT_EQ(out.roll, c.roll) << "tail " << int(tail);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Samples, GyroTilt,
    testing::Values(TiltCase{"Flat", {0x00, 0x00, 0x00, 0x00, 0x40, 0x00}, 0, 0},
                    TiltCase{"SmallZ", {0x00, 0x00, 0x00, 0x00, 0x00, 0x01}, 0, 0},
                    TiltCase{"XUp", {0x40, 0x00, 0x00, 0x00, 0x00, 0x00}, -90, 0},
                    TiltCase{"XDown", {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00}, 90, 0},
                    TiltCase{"XOne", {0x00, 0x01, 0x00, 0x00, 0x00, 0x00}, -90, 0},
                    TiltCase{"YUp", {0x00, 0x00, 0x40, 0x00, 0x00, 0x00}, 0, 90},
                    TiltCase{"YDown", {0x00, 0x00, 0x80, 0x00, 0x00, 0x00}, 0, -90},
                    TiltCase{"Diagonal", {0xFC, 0x18, 0x03, 0xE8, 0x03, 0xE8}, 35, 35},
                    TiltCase{"Mixed", {0xF0, 0x00, 0x08, 0x00, 0x30, 0x00}, 18, 8},
                    // squares of -32768 overflow 32 bits when summed
                    TiltCase{"Extremes", {0x80, 0x00, 0x80, 0x00, 0x80, 0x00}, 35, -35},
                    // 74.00000015 with the camera's pi; 73.99999888 with a precise one
                    TiltCase{"CamerasPi", {0xFA, 0x0C, 0x01, 0xB5, 0x00, 0x00}, 74, 16},
                    // truncation toward zero, not flooring, of negative angles
                    TiltCase{"NegativeTruncated", {0x03, 0xE8, 0xFC, 0x18, 0x03, 0xE8}, -35, -35}),
    ByName());

TEST(GyroTilt, AllZeroComponentsAreInvalidWhateverTheUnusedBytes) {
    std::uint8_t raw[14] = {0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    _GYRO_PARAM out{7, 9};
    EXPECT_FALSE(gyro_to_tilt(raw, &out));
    EXPECT_EQ(out.pitch, 7);
    EXPECT_EQ(out.roll, 9);
}

// ---------------------------------------------------------------------------
// Exposure
// ---------------------------------------------------------------------------

_DUAL_ET_PARAM current(unsigned lMin, unsigned lMax, unsigned rMin, unsigned rMax,
                       std::uint8_t lMode = 1, std::uint8_t rMode = 1) {
    _DUAL_ET_PARAM p{};
    p.left.etMin = lMin;
    p.left.etMax = lMax;
    p.right.etMin = rMin;
    p.right.etMax = rMax;
    p.left.flags[4] = lMode;
    p.right.flags[4] = rMode;
    return p;
}

struct AeCase {
    std::string name;
    _DUAL_ET_PARAM current;
    _MAE_PARAM wanted;
    HRESULT result;
};

class ManualAeCheck : public testing::TestWithParam<AeCase> {};

TEST_P(ManualAeCheck, RangeBeforeMode) {
    EXPECT_EQ(check_manual_ae(GetParam().current, GetParam().wanted), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ManualAeCheck,
    testing::Values(
        AeCase{"AtLowerBounds", current(100, 200, 10, 20), {100, 10}, 0},
        AeCase{"AtUpperBounds", current(100, 200, 10, 20), {200, 20}, 0},
        AeCase{"LeftBelow", current(100, 200, 10, 20), {99, 15}, kErrOutOfRange},
        AeCase{"LeftAbove", current(100, 200, 10, 20), {201, 15}, kErrOutOfRange},
        AeCase{"RightBelow", current(100, 200, 10, 20), {150, 9}, kErrOutOfRange},
        AeCase{"RightAbove", current(100, 200, 10, 20), {150, 21}, kErrOutOfRange},
        AeCase{"LeftNotManual", current(100, 200, 10, 20, 0, 1), {150, 15}, kErrNotManualMode},
        AeCase{"RightModeTwo", current(100, 200, 10, 20, 1, 2), {150, 15}, kErrNotManualMode},
        AeCase{"RangeReportedFirst", current(100, 200, 10, 20, 0, 0), {150, 30}, kErrOutOfRange},
        // unsigned comparisons: values above 0x7FFFFFFF are large, not negative
        AeCase{"HighValuesInRange", current(0, 0xFFFFFFFF, 1, 0x80000000), {0x80000000, 5}, 0},
        AeCase{"HighMinimum", current(0x80000000, 0xFFFFFFFF, 0, 9), {5, 5}, kErrOutOfRange}),
    ByName());

void expect_same_fields(const _ET_PARAM& a, const _ET_PARAM& b) {
    EXPECT_EQ(a.et, b.et);
    EXPECT_EQ(a.etMax, b.etMax);
    EXPECT_EQ(a.etMin, b.etMin);
    EXPECT_EQ(a.extra, b.extra);
    for (unsigned i = 0; i < 8; ++i) EXPECT_EQ(a.flags[i], b.flags[i]) << "flags[" << i << "]";
}

TEST(ManualAeRecord, ChangesOnlyTimeAndTwoFlags) {
    _DUAL_ET_PARAM read = current(1, 1000, 2, 2000, 0x55, 0x66);
    read.left.et = 11;
    read.right.et = 22;
    read.left.extra = 0xABCD;
    read.right.extra = 0x1234;
    for (unsigned i = 0; i < 8; ++i) {
        if (i == 4) continue;
        read.left.flags[i] = static_cast<std::uint8_t>(0xA0 + i);
        read.right.flags[i] = static_cast<std::uint8_t>(0xB0 + i);
    }
    _DUAL_ET_PARAM want = read;
    want.left.et = 500;
    want.right.et = 0xFFFFFFFF;
    want.left.flags[2] = want.right.flags[2] = 0;
    want.left.flags[4] = want.right.flags[4] = 1;

    const _DUAL_ET_PARAM sent = manual_ae_record(read, {500, 0xFFFFFFFF});
    expect_same_fields(sent.left, want.left);
    expect_same_fields(sent.right, want.right);
}

TEST(EtModeRecord, ZeroButWhatFlagAndModeLowByte) {
    _DUAL_ET_PARAM want{};
    want.left.flags[2] = want.right.flags[2] = 1;
    want.left.flags[4] = 0x01;
    want.right.flags[4] = 0xFF;

    const _DUAL_ET_PARAM sent = et_mode_record({0x101, -1});
    expect_same_fields(sent.left, want.left);
    expect_same_fields(sent.right, want.right);
}

}  // namespace
