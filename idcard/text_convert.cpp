#include "text_convert.h"

#include <algorithm>

namespace {
// A byte-order mark read in the wrong order: the text is big-endian.
constexpr unsigned short kSwappedBom = 0xFFFE;
constexpr char kBlank = ' ';

unsigned int utf8_length(unsigned short unit) {
    if (unit <= 0x7F) {
        return 1;
    }
    return unit <= 0x7FF ? 2 : 3;
}

// Writes the one- to three-byte encoding of `unit`; returns its length.
unsigned int encode_utf8(unsigned short unit, unsigned char* dst) {
    const unsigned int length = utf8_length(unit);
    if (length == 1) {
        dst[0] = static_cast<unsigned char>(unit);
    } else if (length == 2) {
        dst[0] = static_cast<unsigned char>(0xC0 | (unit >> 6));
        dst[1] = static_cast<unsigned char>(0x80 | (unit & 0x3F));
    } else {
        dst[0] = static_cast<unsigned char>(0xE0 | (unit >> 12));
        dst[1] = static_cast<unsigned char>(0x80 | ((unit >> 6) & 0x3F));
        dst[2] = static_cast<unsigned char>(0x80 | (unit & 0x3F));
    }
    return length;
}

unsigned int count_utf8(const unsigned short* src, unsigned int src_len) {
    unsigned int bytes = 0;
    for (unsigned int i = 0; i < src_len && src[i] != 0; ++i) {
        bytes += utf8_length(src[i]);
    }
    return bytes;
}

// The room is tested before each unit; a unit that would not fit whole ends the
// conversion, so no byte lands at or beyond dst_size.
unsigned int write_utf8(const unsigned short* src, unsigned int src_len, unsigned char* dst,
                        unsigned int dst_size) {
    unsigned int bytes = 0;
    for (unsigned int i = 0; i < src_len && bytes < dst_size && src[i] != 0; ++i) {
        if (src[i] == kSwappedBom) {
            continue;
        }
        if (utf8_length(src[i]) > dst_size - bytes) {
            break;
        }
        bytes += encode_utf8(src[i], dst + bytes);
    }
    return bytes;
}

// Length of the one- to three-byte sequence that `lead` begins, 0 for any other.
unsigned int ucs2_sequence_length(unsigned char lead) {
    if (lead < 0x80) {
        return 1;
    }
    if ((lead & 0xE0) == 0xC0) {
        return 2;
    }
    return (lead & 0xF0) == 0xE0 ? 3 : 0;
}

// Decodes `length` bytes; continuation bytes are taken as they come, low six bits.
unsigned long decode_sequence(const unsigned char* p, unsigned int length, unsigned char mask) {
    unsigned long value = p[0] & mask;
    for (unsigned int k = 1; k < length; ++k) {
        value = (value << 6) | (p[k] & 0x3Fu);
    }
    return value;
}

unsigned int leading_ones(unsigned char byte) {
    unsigned int n = 0;
    while (n < 4 && (byte & (0x80u >> n)) != 0) {
        ++n;
    }
    return n;
}
}  // namespace

unsigned int ucs2be_to_ucs2le(unsigned short* buf, unsigned int len) {
    if (buf == nullptr) {
        return 0;
    }
    unsigned int swapped = 0;
    for (; swapped < len && buf[swapped] != 0; ++swapped) {
        const unsigned short unit = buf[swapped];
        buf[swapped] = static_cast<unsigned short>((unit << 8) | (unit >> 8));
    }
    return swapped;
}

unsigned int ucs2_to_utf8(unsigned short* src, unsigned int src_len, unsigned char* dst,
                          unsigned int dst_size) {
    if (src == nullptr) {
        return 0;
    }
    if (src_len > 0 && src[0] == kSwappedBom) {
        ucs2be_to_ucs2le(src, src_len);
    }
    return dst == nullptr ? count_utf8(src, src_len) : write_utf8(src, src_len, dst, dst_size);
}

unsigned int utf8_to_ucs2(unsigned char* src, unsigned int src_len, unsigned short* dst,
                          unsigned int dst_len) {
    static const unsigned char kLeadMask[] = {0x00, 0x7F, 0x1F, 0x0F};
    if (src == nullptr) {
        return 0;
    }
    unsigned int units = 0;
    unsigned int pos = 0;
    while (pos < src_len && src[pos] != 0 && (dst == nullptr || units < dst_len)) {
        const unsigned int length = ucs2_sequence_length(src[pos]);
        if (length == 0 || length > src_len - pos) {
            break;
        }
        if (dst != nullptr) {
            dst[units] =
                static_cast<unsigned short>(decode_sequence(src + pos, length, kLeadMask[length]));
        }
        ++units;
        pos += length;
    }
    return units;
}

std::wstring utf8_to_wstring(const std::string& s) {
    // Indexed by the lead byte's leading ones; 0xF8 to 0xFF are handled as four.
    static const unsigned char kLeadMask[] = {0x7F, 0x3F, 0x1F, 0x0F, 0x07};
    const auto* bytes = reinterpret_cast<const unsigned char*>(s.data());
    std::wstring out;
    // At most one character per byte: one allocation, and no grown-out copy of
    // the text left behind in freed memory.
    out.reserve(s.size());
    std::size_t pos = 0;
    while (pos < s.size()) {
        const unsigned int ones = leading_ones(bytes[pos]);
        const unsigned int length = ones < 2 ? 1 : ones;
        if (length > s.size() - pos) {
            break;
        }
        const unsigned long value = decode_sequence(bytes + pos, length, kLeadMask[ones]);
        out.push_back(static_cast<wchar_t>(value & 0xFFFF));
        pos += length;
    }
    return out;
}

void trim_left_space(std::string& s) { s.erase(0, s.find_first_not_of(kBlank)); }

void trim_right_space(std::string& s) {
    // npos + 1 is 0: a string of blanks is erased whole.
    s.erase(s.find_last_not_of(kBlank) + 1);
}

void trim_left_right_space(std::string& s) {
    trim_left_space(s);
    trim_right_space(s);
}

void trim_all_space(std::string& s) { s.erase(std::remove(s.begin(), s.end(), kBlank), s.end()); }
