// The record of one control transfer, as it went over the (simulated) wire.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control_transfer.h"

namespace tarvik::sim {

struct Transfer {
    SetupPacket setup;         // bmRequestType, bRequest, wValue, wIndex, wLength
    std::vector<uint8_t> out;  // data the host sent (OUT transfers; wLength bytes)
    std::vector<uint8_t> in;   // data the host received (IN transfers; what was moved)
    TransferStatus status = TransferStatus::kCompleted;
    size_t actualLength = 0;  // bytes moved, as the host saw it (0 unless completed)

    uint8_t selector() const { return setup.selector(); }
    bool isIn() const { return setup.isIn(); }
};

// One line per transfer, for test failure messages: "GET_CUR sel 14 len 60 -> 60 [00 10 ..]".
std::string Describe(const Transfer& t);

}  // namespace tarvik::sim
