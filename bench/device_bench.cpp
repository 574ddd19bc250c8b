// Device benchmarks: every operation of the library against a bare loop making
// the same requests (the floor), side by side, on simulated cameras, on both
// paths: libusb (the library on a camera it opened itself, the floor's bare
// libusb_control_transfer on a second camera: usbfs lets one program hold a
// camera) and the video driver (library and floor on one camera's capture
// node, bare UVCIOC_CTRL_QUERY for the floor). Run under umockdev's preload.
//
// The library prints its lines to standard output on every operation. That is
// part of its cost, so it stays on, but standard output goes to /dev/null; the
// figures are written to the standard output the program was started with.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libusb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "operations.h"
#include "testbed.h"

namespace {

using tarvik::bench::Kind;
using tarvik::bench::Operation;
using tarvik::bench::Operations;

struct Counts {
    unsigned issued;
    unsigned minimum;
};

// One way to the camera: the library's object and camera, and the floor's requests.
struct Path {
    std::string name;
    tarvik::sim::Camera* camera = nullptr;
    TarvikImpl* impl = nullptr;
    tarvik::bench::FloorRequest floor;
};

struct Bench {
    const Path* path;
    const Operation* op;
};

// Requests the operation makes once the marker is sent, from the camera's log
// (not those the video driver makes of its own).
Counts CountTransfers(const Path& path, const Operation& op) {
    path.camera->ClearLog();
    const HRESULT r = op.run(*path.impl);
    std::vector<tarvik::sim::Transfer> log;
    for (tarvik::sim::Transfer& t : path.camera->TakeLog()) {
        if (!t.byDriver) log.push_back(std::move(t));
    }
    unsigned samLength = 0;
    if (op.kind == Kind::kCardRead && log.size() >= 2 && log[1].in.size() >= 10) {
        samLength = tarvik::bench::SamPacketLength(log[1].in.data());
    }
    if (r != 0) std::cerr << path.name << " " << op.name << ": hr=" << r << "\n";
    return {static_cast<unsigned>(log.size()), tarvik::bench::MinimumTransfers(op.kind, samLength)};
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// One benchmark per operation. Each iteration runs the library's call and the
// floor's exchange back to back, in alternating order, so that both meet the
// same state of the emulation (its round trip drifts with the machine's load).
// The benchmark's time is the library's; the floor's is a counter.
void SideBySide(benchmark::State& state, Bench bench) {
    const Operation* op = bench.op;
    double library = 0;
    double floor = 0;
    std::vector<double> ratios;
    bool libraryFirst = true;
    for (auto _ : state) {
        double tLibrary = 0;
        double tFloor = 0;
        bool ok = true;
        for (int half = 0; half < 2; ++half) {
            const auto t0 = std::chrono::steady_clock::now();
            if ((half == 0) == libraryFirst) {
                ok = ok && op->run(*bench.path->impl) == 0;
                tLibrary = Seconds(t0);
            } else {
                ok = ok && tarvik::bench::FloorExchange(bench.path->floor, *op) >= 0;
                tFloor = Seconds(t0);
            }
        }
        if (!ok) {
            state.SkipWithError("the exchange failed");
            break;
        }
        libraryFirst = !libraryFirst;
        state.SetIterationTime(tLibrary);
        library += tLibrary;
        floor += tFloor;
        ratios.push_back(tLibrary / tFloor);
    }
    const double n = static_cast<double>(state.iterations());
    if (n > 0 && floor > 0) {
        state.counters["floor_us"] = floor / n * 1e6;
        // The median pair: a hiccup of the emulation hits one side of a pair only.
        std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
        state.counters["ratio"] = ratios[ratios.size() / 2];
        state.counters["library_per_s"] = n / library;
    }
    bench.path->camera->ClearLog();
}

// The console report, then a table of library against floor (medians when
// the runs are repeated).
class SideBySideReporter : public benchmark::ConsoleReporter {
public:
    explicit SideBySideReporter(std::map<std::string, Counts> counts)
        : ConsoleReporter(OO_Tabular), m_counts(std::move(counts)) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.counters.count("ratio") == 0) continue;
            const bool repeated = run.repetitions > 1;
            if (repeated &&
                !(run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")) {
                continue;
            }
            const std::string name = run.run_name.function_name;  // "usb/ReadVersion"
            Row& row = m_rows[name];
            row.libraryUs =
                run.GetAdjustedRealTime() * 1e6 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            row.floorUs = run.counters.at("floor_us");
            row.ratio = run.counters.at("ratio");
        }
    }

    void PrintSummary(const std::vector<std::string>& paths) {
        std::ostream& out = GetOutputStream();
        out << "\nLibrary against the bare floor (real time per operation, median of the runs;\n"
               "ratio = median over the paired iterations of library time / floor time)\n";
        out << std::left << std::setw(28) << "path/operation" << std::right << std::setw(12)
            << "library us" << std::setw(12) << "floor us" << std::setw(8) << "ratio"
            << std::setw(12) << "library/s" << std::setw(16) << "transfers/min"
            << "\n";
        for (const std::string& path : paths) {
            for (const Operation& op : Operations()) {
                const std::string name = path + "/" + op.name;
                const auto row = m_rows.find(name);
                if (row == m_rows.end()) continue;
                const Counts& c = m_counts.at(name);
                const Row& r = row->second;
                out << std::left << std::setw(28) << name << std::right << std::fixed
                    << std::setprecision(0) << std::setw(12) << r.libraryUs << std::setw(12)
                    << r.floorUs << std::setprecision(3) << std::setw(8) << r.ratio
                    << std::setprecision(0) << std::setw(12) << 1e6 / r.libraryUs << std::setw(11)
                    << c.issued << "/" << c.minimum << (c.issued == c.minimum ? "" : " !") << "\n";
            }
        }
        out.flush();
    }

private:
    struct Row {
        double libraryUs = 0;
        double floorUs = 0;
        double ratio = 0;
    };
    std::map<std::string, Counts> m_counts;
    std::map<std::string, Row> m_rows;
};

}  // namespace

int main(int argc, char** argv) {
    // The figures go where standard output went; the library's lines to /dev/null.
    std::fflush(stdout);
    const int figuresFd = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY);
    if (figuresFd < 0 || devNull < 0 || dup2(devNull, STDOUT_FILENO) < 0) {
        std::perror("tarvik_bench_device: stdout");
        return 2;
    }
    close(devNull);
    __gnu_cxx::stdio_filebuf<char> figuresBuf(figuresFd, std::ios::out);
    std::ostream figures(&figuresBuf);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

    tarvik::sim::Testbed bed;
    if (!tarvik::sim::Testbed::InMockEnvironment()) {
        std::cerr << "tarvik_bench_device: run it under umockdev-wrapper\n";
        return 2;
    }
    tarvik::sim::Camera& usbCamera = bed.AddCamera(1, 2);
    bed.AddCamera(1, 3);  // the floor's: usbfs lets one program at a time use a camera
    tarvik::sim::Camera& videoCamera = bed.AddCamera(1, 4);

    libusb_context* ctx = nullptr;
    libusb_device_handle* floorHandle = nullptr;
    if (libusb_init(&ctx) != 0 || (floorHandle = tarvik::bench::OpenFloorCamera(ctx, 1, 3)) == nullptr) {
        std::cerr << "tarvik_bench_device: cannot open the floor's camera\n";
        return 1;
    }
    const int floorFd = open(videoCamera.VideoNode().c_str(), O_RDWR);
    auto release = [](TarvikImpl* p) { zq_ReleaseTarvik(p); };
    std::unique_ptr<TarvikImpl, decltype(release)> usb(
        static_cast<TarvikImpl*>(zq_CreateTarvik(nullptr, 1, 2)), release);
    std::unique_ptr<TarvikImpl, decltype(release)> kernel(
        static_cast<TarvikImpl*>(zq_CreateTarvikOnVideo(videoCamera.VideoNode().c_str())), release);
    if (floorFd < 0 || !usb || !kernel || usb->SetMarker() != 0 || kernel->SetMarker() != 0) {
        std::cerr << "tarvik_bench_device: the library cannot use the cameras\n";
        return 1;
    }
    const std::vector<Path> paths = {
        {"usb", &usbCamera, usb.get(), tarvik::bench::UsbFloor(floorHandle)},
        {"kernel", &videoCamera, kernel.get(), tarvik::bench::KernelFloor(floorFd)},
    };

    std::map<std::string, Counts> counts;
    std::vector<std::string> names;
    for (const Path& path : paths) {
        names.push_back(path.name);
        for (const Operation& op : Operations()) {
            const std::string name = path.name + "/" + op.name;
            counts[name] = CountTransfers(path, op);
            benchmark::RegisterBenchmark(name.c_str(), SideBySide, Bench{&path, &op})
                ->Unit(benchmark::kMicrosecond)
                ->UseManualTime();
        }
    }

    SideBySideReporter reporter(counts);
    reporter.SetOutputStream(&figures);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintSummary(names);
    benchmark::Shutdown();

    usb.reset();
    kernel.reset();
    close(floorFd);
    libusb_release_interface(floorHandle, 0);
    libusb_attach_kernel_driver(floorHandle, 0);
    libusb_close(floorHandle);
    libusb_exit(ctx);
    return 0;
}
