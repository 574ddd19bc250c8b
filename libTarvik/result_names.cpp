// What every result of the C interface means, in words.
#include "tarvik.h"

namespace {

struct Name {
    int code;
    const char* name;
    const char* text;
};

const Name kNames[] = {
    {0, "SUCCESS", "success"},
    {-1, "LIBUSB_ERROR_IO",
     "input/output error (LIBUSB_ERROR_IO); on the USB path also a camera in use by another "
     "program"},
    {-2, "LIBUSB_ERROR_INVALID_PARAM", "invalid parameter (LIBUSB_ERROR_INVALID_PARAM)"},
    {-3, "LIBUSB_ERROR_ACCESS",
     "permission denied (LIBUSB_ERROR_ACCESS): install the udev rule, or join the plugdev or video "
     "group"},
    {-4, "LIBUSB_ERROR_NO_DEVICE", "the camera is gone (LIBUSB_ERROR_NO_DEVICE)"},
    {-5, "LIBUSB_ERROR_NOT_FOUND", "entity not found (LIBUSB_ERROR_NOT_FOUND)"},
    {-6, "LIBUSB_ERROR_BUSY", "the camera is in use by another program (LIBUSB_ERROR_BUSY)"},
    {-7, "LIBUSB_ERROR_TIMEOUT", "the camera did not answer in time (LIBUSB_ERROR_TIMEOUT)"},
    {-8, "LIBUSB_ERROR_OVERFLOW", "the camera sent more than asked (LIBUSB_ERROR_OVERFLOW)"},
    {-9, "LIBUSB_ERROR_PIPE", "the camera refused the request (LIBUSB_ERROR_PIPE)"},
    {-10, "LIBUSB_ERROR_INTERRUPTED", "interrupted (LIBUSB_ERROR_INTERRUPTED)"},
    {-11, "LIBUSB_ERROR_NO_MEM", "out of memory (LIBUSB_ERROR_NO_MEM)"},
    {-12, "LIBUSB_ERROR_NOT_SUPPORTED",
     "not supported (LIBUSB_ERROR_NOT_SUPPORTED): the video driver refused the query"},
    {-99, "LIBUSB_ERROR_OTHER", "other error (LIBUSB_ERROR_OTHER)"},
    {TARVIK_E_INVALID_ARGUMENT, "TARVIK_E_INVALID_ARGUMENT",
     "invalid argument: a null pointer, a record too small or a command that is none"},
    {TARVIK_E_NOT_OPEN, "TARVIK_E_NOT_OPEN", "the camera is not open"},
    {TARVIK_E_SHORT_TRANSFER, "TARVIK_E_SHORT_TRANSFER", "the camera moved fewer bytes than asked"},
    {TARVIK_E_NOT_HANDLED, "TARVIK_E_NOT_HANDLED", "the item is not read or written that way"},
    {TARVIK_E_INVALID_SAMPLE, "TARVIK_E_INVALID_SAMPLE",
     "the gyroscope answered an all-zero sample"},
    {TARVIK_E_NOT_PROVIDED, "TARVIK_E_NOT_PROVIDED", "not provided by this camera's library"},
    {TARVIK_E_NOT_MANUAL, "TARVIK_E_NOT_MANUAL", "an eye is not in manual exposure mode"},
    {TARVIK_E_OUT_OF_RANGE, "TARVIK_E_OUT_OF_RANGE", "an exposure time is outside its eye's range"},
    {TARVIK_E_MODES_DIFFER, "TARVIK_E_MODES_DIFFER", "the two eyes' exposure modes differ"},
    {TARVIK_E_NO_CAMERA, "TARVIK_E_NO_CAMERA", "no camera found"},
    {TARVIK_E_UNKNOWN_PRODUCT, "TARVIK_E_UNKNOWN_PRODUCT", "the product type is unknown"},
    {TARVIK_E_SAM, "TARVIK_E_SAM", "the SAM answered with a failure (see its code)"},
    {TARVIK_E_NO_MEMORY, "TARVIK_E_NO_MEMORY", "out of memory"},
};

const Name* find(int result) {
    for (const Name& n : kNames) {
        if (n.code == result) return &n;
    }
    return nullptr;
}

}  // namespace

extern "C" const char* tarvik_strerror(int result) {
    const Name* n = find(result);
    return n != nullptr ? n->text : "unknown result";
}

extern "C" const char* tarvik_result_name(int result) {
    const Name* n = find(result);
    return n != nullptr ? n->name : "UNKNOWN";
}
