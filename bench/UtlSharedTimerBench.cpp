// SharedTimer lateness beside its floor, so that the price of the timer thread can be read off
// one run as a ratio.
//
// A 10 ms run-on timer of a SharedTimer against a bare POSIX timer on the monotonic clock whose
// own real-time signal writes a token into a pipe read by a thread (ThreadBenchSupport.h).
// Expiry k of 300 is due at arm time + k x 10 ms; its lateness is the monotonic time at which the
// listener (or the reader thread) sees it minus that. p50_us and p99_us are the counters to
// compare; one iteration takes 3 s. All threads of both run on one CPU: on a virtual machine a
// wake-up across CPUs costs tens of microseconds and varies too much to compare a few
// microseconds of difference.
#include "UtlSharedTimer.h"

#include <benchmark/benchmark.h>

#include <cstdint>

#include "ThreadBenchSupport.h"

namespace {

using namespace utl_bench;

// The measured timer is started from inside the timer thread, by the one expiry of a 1 ms
// starter timer, so that the arm time is taken in the thread that arms it, as the floor does.
class LatenessListener : public utl::TimerListener {
  public:
    explicit LatenessListener(utl::SharedTimer& timers) : mTimers(timers) {}
    void onTime(int timerId) override {
        if (timerId == mTimerId) {
            mArrivals.arrived();
            return;
        }
        mArmNsec = monotonicNsec();
        mTimers.start(mTimerId, 1);
    }

    Arrivals mArrivals;
    int64_t mArmNsec = 0;
    int mTimerId = -1;

  private:
    utl::SharedTimer& mTimers;
};

void BM_SharedTimerLateness(benchmark::State& state) {
    const Placement placement(state);
    if (!placement.isValid()) {
        return;
    }
    for (auto _ : state) {
        utl::SharedTimer timers(0, 0, nullptr, 2, "benchTimer");
        LatenessListener listener(timers);
        listener.mTimerId = timers.addTimer(&listener, kPeriodMsec, 0, 1);
        const int starter = timers.addTimer(&listener, 1, 1, 0);
        if (listener.mTimerId < 0 || starter < 0 || !timers.start(starter, 0)) {
            state.SkipWithError("the timer thread or its timers did not start");
            break;
        }
        const bool complete = listener.mArrivals.awaitAll();
        timers.stop(listener.mTimerId, 0);
        if (!complete) {
            state.SkipWithError("expiries missing");
            break;
        }
        listener.mArrivals.report(state, listener.mArmNsec);
    }
}

}  // namespace

UTL_LATENESS_BENCHMARK(BM_SharedTimerLateness);
UTL_LATENESS_BENCHMARK(BM_PosixTimerLateness);
