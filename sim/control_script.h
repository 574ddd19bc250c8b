// A timeline of control commands for `tarvik-sim run --script FILE`, one a line:
//
//   # a comment (and blank lines) are skipped
//   at 500 remove-card              # 500 ms after the program started
//   at 1500 place-card other.json   # a relative card file is taken from the script's folder
//   at 2000 --serial CI-0002 unplug
//   at 2500 replug
//
// `at MS` (0 to 86400000) then a command as `tarvik-sim ctl` takes it (control_command.h).
// Times never go back: each line's MS is at least the one before it. The whole script is read
// and checked, card files too, before the program starts.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "control_command.h"

namespace tarvik::sim {

struct ScriptLine {
    std::chrono::milliseconds at{0};
    ControlCommand command;
    int line = 0;  // in the file, from 1
};

// Throws UsageError (launcher_options.h): "FILE: line N: why".
std::vector<ScriptLine> LoadControlScript(const std::string& path);

}  // namespace tarvik::sim
