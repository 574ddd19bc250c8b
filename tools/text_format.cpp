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

std::string Base64(const uint8_t* bytes, size_t count) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((count + 2) / 3 * 4);
    for (size_t i = 0; i < count; i += 3) {
        const size_t n = count - i < 3 ? count - i : 3;
        uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
        if (n > 1) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
        if (n > 2) group |= bytes[i + 2];
        for (size_t k = 0; k < 4; ++k) {
            out += k <= n ? kDigits[(group >> (18 - 6 * k)) & 0x3F] : '=';
        }
    }
    return out;
}

}  // namespace tarvikctl
