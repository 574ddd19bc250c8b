// The operations the device benchmarks measure, each with what the camera
// needs for it at the least: the control transfers that a bare libusb program
// issues for the same exchange (the floor).
#pragma once

#include <libusb.h>

#include <cstdint>
#include <string>
#include <vector>

#include "TarvikImpl.h"

namespace tarvik::bench {

enum class Kind { kRead, kWrite, kCardRead };

struct Operation {
    const char* name;
    Kind kind;
    std::uint32_t item;                // the extension item on the wire
    HRESULT (*run)(TarvikImpl& impl);  // the library's call, as an application makes it
};

// Every read and write operation that reaches the camera, then the
// command-3 card read (ReadByExtItem with EXT_ITEM_SAM, as applications call it).
const std::vector<Operation>& Operations();

// The least number of control transfers the exchange takes: a read 2, a write
// 1, a SAM packet of `samPacketLength` (T) bytes 2 + ceil((T - 52) / 52).
unsigned MinimumTransfers(Kind kind, unsigned samPacketLength = 0);

// The SAM packet length T = dataLen + 2 announced by a first answer frame.
unsigned SamPacketLength(const std::uint8_t* firstAnswer);

// The floor: the same exchange with nothing but libusb_control_transfer, the
// frames built by hand. Returns the number of transfers made, or a negative
// libusb error code.
int FloorExchange(libusb_device_handle* handle, const Operation& op);

}  // namespace tarvik::bench
