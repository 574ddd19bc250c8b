#include "result_names.h"

#include <tarvik.h>

namespace tarvikctl {

namespace {

struct CodeText {
    int code;
    const char* text;
};

template <size_t N>
const char* Find(const CodeText (&table)[N], int code) {
    for (const CodeText& row : table) {
        if (row.code == code) return row.text;
    }
    return nullptr;
}

// tarvik_strerror words each code; JSON readers want a name to compare instead.
constexpr CodeText kNames[] = {
    {0, "SUCCESS"},
    {-1, "LIBUSB_ERROR_IO"},
    {-2, "LIBUSB_ERROR_INVALID_PARAM"},
    {-3, "LIBUSB_ERROR_ACCESS"},
    {-4, "LIBUSB_ERROR_NO_DEVICE"},
    {-5, "LIBUSB_ERROR_NOT_FOUND"},
    {-6, "LIBUSB_ERROR_BUSY"},
    {-7, "LIBUSB_ERROR_TIMEOUT"},
    {-8, "LIBUSB_ERROR_OVERFLOW"},
    {-9, "LIBUSB_ERROR_PIPE"},
    {-10, "LIBUSB_ERROR_INTERRUPTED"},
    {-11, "LIBUSB_ERROR_NO_MEM"},
    {-12, "LIBUSB_ERROR_NOT_SUPPORTED"},
    {-99, "LIBUSB_ERROR_OTHER"},
    {TARVIK_E_INVALID_ARGUMENT, "TARVIK_E_INVALID_ARGUMENT"},
    {TARVIK_E_NOT_OPEN, "TARVIK_E_NOT_OPEN"},
    {TARVIK_E_SHORT_TRANSFER, "TARVIK_E_SHORT_TRANSFER"},
    {TARVIK_E_NOT_HANDLED, "TARVIK_E_NOT_HANDLED"},
    {TARVIK_E_INVALID_SAMPLE, "TARVIK_E_INVALID_SAMPLE"},
    {TARVIK_E_NOT_PROVIDED, "TARVIK_E_NOT_PROVIDED"},
    {TARVIK_E_NOT_MANUAL, "TARVIK_E_NOT_MANUAL"},
    {TARVIK_E_OUT_OF_RANGE, "TARVIK_E_OUT_OF_RANGE"},
    {TARVIK_E_MODES_DIFFER, "TARVIK_E_MODES_DIFFER"},
    {TARVIK_E_NO_CAMERA, "TARVIK_E_NO_CAMERA"},
    {TARVIK_E_UNKNOWN_PRODUCT, "TARVIK_E_UNKNOWN_PRODUCT"},
    {TARVIK_E_SAM, "TARVIK_E_SAM"},
    {TARVIK_E_NO_MEMORY, "TARVIK_E_NO_MEMORY"},
};

// The SAM's status byte 3 behind each of its codes (status bytes 1 and 2 zero,
// or any for 7, 8, 12, 13, 14 and 18).
constexpr CodeText kSamStatus[] = {
    {3, "0x11"},  {4, "0x21"},  {5, "0x23"},  {6, "0x24"},  {7, "0x31"},
    {8, "0x32"},  {9, "0x33"},  {12, "0x40"}, {13, "0x41"}, {14, "0x47"},
    {15, "0x60"}, {16, "0x66"}, {17, "0x80"}, {18, "0x81"}, {19, "0x91"},
};

constexpr CodeText kSamCodes[] = {
    {0, "success"},
    {1, "success, status 0x9F"},
    {2, "status 0x10 or a checksum mismatch: the data can't be trusted"},
    {-1, "unknown SAM status, or the camera reported a failure"},
    {-2, "an answer frame of the SAM packet was lost"},
    {-3, "the camera reported result 1 and sent no SAM packet"},
};

}  // namespace

const char* ResultName(int result) {
    const char* name = Find(kNames, result);
    return name != nullptr ? name : "UNKNOWN";
}

std::string DescribeResult(int result) {
    return "result " + std::to_string(result) + ": " + tarvik_strerror(result);
}

bool SamSucceeded(int code) { return code == 0 || code == 1; }

std::string DescribeSamCode(int code) {
    std::string meaning = "unknown SAM code";
    if (const char* text = Find(kSamCodes, code)) {
        meaning = text;
    } else if (const char* status = Find(kSamStatus, code)) {
        meaning = std::string("the SAM answered status ") + status;
    }
    return std::to_string(code) + " (" + meaning + ")";
}

}  // namespace tarvikctl
