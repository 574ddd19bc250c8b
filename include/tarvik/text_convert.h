// Text conversion between UCS-2 buffers, UTF-8 buffers or strings and wide
// strings, and blank trimming of UTF-8 strings. Only U+0000 to U+FFFF is
// represented; surrogate units are never paired. Blank means the byte 0x20 only.
#ifndef TARVIK_TEXT_CONVERT_H
#define TARVIK_TEXT_CONVERT_H

#include <string>

#include "tarvik_export.h"

// Swaps the bytes of each unit in place, stopping after `len` units or before a
// zero unit. Returns the number of units swapped.
TARVIK_API unsigned int ucs2be_to_ucs2le(unsigned short* buf, unsigned int len);

// Converts at most `src_len` units (a zero unit ends the text) to UTF-8.
// A leading 0xFFFE marks big-endian input, which is swapped in place first.
// With `dst` null, returns the bytes needed; otherwise the bytes written, never
// more than `dst_size`, ending before a unit whose encoding would not fit.
// No terminating zero is written.
TARVIK_API unsigned int ucs2_to_utf8(unsigned short* src, unsigned int src_len, unsigned char* dst,
                                     unsigned int dst_size);

// Converts one- to three-byte UTF-8 sequences to UCS-2 units, ending at a zero
// byte, a byte that begins no such sequence, or a sequence cut short by
// `src_len`. With `dst` null, returns the units needed; otherwise the units
// written, at most `dst_len`. No terminating zero is written.
TARVIK_API unsigned int utf8_to_ucs2(unsigned char* src, unsigned int src_len, unsigned short* dst,
                                     unsigned int dst_len);

// Decodes every sequence of `s` (zero bytes included) to one character of at
// most 16 bits, ending before a sequence cut short by the end of `s`.
TARVIK_API std::wstring utf8_to_wstring(const std::string& s);

TARVIK_API void trim_left_space(std::string& s);
TARVIK_API void trim_right_space(std::string& s);
TARVIK_API void trim_left_right_space(std::string& s);
TARVIK_API void trim_all_space(std::string& s);

#endif
