// Device benchmarks: every operation of the library against a bare libusb loop
// issuing the same control transfers (the floor), side by side, on one
// simulated camera. Run under umockdev's preload (umockdev-wrapper).
//
// The library prints its lines to standard output on every operation. That is
// part of its cost, so it stays on, but standard output goes to /dev/null; the
// figures are written to the standard output the program was started with.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libusb.h>
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

constexpr int kBus = 1;
constexpr int kAddress = 2;

struct Counts {
    unsigned issued;
    unsigned minimum;
};

struct Rig {
    tarvik::sim::Camera* camera = nullptr;
    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
    TarvikImpl* impl = nullptr;
};
Rig g_rig;

// The application's own handle, adopted by the library: both sides talk
// through the very same libusb context and device handle.
libusb_device_handle* OpenCamera(libusb_context* ctx) {
    libusb_device_handle* h = libusb_open_device_with_vid_pid(ctx, 0x0AC8, 0x010C);
    if (h != nullptr && libusb_kernel_driver_active(h, 0) == 1) libusb_detach_kernel_driver(h, 0);
    return h;
}

// Transfers the operation makes once the marker is sent, from the camera's log.
Counts CountTransfers(const Operation& op) {
    g_rig.camera->ClearLog();
    const HRESULT r = op.run(*g_rig.impl);
    const std::vector<tarvik::sim::Transfer> log = g_rig.camera->TakeLog();
    unsigned samLength = 0;
    if (op.kind == Kind::kCardRead && log.size() >= 2 && log[1].in.size() >= 10) {
        samLength = tarvik::bench::SamPacketLength(log[1].in.data());
    }
    if (r != 0) std::cerr << op.name << ": hr=" << r << "\n";
    return {static_cast<unsigned>(log.size()), tarvik::bench::MinimumTransfers(op.kind, samLength)};
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// One benchmark per operation. Each iteration runs the library's call and the
// floor's exchange back to back, in alternating order, so that both meet the
// same state of the emulation (its round trip drifts with the machine's load).
// The benchmark's time is the library's; the floor's is a counter.
void SideBySide(benchmark::State& state, const Operation* op) {
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
                ok = ok && op->run(*g_rig.impl) == 0;
                tLibrary = Seconds(t0);
            } else {
                ok = ok && tarvik::bench::FloorExchange(g_rig.handle, *op) >= 0;
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
    g_rig.camera->ClearLog();
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
            std::string name = run.run_name.function_name;  // "Device/ReadVersion"
            name = name.substr(name.find('/') + 1);
            Row& row = m_rows[name];
            row.libraryUs =
                run.GetAdjustedRealTime() * 1e6 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            row.floorUs = run.counters.at("floor_us");
            row.ratio = run.counters.at("ratio");
        }
    }

    void PrintSummary() {
        std::ostream& out = GetOutputStream();
        out << "\nLibrary against the bare libusb floor (real time per operation, median of the "
               "runs;\n"
               "ratio = median over the paired iterations of library time / floor time)\n";
        out << std::left << std::setw(20) << "operation" << std::right << std::setw(12)
            << "library us" << std::setw(12) << "floor us" << std::setw(8) << "ratio"
            << std::setw(12) << "library/s" << std::setw(16) << "transfers/min"
            << "\n";
        for (const Operation& op : Operations()) {
            const auto row = m_rows.find(op.name);
            if (row == m_rows.end()) continue;
            const Counts& c = m_counts.at(op.name);
            const Row& r = row->second;
            out << std::left << std::setw(20) << op.name << std::right << std::fixed
                << std::setprecision(0) << std::setw(12) << r.libraryUs << std::setw(12)
                << r.floorUs << std::setprecision(3) << std::setw(8) << r.ratio
                << std::setprecision(0) << std::setw(12) << 1e6 / r.libraryUs << std::setw(11)
                << c.issued << "/" << c.minimum << (c.issued == c.minimum ? "" : " !") << "\n";
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
    g_rig.camera = &bed.AddCamera(kBus, kAddress);
    if (libusb_init(&g_rig.context) != 0 || (g_rig.handle = OpenCamera(g_rig.context)) == nullptr) {
        std::cerr << "tarvik_bench_device: cannot open the simulated camera\n";
        return 1;
    }
    std::unique_ptr<TarvikImpl, void (*)(TarvikImpl*)> impl(
        static_cast<TarvikImpl*>(zq_CreateTarvik(g_rig.handle, kBus, kAddress)),
        [](TarvikImpl* p) { zq_ReleaseTarvik(p); });
    g_rig.impl = impl.get();
    if (!impl || impl->SetMarker() != 0) {
        std::cerr << "tarvik_bench_device: the library cannot use the camera\n";
        return 1;
    }

    std::map<std::string, Counts> counts;
    for (const Operation& op : Operations()) {
        counts[op.name] = CountTransfers(op);
        benchmark::RegisterBenchmark((std::string("Device/") + op.name).c_str(), SideBySide, &op)
            ->Unit(benchmark::kMicrosecond)
            ->UseManualTime();
    }

    SideBySideReporter reporter(counts);
    reporter.SetOutputStream(&figures);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintSummary();
    benchmark::Shutdown();

    impl.reset();
    libusb_attach_kernel_driver(g_rig.handle, 0);
    libusb_close(g_rig.handle);
    libusb_exit(g_rig.context);
    return 0;
}
