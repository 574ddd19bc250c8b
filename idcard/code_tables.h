// Fill of IDCardData's code tables. Internal, not exported.
#ifndef TARVIK_CODE_TABLES_H
#define TARVIK_CODE_TABLES_H

#include <string>

namespace tarvik {
// Inserts every missing sex and nation row, under the card parse lock.
void fill_code_tables();

// The sex and nation codes of a 256-byte text block as the card holds them
// (blanks trimmed), before they are looked up.
void card_codes(const unsigned char* text, std::wstring& sex, std::wstring& nation);
}  // namespace tarvik

#endif
