// The card text block and the tilt sample, checked against the reader's formulas.
#include <gtest/gtest.h>

#include <cmath>

#include "gyro_tilt.h"
#include "sam_answer.h"

namespace tarvik::sim {
namespace {

TEST(CardText, FieldsSitAtTheirOffsetsBlankPadded) {
    IdentityCard card;
    card.name = "中文";
    card.sex = "2";
    card.nation = "98";
    card.birth = "20000229";
    card.address = std::string(40, 'a');  // longer than its 35 units: cut
    card.reserved = "r";
    const auto block = EncodeCardText(card);
    auto unit = [&](size_t offset) { return block[offset] | (block[offset + 1] << 8); };
    EXPECT_EQ(unit(0), 0x4E2D);
    EXPECT_EQ(unit(2), 0x6587);
    EXPECT_EQ(unit(4), 0x0020);
    EXPECT_EQ(unit(28), 0x0020);
    EXPECT_EQ(unit(30), '2');
    EXPECT_EQ(unit(32), '9');
    EXPECT_EQ(unit(34), '8');
    EXPECT_EQ(unit(36), '2');
    EXPECT_EQ(unit(52), 'a');
    EXPECT_EQ(unit(120), 'a');     // last address unit
    EXPECT_EQ(unit(122), 0x0020);  // id number, empty
    EXPECT_EQ(unit(220), 'r');
    EXPECT_EQ(unit(254), 0x0020);
}

TEST(CardText, Utf8DecodesToUcs2AndMarksWhatItCannot) {
    EXPECT_EQ(Utf8ToUcs2("A\xC3\xA9\xE6\xB1\x89"), u"A\u00E9\u6C49");
    EXPECT_EQ(Utf8ToUcs2("\xF0\x9F\x98\x80x"), u"????x");  // outside the basic plane
    EXPECT_EQ(Utf8ToUcs2("\xE6\xB1"), u"??");              // cut short
}

// pitch = atan(-x / sqrt(y² + z²)), roll = atan(y / sqrt(x² + z²)), truncated, as a reader does.
std::pair<int, int> Tilt(const std::array<uint8_t, 14>& s) {
    auto component = [&](size_t i) { return static_cast<int16_t>((s[i] << 8) | s[i + 1]); };
    const long x = component(0), y = component(2), z = component(4);
    const double pitch =
        std::atan(-x / std::sqrt(static_cast<double>(y * y + z * z))) * 180.0 / 3.1415926;
    const double roll =
        std::atan(y / std::sqrt(static_cast<double>(x * x + z * z))) * 180.0 / 3.1415926;
    return {static_cast<int>(pitch), static_cast<int>(roll)};
}

TEST(GyroTilt, EveryReachableTiltComesOutExactly) {
    for (int pitch = -89; pitch <= 89; ++pitch) {
        for (int roll = -89; roll <= 89; roll += 1) {
            if (std::abs(pitch) + std::abs(roll) >= 90) continue;
            const auto sample = GyroSampleForTilt(pitch, roll);
            ASSERT_TRUE(sample.has_value());
            ASSERT_EQ(Tilt(*sample), std::make_pair(pitch, roll)) << pitch << "," << roll;
        }
    }
    for (auto [p, r] : {std::pair{90, 0}, {-90, 0}, {0, 90}, {0, -90}}) {
        ASSERT_EQ(Tilt(*GyroSampleForTilt(p, r)), std::make_pair(p, r));
    }
}

TEST(GyroTilt, UnreachableTiltsAreRefusedAndTheTailIsKept) {
    EXPECT_FALSE(GyroSampleForTilt(45, 45).has_value());
    EXPECT_FALSE(GyroSampleForTilt(91, 0).has_value());
    const auto sample = GyroSampleForTilt(0, 0, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_TRUE(sample.has_value());
    EXPECT_EQ((*sample)[6], 1);
    EXPECT_EQ((*sample)[13], 8);
}

}  // namespace
}  // namespace tarvik::sim
