// IDCardData::prase with arbitrary 256-byte text blocks. The SAM path copies
// the ten members into fixed arrays and relies on each staying within its
// field's width; the run checks that, the code lookups and the blank trimming,
// and that a second block replaces every member.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "IDCardData.h"
#include "device_script.h"

namespace {

constexpr std::size_t kBlock = 256;

bool InTable(const std::map<std::wstring, std::wstring>& table, const std::wstring& name) {
    return std::any_of(table.begin(), table.end(),
                       [&](const auto& row) { return row.second == name; });
}

void CheckField(const std::wstring& value, std::size_t width) {
    FUZZ_CHECK(value.size() <= width);
    FUZZ_CHECK(std::all_of(value.begin(), value.end(),
                           [](wchar_t c) { return c != 0 && static_cast<unsigned>(c) <= 0xFFFF; }));
    if (!value.empty()) FUZZ_CHECK(value.front() != L' ' && value.back() != L' ');
}

void CheckCard(IDCardData& card) {
    CheckField(card.name, 15);
    CheckField(card.birth, 8);
    CheckField(card.address, 35);
    CheckField(card.id_number, 18);
    CheckField(card.authority, 15);
    CheckField(card.valid_from, 8);
    CheckField(card.valid_to, 8);
    CheckField(card.reserved, 18);
    FUZZ_CHECK(card.sex.empty() || InTable(IDCardData::sex_map, card.sex));
    FUZZ_CHECK(card.nation.empty() || InTable(IDCardData::nation_map, card.nation));
    FUZZ_CHECK(card.sex.size() <= 3 && card.nation.size() <= 9);
}

std::unique_ptr<unsigned char[]> BlockFrom(const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<unsigned char[]> block(new unsigned char[kBlock]);
    std::memset(block.get(), 0, kBlock);
    std::memcpy(block.get(), data, std::min(size, kBlock));
    return block;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto first = BlockFrom(data, size);
    const std::vector<unsigned char> original(first.get(), first.get() + kBlock);
    IDCardData card;
    card.prase(first.get(), nullptr);
    FUZZ_CHECK(std::equal(original.begin(), original.end(), first.get()));  // only read
    CheckCard(card);

    // A null block changes nothing.
    const std::wstring name = card.name, address = card.address;
    card.prase(nullptr, nullptr);
    FUZZ_CHECK(card.name == name && card.address == address);

    // The rest of the input, if any, as a second block on the same record: it
    // replaces every member, the same as a fresh record would hold.
    if (size > kBlock) {
        auto second = BlockFrom(data + kBlock, size - kBlock);
        card.prase(second.get(), nullptr);
        CheckCard(card);
        IDCardData fresh;
        fresh.prase(second.get(), nullptr);
        FUZZ_CHECK(card.name == fresh.name && card.sex == fresh.sex &&
                   card.nation == fresh.nation && card.birth == fresh.birth &&
                   card.address == fresh.address && card.id_number == fresh.id_number &&
                   card.authority == fresh.authority && card.valid_from == fresh.valid_from &&
                   card.valid_to == fresh.valid_to && card.reserved == fresh.reserved);
    }
    return 0;
}
