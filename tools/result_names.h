// Result codes of tarvik.h by name, and the SAM's own codes in words.
#pragma once

#include <string>

namespace tarvikctl {

constexpr int kResultOther = -99;  // LIBUSB_ERROR_OTHER: a failure of the tool's own

// The code's symbolic name: "LIBUSB_ERROR_ACCESS", "TARVIK_E_SAM", "SUCCESS";
// "UNKNOWN" for a code tarvik.h does not define.
const char* ResultName(int result);

// "result -7: the camera did not answer in time (LIBUSB_ERROR_TIMEOUT)".
std::string DescribeResult(int result);

// The SAM's verdict: 0 and 1 are success.
bool SamSucceeded(int code);
// "17 (the SAM answered status 0x80)".
std::string DescribeSamCode(int code);

}  // namespace tarvikctl
