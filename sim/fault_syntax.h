// The fault a user names on tarvik-sim's command line (--fault), in a control command (`fault
// SPEC`) or through the fixture: KIND[:ITEM], for the rest of the run.
//   stall     selector 14's GET_CUR and SET_CUR stall (EPIPE, LIBUSB_ERROR_PIPE)
//   timeout   they are never answered (the caller's timeout, or the driver's)
//   garbage   selector 14's GET_CUR answers pseudo-random bytes
// With ITEM (an extension item, 1-18), only the read transactions of that item: its read
// request and the GET_CURs that fetch its answer. The driver's own GET_LEN and GET_INFO are
// spared, so that the video door shows the fault itself.
#pragma once

#include <string>
#include <vector>

#include "faults.h"

namespace tarvik::sim {

// The faults to inject into a camera's model for `spec`. Throws std::invalid_argument whose
// message starts "bad <what>" and says what is accepted.
std::vector<Fault> ParseFaultSpec(const std::string& spec, const std::string& what);

}  // namespace tarvik::sim
