// CountingPointer against std::shared_ptr: one iteration copies a holder into a local and lets it
// go again (one increment and one decrement of a count that stays above 0). items/s compares
// directly; each pair runs the same code on both sides.
//
// Both get cheaper for as long as the process has never started a second thread: std::shared_ptr
// then counts without atomic instructions (glibc's __libc_single_threaded), and so does
// CountingPointer. The first pair runs in that state and must run first, which is the order of
// registration. The second pair runs while other threads are alive and wake up now and then, as
// the message loops and timer threads of an application do; the third has two threads copying
// one shared holder at the same time, so that both fight over the count's cache line.
#include "UtlSmartPointer.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

template <class Holder>
void copyRelease(benchmark::State& state, const Holder& held) {
    for (auto _ : state) {
        Holder copy(held);
        benchmark::DoNotOptimize(copy.get());
    }
    state.SetItemsProcessed(state.iterations());
}

const utl::SmartPointer<int>& sharedCountingPointer() {
    static const utl::SmartPointer<int> held(new int(1));
    return held;
}

const std::shared_ptr<int>& sharedStdPointer() {
    static const std::shared_ptr<int> held = std::make_shared<int>(1);
    return held;
}

// Background threads that live for the scope of the object, each waking every millisecond to
// take a lock and count, until the object ends.
class OtherThreads {
  public:
    OtherThreads() : mStop(false), mWakeUps(0) {
        for (int i = 0; i < 2; ++i) {
            mThreads.emplace_back([this] { run(); });
        }
    }
    ~OtherThreads() {
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mStop = true;
        }
        mCondition.notify_all();
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }
    OtherThreads(const OtherThreads&) = delete;
    OtherThreads& operator=(const OtherThreads&) = delete;

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mCondition.wait_for(lock, std::chrono::milliseconds(1), [this] { return mStop; })) {
            ++mWakeUps;
        }
    }

    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mStop;
    unsigned long mWakeUps;
    std::vector<std::thread> mThreads;
};

void BM_CountingPointerCopyRelease(benchmark::State& state) {
    copyRelease(state, utl::SmartPointer<int>(new int(1)));
}

void BM_StdSharedPtrCopyRelease(benchmark::State& state) {
    copyRelease(state, std::make_shared<int>(1));
}

void BM_CountingPointerCopyReleaseThreaded(benchmark::State& state) {
    const OtherThreads others;
    copyRelease(state, utl::SmartPointer<int>(new int(1)));
}

void BM_StdSharedPtrCopyReleaseThreaded(benchmark::State& state) {
    const OtherThreads others;
    copyRelease(state, std::make_shared<int>(1));
}

void BM_CountingPointerCopyReleaseContended(benchmark::State& state) {
    copyRelease(state, sharedCountingPointer());
}

void BM_StdSharedPtrCopyReleaseContended(benchmark::State& state) {
    copyRelease(state, sharedStdPointer());
}

BENCHMARK(BM_CountingPointerCopyRelease);
BENCHMARK(BM_StdSharedPtrCopyRelease);
BENCHMARK(BM_CountingPointerCopyReleaseThreaded);
BENCHMARK(BM_StdSharedPtrCopyReleaseThreaded);
BENCHMARK(BM_CountingPointerCopyReleaseContended)->Threads(2);
BENCHMARK(BM_StdSharedPtrCopyReleaseContended)->Threads(2);

}  // namespace
