#include "IDCardData.h"

#include <string.h>

#include <cstring>
#include <utility>

#include "code_tables.h"
#include "text_convert.h"

namespace {
// The card's text block: 256 bytes of UCS-2 little-endian text in fixed-width
// fields, back to back, with no separators or length bytes.
struct CardField {
    unsigned int offset;  // bytes
    unsigned int units;
    std::wstring IDCardData::*member;
    std::wstring (IDCardData::*translate)(std::wstring);  // null: stored as read
};

const CardField kCardFields[] = {
    {0, 15, &IDCardData::name, nullptr},
    {30, 1, &IDCardData::sex, &IDCardData::get_sex},
    {32, 2, &IDCardData::nation, &IDCardData::get_nation},
    {36, 8, &IDCardData::birth, nullptr},
    {52, 35, &IDCardData::address, nullptr},
    {122, 18, &IDCardData::id_number, nullptr},
    {158, 15, &IDCardData::authority, nullptr},
    {188, 8, &IDCardData::valid_from, nullptr},
    {204, 8, &IDCardData::valid_to, nullptr},
    {220, 18, &IDCardData::reserved, nullptr},
};

// Work buffer size; the widest field needs at most 35 * 3 = 105 UTF-8 bytes, so
// the zero fill always leaves a terminating zero.
constexpr unsigned int kWorkBytes = 128;

// One field as a wide string without leading or trailing blanks. The field is
// copied first: a big-endian field is swapped in the copy, never in the block.
// The work buffers held card text, and are wiped before they go.
std::wstring field_text(const unsigned char* text, const CardField& field) {
    unsigned short ucs2[kWorkBytes / sizeof(unsigned short)] = {};
    unsigned char utf8[kWorkBytes] = {};
    std::memcpy(ucs2, text + field.offset, field.units * sizeof(unsigned short));
    ucs2_to_utf8(ucs2, field.units, utf8, kWorkBytes);
    const char* bytes = reinterpret_cast<const char*>(utf8);
    std::string narrow(bytes, strnlen(bytes, kWorkBytes));
    trim_left_right_space(narrow);
    std::wstring value = utf8_to_wstring(narrow);
    explicit_bzero(narrow.data(), narrow.capacity() + 1);
    explicit_bzero(ucs2, sizeof ucs2);
    explicit_bzero(utf8, sizeof utf8);
    return value;
}
}  // namespace

namespace tarvik {
void card_codes(const unsigned char* text, std::wstring& sex, std::wstring& nation) {
    sex = field_text(text, kCardFields[1]);
    nation = field_text(text, kCardFields[2]);
}
}  // namespace tarvik

IDCardData::IDCardData() { tarvik::fill_code_tables(); }

IDCardData::~IDCardData() = default;

void IDCardData::prase(unsigned char* text, unsigned char* /*photo*/) {
    if (text == nullptr) {
        return;
    }
    for (const CardField& field : kCardFields) {
        std::wstring value = field_text(text, field);
        this->*field.member =
            field.translate == nullptr ? std::move(value) : (this->*field.translate)(value);
        // A short text lives inside the string object itself, and moving it
        // away leaves the characters behind on this frame: wiped too.
        explicit_bzero(value.data(), (value.capacity() + 1) * sizeof(wchar_t));
    }
}
