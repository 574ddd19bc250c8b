// What the library's result codes and the SAM's verdicts mean, in words.
#pragma once

#include <string>

namespace tarvikctl {

// Which family of operations a result came from: a few values mean one thing
// from a transfer (libusb codes) and another from the product-type and
// exposure members.
enum class ResultOrigin {
    kTransfer,     // reads, writes, items, SAM transactions
    kProductType,  // zq_ReadProductType
    kExposure,     // the five exposure operations
};

// "11 (camera not open)", "-7 (LIBUSB_ERROR_TIMEOUT: Operation timed out)".
std::string DescribeResult(int hr, ResultOrigin origin = ResultOrigin::kTransfer);

// The SAM's verdict (the `result` field of a SAM answer).
bool SamSucceeded(int result);
// "17 (the SAM answered status 0x80)".
std::string DescribeSamResult(int result);

}  // namespace tarvikctl
