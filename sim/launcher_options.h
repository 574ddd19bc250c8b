// tarvik-sim's command line: what to simulate and what to run.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"

namespace tarvik::sim {

// A command line that cannot be carried out; the launcher prints it with the usage, exit 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A whole decimal number from `low` to `high` (within int). Throws UsageError
// ("bad <what>: <text>").
int ParseInteger(const std::string& text, const std::string& what, long low, long high);

struct CameraSpec {
    int bus = 1;
    int address = 2;
    std::string card;    // card file, or empty for --card / the default card
    std::string serial;  // empty for the camera's default serial
};

struct OtherDeviceSpec {
    int bus = 0;
    int address = 0;
    unsigned vendorId = 0x1D6B;
    unsigned productId = 0x0104;
};

struct LaunchOptions {
    enum class Action { kRun, kHelp, kVersion } action = Action::kRun;
    std::vector<CameraSpec> cameras;
    std::vector<OtherDeviceSpec> others;
    bool kernelDriver = true;
    bool video = true;
    bool denyAccess = false;
    bool noCard = false;
    std::string card;
    std::optional<std::pair<int, int>> tilt;
    std::optional<double> unplugAfterSeconds;
    std::optional<int> unplugAfterTransfers;
    std::vector<Fault> faults;  // --fault, as faults of every camera
    std::string script;         // --script: control commands at their times
    std::vector<std::string> command;
};

// The help text, for --help (standard output) and usage errors (standard error).
extern const char kLauncherUsage[];

// Throws UsageError.
LaunchOptions ParseLaunchOptions(const std::vector<std::string>& args);

// The default serial of camera `index` (0, 1, ...) when several are asked for at once.
std::string SerialOfCamera(size_t index);

}  // namespace tarvik::sim
