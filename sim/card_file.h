// Identity cards for the simulated SAM, from small JSON files:
//   { "name": "张三", "sex": "1", "nation": "01", "birth": "19900101",
//     "address": "...", "id_number": "...", "authority": "...",
//     "valid_from": "20200101", "valid_to": "20300101", "reserved": "",
//     "photo_hex": "0102...", "fingerprint_hex": "..." }
// Text is UTF-8; sex and nation are the code digits. Keys left out keep the default card's
// values; photo_hex / fingerprint_hex give the raw blocks (up to 1024 bytes each). A text
// longer than its field on the card (name 15 characters, sex 1, nation 2, birth 8, address
// 35, id_number 18, authority 15, valid_from 8, valid_to 8, reserved 18) and an unknown key
// are refused, naming the field; malformed JSON is refused naming its line and column. The
// card's text is UCS-2: a character past U+FFFF is refused. A card file is a regular file of at
// most 64 KiB; anything else is refused before it is read.
#pragma once

#include <string>

#include "camera_state.h"

namespace tarvik::sim {

// Both throw std::runtime_error with a readable message on a bad file or text.
IdentityCard ParseCardJson(const std::string& text);
IdentityCard LoadCardFile(const std::string& path);

}  // namespace tarvik::sim
