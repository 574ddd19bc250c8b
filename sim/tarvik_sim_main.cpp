// tarvik-sim run [options] -- CMD ARGS...
// tarvik-sim ctl [--control PATH] COMMAND [ARGS]
//
// Runs CMD with simulated cameras visible to libusb and to the video4linux tools: this process
// holds the umockdev testbed and serves the device ioctls; CMD runs with umockdev's preload
// (and the simulator's open() gate). Prints nothing on standard output while CMD runs; its own
// errors go to standard error. The exit status is CMD's (128 + signal when CMD was killed by a
// signal; 2 for a usage error, 127 when CMD cannot be started). Signals sent to the launcher
// go on to CMD. While CMD runs, the launcher takes control commands on a socket whose path
// CMD finds in TARVIK_SIM_CONTROL (`tarvik-sim ctl` sends them), and runs a --script's.
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

#include "camera_control.h"
#include "card_file.h"
#include "control_command.h"
#include "control_script.h"
#include "control_socket.h"
#include "gyro_tilt.h"
#include "launcher_options.h"
#include "owned_fd.h"
#include "testbed.h"

namespace {

using namespace tarvik::sim;

// CMD, for the signal handler: 0 while there is none to send a signal to.
std::atomic<pid_t> g_child{0};
std::atomic<int> g_pending{0};  // a signal that came before CMD started

void PassOn(int signal, siginfo_t* info, void* /*context*/) {
    // The terminal's interrupt and quit reach CMD itself, which is in the launcher's process
    // group: only what a process sent (kill, sigqueue) is passed on, so nothing comes twice.
    if (info->si_code > 0) return;
    const int savedErrno = errno;
    g_pending.store(signal);
    const pid_t child = g_child.load();
    if (child > 0) {
        if (const int pending = g_pending.exchange(0); pending != 0) ::kill(child, pending);
    }
    errno = savedErrno;
}

// While CMD runs the launcher lives as long as it does: SIGINT, SIGTERM, SIGHUP and SIGQUIT
// sent to the launcher go on to CMD, and the launcher ends when CMD ends, with its status.
// SIGTERM and SIGHUP stay ignored when they were (nohup), for the launcher and CMD alike.
// The launcher's own dispositions come back when this goes, whichever way Run ends.
class SignalsToChild {
public:
    SignalsToChild() {
        struct sigaction passOn {};
        passOn.sa_sigaction = PassOn;
        passOn.sa_flags = SA_SIGINFO | SA_RESTART;
        sigemptyset(&passOn.sa_mask);
        for (size_t k = 0; k < std::size(kSignals); ++k) {
            sigaction(kSignals[k], nullptr, &m_old[k]);
            const bool nohup =
                m_old[k].sa_handler == SIG_IGN && (kSignals[k] == SIGTERM || kSignals[k] == SIGHUP);
            if (!nohup) sigaction(kSignals[k], &passOn, nullptr);
        }
    }
    ~SignalsToChild() {
        Ended();
        for (size_t k = 0; k < std::size(kSignals); ++k) sigaction(kSignals[k], &m_old[k], nullptr);
    }
    SignalsToChild(const SignalsToChild&) = delete;
    SignalsToChild& operator=(const SignalsToChild&) = delete;

    // A signal that came while the testbed was being set up goes to CMD as it starts.
    static void Started(pid_t child) {
        g_child.store(child);
        if (const int pending = g_pending.exchange(0); pending != 0) ::kill(child, pending);
    }
    // Before CMD is reaped: after that its pid may be another process's.
    static void Ended() { g_child.store(0); }

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    struct sigaction m_old[std::size(kSignals)]{};
};

CameraState InitialState(const LaunchOptions& o, const CameraSpec& spec) {
    CameraState state = DefaultCameraState();
    const std::string& card = spec.card.empty() ? o.card : spec.card;
    if (!card.empty()) state.sam.card = LoadCardFile(card);
    state.sam.cardPresent = !o.noCard;
    if (o.tilt) {
        std::array<uint8_t, 8> rest{};
        std::copy(state.gyro.begin() + 6, state.gyro.end(), rest.begin());
        auto sample = GyroSampleForTilt(o.tilt->first, o.tilt->second, rest);
        if (!sample) throw UsageError("--tilt: no sample gives that tilt");
        state.gyro = *sample;
    }
    return state;
}

void AddDevices(Testbed& bed, const LaunchOptions& o) {
    for (size_t k = 0; k < o.cameras.size(); ++k) {
        const CameraSpec& spec = o.cameras[k];
        CameraOptions options;
        options.kernelDriverBound = o.kernelDriver;
        options.videoNodes = o.video;
        options.denyAccess = o.denyAccess;
        options.serial = spec.serial.empty() ? SerialOfCamera(k) : spec.serial;
        options.initial = InitialState(o, spec);
        Camera& camera = bed.AddCamera(spec.bus, spec.address, std::move(options));
        if (o.unplugAfterTransfers) {  // first, so that it counts every request
            Fault unplug;
            unplug.kind = FaultKind::kGoneForGood;
            unplug.selector = kAnySelector;
            unplug.skip = *o.unplugAfterTransfers;
            camera.Model().InjectFault(unplug);
        }
        for (const Fault& f : o.faults) camera.Model().InjectFault(f);
    }
    for (const OtherDeviceSpec& other : o.others) {
        bed.AddOtherDevice(other.bus, other.address, static_cast<uint16_t>(other.vendorId),
                           static_cast<uint16_t>(other.productId));
    }
}

// The open() gate lives beside the launcher in the build tree (gate/), or where it was installed
// relative to it (../lib/tarvik/ for bin/tarvik-sim): the prefix may move.
std::string GatePath() {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "";
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    for (const char* where : {"/gate/", "/" TARVIK_SIM_GATE_FROM_BIN "/"}) {
        const std::string path = dir + where + "libtarvik-sim-gate.so";
        if (::access(path.c_str(), R_OK) == 0) return path;
    }
    return "";
}

constexpr char kPreload[] = "libumockdev-preload.so.0";
// The launcher's own LD_PRELOAD before it put umockdev's preload there for itself.
constexpr char kOuterPreload[] = "TARVIK_SIM_OUTER_PRELOAD";

bool Named(const std::string& entry, const char* name) {
    return entry.rfind(name, 0) == 0 && entry.size() > std::strlen(name) &&
           entry[std::strlen(name)] == '=';
}

// umockdev announces devices (uevents) only from a process under its preload, where it can
// read the simulated sysfs: the launcher runs itself again under it. Returns only when that
// is done or cannot be done (then programs are told of no unplug and no replug).
void RunUnderPreload(char** argv) {
    // Not umockdev_in_mock_environment(): it keeps its first answer, and without a testbed yet
    // that answer is no.
    const char* old = std::getenv("LD_PRELOAD");
    if (std::getenv(kOuterPreload) != nullptr ||
        (old != nullptr && std::strstr(old, "libumockdev-preload") != nullptr)) {
        return;
    }
    const std::string outer = old != nullptr ? old : "";
    setenv(kOuterPreload, outer.c_str(), 1);
    setenv("LD_PRELOAD", (outer.empty() ? kPreload : outer + ":" + kPreload).c_str(), 1);
#if defined(__SANITIZE_ADDRESS__)
    // ASan wants to come first in the library list; under the preload it cannot.
    const char* asan = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS",
           ((asan != nullptr ? std::string(asan) + ":" : "") + "verify_asan_link_order=0").c_str(),
           1);
#endif
    ::execv("/proc/self/exe", argv);
    std::fprintf(stderr, "tarvik-sim: cannot run under %s (%s): programs get no hotplug events\n",
                 kPreload, std::strerror(errno));
}

std::vector<std::string> ChildEnvironment(const std::string& root, const std::string& gate,
                                          const std::string& control) {
    std::vector<std::string> env;
    std::string preload = (gate.empty() ? "" : gate + ":") + kPreload;
    const char* outer = std::getenv(kOuterPreload);
    std::string old = outer != nullptr ? outer : "";
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (Named(entry, "LD_PRELOAD")) {
            if (outer == nullptr) old = entry.substr(std::strlen("LD_PRELOAD="));
        } else if (!Named(entry, "UMOCKDEV_DIR") && !Named(entry, kOuterPreload) &&
                   !Named(entry, "TARVIK_SIM_CONTROL")) {
            env.push_back(entry);
        }
    }
    env.push_back("LD_PRELOAD=" + (old.empty() ? preload : old + ":" + preload));
    env.push_back("UMOCKDEV_DIR=" + root);
    env.push_back("TARVIK_SIM_CONTROL=" + control);
    return env;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
    std::vector<char*> out;
    for (std::string& w : words) out.push_back(w.data());
    out.push_back(nullptr);
    return out;
}

// Starts CMD with default dispositions of SIGINT and SIGQUIT and an empty signal mask.
pid_t Spawn(std::vector<std::string> command, std::vector<std::string> env) {
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, terminal;
    sigemptyset(&none);
    sigemptyset(&terminal);
    sigaddset(&terminal, SIGINT);
    sigaddset(&terminal, SIGQUIT);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &terminal);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> argv = Pointers(command);
    std::vector<char*> envp = Pointers(env);
    pid_t child = -1;
    const int error = posix_spawnp(&child, argv[0], nullptr, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    if (error != 0) {
        std::fprintf(stderr, "tarvik-sim: cannot run %s: %s\n", argv[0], std::strerror(error));
        return -1;
    }
    return child;
}

int ExitStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 127;
}

void UnplugGone(Testbed& bed, bool all) {
    for (size_t k = 0; k < bed.CameraCount(); ++k) {
        Camera& camera = bed.GetCamera(k);
        if (all || camera.Model().Gone()) camera.Unplug();
    }
}

ControlAnswer Control(Testbed& bed, const std::vector<std::string>& words) {
    try {
        return RunControlCommand(bed, ParseControlCommand(words));
    } catch (const UsageError& e) {
        return {2, std::string(e.what()) + "\n"};
    }
}

// What a --script line made of the cameras goes to standard error: standard output is CMD's.
void RunScriptLine(Testbed& bed, const ScriptLine& line) {
    const ControlAnswer a = RunControlCommand(bed, line.command);
    if (a.status != 0 || line.command.verb == ControlCommand::Verb::kStatus) {
        std::fprintf(stderr, "tarvik-sim: script line %d: %s", line.line, a.text.c_str());
    }
}

// Waits for CMD, unplugging cameras as they go (a fault or --unplug-after-transfers, told
// through `gone`) or when --unplug-after's time is up, serving control requests and running
// the script's lines when they are due.
int Wait(pid_t child, Testbed& bed, const OwnedFd& gone, ControlServer& control,
         std::optional<double> unplugAfter, const std::vector<ScriptLine>& script) {
    using Clock = std::chrono::steady_clock;
    const OwnedFd exited(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    const auto start = Clock::now();
    bool timerDone = !unplugAfter.has_value();
    size_t next = 0;  // the script's next line
    for (;;) {
        siginfo_t ended{};
        const int done =
            ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
        if (done == 0 && ended.si_pid == child) {
            SignalsToChild::Ended();
            int status = 0;
            ::waitpid(child, &status, 0);
            return ExitStatus(status);
        }
        if (done < 0 && errno != EINTR) {
            std::fprintf(stderr, "tarvik-sim: waitid: %s\n", std::strerror(errno));
            return 127;
        }
        std::optional<Clock::time_point> due;
        if (!timerDone) {
            due = start + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(*unplugAfter));
            if (Clock::now() >= *due) {
                UnplugGone(bed, true);
                timerDone = true;
                continue;
            }
        }
        if (next < script.size()) {
            if (Clock::now() >= start + script[next].at) {
                RunScriptLine(bed, script[next++]);
                continue;
            }
            due = due ? std::min(*due, start + script[next].at) : start + script[next].at;
        }
        int timeout = exited.get() >= 0 ? -1 : 20;  // without pidfd (old kernel): look often
        if (due) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now()).count();
            const int wait = static_cast<int>(std::max<long>(left, 0));
            timeout = timeout < 0 ? wait : std::min(timeout, wait);
        }
        pollfd fds[3] = {
            {gone.get(), POLLIN, 0}, {control.Descriptor(), POLLIN, 0}, {exited.get(), POLLIN, 0}};
        if (::poll(fds, exited.get() >= 0 ? 3 : 2, timeout) <= 0) continue;
        if (fds[0].revents & POLLIN) {
            uint64_t count = 0;
            if (::read(gone.get(), &count, sizeof count) == sizeof count) UnplugGone(bed, false);
        }
        if (fds[1].revents & POLLIN) {
            control.ServeOne([&bed](const std::vector<std::string>& w) { return Control(bed, w); });
        }
    }
}

int Run(const LaunchOptions& o) {
    const std::string gate = GatePath();
    if (o.denyAccess && gate.empty()) {
        throw std::runtime_error("--deny-access: the open() gate library is not installed");
    }
    const std::vector<ScriptLine> script =
        o.script.empty() ? std::vector<ScriptLine>{} : LoadControlScript(o.script);
    const SignalsToChild signals;  // first: it goes after the testbed is taken down
    Testbed bed;
    const OwnedFd gone(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    bed.SetGoneListener([fd = gone.get()](Camera&) {
        const uint64_t one = 1;
        (void)!::write(fd, &one, sizeof one);
    });
    AddDevices(bed, o);
    ControlServer control(bed.RootDir() + "/tarvik-control");
    std::vector<std::string> command = o.command;
    const pid_t child = Spawn(command, ChildEnvironment(bed.RootDir(), gate, control.Path()));
    if (child < 0) return 127;
    SignalsToChild::Started(child);
    return Wait(child, bed, gone, control, o.unplugAfterSeconds, script);
}

// tarvik-sim ctl [--control PATH] COMMAND [ARGS]: one control command to a running launcher.
int Ctl(const std::vector<std::string>& args) {
    const char* fromEnvironment = std::getenv("TARVIK_SIM_CONTROL");
    std::string path = fromEnvironment != nullptr ? fromEnvironment : "";
    std::vector<std::string> words;
    ControlCommand command;
    try {
        for (size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "--help" || args[i] == "-h") {
                std::fputs(kLauncherUsage, stdout);
                return 0;
            }
            if (args[i] == "--control" && i + 1 == args.size()) {
                throw UsageError("--control needs a path");
            }
            if (args[i] == "--control") {
                path = args[++i];
            } else {
                words.push_back(args[i]);
            }
        }
        if (path.empty()) {
            throw UsageError(
                "no simulator: TARVIK_SIM_CONTROL is not set (run under tarvik-sim run, or give "
                "--control PATH)");
        }
        char here[4096];
        command = ParseControlCommand(words, ::getcwd(here, sizeof here) != nullptr ? here : "");
    } catch (const UsageError& e) {
        std::fprintf(stderr, "tarvik-sim: ctl: %s\n", e.what());
        return 2;
    }
    try {
        const ControlAnswer a = SendControlRequest(path, ControlWords(command));
        if (a.status == 0) {
            std::fputs(a.text.c_str(), stdout);
        } else {
            std::fprintf(stderr, "tarvik-sim: ctl: %s", a.text.c_str());
        }
        return a.status;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvik-sim: ctl: %s\n", e.what());
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "ctl") return Ctl({args.begin() + 1, args.end()});
    LaunchOptions options;
    try {
        options = ParseLaunchOptions(args);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "tarvik-sim: %s\n%s", e.what(), kLauncherUsage);
        return 2;
    }
    if (options.action == LaunchOptions::Action::kHelp) {
        std::fputs(kLauncherUsage, stdout);
        return 0;
    }
    if (options.action == LaunchOptions::Action::kVersion) {
        std::printf("tarvik-sim %s\n", TARVIK_VERSION);
        return 0;
    }
    RunUnderPreload(argv);
    try {
        return Run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvik-sim: %s\n", e.what());
        return 2;
    }
}
