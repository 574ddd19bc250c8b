// The command line: global options, the commands and their arguments.
#pragma once

#include <functional>
#include <string>

#include "session.h"

namespace tarvikctl {

struct Invocation {
    GlobalOptions global;
    std::function<int(Session&)> run;  // the chosen command
    int exitNow = -1;        // >= 0: help, the version or the completion script was printed
    std::string usageError;  // the arguments were wrong: nothing is to be sent
    bool jsonAsked = false;  // --json was given, also when the parse failed
};

// Parses argv. Prints help, the version and the completion script itself.
Invocation ParseCommandLine(int argc, char** argv);

}  // namespace tarvikctl
