// A control transfer as the camera sees it, and the camera's reply.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace tarvik::sim {

inline constexpr uint8_t kRequestTypeIn = 0xA1;   // device to host, class, interface
inline constexpr uint8_t kRequestTypeOut = 0x21;  // host to device, class, interface
inline constexpr uint8_t kSetCur = 0x01;
inline constexpr uint8_t kGetCur = 0x81;
inline constexpr uint8_t kGetLen = 0x85;
inline constexpr uint8_t kGetInfo = 0x86;
inline constexpr uint8_t kGetMin = 0x82;  // the range requests every UVC control answers
inline constexpr uint8_t kGetMax = 0x83;
inline constexpr uint8_t kGetRes = 0x84;
inline constexpr uint8_t kGetDef = 0x87;

struct SetupPacket {
    uint8_t bmRequestType = 0;
    uint8_t bRequest = 0;
    uint16_t wValue = 0;
    uint16_t wIndex = 0;
    uint16_t wLength = 0;

    bool isIn() const { return (bmRequestType & 0x80) != 0; }
    uint8_t selector() const { return static_cast<uint8_t>(wValue >> 8); }
};

// How a transfer ends as the host sees it.
enum class TransferStatus {
    kCompleted,  // moved `actualLength` bytes (less than wLength for a short transfer)
    kStalled,    // the URB ends with -EPIPE: LIBUSB_ERROR_PIPE
    kNoDevice,   // the submit fails with ENODEV: LIBUSB_ERROR_NO_DEVICE
    kDiscarded,  // never completed; the host gave up (a timeout) and discarded it
};

const char* ToString(TransferStatus status);

struct Reply {
    TransferStatus status = TransferStatus::kCompleted;
    std::vector<uint8_t> data;  // IN: the bytes returned (its size is the count moved)
    size_t actualLength = 0;    // bytes moved (IN: data.size())
    bool goneForGood = false;   // with kNoDevice: every later request fails the same way
    // Completion is held back this long; a host whose timeout is shorter discards the transfer.
    std::chrono::milliseconds delay{0};
};

}  // namespace tarvik::sim
