// Fill of IDCardData's code tables. Internal, not exported.
#ifndef TARVIK_CODE_TABLES_H
#define TARVIK_CODE_TABLES_H

namespace tarvik {
// Inserts every missing sex and nation row, under the card parse lock.
void fill_code_tables();
}  // namespace tarvik

#endif
