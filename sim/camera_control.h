// Carries out control commands (control_command.h) on a testbed's cameras, for the launcher's
// control socket and its --script.
#pragma once

#include <string>

#include "control_command.h"

namespace tarvik::sim {

class Testbed;

// What `tarvik-sim ctl` prints and exits with: status 0 and the affected cameras' status
// (every camera's for `status` without a choice); 1 and the reason when the command cannot be
// carried out (unplugging a camera that is not plugged in); 2 for a camera that does not exist.
struct ControlAnswer {
    int status = 0;
    std::string text;
};

ControlAnswer RunControlCommand(Testbed& bed, const ControlCommand& command);

}  // namespace tarvik::sim
