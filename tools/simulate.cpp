#include "simulate.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tarvikctl {

std::vector<std::string> ArgumentsWithoutSimulate(const std::vector<std::string>& args) {
    std::vector<std::string> out;
    bool positionalOnly = false;
    for (const std::string& arg : args) {
        if (arg == "--") positionalOnly = true;
        if (!positionalOnly && arg == "--simulate") continue;
        out.push_back(arg);
    }
    return out;
}

std::vector<std::string> SimulatorCandidates(const std::string& selfPath) {
    const size_t slash = selfPath.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : selfPath.substr(0, slash);
    return {dir + "/tarvik-sim", dir + "/../sim/tarvik-sim"};
}

std::string RunUnderSimulator(const std::vector<std::string>& args) {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return std::string("cannot find the tool's own path: ") + std::strerror(errno);
    self[n] = '\0';

    std::string simulator = "tarvik-sim";  // on PATH, unless found beside the tool
    for (const std::string& candidate : SimulatorCandidates(self)) {
        if (::access(candidate.c_str(), X_OK) == 0) {
            simulator = candidate;
            break;
        }
    }
    std::vector<std::string> command = {simulator, "run", "--", self};
    const std::vector<std::string> rest = ArgumentsWithoutSimulate(args);
    command.insert(command.end(), rest.begin(), rest.end());
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::fflush(nullptr);
    ::execvp(argv[0], argv.data());
    return "cannot run " + simulator + ": " + std::strerror(errno);
}

}  // namespace tarvikctl
