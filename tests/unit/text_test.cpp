// Text conversions at their boundaries, the code tables row by row, and the
// card's text block parsed into its ten fields.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "IDCardData.h"
#include "test_support.h"
#include "text_convert.h"

namespace tarvik::test {
namespace {

using Units = std::vector<unsigned short>;

std::string Utf8(const Bytes& b) { return std::string(b.begin(), b.end()); }

struct ToUtf8Case {
    Units units;
    unsigned srcLen;
    unsigned dstSize;
    const char* bytes;  // written
    unsigned needed;    // counted with no destination
};

const ToUtf8Case kToUtf8[] = {
    {{0x41, 0xE9, 0x4E2D, 0}, 4, 64, "41 C3 A9 E4 B8 AD", 6},
    // Each length class at both of its ends.
    {{0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}, 5, 64, "7F C2 80 DF BF E0 A0 80 EF BF BF", 11},
    // Surrogates are units like any other: two three-byte sequences.
    {{0xD83D, 0xDE00}, 2, 64, "ED A0 BD ED B8 80", 6},
    // 0xFFFE inside the text is skipped but counts against src_len (and as 3 bytes).
    {{0x41, 0xFFFE, 0x42, 0x43}, 3, 64, "41 42", 5},
    {{0x41, 0x42, 0, 0x43}, 4, 64, "41 42", 2},
    {{0x41}, 0, 64, "", 0},
    {{0x41}, 1, 0, "", 1},
    // A unit whose encoding does not fit the room left ends the conversion.
    {{0x41, 0x4E2D, 0x42}, 3, 3, "41", 5},
    {{0x41, 0x4E2D, 0x42}, 3, 4, "41 E4 B8 AD", 5},
};

TEST(Text, Ucs2ToUtf8) {
    for (const ToUtf8Case& c : kToUtf8) {
        SCOPED_TRACE(c.bytes);
        Units units = c.units;
        Bytes out(c.dstSize + 4, 0xEE);
        const unsigned n = ucs2_to_utf8(units.data(), c.srcLen, out.data(), c.dstSize);
        const Bytes expected = Hex(c.bytes);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + n), expected);
        EXPECT_EQ(out[n], 0xEE) << "no terminating zero, nothing past the bytes written";
        EXPECT_EQ(ucs2_to_utf8(units.data(), c.srcLen, nullptr, 0), c.needed);
    }
    EXPECT_EQ(ucs2_to_utf8(nullptr, 4, nullptr, 0), 0u);
}

// A leading 0xFFFE marks big-endian text, swapped in the caller's buffer.
TEST(Text, BigEndianInputIsSwappedInPlace) {
    Units units = {0xFFFE, 0x4100, 0x2D4E, 0};
    unsigned char out[16] = {};
    EXPECT_EQ(ucs2_to_utf8(units.data(), 4, out, sizeof out), 7u);
    EXPECT_EQ(Bytes(out, out + 7), Hex("EF BB BF 41 E4 B8 AD"));
    EXPECT_EQ(units, (Units{0xFEFF, 0x0041, 0x4E2D, 0}));

    Units swap = {0x4100, 0xE900, 0, 0x4100};
    EXPECT_EQ(ucs2be_to_ucs2le(swap.data(), 1), 1u);
    EXPECT_EQ(ucs2be_to_ucs2le(swap.data() + 1, 5), 1u) << "stops before the zero unit";
    EXPECT_EQ(swap, (Units{0x0041, 0x00E9, 0, 0x4100}));
    EXPECT_EQ(ucs2be_to_ucs2le(nullptr, 3), 0u);
    EXPECT_EQ(ucs2be_to_ucs2le(swap.data() + 2, 3), 0u);
    EXPECT_EQ(ucs2be_to_ucs2le(swap.data(), 0), 0u);
}

TEST(Text, Utf8ToUcs2) {
    struct Case {
        const char* bytes;
        unsigned dstLen;
        Units units;
        unsigned needed;
    };
    const Case cases[] = {
        {"41 C3 A9 E4 B8 AD", 8, {0x41, 0xE9, 0x4E2D}, 3},
        {"41 C3 A9 E4 B8 AD", 2, {0x41, 0xE9}, 3},
        {"7F C2 80 DF BF E0 A0 80", 8, {0x7F, 0x80, 0x7FF, 0x800}, 4},
        // Continuation bytes are taken as they are.
        {"C3 29", 8, {0xE9}, 1},
        // A zero byte, a byte that begins nothing, a sequence cut short: the end.
        {"41 00 42", 8, {0x41}, 1},
        {"41 80 42", 8, {0x41}, 1},
        {"41 F0 9F 98 80", 8, {0x41}, 1},
        {"41 E4 B8", 8, {0x41}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        Bytes in = Hex(c.bytes);
        Units out(c.dstLen + 1, 0xEEEE);
        const unsigned n = utf8_to_ucs2(in.data(), static_cast<unsigned>(in.size()), out.data(), c.dstLen);
        EXPECT_EQ(Units(out.begin(), out.begin() + n), c.units);
        EXPECT_EQ(out[n], 0xEEEE);
        EXPECT_EQ(utf8_to_ucs2(in.data(), static_cast<unsigned>(in.size()), nullptr, 0), c.needed);
    }
    EXPECT_EQ(utf8_to_ucs2(nullptr, 6, nullptr, 0), 0u);
}

TEST(Text, Utf8ToWstring) {
    struct Case {
        const char* bytes;
        std::wstring text;
    };
    const Case cases[] = {
        {"", L""},
        {"61 00 62", std::wstring(L"a\0b", 3)},
        {"7F C2 80 DF BF E0 A0 80 EF BF BF", L"\x7F\x80\x7FF\x800\xFFFF"},
        // Four-byte sequences keep their low 16 bits; stray continuation bytes stand alone.
        {"F0 9F 98 80", L"\xF600"},
        {"BF 41", L"\x3F\x41"},
        {"FC 81 82 83 84", L"\x1083\x04"},
        {"41 E4 B8", L"A"},
    };
    for (const Case& c : cases) EXPECT_EQ(utf8_to_wstring(Utf8(Hex(c.bytes))), c.text) << c.bytes;
}

TEST(Text, TrimsOnlyBlanks) {
    struct Case {
        std::string in, left, right, both, all;
    };
    const Case cases[] = {
        {"  ab c  ", "ab c  ", "  ab c", "ab c", "abc"},
        {"a  b", "a  b", "a  b", "a  b", "ab"},
        {"   ", "", "", "", ""},
        {"", "", "", "", ""},
        // Tabs and the ideographic space are characters.
        {"\tab\t", "\tab\t", "\tab\t", "\tab\t", "\tab\t"},
        {" x\xE3\x80\x80 ", "x\xE3\x80\x80 ", " x\xE3\x80\x80", "x\xE3\x80\x80", "x\xE3\x80\x80"},
    };
    for (const Case& c : cases) {
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

// Every row of both tables, as the card standards give them.
TEST(CodeTables, EveryRow) {
    const wchar_t* const nations[] = {
        L"汉",     L"蒙古", L"回",     L"藏",     L"维吾尔", L"苗",     L"彝",   L"壮",
        L"布依",   L"朝鲜", L"满",     L"侗",     L"瑶",     L"白",     L"土家", L"哈尼",
        L"哈萨克", L"傣",   L"黎",     L"傈僳",   L"佤",     L"畲",     L"高山", L"拉祜",
        L"水",     L"东乡", L"纳西",   L"景颇",   L"柯尔克孜", L"土",   L"达斡尔", L"仫佬",
        L"羌",     L"布朗", L"撒拉",   L"毛南",   L"仡佬",   L"锡伯",   L"阿昌", L"普米",
        L"塔吉克", L"怒",   L"乌兹别克", L"俄罗斯", L"鄂温克", L"德昂", L"保安", L"裕固",
        L"京",     L"塔塔尔", L"独龙", L"鄂伦春", L"赫哲",   L"门巴",   L"珞巴", L"基诺",
    };
    IDCardData card;
    IDCardData again;
    for (int code = 1; code <= 56; ++code) {
        const wchar_t digits[] = {static_cast<wchar_t>(L'0' + code / 10), static_cast<wchar_t>(L'0' + code % 10), 0};
        EXPECT_EQ(card.get_nation(digits), nations[code - 1]) << code;
    }
    EXPECT_EQ(card.get_nation(L"97"), L"其他");
    EXPECT_EQ(card.get_nation(L"98"), L"外国血统中国籍人士");
    EXPECT_EQ(card.get_sex(L"0"), L"未知");
    EXPECT_EQ(card.get_sex(L"1"), L"男");
    EXPECT_EQ(card.get_sex(L"2"), L"女");
    EXPECT_EQ(card.get_sex(L"9"), L"未说明");
    for (const wchar_t* unknown : {L"", L"1", L"00", L"57", L"99", L" 1", L"01 "}) {
        EXPECT_EQ(card.get_nation(unknown), L"") << unknown;
    }
    for (const wchar_t* unknown : {L"", L"3", L"01", L"1 "}) EXPECT_EQ(card.get_sex(unknown), L"");
    EXPECT_EQ(IDCardData::nation_map.size(), 58u);
    EXPECT_EQ(IDCardData::sex_map.size(), 4u);
    EXPECT_TRUE(IDCardData::map_inited);
}

// A 256-byte text block with `fields` at their places (name 0, sex 30, nation
// 32, birth 36, address 52, id 122, authority 158, valid 188 and 204, reserved
// 220), each padded with blanks to its width.
Bytes TextBlock(const std::vector<std::u16string>& fields) {
    const unsigned widths[] = {15, 1, 2, 8, 35, 18, 15, 8, 8, 18};
    Bytes block;
    for (size_t i = 0; i < 10; ++i) {
        std::u16string f = i < fields.size() ? fields[i] : u"";
        f.resize(widths[i], u' ');
        for (char16_t u : f) {
            block.push_back(static_cast<std::uint8_t>(u & 0xFF));
            block.push_back(static_cast<std::uint8_t>(u >> 8));
        }
    }
    return block;
}

std::vector<std::wstring> Fields(const IDCardData& c) {
    return {c.name, c.sex, c.nation, c.birth, c.address, c.id_number, c.authority, c.valid_from, c.valid_to, c.reserved};
}

TEST(CardText, TenFields) {
    Bytes block = TextBlock({u"中文", u"1", u"01", u"19900101", u"示例 路1号\t", u"00000019900101000X",
                             u" Ann Lee", u"20200101", u"20300101", u"R"});
    IDCardData card;
    card.prase(block.data(), nullptr);
    EXPECT_EQ(Fields(card), (std::vector<std::wstring>{L"中文", L"男", L"汉", L"19900101", L"示例 路1号\t",
                                                      L"00000019900101000X", L"Ann Lee", L"20200101",
                                                      L"20300101", L"R"}));

    // Codes that are none, a zero unit cutting a field, a big-endian field
    // swapped in a copy only; a second parse replaces every field.
    Bytes other = TextBlock({u"\xFFFE\x4100\x4200", u"5", u" 1", u"", std::u16string(u"ab\0cd", 5)});
    std::fill(other.begin() + 6, other.begin() + 30, 0);  // the big-endian name ends in zeros
    const Bytes before = other;
    card.prase(other.data(), block.data());
    EXPECT_EQ(Fields(card), (std::vector<std::wstring>{L"\xFEFF" L"AB", L"", L"", L"", L"ab", L"", L"", L"", L"", L""}));
    EXPECT_EQ(other, before);

    Bytes zeros(256, 0);
    card.prase(zeros.data(), nullptr);
    EXPECT_EQ(Fields(card), std::vector<std::wstring>(10));
    card.name = L"kept";
    card.prase(nullptr, nullptr);
    EXPECT_EQ(card.name, L"kept");
}

}  // namespace
}  // namespace tarvik::test
