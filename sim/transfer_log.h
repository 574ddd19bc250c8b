// The record of one control transfer, as it went over the (simulated) wire.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control_transfer.h"

namespace tarvik::sim {

// The way a request reached the camera: a program's own control transfer on
// /dev/bus/usb/BBB/DDD, or the kernel's UVC driver acting for a UVCIOC_CTRL_QUERY on the
// capture node.
enum class Door { kUsbfs, kVideo };

struct Transfer {
    SetupPacket setup;         // bmRequestType, bRequest, wValue, wIndex, wLength
    std::vector<uint8_t> out;  // data the host sent (OUT transfers; wLength bytes)
    std::vector<uint8_t> in;   // data the host received (IN transfers; what was moved)
    TransferStatus status = TransferStatus::kCompleted;
    size_t actualLength = 0;  // bytes moved, as the host saw it (0 unless completed)
    Door door = Door::kUsbfs;
    // The driver's own GET_LEN / GET_INFO on a control's first use, which no program asked for.
    bool byDriver = false;

    uint8_t selector() const { return setup.selector(); }
    bool isIn() const { return setup.isIn(); }
};

// One line per transfer, for test failure messages:
// "GET_CUR (a1 81 0e00 0500 60) sel 14 -> completed 60 [00 10 ..]", with " video" or
// " video driver" after the selector for the video door.
std::string Describe(const Transfer& t);

}  // namespace tarvik::sim
