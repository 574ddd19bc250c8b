// tarvikd against the library in-process, in one run, on a simulated camera:
//
//   1. A call: ReadItem("roi") through the service (sd-bus, the session bus)
//      against tarvik_read_roi in this process on the same camera (the kernel
//      path: both hold the capture node), pairs of one each in alternating
//      order; the median of each and of the differences.
//   2. Card laid down to CardPlaced: the simulator's control socket told to
//      place the card at a random moment of the poll interval, the time until
//      the signal arrives; lifted again (CardRemoved awaited) between rounds.
//      The bound is one interval plus one exchange.
//   3. Idle CPU with one watcher and no card: the service's CPU (all of its
//      threads, /proc) over a stretch of polls, against this process waiting
//      in tarvik_wait_event at the same interval for as long (the bare poll
//      loop: the library's own), per poll.
//   4. The service's memory: VmRSS and VmHWM after the above.
//
// Run under `tarvik-sim run -- dbus-run-session --`:
//   tarvik_bench_service TARVIKD [--quick]
#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "control_socket.h"
#include "tarvik.h"

extern char** environ;

namespace {

constexpr unsigned kIntervalMs = 50;
constexpr char kName[] = "org.tarvik.Tarvik1";
constexpr char kCameraInterface[] = "org.tarvik.Tarvik1.Camera";

double Now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void Check(int r, const char* what) {
    if (r < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-r));
}

void CheckResult(int r, const char* what) {
    if (r != 0) throw std::runtime_error(std::string(what) + ": " + tarvik_result_name(r));
}

// The service's CPU seconds, all of its threads, to the nanosecond: the sum of
// each task's time on a CPU (/proc/PID/task/TID/schedstat, its first field).
double ProcessCpu(pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    double ns = 0;
    DIR* dir = opendir(tasks.c_str());
    if (dir == nullptr) return 0;
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        FILE* f = std::fopen((tasks + "/" + e->d_name + "/schedstat").c_str(), "r");
        if (f == nullptr) continue;
        unsigned long long onCpu = 0;
        if (std::fscanf(f, "%llu", &onCpu) == 1) ns += static_cast<double>(onCpu);
        std::fclose(f);
    }
    closedir(dir);
    return ns * 1e-9;
}

std::string StatusLine(pid_t pid, const char* key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key, 0) == 0) return line;
    }
    return std::string(key) + " ?";
}

struct Service {
    pid_t pid = -1;
    sd_bus* bus = nullptr;
    std::string path;

    explicit Service(const char* binary) {
        const char* argv[] = {binary,           "--session", "--poll-interval", "50",
                              "--log-level",    "warning",   nullptr};
        Check(-posix_spawn(&pid, binary, nullptr, nullptr, const_cast<char**>(argv), environ),
              "tarvikd");
        Check(sd_bus_open_user(&bus), "session bus");
        for (int i = 0; i < 200; ++i) {
            sd_bus_message* reply = nullptr;
            const int r = sd_bus_call_method(bus, kName, "/org/tarvik/Tarvik1",
                                             "org.tarvik.Tarvik1.Manager", "GetCameras", nullptr,
                                             &reply, "");
            const char* first = nullptr;
            if (r >= 0 && sd_bus_message_enter_container(reply, 'a', "o") >= 0 &&
                sd_bus_message_read_basic(reply, 'o', &first) > 0) {
                path = first;
            }
            sd_bus_message_unref(reply);
            if (!path.empty()) return;
            usleep(50000);
        }
        throw std::runtime_error("tarvikd offers no camera");
    }
    ~Service() {
        sd_bus_flush_close_unref(bus);
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }

    void Call(const char* member, const char* signature = "", const char* item = nullptr) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const int r = item != nullptr
                          ? sd_bus_call_method(bus, kName, path.c_str(), kCameraInterface, member,
                                               &error, &reply, signature, item)
                          : sd_bus_call_method(bus, kName, path.c_str(), kCameraInterface, member,
                                               &error, &reply, signature);
        const std::string why = error.message != nullptr ? error.message : "";
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        if (r < 0) throw std::runtime_error(std::string(member) + ": " + why);
    }
};

// Waits for the named signal of the camera, up to 5 s.
double WaitSignal(sd_bus* bus, const char* member) {
    const double end = Now() + 5;
    while (Now() < end) {
        sd_bus_message* m = nullptr;
        const int r = sd_bus_process(bus, &m);
        Check(r, "process");
        const bool hit = m != nullptr && sd_bus_message_is_signal(m, kCameraInterface, member) > 0;
        sd_bus_message_unref(m);
        if (hit) return Now();
        if (r == 0) sd_bus_wait(bus, 100000);
    }
    throw std::runtime_error(std::string("no ") + member + " signal");
}

void Control(const char* command) {
    const char* socket = std::getenv("TARVIK_SIM_CONTROL");
    if (socket == nullptr) throw std::runtime_error("run me under tarvik-sim run");
    const auto answer = tarvik::sim::SendControlRequest(socket, {command});
    if (answer.status != 0) throw std::runtime_error(std::string(command) + ": " + answer.text);
}

// A bare round trip to the service through the bus daemon, answered on its bus
// thread without the camera: what any call through a bus costs.
double PingMedian(Service& service, int count) {
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        const double t0 = Now();
        sd_bus_message* reply = nullptr;
        Check(sd_bus_call_method(service.bus, kName, "/org/tarvik/Tarvik1",
                                 "org.freedesktop.DBus.Peer", "Ping", nullptr, &reply, ""),
              "Ping");
        sd_bus_message_unref(reply);
        times.push_back((Now() - t0) * 1e6);
    }
    return Median(times);
}

void Calls(Service& service, tarvik_camera* camera, int pairs) {
    std::vector<double> bus, local, added;
    int32_t roi[4];
    for (int i = 0; i < pairs + 20; ++i) {
        double b = 0, l = 0;
        for (int k = 0; k < 2; ++k) {
            const double t0 = Now();
            if ((k == 0) == (i % 2 == 0)) {
                service.Call("ReadItem", "s", "roi");
                b = Now() - t0;
            } else {
                CheckResult(tarvik_read_roi(camera, roi), "tarvik_read_roi");
                l = Now() - t0;
            }
        }
        if (i < 20) continue;  // warm-up
        bus.push_back(b * 1e6);
        local.push_back(l * 1e6);
        added.push_back((b - l) * 1e6);
    }
    std::printf("call ReadItem(roi) through the service: median %.0f us; tarvik_read_roi "
                "in-process: median %.0f us; added: median %.0f us (ratio %.2f), %d pairs\n",
                Median(bus), Median(local), Median(added), Median(bus) / Median(local), pairs);
    std::printf("  of which a bare round trip through the bus (Peer.Ping): median %.0f us\n",
                PingMedian(service, pairs));
}

void Placed(Service& service, int rounds) {
    Check(sd_bus_match_signal(service.bus, nullptr, kName, service.path.c_str(), kCameraInterface,
                              nullptr, nullptr, nullptr),
          "match");
    service.Call("Watch");
    std::mt19937 random(7);
    std::uniform_int_distribution<int> within(0, kIntervalMs * 1000);
    std::vector<double> delays;
    WaitSignal(service.bus, "CardPlaced");  // the card the simulator starts with
    for (int i = 0; i < rounds; ++i) {
        Control("remove-card");
        WaitSignal(service.bus, "CardRemoved");
        usleep(static_cast<useconds_t>(within(random)));
        const double t0 = Now();
        Control("place-card");
        delays.push_back((WaitSignal(service.bus, "CardPlaced") - t0) * 1e3);
    }
    std::printf("card laid down to CardPlaced: mean %.1f ms, median %.1f ms, max %.1f ms over %d "
                "(bound: one %u ms interval plus one exchange)\n",
                std::accumulate(delays.begin(), delays.end(), 0.0) / rounds, Median(delays),
                *std::max_element(delays.begin(), delays.end()), rounds, kIntervalMs);
    Control("remove-card");
    WaitSignal(service.bus, "CardRemoved");
}

void IdleCpu(Service& service, tarvik_camera* camera, double seconds) {
    // The service polls for its watcher; this process waits as long, alone.
    const double polls = seconds * 1000 / kIntervalMs;
    const double s0 = ProcessCpu(service.pid);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double serviceCpu = ProcessCpu(service.pid) - s0;
    service.Call("Unwatch");

    CheckResult(tarvik_set_poll_interval(camera, kIntervalMs), "interval");
    const double c0 = ProcessCpu(getpid());
    const double end = Now() + seconds;
    tarvik_event e;
    while (Now() < end) tarvik_wait_event(camera, &e, static_cast<int>((end - Now()) * 1000) + 1);
    const double loopCpu = ProcessCpu(getpid()) - c0;
    std::printf("idle with a watcher, no card, %u ms polls, %.0f s: the service %.1f us/poll "
                "(%.2f%% of a core), the bare wait loop in-process %.1f us/poll; ratio %.2f\n",
                kIntervalMs, seconds, serviceCpu / polls * 1e6, serviceCpu / seconds * 100,
                loopCpu / polls * 1e6, serviceCpu / loopCpu);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: tarvik_bench_service TARVIKD [--quick]\n");
        return 2;
    }
    const bool quick = argc > 2 && std::strcmp(argv[2], "--quick") == 0;
    try {
        tarvik_set_log_level(TARVIK_LOG_ERROR);
        Service service(argv[1]);
        tarvik_open_options o = tarvik_default_options();
        o.transport = TARVIK_TRANSPORT_KERNEL;
        tarvik_camera* camera = nullptr;
        CheckResult(tarvik_open(&o, &camera), "tarvik_open");
        Calls(service, camera, quick ? 100 : 1000);
        Placed(service, quick ? 5 : 30);
        IdleCpu(service, camera, quick ? 2 : 10);
        std::printf("the service's memory: %s, %s\n", StatusLine(service.pid, "VmRSS:").c_str(),
                    StatusLine(service.pid, "VmHWM:").c_str());
        tarvik_close(camera);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarvik_bench_service: %s\n", e.what());
        return 1;
    }
    return 0;
}
