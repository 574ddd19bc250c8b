// tarvikd: the cameras as a service on D-Bus, shared by the programs of a
// kiosk, with polkit deciding who may do what.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "daemon.h"
#include "service_log.h"

namespace {

constexpr char kFooter[] =
    "Owns org.tarvik.Tarvik1 on the system bus (the session bus with --session) and offers\n"
    "every camera 0ac8:010c found, and every one plugged in later, at\n"
    "/org/tarvik/Tarvik1/camera/SERIAL. polkit decides each call on the system bus (actions\n"
    "org.tarvik.tarvik1.read-card, .configure and .status). Log lines go to standard error\n"
    "with journald's priority prefixes; none carries card data. SIGTERM or SIGINT stops it.";

int Main(int argc, char** argv) {
    tarvikd::Options options;
    std::string transport = "auto";
    std::string level = "info";
    CLI::App app{"tarvikd: the dual-eye camera 0ac8:010c as a D-Bus service", "tarvikd"};
    app.footer(kFooter);
    app.set_version_flag("--version", std::string("tarvikd ") + TARVIKD_VERSION);
    app.add_flag("--session", options.session,
                 "Use the session bus (tests, demos): polkit is not asked");
    app.add_option("--transport", transport,
                   "The path to the cameras: auto (default), usb or kernel")
        ->check(CLI::IsMember({"auto", "usb", "kernel"}));
    app.add_option("--poll-interval", options.pollMs,
                   "Milliseconds between card polls while a client watches (50-60000, default 250)")
        ->check(CLI::Range(50u, 60000u));
    app.add_option("--call-timeout", options.callTimeoutMs,
                   "Milliseconds a call may take before its caller gets LIBUSB_ERROR_TIMEOUT "
                   "(100-600000, default 20000)")
        ->check(CLI::Range(100u, 600000u));
    app.add_option("--forget-after", options.forgetAfterS,
                   "Seconds a camera may stay unplugged before it leaves the list (0: never; "
                   "default 300)")
        ->check(CLI::Range(0u, 86400u));
    app.add_option("--metrics-file", options.metricsFile,
                   "Write the counters in Prometheus' text format to FILE (replaced whole)")
        ->type_name("FILE");
    app.add_option("--log-level", level, "debug, info (default), notice, warning or error")
        ->check(CLI::IsMember({"debug", "info", "notice", "warning", "error"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    int priority = tarvikd::kInfo;
    tarvikd::ParseLogPriority(level, priority);
    tarvikd::SetLogPriority(priority);
    tarvikd::RouteLibraryLog(priority);
    options.transport = transport == "usb"      ? TARVIK_TRANSPORT_USB
                        : transport == "kernel" ? TARVIK_TRANSPORT_KERNEL
                                                : TARVIK_TRANSPORT_AUTO;
    tarvikd::Daemon daemon(options);
    return daemon.Run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& e) {
        tarvikd::Log(tarvikd::kError, "stopped: %s", e.what());
    }
    return 1;
}
