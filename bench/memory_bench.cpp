// memory_bench: what the tracked allocator costs.  Each figure is a ratio to a peer or a
// floor measured in the same run, one right after the other (absolute times mean little on
// a shared machine):
//   - a tracked alloc+free of 100 bytes against its floor: what the kernel and the C heap
//     must do for any guarded block (posix_memalign of 8 KiB, two mprotect calls, free);
//     the rest is the allocator's own bookkeeping;
//   - the plain mode's alloc+free of 100 bytes against malloc/free: the entry points' cost.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "qel_os_adapter.h"

namespace {

// Nanoseconds per iteration of each benchmark, by name.
std::map<std::string, double> g_nsPerOp;

// Times the loop of a benchmark and keeps its nanoseconds per iteration.
template <typename Body>
void timed(benchmark::State &state, const char *name, Body body) {
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) body();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    g_nsPerOp[name] = std::chrono::duration<double, std::nano>(elapsed).count() /
                      static_cast<double>(state.iterations());
}

void BM_TrackedAllocFree100(benchmark::State &state) {
    if (ZEPO_MemInitMemMange() != 0) {
        state.SkipWithError("the tracked mode needs about 136 MB");
        return;
    }
    timed(state, "tracked", [] {
        void *p = ZEPO_MemTypeMallocD(100, 0, __LINE__, __FILE__);
        benchmark::DoNotOptimize(p);
        ZEPO_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    });
    ZEPO_MemUnInitMemMange();
}

// The floor of a guarded block: its region, its guard page made read-only and writable
// again, its release.
void BM_GuardedRegionFloor(benchmark::State &state) {
    timed(state, "floor", [] {
        void *p = nullptr;
        if (posix_memalign(&p, 4096, 8192) != 0) std::abort();
        char *guard = static_cast<char *>(p) + 4096;
        mprotect(guard, 4096, PROT_READ);
        mprotect(guard, 4096, PROT_READ | PROT_WRITE);
        benchmark::DoNotOptimize(p);
        free(p);
    });
}

void BM_PlainAllocFree100(benchmark::State &state) {
    timed(state, "plain", [] {
        void *p = ZEPO_MemTypeMallocD(100, 0, __LINE__, __FILE__);
        benchmark::DoNotOptimize(p);
        ZEPO_MemTypeFreeD(p, 0, __LINE__, __FILE__);
    });
}

void BM_MallocFree100(benchmark::State &state) {
    timed(state, "malloc", [] {
        void *p = malloc(100);
        benchmark::DoNotOptimize(p);
        free(p);
    });
}

void print_ratio(const char *label, const char *numerator, const char *denominator) {
    const auto top = g_nsPerOp.find(numerator);
    const auto bottom = g_nsPerOp.find(denominator);
    if (top == g_nsPerOp.end() || bottom == g_nsPerOp.end() || bottom->second <= 0) return;
    std::printf("%s: %.2f\n", label, top->second / bottom->second);
}

}  // namespace

int main(int argc, char **argv) {
    // Peers run back to back, so that they see the same machine.
    benchmark::RegisterBenchmark("tracked_alloc_free_100", BM_TrackedAllocFree100);
    benchmark::RegisterBenchmark("floor_memalign_8k_2_mprotect_free", BM_GuardedRegionFloor);
    benchmark::RegisterBenchmark("plain_alloc_free_100", BM_PlainAllocFree100);
    benchmark::RegisterBenchmark("malloc_free_100", BM_MallocFree100);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("\nfigures (ratios measured in this run)\n");
    print_ratio(
        "tracked alloc+free of 100 bytes / its floor (posix_memalign 8 KiB, 2 mprotect, free)",
        "tracked", "floor");
    print_ratio("plain-mode alloc+free of 100 bytes / malloc+free", "plain", "malloc");
    return 0;
}
