// What tarvikctl prints: result meanings, hex, printable text, UTF-8, and the simulate re-run.
#include <gtest/gtest.h>

#include "result_codes.h"
#include "simulate.h"
#include "text_format.h"
#include "usb_scan.h"

namespace tarvikctl {
namespace {

struct ResultCase {
    int hr;
    ResultOrigin origin;
    const char* text;
};

TEST(Results, SameValueMeansWhatItsOriginSays) {
    const ResultCase cases[] = {
        {0, ResultOrigin::kTransfer, "0 (success)"},
        {11, ResultOrigin::kTransfer, "11 (camera not open)"},
        {7, ResultOrigin::kTransfer,
         "7 (the transaction does not handle this item in this direction)"},
        {13, ResultOrigin::kTransfer, "13 (the gyroscope answered an all-zero sample)"},
        {-7, ResultOrigin::kTransfer, "-7 (LIBUSB_ERROR_TIMEOUT: Operation timed out)"},
        {-9, ResultOrigin::kTransfer, "-9 (LIBUSB_ERROR_PIPE: Pipe error)"},
        {-99, ResultOrigin::kTransfer, "-99 (LIBUSB_ERROR_OTHER: Other error)"},
        {-2, ResultOrigin::kTransfer, "-2 (LIBUSB_ERROR_INVALID_PARAM: Invalid parameter)"},
        {-2, ResultOrigin::kExposure, "-2 (not provided by this camera's library)"},
        {-101, ResultOrigin::kExposure, "-101 (an eye is not in manual exposure mode)"},
        {-102, ResultOrigin::kExposure, "-102 (an exposure time is outside its eye's range)"},
        {-103, ResultOrigin::kExposure, "-103 (the two eyes' modes differ)"},
        {-4, ResultOrigin::kExposure,
         "-4 (LIBUSB_ERROR_NO_DEVICE: No such device (it may have been disconnected))"},
        {-1, ResultOrigin::kProductType, "-1 (the product type is unknown)"},
        {-1, ResultOrigin::kTransfer, "-1 (LIBUSB_ERROR_IO: Input/Output Error)"},
        {42, ResultOrigin::kTransfer, "42 (short transfer: 42 bytes moved)"},
        {-50, ResultOrigin::kTransfer, "-50 (unknown result)"},
    };
    for (const ResultCase& c : cases) {
        EXPECT_EQ(DescribeResult(c.hr, c.origin), c.text);
    }
}

TEST(Results, SamVerdicts) {
    EXPECT_TRUE(SamSucceeded(0));
    EXPECT_TRUE(SamSucceeded(1));
    for (int r : {2, -1, -2, -3, 17}) EXPECT_FALSE(SamSucceeded(r)) << r;
    EXPECT_EQ(DescribeSamResult(17), "17 (the SAM answered status 0x80)");
    EXPECT_EQ(DescribeSamResult(7), "7 (the SAM answered status 0x31)");
    EXPECT_EQ(DescribeSamResult(19), "19 (the SAM answered status 0x91)");
    EXPECT_EQ(DescribeSamResult(-3), "-3 (the camera reported result 1 and sent no SAM packet)");
    EXPECT_EQ(DescribeSamResult(10), "10 (unknown SAM result)");  // never produced
}

TEST(Format, HexAndPrintable) {
    const uint8_t bytes[] = {'S', 'N', 0x01, 0x7F, ' ', 0xA0, 0x00, 'X'};
    EXPECT_EQ(Hex(bytes, sizeof bytes), "534e017f20a00058");
    EXPECT_EQ(Hex(bytes, 0), "");
    EXPECT_EQ(Printable(bytes, sizeof bytes), "SN.. .");  // stops at the zero byte
    EXPECT_EQ(Printable(bytes, 2), "SN");                 // no terminator needed
}

TEST(Format, WideToUtf8WithoutLocale) {
    const wchar_t name[] = {0x5F20, 0x4E09, 0};
    EXPECT_EQ(WideToUtf8(name, 30), "\xe5\xbc\xa0\xe4\xb8\x89");  // 张三
    const wchar_t mixed[] = {L'A', 0xE9, 0x7FF, 0x800, 0xFFFF, 0x1F600, 0};
    EXPECT_EQ(WideToUtf8(mixed, 16), "A\xc3\xa9\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x9f\x98\x80");
    const wchar_t invalid[] = {0xD800, static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(WideToUtf8(invalid, 16), "\xef\xbf\xbd\xef\xbf\xbd");
    const wchar_t full[] = {L'a', L'b', L'c'};  // no terminator within the field
    EXPECT_EQ(WideToUtf8(full, 2), "ab");
}

TEST(Simulate, DropsOnlyTheToolsOwnFlag) {
    EXPECT_EQ(ArgumentsWithoutSimulate({"--simulate", "--json", "info", "--simulate"}),
              (std::vector<std::string>{"--json", "info"}));
    EXPECT_EQ(ArgumentsWithoutSimulate({"set", "device-sn", "--", "--simulate"}),
              (std::vector<std::string>{"set", "device-sn", "--", "--simulate"}));
    EXPECT_EQ(
        SimulatorCandidates("/opt/b/tools/tarvikctl"),
        (std::vector<std::string>{"/opt/b/tools/tarvik-sim", "/opt/b/tools/../sim/tarvik-sim"}));
}

TEST(OpenFailure, SaysWhatTheBusShows) {
    EXPECT_EQ(ExplainOpenFailure({}, -1, -1), "no camera (0ac8:010c) found");
    EXPECT_EQ(ExplainOpenFailure({{1, 2}}, -1, -1),
              "the camera at bus 1, address 2 could not be opened (is it in use, or does this "
              "user lack access?)");
    EXPECT_EQ(ExplainOpenFailure({{1, 2}, {1, 3}}, 1, 9),
              "no camera at bus 1, address 9 (cameras at bus:address 1:2, 1:3)");
    EXPECT_NE(ExplainOpenFailure({{1, 2}, {1, 3}}, 1, 3).find("bus 1, address 3 could not"),
              std::string::npos);
}

}  // namespace
}  // namespace tarvikctl
