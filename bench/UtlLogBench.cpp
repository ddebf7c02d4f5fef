// applog against composing and printing the same line by hand, and the cost of a dropped message
// against an empty call with the same arguments.
// Standard output goes to /dev/null while a benchmark runs.
#include "UtlLog.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

// Points standard output at /dev/null for the life of the object.
class QuietStdout {
  public:
    QuietStdout() {
        std::fflush(stdout);
        mSaved = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(mSaved, STDOUT_FILENO);
        close(mSaved);
    }

  private:
    int mSaved;
};

// A detail-level message of the library's own type passes the default filter and goes to printf
// only.
void BM_ApplogPassing(benchmark::State& state) {
    QuietStdout quiet;
    int i = 0;
    for (auto _ : state) {
        applog(-2, 4, "benchmark message number %d with some text", ++i);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_HandComposedPrintf(benchmark::State& state) {
    QuietStdout quiet;
    std::mutex lock;
    int i = 0;
    for (auto _ : state) {
        timeval now = {};
        gettimeofday(&now, nullptr);
        const time_t seconds = now.tv_sec;
        tm local = {};
        localtime_r(&seconds, &local);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
        char line[256];
        std::snprintf(line, sizeof line,
                      "%s.%03u <UTIL> DTL: benchmark message number %d with some text\r\n", stamp,
                      static_cast<unsigned int>(now.tv_usec / 1000), ++i);
        std::lock_guard<std::mutex> guard(lock);
        std::fputs(line, stdout);
    }
    state.SetItemsProcessed(state.iterations());
}

// A debug-level message is above the default filter level 4 and dropped.
void BM_ApplogDropped(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        applog(-2, 5, "dropped message %d", ++i);
    }
    state.SetItemsProcessed(state.iterations());
}

// A message of a type that was never registered is filtered by the fallback type's level.
void BM_ApplogDroppedUnregisteredType(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        applog(12345, 5, "dropped message %d", ++i);
    }
    state.SetItemsProcessed(state.iterations());
}

// The floor of a dropped message: calling an out-of-line function with the same arguments.
__attribute__((noinline)) void ignoreMessage(int type, int level, const char* format, ...) {
    benchmark::DoNotOptimize(type + level);
    benchmark::DoNotOptimize(format);
}

void BM_EmptyVariadicCall(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        ignoreMessage(-2, 5, "dropped message %d", ++i);
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_ApplogPassing);
BENCHMARK(BM_HandComposedPrintf);
BENCHMARK(BM_ApplogDropped);
BENCHMARK(BM_ApplogDroppedUnregisteredType);
BENCHMARK(BM_EmptyVariadicCall);
