#include "value_parse.h"

#include <cerrno>
#include <cstdlib>

namespace tarvikctl {

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

[[noreturn]] void Reject(const std::string& what, const std::string& text,
                         const std::string& rule) {
    throw ValueError(what + ": '" + text + "' " + rule);
}

}  // namespace

long long ParseInteger(const std::string& text, const std::string& what, long long min,
                       long long max) {
    const std::string range =
        "must be an integer from " + std::to_string(min) + " to " + std::to_string(max);
    const bool negative = !text.empty() && text[0] == '-';
    const std::string body = negative ? text.substr(1) : text;
    const bool hex = body.size() > 2 && body[0] == '0' && (body[1] == 'x' || body[1] == 'X');
    const std::string digits = hex ? body.substr(2) : body;
    if (digits.empty()) Reject(what, text, range);
    for (char c : digits) {
        if (hex ? HexDigit(c) < 0 : (c < '0' || c > '9')) Reject(what, text, range);
    }
    errno = 0;
    const unsigned long long magnitude = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    // Anything beyond 2^63 is out of every range this tool uses.
    if (errno == ERANGE || magnitude > (1ULL << 63)) Reject(what, text, range);
    long long value = 0;
    if (negative) {
        value = magnitude == (1ULL << 63) ? INT64_MIN : -static_cast<long long>(magnitude);
    } else {
        if (magnitude == (1ULL << 63)) Reject(what, text, range);
        value = static_cast<long long>(magnitude);
    }
    if (value < min || value > max) Reject(what, text, range);
    return value;
}

int32_t ParseField32(const std::string& text, const std::string& what) {
    const long long v = ParseInteger(text, what, INT32_MIN, UINT32_MAX);
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

std::vector<int32_t> ParseFields32(const std::vector<std::string>& texts, size_t count,
                                   const std::string& what) {
    if (texts.size() != count) {
        throw ValueError(what + " takes " + std::to_string(count) + " values, got " +
                         std::to_string(texts.size()));
    }
    std::vector<int32_t> values;
    for (size_t i = 0; i < texts.size(); ++i) {
        values.push_back(ParseField32(texts[i], what + " value " + std::to_string(i + 1)));
    }
    return values;
}

std::vector<uint8_t> ParseHex(const std::string& text, const std::string& what) {
    if (text.size() % 2 != 0) Reject(what, text, "must have an even number of hex digits");
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int hi = HexDigit(text[i]);
        const int lo = HexDigit(text[i + 1]);
        if (hi < 0 || lo < 0) Reject(what, text, "must be hex digits only (0-9, a-f)");
        bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return bytes;
}

std::array<uint8_t, 20> ParseDeviceText(const std::string& text, bool hex,
                                        const std::string& what) {
    std::array<uint8_t, 20> out{};
    if (hex) {
        if (text.size() != 40) Reject(what, text, "must be exactly 40 hex digits (20 bytes)");
        const std::vector<uint8_t> bytes = ParseHex(text, what);
        std::copy(bytes.begin(), bytes.end(), out.begin());
        return out;
    }
    if (text.size() > out.size()) {
        Reject(what, text, "is longer than 20 characters (use --hex for raw bytes)");
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c >= 0x7F) {
            Reject(what, text, "must be printable ASCII (use --hex for other bytes)");
        }
        out[i] = c;
    }
    return out;
}

uint8_t ParseSamCommand(const std::string& text) {
    const long long cmd = ParseInteger(text, "SAM command", 0, 255);
    if (cmd == 5 || cmd > 7) {
        Reject("SAM command", text, "is not a SAM command (0-4, 6 or 7)");
    }
    return static_cast<uint8_t>(cmd);
}

}  // namespace tarvikctl
