#include "result_codes.h"

#include <libusb.h>

#include <string>

namespace tarvikctl {

namespace {

struct CodeText {
    int code;
    const char* text;
};

// Results of the library itself, whatever the operation.
constexpr CodeText kLibraryCodes[] = {
    {0, "success"},
    {1, "a required record is missing or the SAM command is invalid"},
    {6, "no device handle for the transfer"},
    {7, "the transaction does not handle this item in this direction"},
    {11, "camera not open"},
    {13, "the gyroscope answered an all-zero sample"},
};

constexpr CodeText kExposureCodes[] = {
    {-2, "not provided by this camera's library"},
    {-101, "an eye is not in manual exposure mode"},
    {-102, "an exposure time is outside its eye's range"},
    {-103, "the two eyes' modes differ"},
};

// The SAM's status byte 3 behind each response code (status bytes 1 and 2 zero,
// or any for 7, 8, 12, 13, 14 and 18).
constexpr CodeText kSamStatus[] = {
    {3, "0x11"},  {4, "0x21"},  {5, "0x23"},  {6, "0x24"},  {7, "0x31"},
    {8, "0x32"},  {9, "0x33"},  {12, "0x40"}, {13, "0x41"}, {14, "0x47"},
    {15, "0x60"}, {16, "0x66"}, {17, "0x80"}, {18, "0x81"}, {19, "0x91"},
};

template <size_t N>
const char* Find(const CodeText (&table)[N], int code) {
    for (const CodeText& row : table) {
        if (row.code == code) return row.text;
    }
    return nullptr;
}

bool IsLibusbCode(int hr) { return (hr <= -1 && hr >= -12) || hr == LIBUSB_ERROR_OTHER; }

std::string Meaning(int hr, ResultOrigin origin) {
    if (origin == ResultOrigin::kExposure) {
        if (const char* text = Find(kExposureCodes, hr)) return text;
    }
    if (origin == ResultOrigin::kProductType && hr == -1) return "the product type is unknown";
    if (const char* text = Find(kLibraryCodes, hr)) return text;
    if (IsLibusbCode(hr)) {
        return std::string(libusb_error_name(hr)) + ": " + libusb_strerror(hr);
    }
    if (hr > 0) return "short transfer: " + std::to_string(hr) + " bytes moved";
    return "unknown result";
}

}  // namespace

std::string DescribeResult(int hr, ResultOrigin origin) {
    return std::to_string(hr) + " (" + Meaning(hr, origin) + ")";
}

bool SamSucceeded(int result) { return result == 0 || result == 1; }

std::string DescribeSamResult(int result) {
    std::string meaning;
    if (result == 0) {
        meaning = "success";
    } else if (result == 1) {
        meaning = "success, status 0x9F";
    } else if (result == 2) {
        meaning = "status 0x10 or a checksum mismatch: the data can't be trusted";
    } else if (result == -1) {
        meaning = "unknown SAM status, or the camera reported a failure";
    } else if (result == -2) {
        meaning = "an answer frame of the SAM packet was lost";
    } else if (result == -3) {
        meaning = "the camera reported result 1 and sent no SAM packet";
    } else if (const char* status = Find(kSamStatus, result)) {
        meaning = std::string("the SAM answered status ") + status;
    } else {
        meaning = "unknown SAM result";
    }
    return std::to_string(result) + " (" + meaning + ")";
}

}  // namespace tarvikctl
