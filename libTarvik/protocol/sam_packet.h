// The SAM's answer: the first answer frame, the packet joined from answer
// frames, its checks, and what each command delivers. Pure functions.
#ifndef TARVIK_SAM_PACKET_H
#define TARVIK_SAM_PACKET_H

#include <cstdint>
#include <vector>

#include "frame_codec.h"
#include "libTarvik.h"

class IDCardData;

namespace tarvik::sam {

constexpr unsigned kPacketBytesPerFrame = 52;  // frame bytes 8-59
constexpr unsigned kCardBufferSize = 4096;     // commands 3 and 4
constexpr unsigned kShortBufferSize = 64;      // commands 0 to 2
constexpr unsigned kTextBlockSize = 256;
constexpr unsigned kPhotoBlockSize = 1024;
constexpr unsigned kThirdBlockSize = 1024;
constexpr unsigned kNumberSize = 16;

// The device-answer structure at bytes 4-59 of the first answer frame.
struct FirstAnswer {
    std::int16_t cmd;        // echo of the command
    std::int16_t samResult;  // 0: a SAM packet follows
    std::uint16_t dataLen;   // big-endian on the wire
    std::uint8_t sw1, sw2, sw3;
};
FirstAnswer decode_first_answer(const frame::Frame& f);

// Read request for item 12 with the wire command: itemType 12, the command at
// bytes 8-9, 1 at byte 12 (after frame::build_read_request).
void put_request(frame::Frame& f, std::uint16_t wireCmd);

// How the library handles a command's answer.
enum class Handling { Invalid, ResultOnly, Packet };
Handling handling_of(unsigned cmd);

// Receive buffer for a packet command: 4096 for 3 and 4, 64 for 0 to 2.
unsigned receive_buffer_size(unsigned cmd);

// Joins the packet of T = dataLen + 2 bytes: min(T, 52) bytes from the first
// answer frame's byte 8, then 52 bytes (or what is missing) from byte 8 of each
// continuation frame.
class PacketAssembler {
public:
    PacketAssembler() = default;
    // The packet is card data: wiped before its buffer goes.
    ~PacketAssembler();
    PacketAssembler(const PacketAssembler&) = delete;
    PacketAssembler& operator=(const PacketAssembler&) = delete;

    // Returns false, keeping nothing, when T is not below `bufferSize`.
    bool start(const frame::Frame& first, unsigned bufferSize);
    void append(const frame::Frame& continuation);
    unsigned missing() const { return total_ - static_cast<unsigned>(packet_.size()); }
    bool complete() const { return missing() == 0; }
    const std::vector<std::uint8_t>& packet() const { return packet_; }

private:
    std::vector<std::uint8_t> packet_;
    unsigned total_ = 0;
};

// XOR of packet bytes 0 to dataLen against the byte after them. The packet
// must hold dataLen + 2 bytes.
struct Checksum {
    std::uint8_t computed;
    std::uint8_t received;
    bool ok() const { return computed == received; }
};
Checksum verify_checksum(const std::vector<std::uint8_t>& packet);

// Command 2: the number's length, dataLen - 4 as a signed value, must be at most 16.
bool number_length_ok(std::uint16_t dataLen);

// Command 2: packet bytes 5-20 into `number` (16 bytes whatever the length; the
// packet buffer is the zero-filled 64-byte receive buffer).
void deliver_number(const std::vector<std::uint8_t>& packet, _SAM_OUT_PARAM* out);

// Commands 3 and 4: the text block into `text` (256 bytes), the photo block
// into `photo` and, for 4, the third block into `fingerprint`. Bytes beyond
// the packet read as zero (the receive buffer was zero-filled).
void copy_card_blocks(unsigned cmd, const std::vector<std::uint8_t>& packet,
                      std::uint8_t (&text)[kTextBlockSize], _SAM_OUT_PARAM* out);

// The ten parsed fields, each with its terminating zero, into the record's
// wide arrays; a value longer than its field is cut to fit.
void copy_card_fields(const IDCardData& card, _SAM_OUT_PARAM* out);

// What a SAM code (the record's `result`) means, from the status table and
// the codes the library sets itself; null for a code that means nothing.
const char* code_text(int code);

}  // namespace tarvik::sam

#endif
