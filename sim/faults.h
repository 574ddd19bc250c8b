// Faults a test can inject into a simulated camera. Each is aimed at matching transfers and
// lasts for the next `count` of them; after that the camera is healthy again.
#pragma once

#include <chrono>
#include <cstdint>

namespace tarvik::sim {

enum class FaultKind {
    kStall,        // the transfer stalls: LIBUSB_ERROR_PIPE
    kGone,         // the device is gone for this transfer: LIBUSB_ERROR_NO_DEVICE
    kGoneForGood,  // the device is gone from now on: every later request fails with ENODEV
    kShort,        // `shortBy` bytes fewer are moved than asked (a short SET_CUR is not acted on)
    kDelay,        // completion is held back by `delay`; with a shorter host timeout
                   // libusb reports LIBUSB_ERROR_TIMEOUT (the camera still acts on the request)
    kGarbage,      // an IN transfer answers pseudo-random bytes of the full length
};

enum class Direction { kAny, kIn, kOut };

inline constexpr int kAnySelector = -1;
inline constexpr int kAnyRequest = -1;
inline constexpr int kAnyItem = -1;

struct Fault {
    FaultKind kind = FaultKind::kStall;
    int selector = 14;  // kAnySelector for every selector
    Direction direction = Direction::kAny;
    int request = kAnyRequest;               // bRequest (e.g. kGetCur) or kAnyRequest
    int count = 1;                           // matching transfers hit
    int skip = 0;                            // matching transfers let through before the first hit
    int shortBy = 0;                         // for kShort
    std::chrono::milliseconds delay{60000};  // for kDelay
    // Only the transaction channel's read request of this extension item (its SET_CUR) and the
    // GET_CURs that fetch its answer; kAnyItem for every transfer.
    int item = kAnyItem;
};

// Faults of the SAM's answer, applied to the next `count` SAM read requests.
enum class SamFault {
    kWrongEcho,      // the echoed command (answer bytes 4-5) differs from the request's
    kBadChecksum,    // the packet's last byte is not the XOR of the others
    kOversize,       // the packet's length field says 5000 bytes (longer than 4096)
    kGoneMidPacket,  // the first continuation frame's GET_CUR fails with ENODEV
};

}  // namespace tarvik::sim
