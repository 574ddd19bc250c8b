#include "sam_answer.h"

#include <algorithm>

#include "byte_order.h"

namespace tarvik::sim {

namespace {

void PutBigEndian16(std::vector<uint8_t>& out, uint16_t v) {
    uint8_t bytes[2];
    PutBe16(bytes, v);
    out.insert(out.end(), bytes, bytes + 2);
}

void AppendBlock(std::vector<uint8_t>& out, const std::vector<uint8_t>& block) {
    for (size_t i = 0; i < kCardBlockLength; ++i) out.push_back(i < block.size() ? block[i] : 0);
}

}  // namespace

const std::array<CardTextField, 10> kCardTextFields = {{
    {"name", &IdentityCard::name, 15},
    {"sex", &IdentityCard::sex, 1},
    {"nation", &IdentityCard::nation, 2},
    {"birth", &IdentityCard::birth, 8},
    {"address", &IdentityCard::address, 35},
    {"id_number", &IdentityCard::idNumber, 18},
    {"authority", &IdentityCard::authority, 15},
    {"valid_from", &IdentityCard::validFrom, 8},
    {"valid_to", &IdentityCard::validTo, 8},
    {"reserved", &IdentityCard::reserved, 18},
}};

std::u16string Utf8ToUcs2(const std::string& text) {
    std::u16string out;
    size_t i = 0;
    while (i < text.size()) {
        const auto b = static_cast<uint8_t>(text[i]);
        size_t extra = 0;
        uint32_t cp = 0;
        if (b < 0x80) {
            cp = b;
        } else if ((b & 0xE0) == 0xC0) {
            extra = 1;
            cp = b & 0x1F;
        } else if ((b & 0xF0) == 0xE0) {
            extra = 2;
            cp = b & 0x0F;
        } else {
            out.push_back(u'?');
            ++i;
            continue;
        }
        bool ok = i + extra < text.size();
        for (size_t k = 1; ok && k <= extra; ++k) {
            const auto c = static_cast<uint8_t>(text[i + k]);
            ok = (c & 0xC0) == 0x80;
            cp = (cp << 6) | (c & 0x3F);
        }
        out.push_back(ok ? static_cast<char16_t>(cp) : u'?');
        i += ok ? extra + 1 : 1;
    }
    return out;
}

std::array<uint8_t, kCardTextLength> EncodeCardText(const IdentityCard& card) {
    std::array<uint8_t, kCardTextLength> block{};
    size_t offset = 0;
    for (const CardTextField& field : kCardTextFields) {
        const std::u16string units = Utf8ToUcs2(card.*field.member);
        for (size_t u = 0; u < field.units; ++u) {
            PutLe16(&block[offset + 2 * u], u < units.size() ? units[u] : u' ');
        }
        offset += 2 * field.units;
    }
    // The ten fields fill 220 + 36 = 256 bytes exactly.
    return block;
}

std::vector<uint8_t> SamCommandData(uint8_t command, const SamState& sam) {
    if (auto it = sam.commandData.find(command); it != sam.commandData.end()) return it->second;
    std::vector<uint8_t> data;
    if (command == 2) return sam.number;
    if (command == 3 || command == 4) {
        PutBigEndian16(data, kCardTextLength);
        PutBigEndian16(data, kCardBlockLength);
        if (command == 4) PutBigEndian16(data, kCardBlockLength);
        const auto text = EncodeCardText(sam.card);
        data.insert(data.end(), text.begin(), text.end());
        AppendBlock(data, sam.card.photo);
        if (command == 4) AppendBlock(data, sam.card.fingerprint);
    }
    return data;
}

uint8_t XorOf(const uint8_t* bytes, size_t n) {
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i) x ^= bytes[i];
    return x;
}

std::vector<uint8_t> BuildSamPacket(uint8_t sw1, uint8_t sw2, uint8_t sw3,
                                    const std::vector<uint8_t>& data,
                                    std::optional<uint16_t> dataLen) {
    const size_t len = dataLen ? *dataLen : std::min<size_t>(data.size() + 4, 0xFFFF);
    std::vector<uint8_t> body = {sw1, sw2, sw3};  // packet bytes 2 .. len
    for (size_t i = 0; body.size() + 1 < len; ++i) {
        body.push_back(i < data.size() ? data[i] : static_cast<uint8_t>(i));
    }
    std::vector<uint8_t> packet;
    PutBigEndian16(packet, static_cast<uint16_t>(len));
    for (size_t i = 0; packet.size() < len + 1; ++i) packet.push_back(body[i]);
    // A length below 1 leaves no room for the checksum after the length bytes; the last byte
    // is then overwritten, which is as good as any answer to such a packet.
    packet.resize(len + 2);
    packet[len + 1] = XorOf(packet.data(), len + 1);
    return packet;
}

std::vector<Frame> SamAnswerFrames(const uint8_t header[4], int16_t echo, int16_t samResult,
                                   const std::vector<uint8_t>& packet) {
    std::vector<Frame> frames;
    size_t sent = 0;
    do {
        Frame f{};
        std::copy(header, header + 4, f.begin());
        PutLe16(&f[4], static_cast<uint16_t>(echo));
        PutLe16(&f[6], frames.empty() ? static_cast<uint16_t>(samResult)
                                      : static_cast<uint16_t>(frames.size()));
        const size_t n = std::min(kSamChunk, packet.size() - sent);
        std::copy(packet.begin() + static_cast<long>(sent),
                  packet.begin() + static_cast<long>(sent + n), f.begin() + 8);
        sent += n;
        frames.push_back(f);
    } while (sent < packet.size());
    return frames;
}

}  // namespace tarvik::sim
