// The SAM's answer: the card text block, the packet (big-endian length, three status bytes,
// data, XOR checksum) and its split over 60-byte answer frames.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "camera_state.h"

namespace tarvik::sim {

inline constexpr size_t kCardTextLength = 256;
inline constexpr size_t kCardBlockLength = 1024;

// The card's ten text fields in their order on the wire, with their widths in UCS-2 units and
// their names in card files.
struct CardTextField {
    const char* key;
    std::string IdentityCard::*member;
    size_t units;
};
extern const std::array<CardTextField, 10> kCardTextFields;

// UTF-8 to UCS-2 code units; characters outside the basic plane and malformed bytes become '?'.
std::u16string Utf8ToUcs2(const std::string& text);

// The 256-byte text block: ten fields of fixed widths (15, 1, 2, 8, 35, 18, 15, 8, 8, 18 units),
// UCS-2 little-endian, each blank-padded (U+0020) and cut to its width.
std::array<uint8_t, kCardTextLength> EncodeCardText(const IdentityCard& card);

// The data part of the packet for a command (0-4), before any length override.
std::vector<uint8_t> SamCommandData(uint8_t command, const SamState& sam);

// The whole packet, dataLen + 2 bytes: length (big-endian), sw1-sw3, data cut or padded to
// dataLen - 4 bytes, checksum. Without `dataLen` the length is data.size() + 4.
std::vector<uint8_t> BuildSamPacket(uint8_t sw1, uint8_t sw2, uint8_t sw3,
                                    const std::vector<uint8_t>& data,
                                    std::optional<uint16_t> dataLen = std::nullopt);

// XOR of packet bytes 0..n-1.
uint8_t XorOf(const uint8_t* bytes, size_t n);

// Answer frames for a SAM request: the first carries the echo at 4-5, samResult at 6-7 and the
// packet from byte 8; each further frame carries the next 52 packet bytes at 8-59 and, at 0-7,
// the request header, the echo and its own sequence number (1, 2, ...).
std::vector<Frame> SamAnswerFrames(const uint8_t header[4], int16_t echo, int16_t samResult,
                                   const std::vector<uint8_t>& packet);

}  // namespace tarvik::sim
