// The commands that change simulated cameras while a program uses them: what `tarvik-sim ctl`
// sends to a running launcher and what a --script runs, parsed the same way for both.
//
//   place-card [FILE]   lay a card on the reader: FILE (a card file), or the camera's own card
//   remove-card         take it away: SAM commands 0, 1, 3 and 4 answer status 80 (code 17)
//   unplug              pull the cable, as the kernel shows it (remove uevents)
//   replug              plug it in again: a new address, the same serial and port
//   tilt PITCH ROLL     the tilt the motion sensor reports, whole degrees
//   fault SPEC          as --fault (stall, timeout, garbage[:ITEM]); "none" drops them all
//   status              one line per camera (or the one chosen)
// Options may stand anywhere among the words: --camera N (the camera's index, default 0) or
// --serial S choose the camera; --json gives JSON instead of lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarvik::sim {

struct ControlCommand {
    enum class Verb { kPlaceCard, kRemoveCard, kUnplug, kReplug, kTilt, kFault, kStatus };
    Verb verb = Verb::kStatus;
    std::string cardFile;  // place-card: empty for the camera's own card
    int pitch = 0;
    int roll = 0;
    std::string faultSpec;
    std::optional<size_t> camera;  // --camera N
    std::string serial;            // --serial S
    bool json = false;
};

// Throws UsageError (launcher_options.h) naming what is wrong. A relative card file is taken
// from `folder` (when not empty) and must be a good card file; a fault must be a good SPEC and a
// tilt one that a sample gives.
ControlCommand ParseControlCommand(const std::vector<std::string>& words,
                                   const std::string& folder = "");

// The words that ParseControlCommand reads back as `command`.
std::vector<std::string> ControlWords(const ControlCommand& command);

}  // namespace tarvik::sim
