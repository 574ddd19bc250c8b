#include "card_file.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "sam_answer.h"

namespace tarvik::sim {

namespace {

constexpr size_t kBlockMax = kCardBlockLength;

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

const nlohmann::json& Text(const nlohmann::json& value, const std::string& key) {
    if (!value.is_string()) Refuse(key + " must be a string");
    return value;
}

void Apply(IdentityCard& card, const std::string& key, const nlohmann::json& value) {
    for (const CardTextField& field : kCardTextFields) {
        if (key != field.key) continue;
        const std::string text = Text(value, key).get<std::string>();
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
    std::ifstream in(path);
    if (!in) throw std::runtime_error("card: cannot open " + path);
    std::ostringstream text;
    text << in.rdbuf();
    try {
        return ParseCardJson(text.str());
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

}  // namespace tarvik::sim
