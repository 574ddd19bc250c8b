// How results and errors leave the tool. Text for people on standard output, the
// tool's own messages on standard error; with --json one object per result, of one
// shape for every command (see README, "tarvikctl"):
//   {"ok":true,"result":0, ...the command's fields}
//   {"ok":false,"result":-3,"error":"LIBUSB_ERROR_ACCESS","message":"...", ...context}
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace tarvikctl {

using Json = nlohmann::ordered_json;

enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,    // the camera or the library reported a failure
    kExitUsage = 2,     // bad arguments or values: nothing was sent
    kExitNoCamera = 3,  // no camera found, or it could not be opened
};

// An error that ends the command: the exit status, the result code it stands for
// (a tarvik.h result), the message, and fields that give it context in JSON.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode exit, int result, const std::string& message, Json context = Json::object())
        : std::runtime_error(message),
          m_exit(exit),
          m_result(result),
          m_context(std::move(context)) {}
    ExitCode Exit() const { return m_exit; }
    int Result() const { return m_result; }
    const Json& Context() const { return m_context; }

private:
    ExitCode m_exit;
    int m_result;
    Json m_context;
};

// Standard output was closed under the tool: its reader went away.
struct OutputClosed {};

class Reply {
public:
    explicit Reply(bool json) : m_json(json) {}

    bool IsJson() const { return m_json; }

    // A command's result: {"ok":true,"result":0,...fields}, or the text as it is.
    void Ok(const Json& fields, const std::string& text);
    // Text for people only (nothing with --json).
    void Text(const std::string& text);
    // One sample of a stream: a line of its own (compact JSON or text); on a terminal
    // the text replaces the previous sample in place.
    void Sample(const Json& fields, const std::string& text, bool inPlace);
    // The error as JSON on standard output (with --json), and always its message on
    // standard error. Write failures are ignored here: this is the last word.
    void Fail(const ToolError& error);

private:
    void Write(const std::string& text);

    bool m_json;
};

// "result -7: the camera did not answer in time (LIBUSB_ERROR_TIMEOUT)".
std::string DescribeResult(int result);

// "17 (no card on the reader (status 0x80))".
std::string DescribeSamCode(int code);

// {"ok":false,"result":r,"error":<name>,"message":m} and the context's fields.
Json ErrorJson(int result, const std::string& message, const Json& context = Json::object());

}  // namespace tarvikctl
