// tarvikctl: the command-line tool over libTarvik.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "cli.h"
#include "library_output.h"
#include "session.h"
#include "simulate.h"
#include "value_parse.h"

namespace tarvikctl {
namespace {

int Run(const Invocation& inv) {
    const GlobalOptions& g = inv.global;
    const LogDestination destination = g.quiet             ? LogDestination::kNowhere
                                       : g.logFile.empty() ? LogDestination::kStderr
                                                           : LogDestination::kFile;
    std::unique_ptr<LibraryOutput> output;
    try {
        output = std::make_unique<LibraryOutput>(destination, g.logFile);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvikctl: %s\n", e.what());
        return kExitUsage;
    }
    // The camera is released before the error is told, so the message is the last line.
    std::string error;
    int status = kExitFailed;
    {
        Session session(g, *output);
        try {
            return inv.run(session);
        } catch (const ValueError& e) {
            error = e.what();
            status = kExitUsage;
        } catch (const ToolError& e) {
            error = e.what();
            status = e.Code();
        } catch (const std::exception& e) {
            error = std::string("error: ") + e.what();
        }
    }
    Say(*output, error);
    return status;
}

int Main(int argc, char** argv) {
    // Unbuffered, so that the library's lines and libusb's keep their order in the log.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const Invocation inv = ParseCommandLine(argc, argv);
    if (inv.exitNow >= 0) return inv.exitNow;
    if (inv.global.simulate) {
        const std::vector<std::string> args(argv + 1, argv + argc);
        std::fprintf(stderr, "tarvikctl: --simulate: %s\n", RunUnderSimulator(args).c_str());
        return kExitFailed;
    }
    return Run(inv);
}

}  // namespace
}  // namespace tarvikctl

int main(int argc, char** argv) {
    try {
        return tarvikctl::Main(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvikctl: error: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "tarvikctl: unexpected error\n");
    }
    return tarvikctl::kExitFailed;
}
