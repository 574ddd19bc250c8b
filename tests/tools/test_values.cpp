// Value checks of tarvikctl: what is accepted, what it becomes, and what is refused.
#include <gtest/gtest.h>

#include <climits>

#include "set_request.h"
#include "value_parse.h"

namespace tarvikctl {
namespace {

struct IntegerCase {
    const char* text;
    long long min, max;
    bool ok;
    long long value;
};

class Integers : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(Integers, AcceptOrRefuse) {
    const IntegerCase& c = GetParam();
    if (c.ok) {
        EXPECT_EQ(ParseInteger(c.text, "v", c.min, c.max), c.value);
    } else {
        EXPECT_THROW(ParseInteger(c.text, "v", c.min, c.max), ValueError);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Integers,
    ::testing::Values(IntegerCase{"0", 0, 10, true, 0}, IntegerCase{"10", 0, 10, true, 10},
                      IntegerCase{"11", 0, 10, false, 0}, IntegerCase{"-1", 0, 10, false, 0},
                      IntegerCase{"-5", -5, 0, true, -5}, IntegerCase{"0x1F", 0, 255, true, 31},
                      IntegerCase{"0XfF", 0, 255, true, 255},
                      IntegerCase{"-0x10", -16, 0, true, -16}, IntegerCase{"007", 0, 10, true, 7},
                      IntegerCase{"", 0, 10, false, 0}, IntegerCase{"-", -10, 10, false, 0},
                      IntegerCase{"0x", 0, 10, false, 0}, IntegerCase{"+1", 0, 10, false, 0},
                      IntegerCase{" 1", 0, 10, false, 0}, IntegerCase{"1 ", 0, 10, false, 0},
                      IntegerCase{"1e3", 0, 5000, false, 0}, IntegerCase{"0x1g", 0, 255, false, 0},
                      IntegerCase{"3.0", 0, 10, false, 0},
                      IntegerCase{"9223372036854775807", 0, LLONG_MAX, true, LLONG_MAX},
                      IntegerCase{"9223372036854775808", 0, LLONG_MAX, false, 0},
                      IntegerCase{"-9223372036854775808", LLONG_MIN, 0, true, LLONG_MIN},
                      IntegerCase{"99999999999999999999999", 0, LLONG_MAX, false, 0}));

TEST(Field32, TakesEverySignedAndUnsignedValueAsItsBits) {
    EXPECT_EQ(ParseField32("-2147483648", "v"), INT32_MIN);
    EXPECT_EQ(ParseField32("4294967295", "v"), -1);
    EXPECT_EQ(ParseField32("0x80000000", "v"), INT32_MIN);
    EXPECT_THROW(ParseField32("4294967296", "v"), ValueError);
    EXPECT_THROW(ParseField32("-2147483649", "v"), ValueError);
}

TEST(Field32, MessageNamesTheValueAndTheRule) {
    try {
        ParseFields32({"1", "x"}, 2, "gpio");
        FAIL();
    } catch (const ValueError& e) {
        EXPECT_STREQ(e.what(),
                     "gpio value 2: 'x' must be an integer from -2147483648 to 4294967295");
    }
    EXPECT_THROW(ParseFields32({"1"}, 2, "gpio"), ValueError);
}

TEST(Hex, PairsOfDigits) {
    EXPECT_EQ(ParseHex("00aBfF", "h"), (std::vector<uint8_t>{0x00, 0xAB, 0xFF}));
    EXPECT_TRUE(ParseHex("", "h").empty());
    for (const char* bad : {"a", "abc", "0g", "0x00", "00 11", "-1"}) {
        EXPECT_THROW(ParseHex(bad, "h"), ValueError) << bad;
    }
}

TEST(DeviceText, TextIsZeroPaddedHexIsExact) {
    const auto text = ParseDeviceText("SN 1", false, "device-sn");
    EXPECT_EQ(text[0], 'S');
    EXPECT_EQ(text[3], '1');
    for (size_t i = 4; i < 20; ++i) EXPECT_EQ(text[i], 0) << i;
    EXPECT_EQ(ParseDeviceText("ABCDEFGHIJKLMNOPQRST", false, "s")[19], 'T');
    EXPECT_EQ(ParseDeviceText("", false, "s"), (std::array<uint8_t, 20>{}));

    const auto hex = ParseDeviceText("000102030405060708090a0b0c0d0e0f10111213", true, "s");
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(hex[i], i);
}

TEST(DeviceText, Refused) {
    const struct {
        const char* text;
        bool hex;
    } cases[] = {
        {"ABCDEFGHIJKLMNOPQRSTU", false},                      // 21 characters
        {"\xe5\xba\x8f", false},                               // UTF-8: not ASCII
        {"tab\there", false},                                  // control character
        {"000102030405060708090a0b0c0d0e0f101112", true},      // 19 bytes
        {"000102030405060708090a0b0c0d0e0f1011121314", true},  // 21 bytes
        {"000102030405060708090a0b0c0d0e0f1011121z", true},    // not hex
        {"SN", true},
    };
    for (const auto& c : cases) {
        EXPECT_THROW(ParseDeviceText(c.text, c.hex, "s"), ValueError) << c.text;
    }
}

TEST(SamCommand, OnlyTheLibrarysCommands) {
    for (const char* ok : {"0", "1", "2", "3", "4", "6", "7"}) {
        EXPECT_EQ(ParseSamCommand(ok), std::stoi(ok));
    }
    for (const char* bad : {"5", "8", "255", "256", "-1", "x", ""}) {
        EXPECT_THROW(ParseSamCommand(bad), ValueError) << bad;
    }
}

GetSetOptions Set(const std::string& name, std::vector<std::string> values) {
    GetSetOptions o;
    o.name = name;
    o.values = std::move(values);
    return o;
}

TEST(SetRequest, ConvertsEachSetting) {
    EXPECT_EQ(ParseSetRequest(Set("roi", {"1", "-2", "0x10", "4294967295"})).fields,
              (std::vector<int32_t>{1, -2, 16, -1}));
    EXPECT_EQ(ParseSetRequest(Set("gpio", {"1", "2"})).fields, (std::vector<int32_t>{1, 2}));

    GetSetOptions vcm = Set("vcm", {"65535"});
    vcm.mode = "0x102";
    EXPECT_THROW(ParseSetRequest(vcm), ValueError);  // the mode would lose its high byte
    vcm.mode = "7";
    vcm.ctrl0 = "1";
    vcm.ctrl1 = "255";
    const SetRequest r = ParseSetRequest(vcm);
    EXPECT_EQ(r.vcmValue, 65535);
    EXPECT_EQ(r.vcmMode, 7);
    EXPECT_EQ(r.ctrl0, 1);
    EXPECT_EQ(r.ctrl1, 255);

    GetSetOptions sn = Set("device-sn", {"00000000000000000000000000000000000000ff"});
    sn.hex = true;
    EXPECT_EQ(ParseSetRequest(sn).bytes[19], 0xFF);
}

TEST(SetRequest, RefusedBeforeAnythingIsSent) {
    std::vector<GetSetOptions> bad = {
        Set("roi", {"1", "2", "3"}),
        Set("mjpeg-qp", {"1", "2", "3", "4", "5"}),
        Set("gpio", {"1"}),
        Set("vcm", {"65536"}),
        Set("vcm", {"1", "2"}),
        Set("device-id", {"a", "b"}),
        Set("version", {"1"}),  // read only
        Set("", {"1"}),
    };
    GetSetOptions hexRoi = Set("roi", {"1", "2", "3", "4"});
    hexRoi.hex = true;
    bad.push_back(hexRoi);
    GetSetOptions modeRoi = Set("roi", {"1", "2", "3", "4"});
    modeRoi.modeGiven = true;
    bad.push_back(modeRoi);
    for (const GetSetOptions& o : bad) {
        EXPECT_THROW(ParseSetRequest(o), ValueError) << o.name;
    }
}

TEST(GetRequest, NamesAndOptions) {
    GetSetOptions o = Set("vcm", {});
    o.mode = "9";
    o.modeGiven = true;
    EXPECT_EQ(CheckGetRequest(o), 9);
    EXPECT_THROW(CheckGetRequest(Set("gpio", {})), ValueError);  // write only
    GetSetOptions hexId = Set("device-id", {});
    hexId.hex = true;
    EXPECT_NO_THROW(CheckGetRequest(hexId));
    hexId.name = "vcm";
    EXPECT_THROW(CheckGetRequest(hexId), ValueError);
}

}  // namespace
}  // namespace tarvikctl
