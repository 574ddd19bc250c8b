// The extension items as the bus sees them: a dictionary of named values for
// each read, and one taken for each write, checked and turned into the
// library's call before anything reaches the camera. Every item also reads
// and writes its library record whole as "record" (bytes), so nothing the
// library offers is out of reach.
#pragma once

#include <systemd/sd-bus.h>
#include <tarvik.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarvikd {

// One value of an a{sv}: a number (any integer type, or a boolean), text,
// bytes (ay) or a list of numbers.
struct Value {
    enum Kind { kNumber, kText, kBytes, kNumbers } kind = kNumber;
    std::int64_t number = 0;
    std::string text;
    std::vector<std::uint8_t> bytes;
    std::vector<std::int64_t> numbers;
};
using Values = std::map<std::string, Value>;

// Reads an a{sv} at the message's position. Refuses (a negative errno and
// `why`) a key twice, more than 32 keys, keys or texts over 256 bytes, arrays
// over 1024 entries and value types other than the above.
int ReadValues(sd_bus_message* message, Values& values, std::string& why);
// Appends `values` as an a{sv}.
int AppendValues(sd_bus_message* message, const Values& values);

// A call on the camera, made on its thread: it returns a library result and
// fills `out` with what the reply carries.
using ItemCall = std::function<int(tarvik_camera*, Values& out)>;

// The read of `item` with the values it needs (the lens motor's "mode", the
// data block's "target", "offset" and "length"). TARVIK_E_INVALID_ARGUMENT or
// TARVIK_E_NOT_HANDLED and `why` when it cannot be made.
int MakeRead(const std::string& item, const Values& input, ItemCall& call, std::string& why);
// The write of `item` from `values`.
int MakeWrite(const std::string& item, const Values& values, ItemCall& call, std::string& why);

}  // namespace tarvikd
