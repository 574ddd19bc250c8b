// Writes the seed corpora: real-looking device scripts for every SAM command
// and every item, card text blocks and text samples. Usage:
//   make_seeds DIR    (creates DIR/<target>/ with one file per seed)
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "device_script.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using tarvik::fuzz::kGone;
using tarvik::fuzz::kOk;
using tarvik::fuzz::kStall;

std::string g_root;

void Write(const std::string& target, const std::string& name, const Bytes& bytes) {
    const std::string dir = g_root + "/" + target;
    mkdir(dir.c_str(), 0755);
    const std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::fclose(f);
}

void Append(Bytes& to, const Bytes& from) { to.insert(to.end(), from.begin(), from.end()); }

// UTF-8 text (BMP only) to UCS-2 little-endian, blank-padded to `units`.
Bytes Ucs2Field(const std::string& utf8, std::size_t units) {
    Bytes out;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto b = static_cast<unsigned char>(utf8[i]);
        unsigned u;
        if (b < 0x80) {
            u = b;
            i += 1;
        } else if (b < 0xE0) {
            u = (b & 0x1F) << 6 | (utf8[i + 1] & 0x3F);
            i += 2;
        } else {
            u = (b & 0x0F) << 12 | (utf8[i + 1] & 0x3F) << 6 | (utf8[i + 2] & 0x3F);
            i += 3;
        }
        out.push_back(static_cast<std::uint8_t>(u));
        out.push_back(static_cast<std::uint8_t>(u >> 8));
    }
    while (out.size() < units * 2) {
        out.push_back(0x20);
        out.push_back(0);
    }
    out.resize(units * 2);
    return out;
}

Bytes CardText(const char* name, const char* sex, const char* nation) {
    Bytes t;
    Append(t, Ucs2Field(name, 15));
    Append(t, Ucs2Field(sex, 1));
    Append(t, Ucs2Field(nation, 2));
    Append(t, Ucs2Field("19851212", 8));
    Append(t, Ucs2Field("样例市演示区示范街8号", 35));
    Append(t, Ucs2Field("000000198512120000", 18));
    Append(t, Ucs2Field("样例市发证机关", 15));
    Append(t, Ucs2Field("20150101", 8));
    Append(t, Ucs2Field("20350101", 8));
    Append(t, Ucs2Field("", 18));
    return t;
}

Bytes Counting(std::size_t n, std::uint8_t from, std::uint8_t step) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(from + step * i);
    return b;
}

// A SAM packet: big-endian dataLen, three status bytes, data, XOR checksum.
Bytes Packet(const Bytes& data, std::uint8_t sw3 = 0x90, std::uint8_t sw1 = 0,
             std::uint8_t sw2 = 0) {
    const std::size_t dataLen = data.size() + 4;
    Bytes p = {static_cast<std::uint8_t>(dataLen >> 8), static_cast<std::uint8_t>(dataLen), sw1,
               sw2, sw3};
    Append(p, data);
    std::uint8_t x = 0;
    for (std::uint8_t b : p) x ^= b;
    p.push_back(x);
    return p;
}

Bytes Frame(std::uint8_t item, const Bytes& body, std::size_t at) {
    Bytes f(60, 0);
    f[1] = 0x10;
    f[4] = item;
    for (std::size_t i = 0; i < body.size() && at + i < 60; ++i) f[at + i] = body[i];
    return f;
}

// Script of one SAM exchange: marker, request, first answer, continuations.
// `lostAt` > 0 makes that continuation frame fail with a vanished device.
Bytes SamScript(std::uint8_t cmd, std::int16_t samResult, const Bytes& packet,
                std::size_t lostAt = 0) {
    Bytes s = {cmd, kOk, kOk};
    Bytes first(60, 0);
    first[1] = 0x10;
    first[4] = cmd;
    first[6] = static_cast<std::uint8_t>(samResult);
    first[7] = static_cast<std::uint8_t>(samResult >> 8);
    std::size_t sent = 0;
    for (; sent < packet.size() && sent < 52; ++sent) first[8 + sent] = packet[sent];
    s.push_back(kOk);
    Append(s, first);
    for (std::size_t frame = 1; sent < packet.size(); ++frame) {
        if (frame == lostAt) {
            s.push_back(kGone);
            return s;
        }
        Bytes f(60, 0);
        f[1] = 0x10;
        for (std::size_t i = 0; i < 52 && sent < packet.size(); ++i) f[8 + i] = packet[sent++];
        s.push_back(kOk);
        Append(s, f);
    }
    return s;
}

void SamSeeds() {
    const Bytes text = CardText("李四", "2", "01");
    Bytes card3 = {0x01, 0x00, 0x04, 0x00};  // text and photo lengths (not read)
    Append(card3, text);
    Append(card3, Counting(1024, 0x10, 3));
    Bytes card4 = {0x01, 0x00, 0x04, 0x00, 0x04, 0x00};
    Append(card4, text);
    Append(card4, Counting(1024, 0x10, 3));
    Append(card4, Counting(1024, 0xF0, 0xFD));

    Write("fuzz_sam_channel", "cmd0", SamScript(0, 0, Packet({0, 0, 0, 0}, 0x9F)));
    Write("fuzz_sam_channel", "cmd1", SamScript(1, 0, Packet(Counting(8, 0x31, 1))));
    Write("fuzz_sam_channel", "cmd2", SamScript(2, 0, Packet(Counting(16, 0x41, 1))));
    Write("fuzz_sam_channel", "cmd2-long-number", SamScript(2, 0, Packet(Counting(17, 0x41, 1))));
    Write("fuzz_sam_channel", "cmd3", SamScript(3, 0, Packet(card3)));
    Write("fuzz_sam_channel", "cmd4", SamScript(4, 0, Packet(card4)));
    Write("fuzz_sam_channel", "cmd3-status", SamScript(3, 0, Packet(card3, 0x41, 0x6A, 0x82)));
    Write("fuzz_sam_channel", "cmd3-busy", SamScript(3, 1, {}));
    Write("fuzz_sam_channel", "cmd4-lost-frame", SamScript(4, 0, Packet(card4), 3));
    Bytes bad = Packet(card3);
    bad.back() ^= 0x5A;
    Write("fuzz_sam_channel", "cmd3-checksum", SamScript(3, 0, bad));
    Write("fuzz_sam_channel", "cmd6", SamScript(6, 0, {}));
    Write("fuzz_sam_channel", "cmd7", SamScript(7, 3, {}));
    Write("fuzz_sam_channel", "cmd5", {5, kOk});
    // A command byte outside the enumeration once reached a cast to it.
    Write("fuzz_sam_channel", "cmd127", {127, kOk});
}

// Item seeds: [op][arg][64 record bytes][script]. The op numbers follow the
// tables of fuzz_item_answers.cpp: 10 reads, 6 writes, then ReadVCM, raw read,
// raw write, _GetValue/_SetValue and the fixed members.
void ItemSeeds() {
    struct Answer {
        std::uint8_t item;
        Bytes body;
        std::size_t at;
    };
    const Answer answers[] = {
        {5, Bytes{'F', 'W', ' ', '2', '.', '1', '.', '0'}, 4},
        {2, Bytes{10, 0, 0, 0, 20, 0, 0, 0, 30, 0, 0, 0, 4, 3, 2, 1}, 4},
        {7, Bytes{1, 0, 0xA5, 0xA5}, 4},
        {6, Bytes{100, 0, 0, 0, 200, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0}, 4},
        {9, Bytes{'I', 'D', '-', '4', '2'}, 4},
        {8, Bytes{'S', 'N', '-', '7', '7'}, 4},
        {16, Bytes{0x10, 0x00, 0xF0, 0x00, 0x3F, 0x00, 1, 2, 3, 4, 5, 6, 7, 8}, 4},
        {13, Bytes{0x10, 0x02, 0x34, 0x12}, 4},
        {13, Bytes{0x10, 0x02, 0x00, 0x00}, 4},
        {14, Bytes{0x21, 0x43}, 4},
    };
    const Bytes record = Counting(64, 1, 7);
    auto seed = [&](std::uint8_t op, std::uint8_t arg, const Bytes& script) {
        Bytes s = {op, arg};
        Append(s, record);
        Append(s, script);
        return s;
    };
    for (std::uint8_t op = 0; op < 10; ++op) {
        const Answer& a = answers[op];
        Bytes ok = {kOk, kOk, kOk};
        Append(ok, Frame(a.item, a.body, a.at));
        Write("fuzz_item_answers", "read" + std::to_string(op), seed(op, 0, ok));
        Bytes retried = {kOk, kOk, kStall, kOk, kOk};
        Append(retried, Frame(a.item, a.body, a.at));
        Write("fuzz_item_answers", "read" + std::to_string(op) + "-retried", seed(op, 0, retried));
    }
    for (std::uint8_t op = 10; op < 16; ++op) {
        Write("fuzz_item_answers", "write" + std::to_string(op), seed(op, 0, {kOk, kOk}));
        Write("fuzz_item_answers", "write" + std::to_string(op) + "-failing",
              seed(op, 0, {kOk, kStall, kGone, 0xC4}));
    }
    Bytes vcm = {kOk, kOk, kOk};
    Append(vcm, Frame(18, Bytes{3, 0x5A, 0x03, 0x02}, 4));
    Write("fuzz_item_answers", "readvcm", seed(16, 3, vcm));
    for (std::uint8_t item = 0; item <= 19; ++item) {
        Bytes raw = {kOk, kOk, kOk};
        Append(raw, Frame(item, Counting(52, item, 1), 8));
        Write("fuzz_item_answers", "rawread" + std::to_string(item), seed(17, item, raw));
        Write("fuzz_item_answers", "rawwrite" + std::to_string(item), seed(18, item, {kOk, kOk}));
    }
    for (std::uint8_t selector : {1, 2, 3, 4, 14}) {
        // GET_LEN answers 4 (or 2: too short), then the value.
        Bytes script = {kOk,  selector == 3 ? std::uint8_t{2} : std::uint8_t{4},
                        0,    kOk,
                        0x78, 0x56,
                        0x34, 0x12,
                        kOk,  4,
                        0,    kOk};
        Write("fuzz_item_answers", "value" + std::to_string(selector), seed(19, selector, script));
    }
    Write("fuzz_item_answers", "fixed", seed(20, 0, {}));
}

void CardSeeds() {
    Write("fuzz_idcard_parse", "card", CardText("李四", "2", "01"));
    Bytes two = CardText("王五", "1", "98");
    Append(two, CardText(" 赵六 ", "9", " 1"));
    Write("fuzz_idcard_parse", "two-cards", two);
    Bytes swapped = CardText("李四", "2", "01");
    for (std::size_t i = 0; i + 1 < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    swapped[0] = 0xFF;
    swapped[1] = 0xFE;
    Write("fuzz_idcard_parse", "big-endian-name", swapped);
    Write("fuzz_idcard_parse", "blanks", Ucs2Field("", 128));
}

void TextSeeds() {
    const std::string samples[] = {
        "  ab c  ",
        "A\xC3\xA9\xE4\xB8\xAD",                     // A é 中
        "\xF0\x9F\x98\x80 \xE3\x80\x80",             // a four-byte sequence, U+3000
        "\xFF\xFE\x41\x00\xE9\x00\x2D\x4E\x00\x00",  // UCS-2 with a byte-order mark
        "\xE4\xB8",                                  // cut short
    };
    int n = 0;
    for (const std::string& s : samples) {
        Bytes b(s.begin(), s.end());
        // Trailing parameter bytes (read from the end): value, pack size,
        // destination size, source cut.
        Append(b, Bytes{0x78, 0x56, 0x34, 0x12, 3, 0, 9, 0, 0, 1});
        Write("fuzz_text_convert", "text" + std::to_string(n++), b);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    mkdir(g_root.c_str(), 0755);
    SamSeeds();
    ItemSeeds();
    CardSeeds();
    TextSeeds();
    return 0;
}
