// --simulate: the tool runs itself again under `tarvik-sim run`, with the default
// simulated camera.
#pragma once

#include <string>
#include <vector>

namespace tarvikctl {

// The arguments (without the program name) minus every "--simulate" before a "--".
std::vector<std::string> ArgumentsWithoutSimulate(const std::vector<std::string>& args);

// Where tarvik-sim may be, in order, for a tool at `selfPath`: next to it (installed),
// then in the build tree's sim/ beside the tool's tools/ directory. Callers fall back to
// PATH when none exists.
std::vector<std::string> SimulatorCandidates(const std::string& selfPath);

// Replaces the process with `tarvik-sim run -- <self> <args>`. Returns only on failure,
// with a message.
std::string RunUnderSimulator(const std::vector<std::string>& args);

}  // namespace tarvikctl
