// One run of the tool: the global options, the camera (opened on first use), the
// library's output, and how results and errors leave the tool.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "library_output.h"
#include "result_codes.h"

class TarvikImpl;

namespace tarvikctl {

using Json = nlohmann::ordered_json;

enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,    // the camera or the library reported a failure
    kExitUsage = 2,     // bad arguments or values: nothing was sent
    kExitNoCamera = 3,  // no camera found, or it could not be opened
};

struct GlobalOptions {
    int bus = -1;
    int address = -1;
    bool json = false;
    bool quiet = false;
    std::string logFile;
    bool simulate = false;
};

// An error that ends the command: message for standard error, and the exit status.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string& message)
        : std::runtime_error(message), m_code(code) {}
    ExitCode Code() const { return m_code; }

private:
    ExitCode m_code;
};

// A non-zero library result as an error: "<what> failed: result 11 (camera not open)".
ToolError ResultError(const std::string& what, int hr,
                      ResultOrigin origin = ResultOrigin::kTransfer);

class Session {
public:
    Session(GlobalOptions options, LibraryOutput& output);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const GlobalOptions& Options() const { return m_options; }
    LibraryOutput& Output() { return m_output; }

    // Runs `call` on the camera with the library's output captured. Opens the camera
    // first if needed; throws ToolError(kExitNoCamera) when it can't.
    template <class Call>
    auto WithCamera(Call&& call) {
        TarvikImpl& camera = Camera();
        LibrarySection section(m_output);
        return std::forward<Call>(call)(camera);
    }

    // Prints a result on standard output: the JSON (with --json), or the text as it is.
    void Emit(const Json& json, const std::string& text);
    // A message of the tool's own on standard error.
    void Note(const std::string& message);

private:
    TarvikImpl& Camera();

    GlobalOptions m_options;
    LibraryOutput& m_output;
    TarvikImpl* m_camera = nullptr;
};

// A message of the tool's own on standard error, on a line of its own.
void Say(LibraryOutput& output, const std::string& message);

}  // namespace tarvikctl
