#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "text_convert.h"

namespace {
using Units = std::vector<unsigned short>;
using Bytes = std::vector<unsigned char>;
constexpr unsigned char kGuard = 0xAA;

// Output buffers carry guard elements past their stated size; inputs are heap
// vectors of exactly their length, so the sanitizer build catches over-reads.
template <typename Vec>
void expect_written(const Vec& dst, unsigned int written, const Vec& expected) {
    ASSERT_EQ(written, expected.size());
    EXPECT_EQ(Vec(dst.begin(), dst.begin() + written), expected);
    EXPECT_EQ(Vec(dst.begin() + written, dst.end()), Vec(dst.size() - written, kGuard));
}

TEST(idcard_text, Ucs2SwapStopsAtLengthOrZeroUnit) {
    Units buf = {0x4100, 0xE900, 0, 0x4200};
    EXPECT_EQ(ucs2be_to_ucs2le(buf.data(), 9), 2u);
    EXPECT_EQ(buf, (Units{0x0041, 0x00E9, 0, 0x4200}));
    EXPECT_EQ(ucs2be_to_ucs2le(buf.data(), 1), 1u);
    EXPECT_EQ(buf[0], 0x4100);
    EXPECT_EQ(buf[1], 0x00E9);
    EXPECT_EQ(ucs2be_to_ucs2le(nullptr, 4), 0u);
}

TEST(idcard_text, Ucs2ToUtf8ConvertsAndCountsWithoutWritingPastRoom) {
    const struct {
        const char* what;
        Units src;
        unsigned int room;
        Bytes out;
        unsigned int needed;
    } cases[] = {
        {"1-3 bytes", {0x41, 0xE9, 0x4E2D, 0}, 16, {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 6},
        {"zero unit ends", {0x41, 0, 0x42}, 16, {0x41}, 1},
        {"surrogates unpaired", {0xD83D, 0xDE00}, 16, {0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}, 6},
        {"inner 0xFFFE dropped", {0x41, 0xFFFE, 0x42}, 16, {0x41, 0x42}, 5},
        {"exact fit", {0x7FF, 0x4E2D}, 5, {0xDF, 0xBF, 0xE4, 0xB8, 0xAD}, 5},
        {"3 bytes, 2 left", {0x41, 0x42, 0x4E2D}, 4, {0x41, 0x42}, 5},
        {"2 bytes, 1 left", {0x41, 0xE9, 0x42}, 2, {0x41}, 4},
        {"no room", {0x41}, 0, {}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Units src = c.src;
        Bytes dst(c.room + 4, kGuard);
        const auto len = static_cast<unsigned int>(src.size());
        expect_written(dst, ucs2_to_utf8(src.data(), len, dst.data(), c.room), c.out);
        EXPECT_EQ(ucs2_to_utf8(src.data(), len, nullptr, 0), c.needed);
    }
}

TEST(idcard_text, Ucs2ToUtf8SwapsBigEndianInputInPlace) {
    const Units bigEndian = {0xFFFE, 0x4100, 0x2D4E};
    const Units swapped = {0xFEFF, 0x0041, 0x4E2D};
    Units src = bigEndian;
    Bytes dst(7 + 4, kGuard);
    expect_written(dst, ucs2_to_utf8(src.data(), 3, dst.data(), 7),
                   Bytes{0xEF, 0xBB, 0xBF, 0x41, 0xE4, 0xB8, 0xAD});
    EXPECT_EQ(src, swapped);
    src = bigEndian;
    EXPECT_EQ(ucs2_to_utf8(src.data(), 3, nullptr, 0), 7u);
    EXPECT_EQ(src, swapped);
}

TEST(idcard_text, Utf8ToUcs2StopsAtZeroLimitsAndUnacceptedBytes) {
    const struct {
        const char* what;
        Bytes src;
        unsigned int room;
        Units out;
        unsigned int needed;
    } cases[] = {
        {"1-3 bytes", {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 8, {0x41, 0xE9, 0x4E2D}, 3},
        {"room limits", {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 2, {0x41, 0xE9}, 3},
        {"zero byte ends", {0x41, 0x00, 0x42}, 8, {0x41}, 1},
        {"stray continuation", {0x41, 0x80, 0x42}, 8, {0x41}, 1},
        {"four-byte lead", {0x41, 0xF0, 0x9F, 0x98, 0x80}, 8, {0x41}, 1},
        {"cut short by length", {0x41, 0xE4, 0xB8}, 8, {0x41}, 1},
        {"continuation unchecked", {0xC3, 0x41}, 8, {0xC1}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes src = c.src;
        Units dst(c.room + 4, kGuard);
        const auto len = static_cast<unsigned int>(src.size());
        expect_written(dst, utf8_to_ucs2(src.data(), len, dst.data(), c.room), c.out);
        EXPECT_EQ(utf8_to_ucs2(src.data(), len, nullptr, 0), c.needed);
    }
}

TEST(idcard_text, Utf8ToWstringKeepsSixteenBits) {
    const struct {
        std::string in;
        std::wstring out;
    } cases[] = {
        {"", L""},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xF0\x9F\x98\x80", L"\xF600"},
        {"\xF8\x88\x80\x80", L"\x8000"},
        {"a\xBF"
         "b",
         L"a\x3F"
         L"b"},
        {"a\xE4\xB8", L"a"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(utf8_to_wstring(c.in), c.out);
    }
}

TEST(idcard_text, TrimTreatsOnlySpaceAsBlank) {
    const struct {
        std::string in, left, right, both, all;
    } cases[] = {
        {"  ab c  ", "ab c  ", "  ab c", "ab c", "abc"},
        {"   ", "", "", "", ""},
        {" \tx \xE3\x80\x80 ", "\tx \xE3\x80\x80 ", " \tx \xE3\x80\x80", "\tx \xE3\x80\x80",
         "\tx\xE3\x80\x80"},
    };
    void (*const trims[])(std::string&) = {trim_left_space, trim_right_space, trim_left_right_space,
                                           trim_all_space};
    for (const auto& c : cases) {
        const std::string expected[] = {c.left, c.right, c.both, c.all};
        for (int i = 0; i < 4; ++i) {
            std::string s = c.in;
            trims[i](s);
            EXPECT_EQ(s, expected[i]) << "trim #" << i << " of '" << c.in << "'";
        }
    }
}
}  // namespace
