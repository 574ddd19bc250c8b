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

#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>

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

void Library(benchmark::State& state, const Operation* op) {
    for (auto _ : state) {
        if (op->run(*g_rig.impl) != 0) {
            state.SkipWithError("operation failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    g_rig.camera->ClearLog();
}

void Floor(benchmark::State& state, const Operation* op) {
    for (auto _ : state) {
        if (tarvik::bench::FloorExchange(g_rig.handle, *op) < 0) {
            state.SkipWithError("transfer failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
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
            if (run.error_occurred) continue;
            const bool repeated = run.repetitions > 1;
            if (repeated &&
                !(run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")) {
                continue;
            }
            std::string name = run.run_name.function_name;  // "Library/ReadVersion"
            const size_t slash = name.find('/');
            const std::string side = name.substr(0, slash);
            const std::string op = name.substr(slash + 1);
            const double us =
                run.GetAdjustedRealTime() * 1e6 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            (side == "Library" ? m_library : m_floor)[op] = us;
        }
    }

    void PrintSummary() {
        std::ostream& out = GetOutputStream();
        out << "\nLibrary against the bare libusb floor (real time per operation, median)\n";
        out << std::left << std::setw(20) << "operation" << std::right << std::setw(12)
            << "library us" << std::setw(12) << "floor us" << std::setw(8) << "ratio"
            << std::setw(12) << "library/s" << std::setw(16) << "transfers/min"
            << "\n";
        for (const Operation& op : Operations()) {
            const auto lib = m_library.find(op.name);
            const auto flo = m_floor.find(op.name);
            if (lib == m_library.end() || flo == m_floor.end()) continue;
            const Counts& c = m_counts.at(op.name);
            out << std::left << std::setw(20) << op.name << std::right << std::fixed
                << std::setprecision(0) << std::setw(12) << lib->second << std::setw(12)
                << flo->second << std::setprecision(3) << std::setw(8) << lib->second / flo->second
                << std::setprecision(0) << std::setw(12) << 1e6 / lib->second << std::setw(11)
                << c.issued << "/" << c.minimum << (c.issued == c.minimum ? "" : " !") << "\n";
        }
        out.flush();
    }

private:
    std::map<std::string, Counts> m_counts;
    std::map<std::string, double> m_library;
    std::map<std::string, double> m_floor;
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
        benchmark::RegisterBenchmark((std::string("Library/") + op.name).c_str(), Library, &op)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark((std::string("Floor/") + op.name).c_str(), Floor, &op)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
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
