// tarvikctl: the command-line tool over libTarvik's C interface.
#include <signal.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "library_log.h"
#include "simulate.h"
#include "value_parse.h"

namespace tarvikctl {
namespace {

// Runs the command; the camera is released before an error is told, so that the
// message comes after the library's last line.
std::optional<ToolError> RunCommand(const Invocation& inv, Reply& reply, int& status) {
    Session session(inv.global, reply);
    try {
        status = inv.run(session);
        return std::nullopt;
    } catch (const ValueError& e) {
        return ToolError(kExitUsage, TARVIK_E_INVALID_ARGUMENT, e.what());
    } catch (const ToolError& e) {
        return e;
    } catch (const OutputClosed&) {
        status = kExitFailed;  // nobody is left to tell
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        return ToolError(kExitFailed, TARVIK_E_NO_MEMORY, "out of memory");
    }
}

int Run(const Invocation& inv) {
    Reply reply(inv.global.json);
    try {
        // A closed output must show as a write error, not end the tool while it holds
        // the camera.
        ::signal(SIGPIPE, SIG_IGN);
        const LibraryLog log(inv.global.verbose && !inv.global.quiet, inv.global.logFile);
        int status = kExitOk;
        const std::optional<ToolError> error = RunCommand(inv, reply, status);
        if (!error) return status;
        reply.Fail(*error);
        return error->Exit();
    } catch (const ToolError& e) {
        reply.Fail(e);
        return e.Exit();
    }
}

int UsageError(const Invocation& inv) {
    Reply(inv.jsonAsked).Fail(ToolError(kExitUsage, TARVIK_E_INVALID_ARGUMENT, inv.usageError));
    if (!inv.jsonAsked) std::fputs("Run 'tarvikctl --help' for more information.\n", stderr);
    return kExitUsage;
}

int Main(int argc, char** argv) {
    const Invocation inv = ParseCommandLine(argc, argv);
    if (inv.exitNow >= 0) return inv.exitNow;
    if (!inv.usageError.empty()) return UsageError(inv);
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
