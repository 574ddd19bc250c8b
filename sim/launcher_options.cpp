#include "launcher_options.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "fault_syntax.h"

namespace tarvik::sim {

const char kLauncherUsage[] =
    "usage: tarvik-sim run [options] -- CMD [ARGS...]\n"
    "       tarvik-sim ctl [--control PATH] [--camera N | --serial S] [--json] COMMAND [ARGS]\n"
    "       tarvik-sim --help | --version\n"
    "Runs CMD with simulated cameras (USB 0ac8:010c) that libusb and the video4linux tools\n"
    "see. Prints nothing on standard output; passes signals sent to it (INT, TERM, HUP, QUIT)\n"
    "on to CMD and exits with CMD's status (128 + signal when CMD was killed, 127 when it\n"
    "cannot be started, 2 for a usage error).\n"
    "  --cameras N             N cameras (default 1) on the first camera's bus, at consecutive\n"
    "                          addresses; serials SN2024SIMCAMERA00042, ...00043, ...\n"
    "  --bus B, --address A    where the first camera sits (default bus 1, address 2)\n"
    "  --camera B:A[,card=FILE][,serial=SN]\n"
    "                          a camera at bus B, address A (repeatable; replaces the above)\n"
    "  --other-device B:A[:VID:PID]  an unrelated device (hex ids, default 1d6b:0104)\n"
    "  --no-kernel-driver      cameras start with no kernel driver bound (and no video nodes)\n"
    "  --no-video              cameras show no video nodes (the driver's side is off)\n"
    "  --card FILE             identity card (JSON, a regular file of at most 64 KiB) the SAM\n"
    "                          presents\n"
    "  --no-card               no card on the reader at the start (the SAM answers status\n"
    "                          0x80)\n"
    "  --tilt PITCH,ROLL       tilt the motion sensor reports, whole degrees\n"
    "  --fault KIND[:ITEM]     selector 14 fails for the whole run: stall, timeout or garbage;\n"
    "                          with ITEM (1-18) only the read transactions of that item\n"
    "  --unplug-after SECONDS  the cameras are unplugged for good after SECONDS\n"
    "  --unplug-after-transfers N  each camera is unplugged for good after N requests\n"
    "  --deny-access           the cameras' nodes refuse to open (EACCES), as without the\n"
    "                          udev rule\n"
    "  --script FILE           run the control commands in FILE while CMD runs, one a line:\n"
    "                          at MS COMMAND [ARGS] (MS after CMD started; # comments)\n"
    "Control commands, from tarvik-sim ctl or a script, for the camera chosen by --camera N\n"
    "(its index, default 0) or --serial S; each prints the camera's status:\n"
    "  place-card [FILE]       lay a card on the reader: FILE, or the camera's own card\n"
    "  remove-card             take it away (the SAM answers status 80, code 17)\n"
    "  unplug                  pull the cable: remove uevents, the camera's nodes go\n"
    "  replug                  plug it in again: a new address, the same serial and port,\n"
    "                          the volatile settings at their defaults\n"
    "  tilt PITCH ROLL         the tilt the motion sensor reports, whole degrees\n"
    "  fault SPEC              as --fault; none drops every fault\n"
    "  status                  per camera: bus, address, serial, plugged or not, card or not,\n"
    "                          video node (--json: as JSON)\n"
    "ctl finds CMD's launcher through TARVIK_SIM_CONTROL (set for CMD) or --control PATH, and\n"
    "exits 0, 1 when the command cannot be carried out, 2 for a usage error.\n";

namespace {

std::pair<int, int> Pair(const std::string& text, char sep, const std::string& what, long low,
                         long high) {
    const size_t mid = text.find(sep);
    if (mid == std::string::npos) throw UsageError("bad " + what + ": " + text);
    return {ParseInteger(text.substr(0, mid), what, low, high),
            ParseInteger(text.substr(mid + 1), what, low, high)};
}

// B:A[,card=FILE][,serial=SN]
CameraSpec Camera(const std::string& text) {
    const size_t comma = text.find(',');
    CameraSpec c;
    std::tie(c.bus, c.address) = Pair(text.substr(0, comma), ':', "--camera", 1, 255);
    for (size_t at = comma; at != std::string::npos;) {
        const size_t next = text.find(',', at + 1);
        const std::string part =
            text.substr(at + 1, next == std::string::npos ? next : next - at - 1);
        if (part.rfind("card=", 0) == 0) {
            c.card = part.substr(5);
        } else if (part.rfind("serial=", 0) == 0 && part.size() > 7) {
            c.serial = part.substr(7);
        } else {
            throw UsageError("bad --camera part: " + part);
        }
        at = next;
    }
    return c;
}

OtherDeviceSpec OtherDevice(const std::string& text) {
    OtherDeviceSpec o;
    char tail = 0;
    const int n = std::sscanf(text.c_str(), "%d:%d:%x:%x%c", &o.bus, &o.address, &o.vendorId,
                              &o.productId, &tail);
    if ((n != 2 && n != 4) || o.vendorId > 0xFFFF || o.productId > 0xFFFF) {
        throw UsageError("bad --other-device: " + text);
    }
    return o;
}

double Seconds(const std::string& text) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v >= 0 && v <= 86400)) {
        throw UsageError("bad --unplug-after: " + text);
    }
    return v;
}

}  // namespace

std::string SerialOfCamera(size_t index) {
    char serial[32];
    std::snprintf(serial, sizeof serial, "SN2024SIMCAMERA%05zu", 42 + index);
    return serial;
}

LaunchOptions ParseLaunchOptions(const std::vector<std::string>& args) {
    LaunchOptions o;
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        o.action = LaunchOptions::Action::kHelp;
        return o;
    }
    if (!args.empty() && args[0] == "--version") {
        o.action = LaunchOptions::Action::kVersion;
        return o;
    }
    if (args.empty() || args[0] != "run") throw UsageError("expected the command 'run'");
    int cameras = 1, bus = 1, address = 2;
    size_t i = 1;
    auto value = [&](const std::string& name) -> const std::string& {
        if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
        return args[++i];
    };
    for (; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--") {
            ++i;
            break;
        } else if (arg == "-h" || arg == "--help") {
            o.action = LaunchOptions::Action::kHelp;
            return o;
        } else if (arg == "--cameras") {
            cameras = ParseInteger(value(arg), arg, 0, 32);
        } else if (arg == "--bus") {
            bus = ParseInteger(value(arg), arg, 1, 255);
        } else if (arg == "--address") {
            address = ParseInteger(value(arg), arg, 1, 255);
        } else if (arg == "--camera") {
            o.cameras.push_back(Camera(value(arg)));
        } else if (arg == "--other-device") {
            o.others.push_back(OtherDevice(value(arg)));
        } else if (arg == "--no-kernel-driver") {
            o.kernelDriver = false;
        } else if (arg == "--no-video") {
            o.video = false;
        } else if (arg == "--deny-access") {
            o.denyAccess = true;
        } else if (arg == "--card") {
            o.card = value(arg);
        } else if (arg == "--no-card") {
            o.noCard = true;
        } else if (arg == "--tilt") {
            o.tilt = Pair(value(arg), ',', arg, -90, 90);
        } else if (arg == "--fault") {
            try {
                for (const Fault& f : ParseFaultSpec(value(arg), arg)) o.faults.push_back(f);
            } catch (const std::invalid_argument& e) {
                throw UsageError(e.what());
            }
        } else if (arg == "--unplug-after") {
            o.unplugAfterSeconds = Seconds(value(arg));
        } else if (arg == "--script") {
            o.script = value(arg);
        } else if (arg == "--unplug-after-transfers") {
            o.unplugAfterTransfers = ParseInteger(value(arg), arg, 0, INT_MAX - 1);
        } else {
            throw UsageError("unknown option " + arg);
        }
    }
    o.command.assign(args.begin() + static_cast<long>(std::min(i, args.size())), args.end());
    if (o.command.empty()) throw UsageError("no command to run");
    if (o.noCard && !o.card.empty()) throw UsageError("--card and --no-card exclude each other");
    if (o.cameras.empty()) {
        if (address + cameras - 1 > 255) throw UsageError("--cameras: addresses past 255");
        for (int k = 0; k < cameras; ++k) {
            o.cameras.push_back({bus, address + k, "", cameras > 1 ? SerialOfCamera(k) : ""});
        }
    }
    return o;
}

int ParseInteger(const std::string& text, const std::string& what, long low, long high) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || text.empty() || *end != '\0' || v < low || v > high) {
        throw UsageError("bad " + what + ": " + text);
    }
    return static_cast<int>(v);
}

}  // namespace tarvik::sim
