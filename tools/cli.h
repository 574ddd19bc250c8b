// The command line: global options, the commands and their arguments.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace tarvikctl {

struct Invocation {
    GlobalOptions global;
    std::function<int(Session&)> run;  // the chosen command
    int exitNow = -1;                  // >= 0: help was printed or the arguments were wrong
};

// Parses argv. Prints help (stdout) and argument errors (stderr) itself.
Invocation ParseCommandLine(int argc, char** argv);

}  // namespace tarvikctl
