#include "text_format.h"

namespace tarvikctl {

std::string Hex(const uint8_t* bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(count * 2);
    for (size_t i = 0; i < count; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0F];
    }
    return out;
}

std::string Printable(const uint8_t* bytes, size_t count) {
    std::string out;
    for (size_t i = 0; i < count && bytes[i] != 0; ++i) {
        const bool printable = bytes[i] >= 0x20 && bytes[i] < 0x7F;
        out += printable ? static_cast<char>(bytes[i]) : '.';
    }
    return out;
}

namespace {

void AppendUtf8(std::string& out, uint32_t c) {
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

}  // namespace

std::string WideToUtf8(const wchar_t* text, size_t capacity) {
    std::string out;
    for (size_t i = 0; i < capacity && text[i] != L'\0'; ++i) {
        AppendUtf8(out, static_cast<uint32_t>(text[i]));
    }
    return out;
}

}  // namespace tarvikctl
