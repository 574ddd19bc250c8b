#include "cli.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "completion.h"

namespace tarvikctl {

namespace {

constexpr char kFooter[] =
    "Results go to standard output; the library's log lines and libusb's messages go to\n"
    "standard error (or --log FILE, or nowhere with --quiet). Exit status: 0 success,\n"
    "1 the camera or the library reported a failure, 2 bad arguments (nothing was sent),\n"
    "3 no camera found or it could not be opened.";

// Every command's options live here until the command runs.
struct Storage {
    GetSetOptions get, set;
    std::vector<std::string> exposureValues;
    ItemOptions itemRead, itemWrite;
    GyroOptions gyro;
    CardOptions card;
    std::string samCommand;
};

void AddGetSet(CLI::App& app, Storage& s, Invocation& inv) {
    auto* get =
        app.add_subcommand("get", "Read a setting: roi, mjpeg-qp, device-id, device-sn, vcm");
    get->add_option("NAME", s.get.name, "What to read")->required();
    get->add_flag("--hex", s.get.hex, "device-id, device-sn: print 40 hex digits, not text");
    auto* getMode = get->add_option("--mode", s.get.mode, "vcm: which value (0-255, default 0)")
                        ->type_name("N");
    get->callback([&s, &inv, getMode] {
        s.get.modeGiven = getMode->count() > 0;
        inv.run = [&s](Session& session) { return RunGet(session, s.get); };
    });

    auto* set = app.add_subcommand(
        "set", "Write a setting: roi, mjpeg-qp, device-id, device-sn, gpio, vcm");
    set->footer(
        "  set roi V1 V2 V3 V4 | set mjpeg-qp V1 V2 V3 V4 | set gpio V1 V2\n"
        "      32-bit values, decimal or 0x.. hex\n"
        "  set device-id TEXT | set device-sn TEXT\n"
        "      printable ASCII, at most 20 characters, zero-padded; with --hex 40 hex digits\n"
        "  set vcm VALUE [--mode N] [--ctrl0 B] [--ctrl1 B]\n"
        "      VALUE 0-65535, N and B 0-255");
    set->add_option("NAME", s.set.name, "What to write")->required();
    set->add_option("VALUES", s.set.values, "The values")->required();
    set->add_flag("--hex", s.set.hex, "device-id, device-sn: the value is 40 hex digits");
    auto* setMode = set->add_option("--mode", s.set.mode, "vcm: which value (0-255, default 0)")
                        ->type_name("N");
    set->add_option("--ctrl0", s.set.ctrl0, "vcm: first leading byte, sent unchanged (default 0)")
        ->type_name("B");
    set->add_option("--ctrl1", s.set.ctrl1, "vcm: second leading byte, sent unchanged (default 0)")
        ->type_name("B");
    set->callback([&s, &inv, setMode] {
        s.set.modeGiven = setMode->count() > 0;
        inv.run = [&s](Session& session) { return RunSet(session, s.set); };
    });
}

void AddExposure(CLI::App& app, Storage& s, Invocation& inv) {
    auto* exposure = app.add_subcommand(
        "exposure", "The five exposure operations, as the library provides them");
    exposure->require_subcommand(1);
    struct Op {
        const char* name;
        const char* help;
        ExposureOp op;
        const char* values;
    };
    static const Op kOps[] = {
        {"get-times", "Both eyes' exposure times", ExposureOp::kGetTimes, nullptr},
        {"set-times", "Set both eyes' exposure times (manual mode)", ExposureOp::kSetTimes,
         "LEFT RIGHT"},
        {"get-range", "Both eyes' exposure-time ranges", ExposureOp::kGetRange, nullptr},
        {"get-mode", "Both eyes' exposure modes (1: manual)", ExposureOp::kGetMode, nullptr},
        {"set-mode", "Set both eyes' exposure mode (they must be equal)", ExposureOp::kSetMode,
         "LEFT RIGHT"},
    };
    for (const Op& op : kOps) {
        auto* sub = exposure->add_subcommand(op.name, op.help);
        if (op.values != nullptr) {
            sub->add_option(op.values, s.exposureValues, "Left eye, then right eye")->required();
        }
        const ExposureOp which = op.op;
        sub->callback([&s, &inv, which] {
            inv.run = [&s, which](Session& session) {
                return RunExposure(session, which, s.exposureValues);
            };
        });
    }
}

void AddItem(CLI::App& app, Storage& s, Invocation& inv) {
    auto* item = app.add_subcommand(
        "item", "Any extension item through one transaction; records as hex bytes");
    item->require_subcommand(1);
    item->add_subcommand("list", "The items, with their read and write record sizes")
        ->callback([&inv] { inv.run = [](Session& session) { return RunItemList(session); }; });

    auto* read = item->add_subcommand("read", "Read an item and print its record as hex");
    read->add_option("ITEM", s.itemRead.item, "Item number (1-18) or name")->required();
    auto* rt =
        read->add_option("--target", s.itemRead.target, "data-block: target byte")->type_name("N");
    auto* rl =
        read->add_option("--length", s.itemRead.length, "data-block: bytes (0-48, default 48)")
            ->type_name("N");
    auto* ro = read->add_option("--offset", s.itemRead.offset, "data-block: offset (0-65535)")
                   ->type_name("N");
    auto* rm =
        read->add_option("--mode", s.itemRead.mode, "vcm: which value (0-255)")->type_name("N");
    read->callback([&s, &inv, rt, rl, ro, rm] {
        s.itemRead.blockGiven = rt->count() + rl->count() + ro->count() > 0;
        s.itemRead.lengthGiven = rl->count() > 0;
        s.itemRead.modeGiven = rm->count() > 0;
        inv.run = [&s](Session& session) { return RunItemRead(session, s.itemRead); };
    });

    auto* write = item->add_subcommand(
        "write", "Write an item's record given as hex (data-block: its data bytes)");
    write->add_option("ITEM", s.itemWrite.item, "Item number (1-18) or name")->required();
    write->add_option("HEX", s.itemWrite.hex, "The record's bytes as hex digits");
    auto* wt = write->add_option("--target", s.itemWrite.target, "data-block: target byte")
                   ->type_name("N");
    auto* wl =
        write->add_option("--length", s.itemWrite.length, "not used: the data's length counts")
            ->type_name("N");
    auto* wo = write->add_option("--offset", s.itemWrite.offset, "data-block: offset (0-65535)")
                   ->type_name("N");
    auto* wm = write->add_option("--mode", s.itemWrite.mode, "not used: a vcm record has its mode")
                   ->type_name("N");
    write->callback([&s, &inv, wt, wl, wo, wm] {
        s.itemWrite.blockGiven = wt->count() + wl->count() + wo->count() > 0;
        s.itemWrite.lengthGiven = wl->count() > 0;
        s.itemWrite.modeGiven = wm->count() > 0;
        inv.run = [&s](Session& session) { return RunItemWrite(session, s.itemWrite); };
    });
}

void AddCommands(CLI::App& app, Storage& s, Invocation& inv) {
    app.add_subcommand("list", "Every camera (0ac8:010c) with its bus and address")
        ->callback([&inv] { inv.run = [](Session& session) { return RunList(session); }; });
    app.add_subcommand("info", "Everything readable at once")->callback([&inv] {
        inv.run = [](Session& session) { return RunInfo(session); };
    });
    AddGetSet(app, s, inv);
    AddExposure(app, s, inv);
    AddItem(app, s, inv);

    auto* gyro = app.add_subcommand("gyro", "Pitch and roll in whole degrees");
    gyro->add_flag("--watch", s.gyro.watch, "Refresh until interrupted (Ctrl-C)");
    gyro->add_option("--interval", s.gyro.intervalMs,
                     "--watch: milliseconds between reads (default 500)")
        ->type_name("MS");
    gyro->add_option("--count", s.gyro.count,
                     "--watch: stop after this many reads (default: never)")
        ->type_name("N");
    gyro->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunGyro(session, s.gyro); }; });

    auto* card = app.add_subcommand("idcard", "Read an identity card through the SAM");
    card->add_option("--photo", s.card.photo, "Write the raw photo block (1024 bytes) to FILE")
        ->type_name("FILE");
    card->add_option("--third-block", s.card.thirdBlock,
                     "Read the third block too and write it (1024 bytes) to FILE")
        ->type_name("FILE");
    card->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunIdcard(session, s.card); }; });

    auto* sam =
        app.add_subcommand("sam", "Run one raw SAM command (0-4, 6, 7) and print its result");
    sam->add_option("CMD", s.samCommand, "The command")->required();
    sam->callback(
        [&s, &inv] { inv.run = [&s](Session& session) { return RunSam(session, s.samCommand); }; });
}

}  // namespace

Invocation ParseCommandLine(int argc, char** argv) {
    Invocation inv;
    // The command's closures refer to the storage; it lives as long as the process.
    static Storage storage;
    CLI::App app{"Control of the dual-eye camera (0ac8:010c) through libTarvik.", "tarvikctl"};
    app.footer(kFooter);
    app.fallthrough();  // global options may follow the command
    GlobalOptions& g = inv.global;
    auto* bus = app.add_option("--bus", g.bus, "The camera's bus (with --address)")
                    ->type_name("BUS")
                    ->check(CLI::Range(1, 255));
    auto* address = app.add_option("--address", g.address, "The camera's address (with --bus)")
                        ->type_name("ADDRESS")
                        ->check(CLI::Range(1, 255));
    bus->needs(address);
    address->needs(bus);
    app.add_flag("--json", g.json, "Print results as JSON");
    auto* quiet = app.add_flag("--quiet", g.quiet, "Drop the library's and libusb's messages");
    auto* log =
        app.add_option("--log", g.logFile, "Append the library's and libusb's messages to FILE")
            ->type_name("FILE");
    quiet->excludes(log);
    app.add_flag("--simulate", g.simulate,
                 "Run under tarvik-sim with the default simulated camera");
    AddCommands(app, storage, inv);
    AddBashCompletionOption(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            inv.exitNow = app.exit(e);
        } else {
            std::fprintf(stderr, "tarvikctl: %s\nRun 'tarvikctl --help' for more information.\n",
                         e.what());
            inv.exitNow = kExitUsage;
        }
        return inv;
    }
    if (!inv.run) {
        std::fprintf(stderr, "tarvikctl: a command is required\n%s", app.help().c_str());
        inv.exitNow = kExitUsage;
    }
    return inv;
}

}  // namespace tarvikctl
