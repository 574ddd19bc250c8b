// Shell completion made from the command line's own definition, so that it offers exactly the
// commands and options the tool parses, whatever shape the command table takes.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace tarvikctl {

// Adds --bash-completion to app: it prints BashCompletion(app) and ends the parse as --help
// does (exit status 0, nothing sent to a camera).
void AddBashCompletionOption(CLI::App& app);

// A bash script that completes app's subcommands at every depth, the options each one accepts
// (a parent's too, where the parent lets them fall through), and file names after options whose
// value is a FILE. Hidden options and subcommands (those without a group) are left out.
std::string BashCompletion(const CLI::App& app);

}  // namespace tarvikctl
