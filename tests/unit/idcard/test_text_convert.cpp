#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "text_convert.h"

namespace {
using Units = std::vector<unsigned short>;
using Bytes = std::vector<unsigned char>;
constexpr unsigned char kGuard = 0xAA;
constexpr unsigned int kGuardCount = 8;

// Inputs live in heap vectors of exactly their length, so the sanitizer build
// catches any read beyond the given length.
struct SwapCase {
    Units in;
    unsigned int len;
    Units out;
    unsigned int swapped;
};

TEST(idcard_text, Ucs2SwapStopsAtLengthOrZeroUnit) {
    const SwapCase cases[] = {
        {{0x4100, 0xE900, 0}, 5, {0x0041, 0x00E9, 0}, 2},
        {{0x4100, 0xE900}, 1, {0x0041, 0xE900}, 1},
        {{0, 0x4100}, 2, {0, 0x4100}, 0},
        {{0x4100}, 0, {0x4100}, 0},
        {{0xFFFE, 0x2D4E}, 2, {0xFEFF, 0x4E2D}, 2},
    };
    for (const SwapCase& c : cases) {
        Units buf = c.in;
        EXPECT_EQ(ucs2be_to_ucs2le(buf.data(), c.len), c.swapped);
        EXPECT_EQ(buf, c.out);
    }
    EXPECT_EQ(ucs2be_to_ucs2le(nullptr, 4), 0u);
}

struct ToUtf8Case {
    const char* what;
    Units src;
    unsigned int dst_size;
    Bytes out;
    unsigned int needed;
};

TEST(idcard_text, Ucs2ToUtf8ConvertsAndCountsWithoutWritingPastRoom) {
    const ToUtf8Case cases[] = {
        {"one, two, three bytes", {0x41, 0xE9, 0x4E2D, 0}, 16, {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 6},
        {"zero unit ends", {0x41, 0, 0x42}, 16, {0x41}, 1},
        {"empty source", {}, 16, {}, 0},
        {"no room", {0x41}, 0, {}, 1},
        {"surrogates unpaired", {0xD83D, 0xDE00}, 16, {0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}, 6},
        {"inner 0xFFFE dropped", {0x41, 0xFFFE, 0x42}, 16, {0x41, 0x42}, 5},
        {"exact fit", {0x7FF, 0x4E2D}, 5, {0xDF, 0xBF, 0xE4, 0xB8, 0xAD}, 5},
        {"three bytes, two left", {0x41, 0x42, 0x4E2D}, 4, {0x41, 0x42}, 5},
        {"two bytes, one left", {0x41, 0xE9, 0x42}, 2, {0x41}, 4},
        {"0xFFFE at full room", {0x41, 0xFFFE}, 1, {0x41}, 4},
    };
    for (const ToUtf8Case& c : cases) {
        SCOPED_TRACE(c.what);
        Units src = c.src;
        Bytes dst(c.dst_size + kGuardCount, kGuard);
        const unsigned int len = static_cast<unsigned int>(src.size());
        const unsigned int written = ucs2_to_utf8(src.data(), len, dst.data(), c.dst_size);
        ASSERT_EQ(written, c.out.size());
        EXPECT_EQ(Bytes(dst.begin(), dst.begin() + written), c.out);
        EXPECT_EQ(Bytes(dst.begin() + written, dst.end()),
                  Bytes(dst.size() - written, kGuard));
        EXPECT_EQ(ucs2_to_utf8(src.data(), len, nullptr, 0), c.needed);
    }
}

TEST(idcard_text, Ucs2ToUtf8SwapsBigEndianInputInPlace) {
    const Units bigEndian = {0xFFFE, 0x4100, 0x2D4E, 0};
    const Units swapped = {0xFEFF, 0x0041, 0x4E2D, 0};
    Units src = bigEndian;
    unsigned char dst[16] = {};
    ASSERT_EQ(ucs2_to_utf8(src.data(), 4, dst, sizeof dst), 7u);
    EXPECT_EQ(Bytes(dst, dst + 7), (Bytes{0xEF, 0xBB, 0xBF, 0x41, 0xE4, 0xB8, 0xAD}));
    EXPECT_EQ(src, swapped);

    src = bigEndian;
    EXPECT_EQ(ucs2_to_utf8(src.data(), 4, nullptr, 0), 7u);
    EXPECT_EQ(src, swapped);
    EXPECT_EQ(ucs2_to_utf8(nullptr, 4, dst, sizeof dst), 0u);
}

struct ToUcs2Case {
    const char* what;
    Bytes src;
    unsigned int dst_len;
    Units out;
    unsigned int needed;
};

TEST(idcard_text, Utf8ToUcs2StopsAtZeroLimitsAndUnacceptedBytes) {
    const ToUcs2Case cases[] = {
        {"one, two, three bytes", {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 8, {0x41, 0xE9, 0x4E2D}, 3},
        {"dst_len limits", {0x41, 0xC3, 0xA9, 0xE4, 0xB8, 0xAD}, 2, {0x41, 0xE9}, 3},
        {"zero byte ends", {0x41, 0x00, 0x42}, 8, {0x41}, 1},
        {"stray continuation", {0x41, 0x80, 0x42}, 8, {0x41}, 1},
        {"four-byte lead", {0x41, 0xF0, 0x9F, 0x98, 0x80}, 8, {0x41}, 1},
        {"cut short by length", {0x41, 0xE4, 0xB8}, 8, {0x41}, 1},
        {"lone two-byte lead", {0xC3}, 8, {}, 0},
        {"continuation unchecked", {0xC3, 0x41}, 8, {0xC1}, 1},
        {"empty", {}, 8, {}, 0},
    };
    for (const ToUcs2Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes src = c.src;
        Units dst(c.dst_len + kGuardCount, kGuard);
        const unsigned int len = static_cast<unsigned int>(src.size());
        const unsigned int written = utf8_to_ucs2(src.data(), len, dst.data(), c.dst_len);
        ASSERT_EQ(written, c.out.size());
        EXPECT_EQ(Units(dst.begin(), dst.begin() + written), c.out);
        EXPECT_EQ(Units(dst.begin() + written, dst.end()), Units(dst.size() - written, kGuard));
        EXPECT_EQ(utf8_to_ucs2(src.data(), len, nullptr, 0), c.needed);
    }
    EXPECT_EQ(utf8_to_ucs2(nullptr, 4, nullptr, 0), 0u);
}

TEST(idcard_text, Utf8ToWstringKeepsSixteenBits) {
    const struct {
        std::string in;
        std::wstring out;
    } cases[] = {
        {"", L""},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xE4\xB8\xAD", L"\x4E2D"},
        {"\xF0\x9F\x98\x80", L"\xF600"},
        {"\xF8\x88\x80\x80", L"\x8000"},
        {"a\xBF" "b", L"a\x3F" L"b"},
        {"a\xE4\xB8", L"a"},
        {"\xF0\x9F\x98", L""},
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
        {"", "", "", "", ""},
        {" \tx \xE3\x80\x80 ", "\tx \xE3\x80\x80 ", " \tx \xE3\x80\x80", "\tx \xE3\x80\x80",
         "\tx\xE3\x80\x80"},
        {"\xC2\xA0" "a\n", "\xC2\xA0" "a\n", "\xC2\xA0" "a\n", "\xC2\xA0" "a\n", "\xC2\xA0" "a\n"},
    };
    for (const auto& c : cases) {
        std::string s = c.in;
        trim_left_space(s);
        EXPECT_EQ(s, c.left);
        s = c.in;
        trim_right_space(s);
        EXPECT_EQ(s, c.right);
        s = c.in;
        trim_left_right_space(s);
        EXPECT_EQ(s, c.both);
        s = c.in;
        trim_all_space(s);
        EXPECT_EQ(s, c.all);
    }
}
}  // namespace
