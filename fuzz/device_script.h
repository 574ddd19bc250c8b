// A camera whose every answer comes from the fuzzer's input. The fuzz targets
// that drive TarvikImpl link this file: it defines libusb_control_transfer, so
// the library's transfers land here instead of in libusb, and each transfer
// consumes the script.
//
// Script format, one entry per control transfer in the order the library makes
// them:
//   one status byte (see Status below), then, for a GET_CUR or GET_LEN that
//   moves data, as many answer bytes as the transfer moves. A script that runs
//   out answers success and zero bytes from then on, so every run ends.
#ifndef TARVIK_FUZZ_DEVICE_SCRIPT_H
#define TARVIK_FUZZ_DEVICE_SCRIPT_H

#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarvik::fuzz {

// Status bytes. Everything below kShortFirst completes the transfer in full.
enum Status : std::uint8_t {
    kOk = 0x00,
    kShortFirst = 0xC0,  // 0xC0-0xCF: moves (status & 0x0F) % wLength bytes
    kStall = 0xD0,       // LIBUSB_ERROR_PIPE
    kGone = 0xE0,        // LIBUSB_ERROR_NO_DEVICE
    kTimeout = 0xF0,     // LIBUSB_ERROR_TIMEOUT
    kIoError = 0xF8,     // LIBUSB_ERROR_IO
};

// One transfer as the library made it.
struct SeenTransfer {
    std::uint8_t requestType;
    std::uint8_t request;
    int selector;
    std::uint16_t length;
    std::vector<std::uint8_t> out;  // OUT data
    std::vector<std::uint8_t> in;   // IN: the caller's buffer after the transfer
    int result;                     // what libusb_control_transfer returned
};

// Arms the script for the next transfers and clears the record of seen ones.
void StartScript(const std::uint8_t* data, std::size_t size);
const std::vector<SeenTransfer>& Seen();

// A handle value the library can hold; the script never dereferences it.
libusb_device_handle* FakeHandle();

// Sends the library's standard output to /dev/null (its log lines would
// otherwise dominate the run time).
void SilenceStdout();

}  // namespace tarvik::fuzz

// Abort with a message when an invariant of the library breaks; libFuzzer
// keeps the input that did it.
#define FUZZ_CHECK(cond)                                              \
    do {                                                              \
        if (!(cond)) ::tarvik::fuzz::Fail(#cond, __FILE__, __LINE__); \
    } while (0)

namespace tarvik::fuzz {
[[noreturn]] void Fail(const char* condition, const char* file, int line);
}

#endif
