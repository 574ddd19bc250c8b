// Pure formatting of what the camera answers: hex, printable text, base64.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarvikctl {

// Lower-case hex digits, two per byte, no separators.
std::string Hex(const uint8_t* bytes, size_t count);

// The bytes up to the first zero byte as text; bytes outside printable ASCII
// show as '.'. The hex form is the lossless one.
std::string Printable(const uint8_t* bytes, size_t count);

// Base64 (RFC 4648, with padding), for binary blocks in JSON.
std::string Base64(const uint8_t* bytes, size_t count);

}  // namespace tarvikctl
