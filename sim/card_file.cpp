#include "card_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "sam_answer.h"

namespace tarvik::sim {

namespace {

constexpr size_t kBlockMax = kCardBlockLength;
constexpr size_t kCardFileMax = 64 * 1024;  // a card with both blocks is about 5 KiB

struct BlockField {
    const char* key;
    std::vector<uint8_t> IdentityCard::*member;
};
constexpr BlockField kBlockFields[] = {
    {"photo_hex", &IdentityCard::photo},
    {"fingerprint_hex", &IdentityCard::fingerprint},
};

[[noreturn]] void Refuse(const std::string& what) { throw std::runtime_error("card: " + what); }

// nlohmann-json names the byte where parsing stopped; people count lines and columns.
std::string Where(const std::string& text, size_t byte) {
    const size_t at = std::min(byte == 0 ? 0 : byte - 1, text.size());  // the offending byte
    const auto before = static_cast<long>(at);
    const size_t line =
        1 + static_cast<size_t>(std::count(text.begin(), text.begin() + before, '\n'));
    const size_t lineStart = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
    const size_t column = lineStart == std::string::npos ? at + 1 : at - lineStart;
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

std::vector<uint8_t> FromHex(const std::string& hex, const char* key) {
    if (hex.size() % 2 != 0 || hex.size() > 2 * kBlockMax) {
        Refuse(std::string(key) + ": expected up to 1024 bytes as hex pairs");
    }
    std::vector<uint8_t> out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        const std::string pair = hex.substr(i, 2);
        if (!std::all_of(pair.begin(), pair.end(), [](char c) {
                return std::isxdigit(static_cast<unsigned char>(c)) != 0;
            })) {
            Refuse(std::string(key) + ": bad hex '" + pair + "'");
        }
        out.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
    }
    return out;
}

// The card's text is UCS-2: one unit per character, so nothing past U+FFFF. The JSON
// parser has already refused malformed UTF-8 and lone surrogates; an escaped pair
// ("\ud83d\ude00") arrives as a four-byte sequence, as does any character past U+FFFF.
void CheckBasicPlane(const std::string& text, const std::string& key) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto lead = static_cast<uint8_t>(text[i]);
        if (lead < 0xF0) continue;  // one to three bytes: U+0000-U+FFFF
        uint32_t cp = lead & 0x07u;
        for (size_t k = i + 1; k < std::min(i + 4, text.size()); ++k) {
            cp = (cp << 6) | (static_cast<uint8_t>(text[k]) & 0x3Fu);
        }
        char character[16];
        std::snprintf(character, sizeof character, "U+%04X", static_cast<unsigned>(cp));
        Refuse(key + ": " + character + " is outside U+0000-U+FFFF (the card's text is UCS-2)");
    }
}

const nlohmann::json& Text(const nlohmann::json& value, const std::string& key) {
    if (!value.is_string()) Refuse(key + " must be a string");
    return value;
}

void Apply(IdentityCard& card, const std::string& key, const nlohmann::json& value) {
    for (const CardTextField& field : kCardTextFields) {
        if (key != field.key) continue;
        const std::string text = Text(value, key).get<std::string>();
        CheckBasicPlane(text, key);
        const size_t units = Utf8ToUcs2(text).size();
        if (units > field.units) {
            Refuse(key + ": " + std::to_string(units) + " characters, at most " +
                   std::to_string(field.units));
        }
        card.*field.member = text;
        return;
    }
    for (const BlockField& field : kBlockFields) {
        if (key != field.key) continue;
        card.*field.member = FromHex(Text(value, key).get<std::string>(), field.key);
        return;
    }
    Refuse("unknown field \"" + key + "\"");
}

const char* KindOfFile(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory, not a regular file";
    if (S_ISFIFO(mode)) return "a FIFO, not a regular file";
    if (S_ISCHR(mode)) return "a character device, not a regular file";
    if (S_ISBLK(mode)) return "a block device, not a regular file";
    return "not a regular file";
}

// A card file is a small regular file. A FIFO or a device could keep the launcher
// waiting or reading for ever (and opening a device may do something of its own), so
// they are refused before they are opened; should the file change in between, the open
// does not wait for a FIFO's writer, and the size is checked while reading.
std::string ReadCardText(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) Refuse(KindOfFile(st.st_mode));
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) Refuse(std::string("cannot open: ") + std::strerror(errno));
    std::string text;
    const char* problem = nullptr;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        problem = KindOfFile(st.st_mode);
    } else {
        char buffer[4096];
        ssize_t n = 0;
        while (text.size() <= kCardFileMax && (n = ::read(fd, buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<size_t>(n));
        }
        if (n < 0) problem = std::strerror(errno);
        if (text.size() > kCardFileMax) problem = "more than 64 KiB, the most a card file holds";
    }
    ::close(fd);
    if (problem != nullptr) Refuse(problem);
    return text;
}

}  // namespace

IdentityCard ParseCardJson(const std::string& text) {
    nlohmann::json doc;
    try {
        doc = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        Refuse(Where(text, e.byte) + ": not valid JSON");
    }
    if (!doc.is_object()) Refuse("not a JSON object");
    IdentityCard card = DefaultIdentityCard();
    for (const auto& [key, value] : doc.items()) Apply(card, key, value);
    return card;
}

IdentityCard LoadCardFile(const std::string& path) {
    try {
        return ParseCardJson(ReadCardText(path));
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

}  // namespace tarvik::sim
