// Pure checks of what the user typed, made before anything is sent to the camera.
// Every function throws ValueError with a message that names the value and the rule.
#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvikctl {

class ValueError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An integer in [min, max], decimal (with an optional '-') or hex with "0x".
long long ParseInteger(const std::string& text, const std::string& what, long long min,
                       long long max);

// A 32-bit field value: any signed or unsigned 32-bit number, as its 32 bits.
int32_t ParseField32(const std::string& text, const std::string& what);

// Exactly `count` 32-bit field values.
std::vector<int32_t> ParseFields32(const std::vector<std::string>& texts, size_t count,
                                   const std::string& what);

// Hex digits, two per byte ("0a1B..."); spaces are not allowed, an empty text is no bytes.
std::vector<uint8_t> ParseHex(const std::string& text, const std::string& what);

// A 20-byte device id or serial number: printable ASCII text of at most 20 characters,
// zero-padded, or (hex) exactly 40 hex digits.
std::array<uint8_t, 20> ParseDeviceText(const std::string& text, bool hex, const std::string& what);

// A SAM command the library accepts: 0-4, 6 or 7.
uint8_t ParseSamCommand(const std::string& text);

}  // namespace tarvikctl
