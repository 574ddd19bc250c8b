// The text conversions and the card parser on any bytes: the first input
// byte chooses the function and the room it gets. Beyond ASan and UBSan:
// nothing written past the room given, and parsed fields no longer than the
// card's field widths, which the SAM channel relies on.
#include <cstring>
#include <string>
#include <vector>

#include "IDCardData.h"
#include "fuzz_check.h"
#include "text_convert.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned room = data[0] >> 2;
    std::vector<unsigned char> bytes(data + 1, data + size);
    std::vector<unsigned short> units(bytes.size() / 2);
    if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
    switch (data[0] & 3) {
        case 0: {
            std::vector<unsigned char> out(room + 1);  // never null: null asks for a count
            const unsigned n =
                ucs2_to_utf8(units.data(), static_cast<unsigned>(units.size()), out.data(), room);
            FUZZ_CHECK(
                n <= room &&
                n <= ucs2_to_utf8(units.data(), static_cast<unsigned>(units.size()), nullptr, 0));
            break;
        }
        case 1: {
            std::vector<unsigned short> out(room + 1);
            const unsigned n =
                utf8_to_ucs2(bytes.data(), static_cast<unsigned>(bytes.size()), out.data(), room);
            FUZZ_CHECK(n <= room);
            break;
        }
        case 2: {
            std::string s(bytes.begin(), bytes.end());
            FUZZ_CHECK(utf8_to_wstring(s).size() <= s.size());
            trim_left_right_space(s);
            trim_all_space(s);
            FUZZ_CHECK(s.find(' ') == std::string::npos);
            break;
        }
        default: {
            bytes.resize(256);
            IDCardData card;
            card.prase(bytes.data(), nullptr);
            FUZZ_CHECK(card.name.size() <= 15 && card.sex.size() <= 3 && card.nation.size() <= 9 &&
                       card.birth.size() <= 8 && card.address.size() <= 35 &&
                       card.id_number.size() <= 18 && card.authority.size() <= 15 &&
                       card.valid_from.size() <= 8 && card.valid_to.size() <= 8 &&
                       card.reserved.size() <= 18);
            break;
        }
    }
    return 0;
}
