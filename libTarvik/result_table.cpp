// The library's conditions, their names and texts (see result_table.h).
#include "result_table.h"

#include "tarvik.h"

namespace tarvik::results {
namespace {

// clang-format off
constexpr Result kResults[] = {
    {0, "SUCCESS", "success", {}},
    // libusb's codes, as a failed transfer or open gives them.
    {TARVIK_LIBUSB_ERROR_IO, "LIBUSB_ERROR_IO",
     "input/output error (LIBUSB_ERROR_IO); on the USB path also a camera in use by another "
     "program", {}},
    {TARVIK_LIBUSB_ERROR_INVALID_PARAM, "LIBUSB_ERROR_INVALID_PARAM",
     "invalid parameter (LIBUSB_ERROR_INVALID_PARAM)", {}},
    {TARVIK_LIBUSB_ERROR_ACCESS, "LIBUSB_ERROR_ACCESS",
     "permission denied (LIBUSB_ERROR_ACCESS): install the udev rule, or join the plugdev or "
     "video group", {}},
    {TARVIK_LIBUSB_ERROR_NO_DEVICE, "LIBUSB_ERROR_NO_DEVICE",
     "the camera is gone (LIBUSB_ERROR_NO_DEVICE)", {}},
    {TARVIK_LIBUSB_ERROR_NOT_FOUND, "LIBUSB_ERROR_NOT_FOUND",
     "entity not found (LIBUSB_ERROR_NOT_FOUND)", {}},
    {TARVIK_LIBUSB_ERROR_BUSY, "LIBUSB_ERROR_BUSY",
     "the camera is in use by another program (LIBUSB_ERROR_BUSY)", {}},
    {TARVIK_LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT",
     "the camera did not answer in time (LIBUSB_ERROR_TIMEOUT)", {}},
    {TARVIK_LIBUSB_ERROR_OVERFLOW, "LIBUSB_ERROR_OVERFLOW",
     "the camera sent more than asked (LIBUSB_ERROR_OVERFLOW)", {}},
    {TARVIK_LIBUSB_ERROR_PIPE, "LIBUSB_ERROR_PIPE",
     "the camera refused the request (LIBUSB_ERROR_PIPE)", {}},
    {TARVIK_LIBUSB_ERROR_INTERRUPTED, "LIBUSB_ERROR_INTERRUPTED",
     "interrupted (LIBUSB_ERROR_INTERRUPTED)", {}},
    {TARVIK_LIBUSB_ERROR_NO_MEM, "LIBUSB_ERROR_NO_MEM", "out of memory (LIBUSB_ERROR_NO_MEM)", {}},
    {TARVIK_LIBUSB_ERROR_NOT_SUPPORTED, "LIBUSB_ERROR_NOT_SUPPORTED",
     "not supported (LIBUSB_ERROR_NOT_SUPPORTED): the video driver refused the query", {}},
    {TARVIK_LIBUSB_ERROR_OTHER, "LIBUSB_ERROR_OTHER", "other error (LIBUSB_ERROR_OTHER)", {}},
    // The library's own, with the members' results that mean them.
    {TARVIK_E_INVALID_ARGUMENT, "TARVIK_E_INVALID_ARGUMENT",
     "invalid argument: a null pointer, a record of the wrong size or a command that is none",
     {1}},
    {TARVIK_E_NOT_OPEN, "TARVIK_E_NOT_OPEN", "the camera is not open", {6, 11}},
    {TARVIK_E_SHORT_TRANSFER, "TARVIK_E_SHORT_TRANSFER",
     "the camera moved fewer bytes than asked", {}},
    {TARVIK_E_NOT_HANDLED, "TARVIK_E_NOT_HANDLED", "the item is not read or written that way",
     {7}},
    {TARVIK_E_INVALID_SAMPLE, "TARVIK_E_INVALID_SAMPLE",
     "the gyroscope answered an all-zero sample", {13}},
    {TARVIK_E_NOT_PROVIDED, "TARVIK_E_NOT_PROVIDED", "not provided by this camera's library",
     {-2}},
    {TARVIK_E_NOT_MANUAL, "TARVIK_E_NOT_MANUAL", "an eye is not in manual exposure mode",
     {-101}},
    {TARVIK_E_OUT_OF_RANGE, "TARVIK_E_OUT_OF_RANGE",
     "an exposure time is outside its eye's range", {-102}},
    {TARVIK_E_MODES_DIFFER, "TARVIK_E_MODES_DIFFER", "the two eyes' exposure modes differ",
     {-103}},
    {TARVIK_E_NO_CAMERA, "TARVIK_E_NO_CAMERA", "no camera found", {}},
    {TARVIK_E_UNKNOWN_PRODUCT, "TARVIK_E_UNKNOWN_PRODUCT", "the product type is unknown", {-1}},
    {TARVIK_E_SAM, "TARVIK_E_SAM", "the SAM answered with a failure (see its code)", {}},
    {TARVIK_E_NO_MEMORY, "TARVIK_E_NO_MEMORY", "out of memory", {}},
    {TARVIK_E_NO_EVENT, "TARVIK_E_NO_EVENT", "no event (within the time given)", {}},
    {TARVIK_E_CANCELLED, "TARVIK_E_CANCELLED", "the wait was cancelled", {}},
    {TARVIK_E_UNKNOWN, "TARVIK_E_UNKNOWN",
     "the library reported a condition this interface does not know", {}},
};
// clang-format on

}  // namespace

const Result* find(int code) {
    for (const Result& r : kResults) {
        if (r.code == code) return &r;
    }
    return nullptr;
}

int from_member(int r, int transferFailure) {
    if (r == 0) return 0;
    if (transferFailure != 0 && r == transferFailure) {
        if (r > 0) return TARVIK_E_SHORT_TRANSFER;
        return find(r) != nullptr ? r : TARVIK_E_UNKNOWN;
    }
    for (const Result& row : kResults) {
        if (row.members[0] == r || (row.members[1] != 0 && row.members[1] == r)) return row.code;
    }
    return TARVIK_E_UNKNOWN;
}

}  // namespace tarvik::results

extern "C" const char* tarvik_strerror(int result) {
    const tarvik::results::Result* r = tarvik::results::find(result);
    return r != nullptr ? r->text : "unknown result";
}

extern "C" const char* tarvik_result_name(int result) {
    const tarvik::results::Result* r = tarvik::results::find(result);
    return r != nullptr ? r->name : "UNKNOWN";
}
