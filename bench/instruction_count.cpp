// Instruction counts per operation under callgrind. Run as
//   tarvik-sim run -- valgrind --tool=callgrind --callgrind-out-file=DIR/ops.%p
//       tarvik_bench_instructions [N]   (one command line)
// The library opens the simulated camera itself. For each operation, after one
// warm-up call, the statistics are zeroed, the operation runs N times and
// callgrind dumps a part named after it. The library's own cost is a part's
// total minus what was spent inside libusb_control_transfer (libusb and the
// emulation behind it); scripts/bench.sh does that subtraction.
//
// Outside valgrind the client requests do nothing and the program just runs
// the operations. Standard output goes to /dev/null: the library prints on
// every operation, and that printing is counted.
#include <fcntl.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "operations.h"

int main(int argc, char** argv) {
    const int iterations = argc > 1 ? std::atoi(argv[1]) : 20;
    if (iterations <= 0) {
        std::fprintf(stderr, "usage: tarvik_bench_instructions [ITERATIONS]\n");
        return 2;
    }
    const int devNull = open("/dev/null", O_WRONLY);
    if (devNull < 0 || dup2(devNull, STDOUT_FILENO) < 0) {
        std::perror("tarvik_bench_instructions: stdout");
        return 2;
    }
    close(devNull);

    libTarvik* plugin = zq_CreateTarvik(nullptr, -1, -1);
    if (plugin == nullptr) {
        std::fprintf(stderr,
                     "tarvik_bench_instructions: no camera (run it under tarvik-sim run)\n");
        return 1;
    }
    auto& impl = *static_cast<TarvikImpl*>(plugin);
    int status = 0;
    for (const tarvik::bench::Operation& op : tarvik::bench::Operations()) {
        if (op.run(impl) != 0) {  // warm-up: the marker, first-call costs
            std::fprintf(stderr, "tarvik_bench_instructions: %s failed\n", op.name);
            status = 1;
            continue;
        }
        const std::string part = std::string(op.name) + " x" + std::to_string(iterations);
        CALLGRIND_ZERO_STATS;
        for (int i = 0; i < iterations; ++i) op.run(impl);
        CALLGRIND_DUMP_STATS_AT(part.c_str());
    }
    zq_ReleaseTarvik(plugin);
    return status;
}
