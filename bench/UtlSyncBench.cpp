// A hand-off between two threads through Event beside the same ping-pong on a bare std::mutex
// and std::condition_variable with predicates. One iteration is one round trip: the benchmark
// thread sets "ping", the responder wakes, resets it and sets "pong", and the benchmark thread
// wakes and resets "pong". items/s (round trips per second) compares directly.
//
// The std baseline comes twice: notifying after the unlock (the usual idiom, fastest) and
// notifying under the mutex, as Event does. Event must broadcast under its mutex: a waiter may
// destroy the event as soon as it has returned, and the last waiter renews the condition. On a
// machine where the woken thread runs before the waker has unlocked, it then sleeps once more
// on the mutex; the second baseline shows what that costs by itself.
#include "UtlSync.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

// Timed waits: an unlimited Event wait returns after one wake-up without testing the state.
constexpr unsigned int kTimeoutMsec = 60000;

void BM_EventPingPong(benchmark::State& state) {
    utl::Event ping(0, utl::Event::ONE_WAY);
    utl::Event pong(0, utl::Event::ONE_WAY);
    std::atomic<bool> done{false};
    std::thread responder([&] {
        for (;;) {
            if (ping.waitToOn(kTimeoutMsec) != utl::Event::WAIT_OK) {
                return;
            }
            ping.setOff();
            if (done.load()) {
                return;
            }
            pong.setOn();
        }
    });
    for (auto _ : state) {
        ping.setOn();
        if (pong.waitToOn(kTimeoutMsec) != utl::Event::WAIT_OK) {
            state.SkipWithError("the responder did not answer");
            break;
        }
        pong.setOff();
    }
    done = true;
    ping.setOn();
    responder.join();
    state.SetItemsProcessed(state.iterations());
}

// The baseline's event: a flag under a mutex, waited for with a predicate.
template <bool kNotifyUnderLock>
class Flag {
  public:
    void set() {
        std::unique_lock<std::mutex> guard(mMutex);
        mOn = true;
        if (!kNotifyUnderLock) {
            guard.unlock();
        }
        mCondition.notify_all();
    }
    void waitAndReset() {
        std::unique_lock<std::mutex> guard(mMutex);
        mCondition.wait(guard, [this] { return mOn; });
        mOn = false;
    }

  private:
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mOn = false;
};

template <bool kNotifyUnderLock>
void BM_StdConditionPingPong(benchmark::State& state) {
    Flag<kNotifyUnderLock> ping;
    Flag<kNotifyUnderLock> pong;
    std::atomic<bool> done{false};
    std::thread responder([&] {
        for (;;) {
            ping.waitAndReset();
            if (done.load()) {
                return;
            }
            pong.set();
        }
    });
    for (auto _ : state) {
        ping.set();
        pong.waitAndReset();
    }
    done = true;
    ping.set();
    responder.join();
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_EventPingPong)->UseRealTime();
BENCHMARK_TEMPLATE(BM_StdConditionPingPong, false)->Name("BM_StdConditionPingPong")->UseRealTime();
BENCHMARK_TEMPLATE(BM_StdConditionPingPong, true)
    ->Name("BM_StdConditionNotifyLockedPingPong")
    ->UseRealTime();
