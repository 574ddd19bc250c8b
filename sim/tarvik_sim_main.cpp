// tarvik-sim run [options] -- CMD ARGS...
//
// Runs CMD with simulated cameras visible to libusb: this process holds the umockdev testbed
// and serves the device ioctls; CMD runs with umockdev's preload. Prints nothing on standard
// output; its own errors go to standard error. The exit status is CMD's (128 + signal when CMD
// was killed by a signal; 2 for a usage error, 127 when CMD cannot be started).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "card_file.h"
#include "gyro_tilt.h"
#include "testbed.h"

namespace {

using tarvik::sim::CameraState;

constexpr char kUsage[] =
    "usage: tarvik-sim run [options] -- CMD [ARGS...]\n"
    "  --cameras N             N cameras (default 1) on the first camera's bus, at consecutive\n"
    "                          addresses\n"
    "  --bus B, --address A    where the first camera sits (default bus 1, address 2)\n"
    "  --camera B:A            a camera at bus B, address A (repeatable; replaces the above)\n"
    "  --other-device B:A[:VID:PID]  an unrelated device (hex ids, default 1d6b:0104)\n"
    "  --no-kernel-driver      cameras start with no kernel driver bound to interface 0\n"
    "  --card FILE             identity card (JSON) the SAM presents\n"
    "  --tilt PITCH,ROLL       tilt the motion sensor reports, whole degrees\n";

struct Options {
    int cameras = 1;
    int bus = 1;
    int address = 2;
    std::vector<std::pair<int, int>> at;
    struct Other {
        int bus, address;
        unsigned vid, pid;
    };
    std::vector<Other> others;
    bool kernelDriver = true;
    std::string card;
    std::optional<std::pair<int, int>> tilt;
    std::vector<char*> command;
};

[[noreturn]] void Usage(const std::string& problem) {
    std::fprintf(stderr, "tarvik-sim: %s\n%s", problem.c_str(), kUsage);
    std::exit(2);
}

int Number(const char* text, const char* what) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < -1000 || v > 1000) {
        Usage(std::string("bad ") + what + ": " + text);
    }
    return static_cast<int>(v);
}

std::pair<int, int> Pair(const char* text, char sep, const char* what) {
    const char* mid = std::strchr(text, sep);
    if (mid == nullptr) Usage(std::string("bad ") + what + ": " + text);
    const std::string first(text, mid);
    return {Number(first.c_str(), what), Number(mid + 1, what)};
}

Options::Other OtherDevice(const char* text) {
    Options::Other o{0, 0, 0x1D6B, 0x0104};
    if (std::sscanf(text, "%d:%d:%x:%x", &o.bus, &o.address, &o.vid, &o.pid) < 2) {
        Usage(std::string("bad --other-device: ") + text);
    }
    return o;
}

Options Parse(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "run") != 0) Usage("expected the command 'run'");
    Options o;
    int i = 2;
    auto value = [&](const char* name) {
        if (i + 1 >= argc) Usage(std::string(name) + " needs a value");
        return argv[++i];
    };
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        } else if (arg == "--cameras") {
            o.cameras = Number(value("--cameras"), "--cameras");
        } else if (arg == "--bus") {
            o.bus = Number(value("--bus"), "--bus");
        } else if (arg == "--address") {
            o.address = Number(value("--address"), "--address");
        } else if (arg == "--camera") {
            o.at.push_back(Pair(value("--camera"), ':', "--camera"));
        } else if (arg == "--other-device") {
            o.others.push_back(OtherDevice(value("--other-device")));
        } else if (arg == "--no-kernel-driver") {
            o.kernelDriver = false;
        } else if (arg == "--card") {
            o.card = value("--card");
        } else if (arg == "--tilt") {
            o.tilt = Pair(value("--tilt"), ',', "--tilt");
        } else if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stderr);
            std::exit(0);
        } else {
            Usage("unknown option " + arg);
        }
    }
    for (; i < argc; ++i) o.command.push_back(argv[i]);
    if (o.command.empty()) Usage("no command to run");
    if (o.at.empty()) {
        if (o.cameras < 0) Usage("--cameras must not be negative");
        for (int k = 0; k < o.cameras; ++k) o.at.emplace_back(o.bus, o.address + k);
    }
    o.command.push_back(nullptr);
    return o;
}

CameraState InitialState(const Options& o) {
    CameraState state = tarvik::sim::DefaultCameraState();
    if (!o.card.empty()) state.sam.card = tarvik::sim::LoadCardFile(o.card);
    if (o.tilt) {
        std::array<uint8_t, 8> rest{};
        std::copy(state.gyro.begin() + 6, state.gyro.end(), rest.begin());
        auto sample = tarvik::sim::GyroSampleForTilt(o.tilt->first, o.tilt->second, rest);
        if (!sample) throw std::runtime_error("--tilt: no sample gives that tilt");
        state.gyro = *sample;
    }
    return state;
}

// The child's environment, made before fork so that the child only has to exec.
std::vector<std::string> ChildEnvironment(const std::string& root) {
    std::vector<std::string> env;
    std::string preload = "libumockdev-preload.so.0";
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (entry.rfind("LD_PRELOAD=", 0) == 0) {
            const std::string old = entry.substr(std::strlen("LD_PRELOAD="));
            if (!old.empty()) preload = old + ":" + preload;
        } else if (entry.rfind("UMOCKDEV_DIR=", 0) != 0) {
            env.push_back(entry);
        }
    }
    env.push_back("LD_PRELOAD=" + preload);
    env.push_back("UMOCKDEV_DIR=" + root);
    return env;
}

int Run(const Options& o) {
    tarvik::sim::Testbed bed;
    const CameraState initial = InitialState(o);
    for (const auto& [bus, address] : o.at) bed.AddCamera(bus, address, o.kernelDriver, initial);
    for (const auto& other : o.others) {
        bed.AddOtherDevice(other.bus, other.address, static_cast<uint16_t>(other.vid),
                           static_cast<uint16_t>(other.pid));
    }
    std::vector<std::string> env = ChildEnvironment(bed.RootDir());
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::fflush(nullptr);

    // Like system(): the terminal's interrupt belongs to the child.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction oldInt {
    }, oldQuit{};
    sigaction(SIGINT, &ignore, &oldInt);
    sigaction(SIGQUIT, &ignore, &oldQuit);

    const pid_t child = fork();
    if (child < 0) {
        std::fprintf(stderr, "tarvik-sim: fork: %s\n", std::strerror(errno));
        return 127;
    }
    if (child == 0) {
        sigaction(SIGINT, &oldInt, nullptr);
        sigaction(SIGQUIT, &oldQuit, nullptr);
        execvpe(o.command[0], o.command.data(), envp.data());
        std::fprintf(stderr, "tarvik-sim: cannot run %s: %s\n", o.command[0], std::strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            std::fprintf(stderr, "tarvik-sim: waitpid: %s\n", std::strerror(errno));
            return 127;
        }
    }
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 127;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Parse(argc, argv);
    try {
        return Run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvik-sim: %s\n", e.what());
        return 2;
    }
}
