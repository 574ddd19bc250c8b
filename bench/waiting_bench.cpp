// Waiting for cards and for a camera that comes back, through the C interface
// of the shipped libTarvik.so.1, against a bare loop doing the same SAM
// command-0 exchanges (one SET_CUR of the request frame, one GET_CUR of the
// answer) at the same interval, woken by a timerfd: the floor. On simulated
// cameras, on both paths: the video driver's UVCIOC_CTRL_QUERY (library and
// floor on one capture node, one after the other) and libusb (the floor's
// bare libusb_control_transfer on a second camera: usbfs lets one program hold
// a camera). Run under umockdev's preload.
//
//   1. CPU with no card: the floor for a number of polls and the library in
//      tarvik_wait_event for as long, in rounds of alternating order; process
//      CPU (the emulation's worker thread serves both alike) and the calling
//      thread's CPU (the library has no thread of its own). On the kernel
//      path also against the floor with a lock around each exchange.
//   2. PlaceCard() to the card-placed event: the card laid down at a random
//      moment of the poll interval, the time until tarvik_wait_event returns
//      the event (the floor: until its poll sees the card); lifted again and
//      its removal awaited between repetitions. The bound is one interval plus
//      one exchange.
//   3. Replug() returning to camera-back, the camera unplugged and its
//      camera-gone awaited between repetitions. The floor: a udev monitor that
//      sees the node arrive and opens it.
//
//   tarvik_bench_waiting [--quick]
#include <fcntl.h>
#include <libudev.h>
#include <libusb.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "operations.h"
#include "tarvik.h"
#include "testbed.h"

namespace {

using tarvik::bench::Frame;
using tarvik::bench::FloorRequest;

constexpr unsigned kIntervalMs = 50;
constexpr int kPatienceMs = 5000;  // bounds a hang only

double Now(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
double Monotonic() { return Now(CLOCK_MONOTONIC); }

struct Cpu {
    double process = 0;
    double thread = 0;
    void Start() {
        process = -Now(CLOCK_PROCESS_CPUTIME_ID);
        thread = -Now(CLOCK_THREAD_CPUTIME_ID);
    }
    void Stop() {
        process += Now(CLOCK_PROCESS_CPUTIME_ID);
        thread += Now(CLOCK_THREAD_CPUTIME_ID);
    }
};

// One way to the camera: the library's object on its camera, the floor's
// requests on its own (the same camera on the kernel path).
struct Path {
    const char* name;
    tarvik_transport transport;
    tarvik::sim::Camera* camera;       // the library's
    tarvik::sim::Camera* floorCamera;  // the floor's
    FloorRequest floor;
    tarvik_camera* c = nullptr;
};

// The floor's poll: the two requests; whether a card answered (status bytes
// 00 00 90 or 00 00 9F at packet bytes 2-4), -1 when a request failed.
int FloorPoll(const FloorRequest& request) {
    Frame f = tarvik::bench::SamRequest(0);
    if (request(false, f) != static_cast<int>(f.size())) return -1;
    f.fill(0);
    if (request(true, f) != static_cast<int>(f.size())) return -1;
    return f[10] == 0 && f[11] == 0 && (f[12] == 0x90 || f[12] == 0x9F) ? 1 : 0;
}

// The floor's clock: a periodic timerfd at the interval.
class Ticker {
public:
    Ticker() : m_fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
        const long ns = static_cast<long>(kIntervalMs) * 1000000L;
        const itimerspec every{{ns / 1000000000L, ns % 1000000000L},
                               {ns / 1000000000L, ns % 1000000000L}};
        timerfd_settime(m_fd, 0, &every, nullptr);
    }
    ~Ticker() { close(m_fd); }
    void Wait() const {
        std::uint64_t expirations = 0;
        while (read(m_fd, &expirations, sizeof expirations) < 0 && errno == EINTR) {
        }
    }

private:
    int m_fd;
};

// Waits for an event of `type`, passing others by; false after the patience.
bool WaitFor(tarvik_camera* c, int type) {
    const double deadline = Monotonic() + kPatienceMs / 1000.0;
    for (;;) {
        const int left = static_cast<int>((deadline - Monotonic()) * 1000);
        if (left <= 0) return false;
        tarvik_event e{};
        const int r = tarvik_wait_event(c, &e, left);
        if (r == 0 && e.type == type) return true;
        if (r != 0 && r != TARVIK_E_NO_EVENT) return false;
    }
}

// Takes every event that comes within `quietMs`.
void Drain(tarvik_camera* c, int quietMs) {
    tarvik_event e{};
    while (tarvik_wait_event(c, &e, quietMs) == 0) {
    }
}

// The library's command-0 requests in the camera's log: its polls.
unsigned CountPolls(tarvik::sim::Camera& camera, bool* sameFrame) {
    const Frame expected = tarvik::bench::SamRequest(0);
    unsigned polls = 0;
    for (const tarvik::sim::Transfer& t : camera.TakeLog()) {
        if (t.byDriver || t.isIn() || t.selector() != 14) continue;
        ++polls;
        if (t.out.size() != expected.size() ||
            !std::equal(expected.begin(), expected.end(), t.out.begin())) {
            *sameFrame = false;
        }
    }
    return polls;
}

// --- 1. CPU with no card ---

struct CpuResult {
    unsigned libraryPolls = 0;  // all rounds
    unsigned floorPolls = 0;
    Cpu library;
    Cpu floor;
    Cpu locked;  // kernel path: the floor taking a lock around each exchange
    // Medians over the rounds of library / floor CPU per poll: a burst of the
    // machine's other work hits one side of a round only.
    double processRatio = 0;
    double threadRatio = 0;
    double lockedProcessRatio = 0;
    double lockedThreadRatio = 0;
    bool sameFrame = true;
};

double Median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Rounds of `polls` intervals a side, back to back, in alternating order;
// round 0 warms both up (the emulation's first requests, the library's first
// poll) and is not counted. The library waits for as long as the floor's
// polls take; its polls are counted in the camera's log. On the kernel path a
// third loop is the floor with an advisory flock on a file of its own around
// each exchange, as the library keeps a transaction whole across processes.
CpuResult MeasureCpu(Path& p, int rounds, unsigned polls) {
    CpuResult out;
    std::vector<double> processRatios;
    std::vector<double> threadRatios;
    std::vector<double> lockedProcessRatios;
    std::vector<double> lockedThreadRatios;
    const bool withLock = p.transport == TARVIK_TRANSPORT_KERNEL;
    char lockPath[] = "/tmp/tarvik-bench-lock-XXXXXX";
    const int lockFd = withLock ? mkstemp(lockPath) : -1;
    if (lockFd >= 0) unlink(lockPath);
    for (int round = 0; round <= rounds; ++round) {
        Cpu library;
        Cpu floor;
        Cpu locked;
        unsigned libraryPolls = 0;
        auto runLibrary = [&] {
            Drain(p.c, 0);  // what came while the floor ran
            p.camera->ClearLog();
            library.Start();
            const double end = Monotonic() + polls * kIntervalMs / 1000.0;
            tarvik_event e{};
            for (double left; (left = end - Monotonic()) > 0;) {
                tarvik_wait_event(p.c, &e, static_cast<int>(left * 1000) + 1);
            }
            library.Stop();
            libraryPolls = CountPolls(*p.camera, &out.sameFrame);
        };
        auto runFloor = [&] {
            Ticker ticker;
            floor.Start();
            for (unsigned i = 0; i < polls; ++i) {
                ticker.Wait();
                FloorPoll(p.floor);
            }
            floor.Stop();
            p.floorCamera->ClearLog();
        };
        auto runLocked = [&] {
            if (lockFd < 0) return;
            Ticker ticker;
            locked.Start();
            for (unsigned i = 0; i < polls; ++i) {
                ticker.Wait();
                flock(lockFd, LOCK_EX);
                FloorPoll(p.floor);
                flock(lockFd, LOCK_UN);
            }
            locked.Stop();
            p.floorCamera->ClearLog();
        };
        if (round % 2 == 0) {
            runLibrary();
            runFloor();
            runLocked();
        } else {
            runLocked();
            runFloor();
            runLibrary();
        }
        if (round == 0 || libraryPolls == 0) continue;
        out.libraryPolls += libraryPolls;
        out.floorPolls += polls;
        out.library.process += library.process;
        out.library.thread += library.thread;
        out.floor.process += floor.process;
        out.floor.thread += floor.thread;
        processRatios.push_back(library.process / libraryPolls / (floor.process / polls));
        threadRatios.push_back(library.thread / libraryPolls / (floor.thread / polls));
        if (lockFd < 0) continue;
        out.locked.process += locked.process;
        out.locked.thread += locked.thread;
        lockedProcessRatios.push_back(library.process / libraryPolls / (locked.process / polls));
        lockedThreadRatios.push_back(library.thread / libraryPolls / (locked.thread / polls));
    }
    if (!processRatios.empty()) {
        out.processRatio = Median(processRatios);
        out.threadRatio = Median(threadRatios);
    }
    if (!lockedProcessRatios.empty()) {
        out.lockedProcessRatio = Median(lockedProcessRatios);
        out.lockedThreadRatio = Median(lockedThreadRatios);
    }
    if (lockFd >= 0) close(lockFd);
    return out;
}

// --- 2. a card laid down ---

struct Latency {
    std::vector<double> ms;
    double Mean() const {
        double s = 0;
        for (double v : ms) s += v;
        return ms.empty() ? 0 : s / static_cast<double>(ms.size());
    }
    double Max() const { return ms.empty() ? 0 : *std::max_element(ms.begin(), ms.end()); }
};

struct PlacedResult {
    Latency library;
    Latency floor;
    double exchangeMs = 0;  // the floor's median poll, timer aside
    bool ok = true;
};

PlacedResult MeasurePlaced(Path& p, const std::vector<int>& phasesUs) {
    PlacedResult out;
    const int repetitions = static_cast<int>(phasesUs.size());
    // One exchange, alone.
    std::vector<double> exchange;
    for (int i = 0; i < 21; ++i) {
        const double t0 = Monotonic();
        FloorPoll(p.floor);
        exchange.push_back((Monotonic() - t0) * 1000);
    }
    std::nth_element(exchange.begin(), exchange.begin() + exchange.size() / 2, exchange.end());
    out.exchangeMs = exchange[exchange.size() / 2];

    Drain(p.c, 0);
    for (int i = 0; i < repetitions && out.ok; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(phasesUs[i]));
        const double t0 = Monotonic();
        p.camera->PlaceCard();
        out.ok = WaitFor(p.c, TARVIK_EVENT_CARD_PLACED);
        out.library.ms.push_back((Monotonic() - t0) * 1000);
        p.camera->RemoveCard();
        out.ok = out.ok && WaitFor(p.c, TARVIK_EVENT_CARD_REMOVED);
    }
    p.camera->ClearLog();

    Ticker ticker;
    for (int i = 0; i < repetitions && out.ok; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(phasesUs[i]));
        const double t0 = Monotonic();
        p.floorCamera->PlaceCard();
        int seen = 0;
        while (seen == 0) {
            ticker.Wait();
            seen = FloorPoll(p.floor);
        }
        out.ok = seen == 1;
        out.floor.ms.push_back((Monotonic() - t0) * 1000);
        p.floorCamera->RemoveCard();
        for (int none = 0; none < 2 && out.ok;) {  // as the library: two polls find none
            ticker.Wait();
            const int r = FloorPoll(p.floor);
            out.ok = r >= 0;
            none = r == 0 ? none + 1 : 0;
        }
    }
    p.floorCamera->ClearLog();
    return out;
}

// --- 3. the camera back ---

// The floor's view of the camera coming back: a udev monitor on the subsystem
// the library follows for its path, and an open of the node that arrives.
class Watcher {
public:
    explicit Watcher(bool kernel) {
        m_udev = udev_new();
        m_monitor = udev_monitor_new_from_netlink(m_udev, "udev");
        udev_monitor_filter_add_match_subsystem_devtype(m_monitor, kernel ? "video4linux" : "usb",
                                                        kernel ? nullptr : "usb_device");
        udev_monitor_enable_receiving(m_monitor);
    }
    ~Watcher() {
        udev_monitor_unref(m_monitor);
        udev_unref(m_udev);
    }
    // Waits for an "add" and opens its node; false after the patience.
    bool WaitAndOpen() {
        const double deadline = Monotonic() + kPatienceMs / 1000.0;
        pollfd pfd{udev_monitor_get_fd(m_monitor), POLLIN, 0};
        for (;;) {
            const int left = static_cast<int>((deadline - Monotonic()) * 1000);
            if (left <= 0 || poll(&pfd, 1, left) <= 0) return false;
            udev_device* d = udev_monitor_receive_device(m_monitor);
            if (d == nullptr) continue;
            const char* action = udev_device_get_action(d);
            const char* node = udev_device_get_devnode(d);
            int fd = -1;
            if (action != nullptr && std::strcmp(action, "add") == 0 && node != nullptr) {
                fd = open(node, O_RDWR | O_CLOEXEC);
            }
            udev_device_unref(d);
            if (fd >= 0) {
                close(fd);
                return true;
            }
        }
    }

private:
    udev* m_udev = nullptr;
    udev_monitor* m_monitor = nullptr;
};

struct BackResult {
    Latency library;
    Latency floor;
    bool ok = true;
    bool floorOk = true;
};

// `others`: dispatches the other objects, whose udev monitors see these
// uevents too (the emulation's queue is short: an unread monitor stops it).
BackResult MeasureBack(Path& p, int repetitions, const std::function<void()>& others) {
    BackResult out;
    p.camera->RemoveCard();
    Drain(p.c, 3 * kIntervalMs);
    for (int i = 0; i < repetitions && out.ok; ++i) {
        p.camera->Unplug();
        out.ok = WaitFor(p.c, TARVIK_EVENT_CAMERA_GONE);
        p.camera->Replug();
        const double t0 = Monotonic();
        out.ok = out.ok && WaitFor(p.c, TARVIK_EVENT_CAMERA_BACK);
        out.library.ms.push_back((Monotonic() - t0) * 1000);
        tarvik_dispatch(p.c);  // the rest of the camera's uevents go by
        others();
    }
    p.camera->ClearLog();
    // The floor on the same camera, the library's object closed by then.
    tarvik_close(p.c);
    p.c = nullptr;
    Watcher watcher(p.transport == TARVIK_TRANSPORT_KERNEL);
    for (int i = 0; i < repetitions && out.floorOk; ++i) {
        p.camera->Unplug();
        p.camera->Replug();
        const double t0 = Monotonic();
        out.floorOk = watcher.WaitAndOpen();
        out.floor.ms.push_back((Monotonic() - t0) * 1000);
        others();
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int rounds = quick ? 2 : 8;
    const unsigned pollsPerRound = quick ? 10 : 20;
    const int placements = quick ? 5 : 30;
    const int replugs = quick ? 5 : 40;  // each takes a new address: at most ~250 a bus

    tarvik::sim::Testbed bed;
    if (!tarvik::sim::Testbed::InMockEnvironment()) {
        std::fprintf(stderr, "tarvik_bench_waiting: run it under umockdev-wrapper\n");
        return 2;
    }
    // One bus per path, so that each has its own addresses for the replugs; a
    // serial of each camera's own, by which the library finds it again.
    auto add = [&bed](int bus, int address, const char* serial) -> tarvik::sim::Camera& {
        tarvik::sim::CameraOptions o;
        o.serial = serial;
        return bed.AddCamera(bus, address, o);
    };
    tarvik::sim::Camera& videoCamera = add(1, 2, "BENCH-KERNEL");
    tarvik::sim::Camera& usbCamera = add(2, 2, "BENCH-USB");
    tarvik::sim::Camera& usbFloorCamera = add(2, 3, "BENCH-USB-FLOOR");
    for (tarvik::sim::Camera* cam : {&videoCamera, &usbCamera, &usbFloorCamera}) cam->RemoveCard();

    libusb_context* ctx = nullptr;
    libusb_device_handle* floorHandle = nullptr;
    if (libusb_init(&ctx) != 0 || (floorHandle = tarvik::bench::OpenFloorCamera(ctx, 2, 3)) == nullptr) {
        std::fprintf(stderr, "tarvik_bench_waiting: cannot open the floor's camera\n");
        return 1;
    }
    const int floorFd = open(videoCamera.VideoNode().c_str(), O_RDWR | O_CLOEXEC);
    std::vector<Path> paths = {
        {"kernel", TARVIK_TRANSPORT_KERNEL, &videoCamera, &videoCamera,
         tarvik::bench::KernelFloor(floorFd)},
        {"usb", TARVIK_TRANSPORT_USB, &usbCamera, &usbFloorCamera,
         tarvik::bench::UsbFloor(floorHandle)},
    };
    for (Path& p : paths) {
        tarvik_open_options o = tarvik_default_options();
        o.bus = p.camera->Bus();
        o.address = p.camera->Address();
        o.transport = p.transport;
        if (floorFd < 0 || tarvik_open(&o, &p.c) != 0 ||
            tarvik_set_poll_interval(p.c, kIntervalMs) != 0 || tarvik_get_fd(p.c) < 0 ||
            FloorPoll(p.floor) != 0) {
            std::fprintf(stderr, "tarvik_bench_waiting: the %s path cannot be used\n", p.name);
            return 1;
        }
    }

    std::printf("Waiting for cards: the library against a bare loop of the same SAM command-0\n"
                "exchanges at the same interval (%u ms), simulated cameras\n",
                kIntervalMs);
    int failures = 0;

    std::printf("\n1. CPU with no card, %d rounds of %u polls a side (us of CPU per poll;\n"
                "   ratio: the median over the rounds of library / floor)\n",
                rounds, pollsPerRound);
    std::printf("%-8s %6s %12s %12s %8s %12s %12s %8s\n", "path", "polls", "lib process",
                "floor proc.", "ratio", "lib thread", "floor thr.", "ratio");
    for (Path& p : paths) {
        const CpuResult r = MeasureCpu(p, rounds, pollsPerRound);
        const double nl = r.libraryPolls > 0 ? r.libraryPolls : 1;
        const double nf = r.floorPolls > 0 ? r.floorPolls : 1;
        std::printf("%-8s %6u %12.1f %12.1f %8.3f %12.1f %12.1f %8.3f%s\n", p.name,
                    r.libraryPolls, r.library.process / nl * 1e6, r.floor.process / nf * 1e6,
                    r.processRatio, r.library.thread / nl * 1e6, r.floor.thread / nf * 1e6,
                    r.threadRatio,
                    r.sameFrame ? "" : "  (the library's frame differs from the floor's!)");
        if (r.locked.process > 0) {
            std::printf("%-8s %6s %12s %12.1f %8.3f %12s %12.1f %8.3f\n", "  +lock", "", "",
                        r.locked.process / nf * 1e6, r.lockedProcessRatio, "",
                        r.locked.thread / nf * 1e6, r.lockedThreadRatio);
        }
        if (!r.sameFrame) ++failures;
    }
    std::fflush(stdout);

    // The moments of the interval the card is laid down at, after a poll; the
    // same for library and floor.
    std::mt19937 random(20241);
    std::uniform_int_distribution<int> phase(0, kIntervalMs * 1000 - 1);
    std::vector<int> phasesUs(placements);
    for (int& us : phasesUs) us = phase(random);
    std::printf("\n2. PlaceCard() to card-placed, %d times at a random moment of the interval (ms)\n",
                placements);
    std::printf("%-8s %10s %10s %10s %10s %10s %10s %8s\n", "path", "lib mean", "lib max",
                "floor mean", "floor max", "exchange", "bound", "ratio");
    for (Path& p : paths) {
        const PlacedResult r = MeasurePlaced(p, phasesUs);
        const double bound = kIntervalMs + r.exchangeMs;
        std::printf("%-8s %10.2f %10.2f %10.2f %10.2f %10.3f %10.2f %8.3f%s\n", p.name,
                    r.library.Mean(), r.library.Max(), r.floor.Mean(), r.floor.Max(),
                    r.exchangeMs, bound, r.library.Mean() / r.floor.Mean(),
                    !r.ok ? "  (an event did not come!)"
                    : r.library.Max() > bound ? "  (above the bound)" : "");
        if (!r.ok) ++failures;
    }
    std::fflush(stdout);

    std::printf("\n3. Replug() returning to camera-back, %d times (ms; the floor: a udev monitor\n"
                "   that sees the node arrive and opens it)\n",
                replugs);
    std::printf("%-8s %10s %10s %10s %10s %8s\n", "path", "lib mean", "lib max", "floor mean",
                "floor max", "bound");
    // The floor's descriptor on the video camera goes with its first unplug.
    close(floorFd);
    for (Path& p : paths) {
        const BackResult r = MeasureBack(p, replugs, [&] {
            for (Path& other : paths) {
                if (&other != &p && other.c != nullptr) tarvik_dispatch(other.c);
            }
        });
        std::printf("%-8s %10.2f %10.2f %10.2f %10.2f %8d%s\n", p.name, r.library.Mean(),
                    r.library.Max(), r.floorOk ? r.floor.Mean() : 0.0,
                    r.floorOk ? r.floor.Max() : 0.0, 100,
                    !r.ok ? "  (camera-back did not come!)"
                    : !r.floorOk ? "  (the floor's monitor saw no add)"
                    : r.library.Max() > 100 ? "  (above the bound)" : "");
        if (!r.ok) ++failures;
    }

    for (Path& p : paths) tarvik_close(p.c);
    libusb_release_interface(floorHandle, 0);
    libusb_close(floorHandle);
    libusb_exit(ctx);
    return failures == 0 ? 0 : 1;
}
