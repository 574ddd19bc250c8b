// The operations the device benchmarks measure, each with what the camera
// needs for it at the least: the control transfers that a bare libusb program
// issues for the same exchange (the floor).
#pragma once

#include <libusb.h>

#include <array>
#include <cstdint>
#include <functional>
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
    std::uint8_t samCommand = 0;       // card reads: 3, or 4 with the third block
};

// Every read and write operation that reaches the camera, then the card reads
// of commands 3 and 4 (ReadByExtItem with EXT_ITEM_SAM, as applications call it).
const std::vector<Operation>& Operations();

using Frame = std::array<std::uint8_t, 60>;

// One request of the floor on the transaction channel: SET_CUR (`in` false)
// or GET_CUR of a whole frame; the bytes moved, or a negative libusb code.
using FloorRequest = std::function<int(bool in, Frame& frame)>;

// The floor's requests through libusb_control_transfer, and through
// UVCIOC_CTRL_QUERY on an open capture node.
FloorRequest UsbFloor(libusb_device_handle* handle);
FloorRequest KernelFloor(int fd);

// The request frame of SAM command `command` (a read of the SAM item), as the
// library sends it.
Frame SamRequest(std::uint8_t command);

// The least number of control transfers the exchange takes: a read 2, a write
// 1, a SAM packet of `samPacketLength` (T) bytes 2 + ceil((T - 52) / 52).
unsigned MinimumTransfers(Kind kind, unsigned samPacketLength = 0);

// The SAM packet length T = dataLen + 2 announced by a first answer frame.
unsigned SamPacketLength(const std::uint8_t* firstAnswer);

// The floor: the same exchange with nothing but the bare requests, the frames
// built by hand. Returns the number of requests made, or a negative libusb code.
int FloorExchange(const FloorRequest& request, const Operation& op);

// The floor's camera on the USB path, opened by bus and address, its driver
// detached and its interface claimed; null when it cannot be opened.
libusb_device_handle* OpenFloorCamera(libusb_context* ctx, int bus, int address);

}  // namespace tarvik::bench
