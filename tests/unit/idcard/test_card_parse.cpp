#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "IDCardData.h"
#include "card_lock.h"

namespace {
using Block = std::vector<unsigned char>;  // exactly 256 bytes: over-reads are caught
using Fields = std::vector<std::wstring>;

// Cards pad their fields with blank units; `text` goes in as UCS-2 LE at `offset`.
Block block_with(std::size_t offset, const std::wstring& text) {
    Block block(256, 0);
    for (std::size_t i = 0; i < block.size(); i += 2) {
        block[i] = 0x20;
    }
    for (wchar_t c : text) {
        block[offset++] = static_cast<unsigned char>(c & 0xFF);
        block[offset++] = static_cast<unsigned char>((c >> 8) & 0xFF);
    }
    return block;
}

Fields fields(const IDCardData& c) {
    return {c.name,      c.sex,       c.nation,     c.birth,    c.address,
            c.id_number, c.authority, c.valid_from, c.valid_to, c.reserved};
}

// Every field at its full width, back to back, so a wrong offset or width shows.
const std::wstring kFullText =
    std::wstring(L"买买提·艾力江·阿不都热合曼江") + L"1" + L"05" + L"19850214" +
    L"新疆维吾尔自治区乌鲁木齐市沙依巴克区西北路幸福花园小区十二号楼三单元5" +
    L"65010219850214123X" + L"乌鲁木齐市公安局沙依巴克区分局" + L"20150301" + L"20350301" +
    L"RESERVED0123456789";
const Fields kFullFields = {
    L"买买提·艾力江·阿不都热合曼江",
    L"男",
    L"维吾尔",
    L"19850214",
    L"新疆维吾尔自治区乌鲁木齐市沙依巴克区西北路幸福花园小区十二号楼三单元5",
    L"65010219850214123X",
    L"乌鲁木齐市公安局沙依巴克区分局",
    L"20150301",
    L"20350301",
    L"RESERVED0123456789"};

TEST(idcard_parse, FullBlockFillsEveryFieldUnderTheHeldLock) {
    ASSERT_EQ(kFullText.size(), 128u);
    Block block = block_with(0, kFullText);
    // The card read holds the lock around construct-parse-copy; it must nest.
    std::lock_guard<std::recursive_mutex> lock(tarvik::card_parse_mutex());
    IDCardData card;
    card.prase(block.data(), nullptr);
    EXPECT_EQ(fields(card), kFullFields);
}

TEST(idcard_parse, OneFieldInABlankBlock) {
    const struct {
        const char* what;
        std::size_t offset;
        std::wstring raw;
        std::size_t field;
        std::wstring value;
    } cases[] = {
        {"sex 2", 30, L"2", 1, L"女"},
        {"sex unknown", 30, L"5", 1, L""},
        {"nation longest", 32, L"98", 2, L"外国血统中国籍人士"},
        {"nation unknown", 32, L"57", 2, L""},
        {"blank before code", 32, L" 1", 2, L""},
        {"zero unit cuts", 52, std::wstring(L"ab\0cd", 5), 4, L"ab"},
        {"only zero units", 0, std::wstring(15, L'\0'), 0, L""},
        {"other whitespace kept", 0, L" \tA\x3000 ", 0, L"\tA\x3000"},
        {"big-endian field", 0, L"\xFFFE\x4100\x4200" + std::wstring(12, 0x2000), 0,
         L"\xFEFF"
         L"AB"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Block block = block_with(c.offset, c.raw);
        const Block original = block;
        IDCardData card;
        card.prase(block.data(), nullptr);
        Fields expected(10);
        expected[c.field] = c.value;
        EXPECT_EQ(fields(card), expected);
        EXPECT_EQ(block, original);
    }
}

TEST(idcard_parse, LaterParseReplacesAllAndNullTextChangesNothing) {
    Block block = block_with(0, kFullText);
    Block photo(16, 0xAA);
    IDCardData card;
    card.prase(block.data(), photo.data());
    card.prase(nullptr, photo.data());
    EXPECT_EQ(fields(card), kFullFields);
    Block zeros(256, 0);
    card.prase(zeros.data(), nullptr);
    EXPECT_EQ(fields(card), Fields(10));
    EXPECT_EQ(photo, Block(16, 0xAA));
}
}  // namespace
