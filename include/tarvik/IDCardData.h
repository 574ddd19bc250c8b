// One identity card's text, parsed from the card's 256-byte UCS-2 text block,
// with the sex and nation codes translated through process-wide tables.
#ifndef TARVIK_IDCARDDATA_H
#define TARVIK_IDCARDDATA_H

#include <map>
#include <string>

#include "tarvik_export.h"

class TARVIK_API IDCardData {
public:
    std::wstring name;
    std::wstring sex;
    std::wstring nation;
    std::wstring birth;
    std::wstring address;
    std::wstring id_number;
    std::wstring authority;
    std::wstring valid_from;
    std::wstring valid_to;
    std::wstring reserved;

    // Leaves every field empty and fills the code tables where a row is missing.
    IDCardData();
    ~IDCardData();

    // Replaces all ten fields from a 256-byte text block. A null `text` leaves
    // them as they are; `photo` is not used.
    void prase(unsigned char* text, unsigned char* photo);

    // Name for a code, or empty when the code is not in the table.
    std::wstring get_sex(std::wstring code);
    std::wstring get_nation(std::wstring code);

    static std::map<std::wstring, std::wstring> sex_map;
    static std::map<std::wstring, std::wstring> nation_map;
    static bool map_inited;
};

#endif
