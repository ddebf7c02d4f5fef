// CountingPointer against std::shared_ptr: one iteration copies a holder into a local and lets it
// go again (one increment and one decrement of a count that stays above 0). items/s compares
// directly.
//
// Both get cheaper for as long as the process has never started a second thread: std::shared_ptr
// then counts without atomic instructions (glibc's __libc_single_threaded), and the mutex behind
// CountingPointer's lock gets cheaper too. The first pair runs in that state; the second pair runs
// after a thread has been started and joined, the state of every program that utl is written
// for. The pairs must run in this order, which is the order of registration.
#include "UtlSmartPointer.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <thread>

namespace {

void copyRelease(benchmark::State& state) {
    const utl::SmartPointer<int> held(new int(1));
    for (auto _ : state) {
        utl::SmartPointer<int> copy(held);
        benchmark::DoNotOptimize(copy.get());
    }
    state.SetItemsProcessed(state.iterations());
}

void stdCopyRelease(benchmark::State& state) {
    const std::shared_ptr<int> held = std::make_shared<int>(1);
    for (auto _ : state) {
        std::shared_ptr<int> copy(held);
        benchmark::DoNotOptimize(copy.get());
    }
    state.SetItemsProcessed(state.iterations());
}

void startThreadOnce() {
    static const bool started = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)started;
}

void BM_CountingPointerCopyRelease(benchmark::State& state) {
    copyRelease(state);
}

void BM_StdSharedPtrCopyRelease(benchmark::State& state) {
    stdCopyRelease(state);
}

void BM_CountingPointerCopyReleaseThreaded(benchmark::State& state) {
    startThreadOnce();
    copyRelease(state);
}

void BM_StdSharedPtrCopyReleaseThreaded(benchmark::State& state) {
    startThreadOnce();
    stdCopyRelease(state);
}

BENCHMARK(BM_CountingPointerCopyRelease);
BENCHMARK(BM_StdSharedPtrCopyRelease);
BENCHMARK(BM_CountingPointerCopyReleaseThreaded);
BENCHMARK(BM_StdSharedPtrCopyReleaseThreaded);

}  // namespace
