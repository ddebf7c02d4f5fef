// One block taken from and given back to a MemoryPool of 64 blocks, beside malloc/free of the
// same size. The argument is the number of blocks held throughout: with 0 the first-fit scan
// stops at once, with 63 it walks the whole table. items/s compares directly.
//
// Each create and release reports to the thread watchdog around its lock, and the cost of a
// report depends on what exists: the plain runs have no thread manager (a report is one atomic
// load), the "Manager" run has a manager without a running watchdog (a few calls more), and the
// "Watchdog" runs have a running watchdog (each report reads the clock and looks the unwatched
// caller up under the watchdog's lock), as in an application that uses the watchdog.
#include "UtlMemoryPool.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "UtlThreadManager.h"

namespace {

constexpr unsigned int kBlockSize = 64;
constexpr unsigned int kBlockCount = 64;

void createAndRelease(benchmark::State& state) {
    utl::MemoryPool pool(kBlockSize, kBlockCount, "bench");
    std::vector<void*> held(static_cast<std::size_t>(state.range(0)));
    for (void*& block : held) {
        block = pool.create();
    }
    for (auto _ : state) {
        void* block = pool.create();
        benchmark::DoNotOptimize(block);
        pool.release(block);
    }
    for (void* block : held) {
        pool.release(block);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_PoolCreateRelease(benchmark::State& state) {
    if (utl::ThreadManager::getIfCreated() != nullptr) {
        state.SkipWithError("a thread manager exists");
        return;
    }
    createAndRelease(state);
}

void BM_PoolCreateReleaseManager(benchmark::State& state) {
    utl::ThreadManager::get();
    createAndRelease(state);
    utl::ThreadManager::destroy();
}

void BM_PoolCreateReleaseWatchdog(benchmark::State& state) {
    utl::ThreadManager* manager = utl::ThreadManager::get();
    if (manager != nullptr && manager->setWatchdogWatchInterval(1000)) {
        createAndRelease(state);
    } else {
        state.SkipWithError("the watchdog did not start");
    }
    utl::ThreadManager::destroy();
}

void BM_MallocFree(benchmark::State& state) {
    for (auto _ : state) {
        void* block = std::malloc(kBlockSize);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_MallocFree);
BENCHMARK(BM_PoolCreateRelease)->Arg(0)->Arg(63);
BENCHMARK(BM_PoolCreateReleaseManager)->Arg(0)->Arg(63);
BENCHMARK(BM_PoolCreateReleaseWatchdog)->Arg(0)->Arg(63);
