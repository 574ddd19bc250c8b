#include "card_file.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace tarvik::sim {

namespace {

std::vector<uint8_t> FromHex(const std::string& hex, const char* key) {
    if (hex.size() % 2 != 0 || hex.size() > 2048) {
        throw std::runtime_error(std::string(key) + ": expected up to 1024 bytes as hex pairs");
    }
    std::vector<uint8_t> out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        size_t used = 0;
        const std::string pair = hex.substr(i, 2);
        unsigned long v = 0;
        try {
            v = std::stoul(pair, &used, 16);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != 2) throw std::runtime_error(std::string(key) + ": bad hex '" + pair + "'");
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

}  // namespace

IdentityCard ParseCardJson(const std::string& text) {
    const nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        throw std::runtime_error("card: not a JSON object");
    }
    IdentityCard card = DefaultIdentityCard();
    const std::pair<const char*, std::string IdentityCard::*> fields[] = {
        {"name", &IdentityCard::name},           {"sex", &IdentityCard::sex},
        {"nation", &IdentityCard::nation},       {"birth", &IdentityCard::birth},
        {"address", &IdentityCard::address},     {"id_number", &IdentityCard::idNumber},
        {"authority", &IdentityCard::authority}, {"valid_from", &IdentityCard::validFrom},
        {"valid_to", &IdentityCard::validTo},    {"reserved", &IdentityCard::reserved},
    };
    for (const auto& [key, member] : fields) {
        auto it = doc.find(key);
        if (it == doc.end()) continue;
        if (!it->is_string())
            throw std::runtime_error(std::string("card: ") + key + " must be a string");
        card.*member = it->get<std::string>();
    }
    if (auto it = doc.find("photo_hex"); it != doc.end() && it->is_string()) {
        card.photo = FromHex(it->get<std::string>(), "photo_hex");
    }
    if (auto it = doc.find("fingerprint_hex"); it != doc.end() && it->is_string()) {
        card.fingerprint = FromHex(it->get<std::string>(), "fingerprint_hex");
    }
    return card;
}

IdentityCard LoadCardFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("card: cannot open " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return ParseCardJson(text.str());
}

}  // namespace tarvik::sim
