// The SAM's answer packet: its first frame, joining, checks and delivery.
// Every read from a packet goes through byte_at, so an answer of any shape
// stays inside the buffers.
#include "sam_packet.h"

#include <string.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "IDCardData.h"
#include "libTarvik.h"
#include "tarvik_items.h"

namespace tarvik::sam {
namespace {

constexpr unsigned kPacketStart = 8;  // frame byte where packet bytes begin
constexpr unsigned kRequestCmdOffset = 8;
constexpr unsigned kRequestFlagOffset = 12;
constexpr unsigned kNumberOffset = 5;

struct CardLayout {
    unsigned cmd;
    unsigned text;
    unsigned photo;
    unsigned third;  // 0: none
};

// Where the blocks sit; the length fields before them are not read.
constexpr CardLayout kCardLayouts[] = {
    {EXT_SAM_CMD_READ_CARD, 9, 265, 0},
    {EXT_SAM_CMD_READ_CARD_THIRD, 11, 267, 1291},
};

std::uint8_t byte_at(const std::vector<std::uint8_t>& packet, std::size_t i) {
    return i < packet.size() ? packet[i] : 0;  // the receive buffer was zero-filled
}

void copy_block(const std::vector<std::uint8_t>& packet, std::size_t from, std::uint8_t* to,
                std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) to[i] = byte_at(packet, from + i);
}

std::uint16_t le16(const frame::Frame& f, unsigned at) {
    return static_cast<std::uint16_t>(f[at] | (f[at + 1] << 8));
}

std::uint16_t packet_data_len(const std::vector<std::uint8_t>& packet) {
    return static_cast<std::uint16_t>((byte_at(packet, 0) << 8) | byte_at(packet, 1));
}

template <std::size_t N>
void copy_wide(const std::wstring& from, wchar_t (&to)[N]) {
    const std::size_t n = std::min(from.size(), N - 1);
    std::copy_n(from.begin(), n, to);
    to[n] = L'\0';
}

// --- response codes ---

struct CodeRow {
    std::uint8_t sw3;
    int code;
    const char* text;
};

// These sw3 values decide the code whatever sw1 and sw2 hold.
constexpr CodeRow kCodesBySw3Alone[] = {
    {0x31, 7, "the SAM answered status 0x31"},  {0x32, 8, "the SAM answered status 0x32"},
    {0x40, 12, "the SAM answered status 0x40"}, {0x41, 13, "the SAM answered status 0x41"},
    {0x47, 14, "the SAM answered status 0x47"}, {0x81, 18, "the SAM answered status 0x81"},
};

// The others count only with sw1 and sw2 both zero.
constexpr CodeRow kCodesWithCleanSw12[] = {
    {0x90, 0, "success"},
    {0x9F, 1, "success (status 0x9F)"},
    {0x10, 2,
     "the data can't be trusted (status 0x10, a checksum that does not match, or an answer "
     "that breaks the packet's rules)"},
    {0x11, 3, "the SAM answered status 0x11"},
    {0x21, 4, "the SAM answered status 0x21"},
    {0x23, 5, "the SAM answered status 0x23"},
    {0x24, 6, "the SAM answered status 0x24"},
    {0x33, 9, "the SAM answered status 0x33"},
    {0x60, 15, "the SAM answered status 0x60"},
    {0x66, 16, "the SAM answered status 0x66"},
    {0x80, 17, "no card on the reader (status 0x80)"},
    {0x91, 19, "the SAM answered status 0x91"},
};

// Codes the library sets itself, with no status bytes behind them.
constexpr CodeRow kCodesOfTheLibrary[] = {
    {0, -1, "an unknown SAM status, or the camera reported a failure"},
    {0, -2, "an answer frame of the SAM packet was lost"},
    {0, -3, "the camera reported the SAM busy and sent no packet"},
};

constexpr int kUnknownResponse = -1;

// A packet is card data: wiped before its buffer goes. A vector that never
// held anything has no buffer (data() may be null).
void wipe(std::vector<std::uint8_t>& v) {
    if (v.capacity() > 0) explicit_bzero(v.data(), v.capacity());
}

template <std::size_t N>
const CodeRow* find_code(const CodeRow (&table)[N], std::uint8_t sw3) {
    for (const CodeRow& row : table) {
        if (row.sw3 == sw3) return &row;
    }
    return nullptr;
}

template <std::size_t N>
const CodeRow* find_by_code(const CodeRow (&table)[N], int code) {
    for (const CodeRow& row : table) {
        if (row.code == code) return &row;
    }
    return nullptr;
}

}  // namespace

FirstAnswer decode_first_answer(const frame::Frame& f) {
    FirstAnswer a;
    a.cmd = static_cast<std::int16_t>(le16(f, 4));
    a.samResult = static_cast<std::int16_t>(le16(f, 6));
    a.dataLen = static_cast<std::uint16_t>((f[8] << 8) | f[9]);  // big-endian
    a.sw1 = f[10];
    a.sw2 = f[11];
    a.sw3 = f[12];
    return a;
}

void put_request(frame::Frame& f, std::uint16_t wireCmd) {
    f[kRequestCmdOffset] = static_cast<std::uint8_t>(wireCmd);
    f[kRequestCmdOffset + 1] = static_cast<std::uint8_t>(wireCmd >> 8);
    f[kRequestFlagOffset] = 1;
}

Handling handling_of(unsigned cmd) {
    if (cmd <= EXT_SAM_CMD_READ_CARD_THIRD) return Handling::Packet;
    if (cmd == EXT_SAM_CMD_6 || cmd == EXT_SAM_CMD_7) return Handling::ResultOnly;
    return Handling::Invalid;
}

unsigned receive_buffer_size(unsigned cmd) {
    if (cmd == EXT_SAM_CMD_READ_CARD || cmd == EXT_SAM_CMD_READ_CARD_THIRD) return kCardBufferSize;
    if (cmd <= EXT_SAM_CMD_READ_NUMBER) return kShortBufferSize;
    return 0;
}

PacketAssembler::~PacketAssembler() { wipe(packet_); }

bool PacketAssembler::start(const frame::Frame& first, unsigned bufferSize) {
    wipe(packet_);
    packet_.clear();
    total_ = 0;
    const unsigned total = decode_first_answer(first).dataLen + 2u;
    if (total >= bufferSize) return false;
    total_ = total;
    packet_.reserve(total_);
    append(first);
    return true;
}

void PacketAssembler::append(const frame::Frame& continuation) {
    const unsigned n = std::min(missing(), kPacketBytesPerFrame);
    packet_.insert(packet_.end(), continuation.begin() + kPacketStart,
                   continuation.begin() + kPacketStart + n);
}

Checksum verify_checksum(const std::vector<std::uint8_t>& packet) {
    const std::size_t dataLen = packet_data_len(packet);
    std::uint8_t x = 0;
    for (std::size_t i = 0; i <= dataLen; ++i) x ^= byte_at(packet, i);
    return {x, byte_at(packet, dataLen + 1)};
}

bool number_length_ok(std::uint16_t dataLen) {
    const int numberLength = static_cast<int>(dataLen) - 4;
    return numberLength <= static_cast<int>(kNumberSize);
}

void deliver_number(const std::vector<std::uint8_t>& packet, _SAM_OUT_PARAM* out) {
    copy_block(packet, kNumberOffset, out->number, kNumberSize);
}

void copy_card_blocks(unsigned cmd, const std::vector<std::uint8_t>& packet,
                      std::uint8_t (&text)[kTextBlockSize], _SAM_OUT_PARAM* out) {
    std::fill(std::begin(text), std::end(text), 0);
    for (const CardLayout& l : kCardLayouts) {
        if (l.cmd != cmd) continue;
        copy_block(packet, l.text, text, kTextBlockSize);
        copy_block(packet, l.photo, out->photo, kPhotoBlockSize);
        if (l.third != 0) copy_block(packet, l.third, out->fingerprint, kThirdBlockSize);
    }
}

void copy_card_fields(const IDCardData& card, _SAM_OUT_PARAM* out) {
    copy_wide(card.name, out->name);
    copy_wide(card.sex, out->sex);
    copy_wide(card.nation, out->nation);
    copy_wide(card.birth, out->birth);
    copy_wide(card.address, out->address);
    copy_wide(card.id_number, out->id_number);
    copy_wide(card.authority, out->authority);
    copy_wide(card.valid_from, out->valid_from);
    copy_wide(card.valid_to, out->valid_to);
    copy_wide(card.reserved, out->reserved);
}

}  // namespace tarvik::sam

const char* tarvik::sam::code_text(int code) {
    using namespace tarvik::sam;
    if (const CodeRow* row = find_by_code(kCodesWithCleanSw12, code)) return row->text;
    if (const CodeRow* row = find_by_code(kCodesBySw3Alone, code)) return row->text;
    if (const CodeRow* row = find_by_code(kCodesOfTheLibrary, code)) return row->text;
    return nullptr;
}

int GetSAMResponseCode(unsigned char sw1, unsigned char sw2, unsigned char sw3) {
    using namespace tarvik::sam;
    if (const CodeRow* row = find_code(kCodesBySw3Alone, sw3)) return row->code;
    if (sw1 != 0 || sw2 != 0) return kUnknownResponse;
    if (const CodeRow* row = find_code(kCodesWithCleanSw12, sw3)) return row->code;
    return kUnknownResponse;
}
