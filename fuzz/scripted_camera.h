// A camera whose every answer comes from the fuzzer's input, plugged in where
// a transport goes. Script: for each request the library makes, a status byte
// (below 0xC0 the request succeeds; 0xC0-0xCF moves only (status & 0x0F)
// bytes; 0xD0 stalls, 0xE0 is gone, 0xF0 times out, 0xF8 an I/O error), and
// after a successful read the bytes it answers. A spent script answers
// success and zeros, so every run ends.
#ifndef TARVIK_FUZZ_SCRIPTED_CAMERA_H
#define TARVIK_FUZZ_SCRIPTED_CAMERA_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "TarvikImpl.h"
#include "fuzz_check.h"

namespace tarvik::fuzz {

// An object whose camera answers from `data`; its log goes nowhere.
std::unique_ptr<TarvikImpl> ScriptedCamera(const std::uint8_t* data, std::size_t size);

// Whether `r` is a result a transaction may give with such a camera: its own
// codes, a libusb code of the script or a short count.
bool Documented(HRESULT r);

}  // namespace tarvik::fuzz

#endif
