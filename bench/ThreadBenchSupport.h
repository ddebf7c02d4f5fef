// Shared by the thread benchmarks: a pipe, CPU placement, the arrival record of timer expiries and
// the floor that timer lateness is compared with.
//
// The floor is a bare POSIX timer on the monotonic clock whose own real-time signal
// (SIGRTMIN + 3) writes a token into a pipe read by a thread. Expiry k of kExpiries is due at arm
// time + k x kPeriodMsec; its lateness is the monotonic time at which the reader sees it minus
// that, reported as the counters p50_us, p99_us and max_us. One iteration takes 3 s.
#ifndef UTL_BENCH_THREAD_BENCH_SUPPORT_H
#define UTL_BENCH_THREAD_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace utl_bench {

inline int64_t monotonicNsec() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// A pipe whose ends are closed with the object.
class Pipe {
  public:
    Pipe() {
        if (pipe2(mFds, O_CLOEXEC) != 0) {
            mFds[0] = mFds[1] = -1;
        }
    }
    ~Pipe() {
        closeWriteEnd();
        if (mFds[0] >= 0) {
            close(mFds[0]);
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    bool isOpen() const { return mFds[0] >= 0; }
    int readEnd() const { return mFds[0]; }
    int writeEnd() const { return mFds[1]; }
    // The reader's next read() then returns 0.
    void closeWriteEnd() {
        if (mFds[1] >= 0) {
            close(mFds[1]);
            mFds[1] = -1;
        }
    }

  private:
    int mFds[2];
};

// Reads one 8-byte token; false at the end of the pipe or on an error other than EINTR.
inline bool readToken(int fd, int32_t token[2]) {
    for (;;) {
        const ssize_t got = read(fd, token, 2 * sizeof(int32_t));
        if (got == static_cast<ssize_t>(2 * sizeof(int32_t))) {
            return true;
        }
        if (got >= 0 || errno != EINTR) {
            return false;
        }
    }
}

// The first two CPUs the process may run on; the second is -1 on a single CPU.
struct CpuPair {
    int mFirst = -1;
    int mSecond = -1;
};

inline CpuPair allowedCpus() {
    CpuPair pair;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) {
        return pair;
    }
    for (int cpu = 0; cpu < CPU_SETSIZE && pair.mSecond < 0; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            (pair.mFirst < 0 ? pair.mFirst : pair.mSecond) = cpu;
        }
    }
    return pair;
}

// Binds the calling thread to `cpu`.
inline bool pinCallerTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

// Binds the benchmark thread to the first allowed CPU and gives the CPU for the other thread;
// the benchmark thread gets its former CPUs back at the end.
class Placement {
  public:
    explicit Placement(benchmark::State& state) : mValid(false), mOtherCpu(-1) {
        CPU_ZERO(&mSaved);
        const CpuPair cpus = allowedCpus();
        const bool apart = state.range(0) == 2;
        if (cpus.mFirst < 0 || (apart && cpus.mSecond < 0)) {
            state.SkipWithError("not enough CPUs for this placement");
            return;
        }
        if (pthread_getaffinity_np(pthread_self(), sizeof mSaved, &mSaved) != 0 ||
            !pinCallerTo(cpus.mFirst)) {
            state.SkipWithError("cannot bind the benchmark thread");
            return;
        }
        mOtherCpu = apart ? cpus.mSecond : cpus.mFirst;
        mValid = true;
    }
    ~Placement() {
        if (mValid) {
            pthread_setaffinity_np(pthread_self(), sizeof mSaved, &mSaved);
        }
    }
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

    bool isValid() const { return mValid; }
    // Where the loop or consumer thread goes.
    int otherCpu() const { return mOtherCpu; }

  private:
    bool mValid;
    int mOtherCpu;
    cpu_set_t mSaved;
};

// ---- Timer lateness

constexpr int kPeriodMsec = 10;
constexpr int64_t kPeriodNsec = int64_t(kPeriodMsec) * 1000000;
constexpr unsigned int kExpiries = 300;

// Arrival times of the expiries, written by one thread; the benchmark thread waits for all.
class Arrivals {
  public:
    Arrivals() : mTimes(kExpiries, 0) {}
    void arrived() {
        const unsigned int n = mCount.load(std::memory_order_relaxed);
        if (n >= kExpiries) {
            return;
        }
        mTimes[n] = monotonicNsec();
        if (n + 1 == kExpiries) {
            std::lock_guard<std::mutex> guard(mMutex);
            mCount.store(n + 1, std::memory_order_release);
            mCondition.notify_one();
        } else {
            mCount.store(n + 1, std::memory_order_release);
        }
    }
    // False when the expiries did not all arrive within twice their due time.
    bool awaitAll() {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCondition.wait_for(lock, std::chrono::milliseconds(2 * kPeriodMsec * kExpiries),
                                   [this] { return mCount.load() == kExpiries; });
    }
    // Sets p50_us and p99_us of the lateness against `armNsec`.
    void report(benchmark::State& state, int64_t armNsec) const {
        std::vector<double> lateness;
        for (unsigned int k = 0; k < kExpiries; ++k) {
            const int64_t due = armNsec + int64_t(k + 1) * kPeriodNsec;
            lateness.push_back(static_cast<double>(mTimes[k] - due) / 1000.0);
        }
        std::sort(lateness.begin(), lateness.end());
        // Nearest rank: the smallest value with at least p percent of the samples at or below.
        const auto rank = [&](unsigned int percent) {
            return lateness[(percent * kExpiries + 99) / 100 - 1];
        };
        state.counters["p50_us"] = rank(50);
        state.counters["p99_us"] = rank(99);
        state.counters["max_us"] = lateness.back();
    }

  private:
    std::vector<int64_t> mTimes;
    std::atomic<unsigned int> mCount{0};
    std::mutex mMutex;
    std::condition_variable mCondition;
};

// The floor's signal carries the pipe's write end; the handler saves and restores errno.
inline void writeExpiryToken(int, siginfo_t* info, void*) {
    const int savedErrno = errno;
    const int fd = info->si_value.sival_int;
    const int32_t token[2] = {1, 0};
    if (write(fd, token, sizeof token) < 0) {
        // Nothing to do in a handler: the missing expiry shows as a missing arrival.
    }
    errno = savedErrno;
}

// The floor itself, to be registered beside each timer benchmark with the argument cpus 1: all
// its threads run on one CPU, as the timer benchmarks do.
inline void BM_PosixTimerLateness(benchmark::State& state) {
    const Placement placement(state);
    const int signal = SIGRTMIN + 3;
    struct sigaction action = {};
    action.sa_sigaction = writeExpiryToken;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    struct sigaction previous = {};
    if (sigaction(signal, &action, &previous) != 0) {
        state.SkipWithError("sigaction failed");
        return;
    }
    for (auto _ : state) {
        Pipe pipe;
        if (!pipe.isOpen()) {
            state.SkipWithError("no pipe");
            break;
        }
        fcntl(pipe.writeEnd(), F_SETFL, fcntl(pipe.writeEnd(), F_GETFL) | O_NONBLOCK);
        Arrivals arrivals;
        std::thread reader([&] {
            int32_t token[2];
            while (readToken(pipe.readEnd(), token)) {
                arrivals.arrived();
            }
        });
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = signal;
        event.sigev_value.sival_int = pipe.writeEnd();
        timer_t timer = {};
        bool complete = false;
        int64_t arm = 0;
        if (timer_create(CLOCK_MONOTONIC, &event, &timer) == 0) {
            const timespec period = {0, kPeriodNsec};
            const itimerspec timing = {period, period};
            arm = monotonicNsec();
            if (timer_settime(timer, 0, &timing, nullptr) == 0) {
                complete = arrivals.awaitAll();
            }
            timer_delete(timer);
        }
        pipe.closeWriteEnd();
        reader.join();
        if (!complete) {
            state.SkipWithError("the timer failed or expiries are missing");
            break;
        }
        arrivals.report(state, arm);
    }
    sigaction(signal, &previous, nullptr);
}

}  // namespace utl_bench

// Registers a timer lateness benchmark: one iteration of 3 s, both threads on one CPU
// (placement cpus:1), reported in milliseconds of real time.
#define UTL_LATENESS_BENCHMARK(function)                                              \
    BENCHMARK(function)->ArgName("cpus")->Arg(1)->Iterations(1)->UseRealTime()->Unit( \
        benchmark::kMillisecond)

#endif  // UTL_BENCH_THREAD_BENCH_SUPPORT_H
