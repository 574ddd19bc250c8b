// Pure formatting of what the camera answers: hex, printable text, UTF-8.
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

// A zero-terminated wide string of at most `capacity` characters as UTF-8,
// independent of the process locale. A value that is no Unicode scalar
// (a surrogate, or above 0x10FFFF) becomes U+FFFD.
std::string WideToUtf8(const wchar_t* text, size_t capacity);

}  // namespace tarvikctl
