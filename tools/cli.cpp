#include "cli.h"

#include <CLI/CLI.hpp>
#include <cstring>

#include "commands.h"
#include "completion.h"

namespace tarvikctl {

namespace {

constexpr char kFooter[] =
    "Results go to standard output, the tool's own messages to standard error. The library's\n"
    "log lines are dropped unless -v (standard error) or --log FILE (appended) asks for them.\n"
    "With --json every command prints one JSON object: {\"ok\":true,\"result\":0,...} on\n"
    "success, {\"ok\":false,\"result\":N,\"error\":NAME,\"message\":TEXT} on failure.\n"
    "Exit status: 0 success, 1 the camera or the library reported a failure, 2 bad arguments\n"
    "(nothing was sent), 3 no camera found or it could not be opened.";

#ifdef TARVIKCTL_WITH_SERVICE
constexpr bool kWithService = true;  // --service: the commands through tarvikd
#else
constexpr bool kWithService = false;
#endif

constexpr char kServiceFooter[] =
    "\n\nWith --service a command goes through tarvikd, the camera service on the system bus\n"
    "(--session: the session bus), instead of opening the camera, with the same output and\n"
    "exit statuses (info and sam 2 need the camera itself). polkit decides who may: members\n"
    "of the group tarvik. Exit status 3 also: tarvikd is not running, or offers no such\n"
    "camera. status and metrics show tarvikd's own view: its cameras and its counters.";

constexpr char kExposureFooter[] =
    "The tool reads and writes the exposure item (1) itself and makes the checks the\n"
    "library's members make: set-times refuses a time outside its eye's range and eyes\n"
    "not in manual mode (flags[4] = 1), and sends the block read with each eye's time,\n"
    "flags[2] = 0 and flags[4] = 1; set-mode refuses two different modes and sends an\n"
    "all-zero block but flags[2] = 1 and flags[4] = the mode's low byte, in both eyes.";

// Every command's options live here until the command runs.
struct Storage {
    SettingOptions get, set;
    std::vector<std::string> unknownGet, unknownSet;  // a name that is no setting
    std::vector<std::string> exposureValues;
    ItemOptions itemRead, itemWrite;
    GyroOptions gyro;
    WatchOptions watch;
    CardOptions card;
    std::string samCommand;
};

// The options a setting takes, from its kind.
void AddSettingOptions(CLI::App& sub, const Setting& s, SettingOptions& o, bool write) {
    if (write) {
        sub.add_option("VALUES", o.values, ValueHelp(s.kind))->required()->type_name(s.valueNames);
    }
    if (s.kind == SettingKind::kDeviceText) {
        sub.add_flag("--hex", o.hex, write ? "The value is 40 hex digits" : "Print 40 hex digits");
    }
    if (s.kind == SettingKind::kLensMotor) {
        sub.add_option("--mode", o.mode, "Which value (0-255, default 0)")->type_name("N");
    }
    if (s.kind == SettingKind::kLensMotor && write) {
        sub.add_option("--ctrl0", o.ctrl0, "First leading byte, sent unchanged (default 0)")
            ->type_name("B");
        sub.add_option("--ctrl1", o.ctrl1, "Second leading byte, sent unchanged (default 0)")
            ->type_name("B");
    }
}

// A name that is no setting lands in the command's own NAME: say which names there are.
void CheckSettingChosen(const CLI::App& cmd, const std::vector<std::string>& unknown, bool write) {
    if (!cmd.get_subcommands().empty()) {
        if (unknown.empty()) return;
        throw CLI::ValidationError(cmd.get_name() + " " + cmd.get_subcommands()[0]->get_name() +
                                   ": '" + unknown[0] + "' was not expected");
    }
    const std::string names = SettingNames(write);
    if (unknown.empty()) throw CLI::ValidationError(cmd.get_name() + ": which setting? " + names);
    throw CLI::ValidationError(cmd.get_name() + ": '" + unknown[0] + "' is not one of " + names);
}

// `get NAME` and `set NAME VALUES`: one subcommand per setting of the table.
void AddSettings(CLI::App& app, Storage& st, Invocation& inv, bool write) {
    auto* cmd = app.add_subcommand(write ? "set" : "get", std::string(write ? "Write" : "Read") +
                                                              " a setting: " + SettingNames(write));
    std::vector<std::string>& unknown = write ? st.unknownSet : st.unknownGet;
    cmd->add_option("NAME", unknown, "The setting")->group("");
    cmd->require_subcommand(0, 1);
    cmd->callback([cmd, &unknown, write] { CheckSettingChosen(*cmd, unknown, write); });
    for (const Setting& s : Settings()) {
        if (!(write ? s.write : s.read)) continue;
        SettingOptions& o = write ? st.set : st.get;  // one setting runs
        auto* sub = cmd->add_subcommand(s.name, s.summary);
        AddSettingOptions(*sub, s, o, write);
        sub->callback([&s, &o, &inv, write] {
            inv.run = [&s, &o, write](Session& session) {
                return write ? RunSet(session, s, o) : RunGet(session, s, o);
            };
        });
    }
}

void AddExposure(CLI::App& app, Storage& s, Invocation& inv) {
    auto* exposure = app.add_subcommand("exposure", "Both eyes' exposure, from the exposure item");
    exposure->require_subcommand(1);
    exposure->footer(kExposureFooter);
    struct Op {
        const char* name;
        const char* help;
        ExposureOp op;
        const char* values;
    };
    static const Op kOps[] = {
        {"get-times", "Both eyes' exposure times", ExposureOp::kGetTimes, nullptr},
        {"set-times", "Set both eyes' times (manual mode, within range)", ExposureOp::kSetTimes,
         "LEFT RIGHT"},
        {"get-range", "Both eyes' exposure-time ranges", ExposureOp::kGetRange, nullptr},
        {"get-mode", "Both eyes' exposure modes (1: manual)", ExposureOp::kGetMode, nullptr},
        {"set-mode", "Set both eyes' mode (the two must be equal)", ExposureOp::kSetMode,
         "LEFT RIGHT"},
    };
    for (const Op& op : kOps) {
        auto* sub = exposure->add_subcommand(op.name, op.help);
        if (op.values != nullptr) {
            sub->add_option("VALUES", s.exposureValues, "Left eye, then right eye")
                ->required()
                ->type_name(op.values);
        }
        const ExposureOp which = op.op;
        sub->callback([&s, &inv, which] {
            inv.run = [&s, which](Session& session) {
                return RunExposure(session, which, s.exposureValues);
            };
        });
    }
}

// --target, --length, --offset and --mode of `item read` / `item write`.
void AddItemOptions(CLI::App& sub, ItemOptions& o, bool write, Invocation& inv) {
    sub.add_option("ITEM", o.item, "Item number (1-18) or name")->required();
    if (write) sub.add_option("HEX", o.hex, "The record's bytes as hex digits");
    auto* t = sub.add_option("--target", o.target, "data-block: target byte")->type_name("N");
    auto* l = sub.add_option("--length", o.length,
                             write ? "not used: the data's length counts"
                                   : "data-block: bytes (0-48, default 48)")
                  ->type_name("N");
    auto* f = sub.add_option("--offset", o.offset, "data-block: offset (0-65535)")->type_name("N");
    auto* m =
        sub.add_option("--mode", o.mode,
                       write ? "not used: a vcm record has its mode" : "vcm: which value (0-255)")
            ->type_name("N");
    sub.callback([&o, &inv, write, t, l, f, m] {
        o.blockGiven = t->count() + l->count() + f->count() > 0;
        o.lengthGiven = l->count() > 0;
        o.modeGiven = m->count() > 0;
        inv.run = [&o, write](Session& session) {
            return write ? RunItemWrite(session, o) : RunItemRead(session, o);
        };
    });
}

void AddItem(CLI::App& app, Storage& s, Invocation& inv) {
    auto* item = app.add_subcommand(
        "item", "Any extension item through one transaction; records as hex bytes");
    item->require_subcommand(1);
    item->add_subcommand("list", "The items, with their read and write record sizes")
        ->callback([&inv] { inv.run = [](Session& session) { return RunItemList(session); }; });
    AddItemOptions(*item->add_subcommand("read", "Read an item and print its record as hex"),
                   s.itemRead, false, inv);
    AddItemOptions(*item->add_subcommand(
                       "write", "Write an item's record given as hex (data-block: its data bytes)"),
                   s.itemWrite, true, inv);
}

void AddGyro(CLI::App& app, Storage& s, Invocation& inv) {
    auto* gyro = app.add_subcommand("gyro", "Pitch and roll in whole degrees");
    auto* watch = gyro->add_flag("--watch", s.gyro.watch,
                                 "Read again and again until interrupted or the output is closed");
    // Without --watch there is one read: these would be dropped unseen.
    gyro->add_option("--interval", s.gyro.intervalMs,
                     "--watch: milliseconds between reads (default 500)")
        ->type_name("MS")
        ->needs(watch);
    gyro->add_option("--count", s.gyro.count, "--watch: stop after this many reads")
        ->type_name("N")
        ->needs(watch);
    gyro->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunGyro(session, s.gyro); }; });
}

void AddCard(CLI::App& app, Storage& s, Invocation& inv) {
    auto* card = app.add_subcommand("idcard", "Read an identity card through the SAM");
    card->add_option("--photo", s.card.photo,
                     "Write the raw photo block (1024 bytes) to FILE, mode 0600")
        ->type_name("FILE");
    card->add_option("--third-block", s.card.thirdBlock,
                     "Read the third block too and write it (1024 bytes) to FILE, mode 0600")
        ->type_name("FILE");
    card->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunIdcard(session, s.card); }; });

    auto* sam = app.add_subcommand("sam", "Run one raw SAM command (0-4, 6, 7); print its code");
    sam->add_option("CMD", s.samCommand, "The command")->required();
    sam->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunSam(session, s.samCommand); }; });

    auto* watch = app.add_subcommand(
        "watch",
        "Print the camera's events (card placed or removed, camera gone or back) until "
        "interrupted; an unplugged camera is waited for");
    watch->add_flag("--card", s.watch.card, "Read each card placed, once, and print it");
    auto* interval =
        watch
            ->add_option("--interval", s.watch.intervalMs,
                         kWithService ? "Milliseconds between card polls (default 250, at "
                                        "least 50; not with --service: tarvikd polls at its "
                                        "own)"
                                      : "Milliseconds between card polls (default 250, at "
                                        "least 50)")
            ->type_name("MS");
    watch->callback([&s, &inv, interval] {
        s.watch.intervalGiven = interval->count() > 0;
        inv.run = [&s](Session& session) { return RunWatch(session, s.watch); };
    });
}

#ifdef TARVIKCTL_WITH_SERVICE
void AddServiceCommands(CLI::App& app, Invocation& inv) {
    app.add_subcommand("status",
                       "tarvikd's cameras: state, path, card present, watchers and counters "
                       "(with --service)")
        ->callback([&inv] { inv.run = [](Session& session) { return RunStatus(session); }; });
    app.add_subcommand("metrics", "tarvikd's counters in Prometheus' text format (with --service)")
        ->callback([&inv] { inv.run = [](Session& session) { return RunMetrics(session); }; });
}
#endif

void AddCommands(CLI::App& app, Storage& s, Invocation& inv) {
    app.add_subcommand("list", kWithService ? "Every camera (0ac8:010c): bus, address, serial, "
                                              "video node (--service: tarvikd's)"
                                            : "Every camera (0ac8:010c): bus, address, serial, "
                                              "video node")
        ->callback([&inv] { inv.run = [](Session& session) { return RunList(session); }; });
    app.add_subcommand("info", "Everything readable at once")->callback([&inv] {
        inv.run = [](Session& session) { return RunInfo(session); };
    });
    AddSettings(app, s, inv, false);
    AddSettings(app, s, inv, true);
    AddExposure(app, s, inv);
    AddItem(app, s, inv);
    AddGyro(app, s, inv);
    AddCard(app, s, inv);
#ifdef TARVIKCTL_WITH_SERVICE
    AddServiceCommands(app, inv);
#endif
}

// An empty value reads as no value at all (the first camera, no log file): refuse it.
const CLI::Validator kNotEmpty(
    [](const std::string& value) { return value.empty() ? "must not be empty" : ""; }, "");

void AddSelection(CLI::App& app, GlobalOptions& g) {
    Selection& c = g.camera;
    auto* bus = app.add_option("--bus", c.bus, "The camera's bus (with --address)")
                    ->type_name("BUS")
                    ->check(CLI::Range(1, 255));
    auto* address = app.add_option("--address", c.address, "The camera's address (with --bus)")
                        ->type_name("ADDRESS")
                        ->check(CLI::Range(1, 255));
    bus->needs(address);
    address->needs(bus);
    auto* serial = app.add_option("-s,--serial", c.serial, "The camera with this USB serial number")
                       ->type_name("SN")
                       ->check(kNotEmpty);
    auto* video =
        app.add_option("--video", c.video, "The camera of this capture node, on the kernel path")
            ->type_name("NODE")
            ->check(kNotEmpty);
    serial->excludes(bus, address, video);
    video->excludes(bus, address);
    auto* transport =
        app.add_option("--transport", c.transport,
                       "usb (libusb; the video driver is detached meanwhile), kernel (the video\n"
                       "driver's node; video keeps streaming) or auto (default: kernel when the\n"
                       "video driver holds the camera)")
            ->type_name("PATH")
            ->check(CLI::IsMember({"usb", "kernel", "auto"}));
#ifdef TARVIKCTL_WITH_SERVICE
    // tarvikd chooses the camera's path itself; a camera is picked by its serial.
    auto* service = app.add_flag("--service", g.service,
                                 "Run the command through tarvikd, the camera service on the\n"
                                 "system bus, instead of opening the camera (-s picks its camera)");
    app.add_flag("--session", g.session, "With --service: tarvikd on the session bus")
        ->needs(service);
    service->excludes(bus, address, video, transport);
#else
    (void)g;
    (void)transport;
#endif
}

void AddOutput(CLI::App& app, GlobalOptions& g) {
    app.add_flag("--json", g.json, "Print each result (and error) as one JSON object");
    app.add_flag("-v,--verbose", g.verbose, "Show the library's log lines on standard error");
    app.add_option("--log", g.logFile, "Append the library's log lines to FILE")
        ->type_name("FILE")
        ->check(kNotEmpty);
    // Quiet is the default now; the flag stays for scripts written when it was not.
    app.add_flag("--quiet", g.quiet, "")->group("");
    app.add_flag("--simulate", g.simulate,
                 "Run under tarvik-sim with the default simulated camera");
    app.set_version_flag("--version", std::string("tarvikctl ") + TARVIKCTL_VERSION +
                                          " (libTarvik " + tarvik_version() + ")");
}

std::string Footer() { return std::string(kFooter) + (kWithService ? kServiceFooter : ""); }

bool JsonAsked(int argc, char** argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) return true;
    }
    return false;
}

// Global choices that CLI11 can't state as rules between options.
std::string CheckGlobals(const GlobalOptions& g) {
    if (g.service && g.simulate) {
        return "--simulate runs the command against a simulated camera of its own; it can't go "
               "with --service";
    }
    if (!g.camera.video.empty() && g.camera.transport == "usb") {
        return "--video reaches the camera through the kernel path; it can't go with "
               "--transport usb";
    }
    return {};
}

}  // namespace

Invocation ParseCommandLine(int argc, char** argv) {
    Invocation inv;
    inv.jsonAsked = JsonAsked(argc, argv);
    // The command's closures refer to the storage; it lives as long as the process.
    static Storage storage;
    CLI::App app{"Control of the dual-eye camera (0ac8:010c) through libTarvik.", "tarvikctl"};
    app.fallthrough();  // global options may follow the command
    AddSelection(app, inv.global);
    AddOutput(app, inv.global);
    AddCommands(app, storage, inv);
    AddBashCompletionOption(app);
    app.footer(Footer());  // after the commands, which would inherit it
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            inv.exitNow = app.exit(e);
        } else {
            inv.usageError = e.what();
        }
        return inv;
    }
    inv.usageError = CheckGlobals(inv.global);
    if (inv.usageError.empty() && !inv.run && !inv.global.simulate) {
        inv.usageError = "a command is required";
    }
    return inv;
}

}  // namespace tarvikctl
