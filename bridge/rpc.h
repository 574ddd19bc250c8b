// The JSON-RPC 2.0 side of the bridge: one message from a page checked and
// turned into a call on the service, and the texts sent back (answers, errors,
// notifications). Pure functions: no sockets, no bus.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvik_bridge {

using Json = nlohmann::json;

// JSON-RPC's own error codes, and the one for an error of the service.
enum ErrorCode {
    kParseError = -32700,
    kInvalidRequest = -32600,
    kMethodNotFound = -32601,
    kInvalidParams = -32602,
    kServiceError = -32000,
};

enum class Method { kGetCameras, kReadItem, kWriteItem, kReadCard, kStatus };

// A value of writeItem's `values` or readItem's `input`, as it goes onto the
// bus: a number (x), a boolean (b), text (s), bytes (ay: "record" and "data",
// given in base64) or a list of numbers (ax).
struct BusValue {
    enum Kind { kNumber, kBool, kText, kBytes, kNumbers } kind = kNumber;
    std::int64_t number = 0;
    std::string text;
    std::vector<std::uint8_t> bytes;
    std::vector<std::int64_t> numbers;
};
using BusValues = std::vector<std::pair<std::string, BusValue>>;

struct Call {
    Method method = Method::kGetCameras;
    Json id;  // a string, a number or null
    std::string camera;
    std::string item;
    bool hasValues = false;  // readItem with `input`; always for writeItem
    BusValues values;
    bool thirdBlock = false;
};

struct Parsed {
    enum Outcome { kCall, kReply, kNothing } outcome = kNothing;
    Call call;          // kCall
    std::string reply;  // kReply: the error to send back
};

// One text message from a page. A request without an id (a notification) is
// neither run nor answered unless it is malformed; batches are refused.
Parsed ParseMessage(std::string_view text);

std::string ResultText(const Json& id, const Json& result);
// `name`: the service's error name, added as data.name when not empty.
std::string ErrorText(const Json& id, int code, std::string_view message,
                      std::string_view name = {});
std::string NotificationText(std::string_view method, const Json& params);

std::string Base64(const std::uint8_t* data, std::size_t size);
// Strict: padded, no blanks, nothing after the padding.
bool FromBase64(std::string_view text, std::vector<std::uint8_t>& out);

}  // namespace tarvik_bridge
