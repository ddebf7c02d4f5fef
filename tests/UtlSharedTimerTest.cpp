#include "UtlSharedTimer.h"

#include <dirent.h>
#include <fcntl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "ThreadTestSupport.h"

namespace {

using utl::SharedTimer;

int64_t nowMsec() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Counts expiries per timer with their arrival times; `onExpiry` (optional) runs afterwards.
class CountingListener : public utl::TimerListener {
  public:
    void onTime(int timerId) override {
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mTimes[timerId].push_back(nowMsec());
        }
        if (onExpiry) {
            onExpiry(timerId);
        }
    }
    size_t count(int timerId) const {
        std::lock_guard<std::mutex> guard(mMutex);
        auto found = mTimes.find(timerId);
        return found != mTimes.end() ? found->second.size() : 0;
    }
    std::vector<int64_t> times(int timerId) const {
        std::lock_guard<std::mutex> guard(mMutex);
        auto found = mTimes.find(timerId);
        return found != mTimes.end() ? found->second : std::vector<int64_t>();
    }

    std::function<void(int)> onExpiry;

  private:
    mutable std::mutex mMutex;
    std::map<int, std::vector<int64_t>> mTimes;
};

// A timer thread whose loop can be held inside the expiry of a 1 ms timer while the test queues
// control messages behind it.
struct HeldTimers {
    HeldTimers() : timers(0, 0, nullptr, 4, "held") {
        holder.onExpiry = [this](int) {
            held.open();
            released.wait();
        };
        holdId = timers.addTimer(&holder, 1, 1, 0);
    }
    ~HeldTimers() { released.open(); }
    void hold() {
        ASSERT_TRUE(timers.start(holdId, 1));
        ASSERT_TRUE(held.wait());
    }

    CountingListener holder;
    Gate held;
    Gate released;
    SharedTimer timers;
    int holdId;
};

// Ids run round-robin; a queue that is full refuses a 257th message, while starts and stops that
// the queued messages already make true do not need a place in it.
TEST(SharedTimerTest, RedundantStartsAndStopsQueueNothingAndTheQueueHolds256) {
    CountingListener listener;
    HeldTimers loop;
    const int timerId = loop.timers.addTimer(&listener, 50, 0, 1);
    ASSERT_EQ(timerId, loop.holdId + 1);
    loop.hold();
    for (unsigned int i = 0; i < SharedTimer::CTL_QUEUE_SIZE - 1; ++i) {
        ASSERT_TRUE(loop.timers.postTimerCtlMsg(SharedTimer::MSG_ID_STOP_TIMER, 999)) << i;
    }
    EXPECT_TRUE(loop.timers.stop(timerId, 1)) << "not running: nothing to queue";
    EXPECT_TRUE(loop.timers.start(timerId, 1)) << "the 256th message";
    EXPECT_TRUE(loop.timers.start(timerId, 1)) << "the start is queued already";
    EXPECT_FALSE(loop.timers.stop(timerId, 1)) << "a 257th message is refused";
    EXPECT_FALSE(loop.timers.postTimerCtlMsg(SharedTimer::MSG_ID_STOP_TIMER, 999));
    loop.released.open();
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= 2; })) << "the loop drains";
    EXPECT_TRUE(loop.timers.isRunning(timerId));
    EXPECT_TRUE(loop.timers.start(timerId, 0));
    EXPECT_TRUE(loop.timers.stop(timerId, 0));
    EXPECT_FALSE(loop.timers.isRunning(timerId));
    EXPECT_TRUE(loop.timers.stop(timerId, 0));
}

// A caller still waiting when the thread ends is released with false, and the ended thread
// refuses everything.
TEST(SharedTimerTest, ThreadEndReleasesAWaitingCaller) {
    CountingListener listener;
    HeldTimers loop;
    const int timerId = loop.timers.addTimer(&listener, 10, 0, 0);
    loop.hold();
    std::atomic<int> started{-1};
    Sender starter([&] { started = loop.timers.start(timerId, 0); });
    ASSERT_TRUE(starter.awaitBlocked());
    EXPECT_EQ(loop.timers.utl::Thread::stop(0, 0), 0);
    loop.released.open();
    ASSERT_TRUE(waitUntil([&] { return started != -1; }));
    starter.join();
    EXPECT_EQ(started, 0);
    EXPECT_EQ(loop.timers.waitTo(3, 0), 0);
    EXPECT_FALSE(loop.timers.start(timerId, 0));
    EXPECT_EQ(loop.timers.addTimer(&listener, 10, 0, 0), -1);
    EXPECT_EQ(listener.count(timerId), 0u);
}

// Expiries of a 100 ms timer that piled up while the loop was held are dropped by a stop and
// start queued behind them: the new run's first expiry comes a whole interval after the start.
TEST(SharedTimerTest, RestartDropsTheExpiriesOfTheEndedRun) {
    CountingListener listener;
    HeldTimers loop;
    const int timerId = loop.timers.addTimer(&listener, 100, 0, 1);
    ASSERT_TRUE(loop.timers.start(timerId, 0));
    loop.hold();
    utl::Thread::sleep(250);
    ASSERT_TRUE(loop.timers.stop(timerId, 1));
    ASSERT_TRUE(loop.timers.start(timerId, 1));
    const size_t before = listener.count(timerId);
    const int64_t released = nowMsec();
    loop.released.open();
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) > before; }));
    EXPECT_GE(listener.times(timerId)[before] - released, 90);
}

TEST(SharedTimerTest, CountLimitedTimerStopsAndStartsAgainForAsMany) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 2, "limited");
    for (const bool runOn : {false, true}) {
        SCOPED_TRACE(runOn);
        const int timerId = timers.addTimer(&listener, 1, 2, runOn ? 1 : 0);
        ASSERT_GT(timerId, 0);
        EXPECT_FALSE(timers.isRunning(timerId)) << "created stopped";
        ASSERT_TRUE(timers.start(timerId, 0));
        ASSERT_TRUE(waitUntil([&] { return !timers.isRunning(timerId); }));
        utl::Thread::sleep(20);
        EXPECT_EQ(listener.count(timerId), 2u);
        ASSERT_TRUE(timers.start(timerId, 0)) << "still registered";
        ASSERT_TRUE(waitUntil([&] { return !timers.isRunning(timerId); }));
        utl::Thread::sleep(20);
        EXPECT_EQ(listener.count(timerId), 4u);
        EXPECT_TRUE(timers.eraseTimer(timerId, 0));
    }
}

// The signals of a 1 ms run-on timer pile up while its listener spends 700 ms in one expiry, in
// a pipe cut to 512 tokens: the handler's writes fail without blocking, and the thread reports
// that once it reads again. Afterwards at most the two queued expiries are delivered at once,
// not one per missed signal.
TEST(SharedTimerTest, BusyListenerIsNotFloodedAndOverflowIsReported) {
    CountingListener listener;
    const std::set<int> before = openDescriptors();
    SharedTimer timers(0, 0, nullptr, 1, "busy");
    const int pipe = newPipeWriteEnd(before);
    ASSERT_GE(pipe, 0);
    ASSERT_GT(fcntl(pipe, F_SETPIPE_SZ, 4096), 0);
    const int timerId = timers.addTimer(&listener, 1, 0, 1);
    std::atomic<int64_t> busyUntil{0};
    listener.onExpiry = [&](int) {
        if (busyUntil == 0) {
            utl::Thread::sleep(700);
            busyUntil = nowMsec();
        }
    };
    LogCapture log;
    ASSERT_TRUE(timers.start(timerId, 1));
    ASSERT_TRUE(waitUntil([&] { return busyUntil != 0 && nowMsec() > busyUntil + 50; }));
    ASSERT_TRUE(timers.stop(timerId, 0));
    const std::vector<int64_t> times = listener.times(timerId);
    const auto burst = std::count_if(times.begin(), times.end(), [&](int64_t t) {
        return t >= busyUntil && t <= busyUntil + 20;
    });
    EXPECT_LT(burst, 100) << "missed expiries are not delivered one by one";
    EXPECT_TRUE(log.contains("SharedTimerThread() Error. write Ret:4294967295 errno:" +
                             std::to_string(EAGAIN)));
    EXPECT_FALSE(log.contains("SharedTimerThread(busy) Error. write")) << "the loop's own tokens";
}

// Unknown ids, out-of-range intervals, a full table and erased timers are refused.
TEST(SharedTimerTest, UnknownFullAndErasedTimersAreRefused) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 2, "refusals");
    EXPECT_EQ(timers.getInterval(7), SharedTimer::UNKNOWN_INTERVAL);
    EXPECT_FALSE(timers.start(7, 0));
    EXPECT_FALSE(timers.stop(7, 0));
    EXPECT_FALSE(timers.restart(7, 0));
    EXPECT_FALSE(timers.setInterval(7, 10));
    EXPECT_FALSE(timers.eraseTimer(7, 0));
    EXPECT_EQ(timers.addTimer(&listener, 0, 0, 0), -1);
    EXPECT_EQ(timers.addTimer(&listener, 0x80000000u, 0, 0), -1);
    const int a = timers.addTimer(&listener, 2, 0, 1);
    const int b = timers.addTimer(&listener, 30, 0, 0);
    EXPECT_EQ(timers.addTimer(&listener, 10, 0, 0), -1) << "the table is full";
    EXPECT_FALSE(timers.setInterval(a, 0));
    EXPECT_EQ(timers.getInterval(b), 30u);

    ASSERT_TRUE(timers.startAll(0));
    EXPECT_TRUE(timers.isRunning(a) && timers.isRunning(b));
    ASSERT_TRUE(waitUntil([&] { return listener.count(a) >= 3; }));
    ASSERT_TRUE(timers.eraseTimer(a, 0));
    const size_t afterErase = listener.count(a);
    EXPECT_EQ(timers.getInterval(a), SharedTimer::UNKNOWN_INTERVAL);
    EXPECT_FALSE(timers.start(a, 0));
    utl::Array<int> ids(2, 0);
    ASSERT_TRUE(timers.getTimerIdSet(&ids));
    ASSERT_EQ(ids.getCount(), 1u);
    EXPECT_EQ(ids.getAt(0), b);
    EXPECT_TRUE(timers.stopAll(0));
    EXPECT_FALSE(timers.isRunning(b));
    utl::Thread::sleep(20);
    EXPECT_EQ(listener.count(a), afterErase) << "no expiry after the erase returned";
    EXPECT_EQ(timers.addTimer(&listener, 10, 0, 0), b + 1) << "the freed place, the next id";
}

// The first interval runs from the start; after setInterval the gaps of a running run-on timer
// grow from the next expiry on, and a stopped timer starts with the new interval.
TEST(SharedTimerTest, SetIntervalTakesEffectWhenTheTimerIsNextArmed) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 1, "interval");
    const int timerId = timers.addTimer(&listener, 5, 0, 1);
    ASSERT_TRUE(timers.start(timerId, 0));
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= 3; }));
    ASSERT_TRUE(timers.setInterval(timerId, 150));
    EXPECT_EQ(timers.getInterval(timerId), 150u);
    const size_t changedAt = listener.count(timerId);
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= changedAt + 3; }));
    const std::vector<int64_t> times = listener.times(timerId);
    EXPECT_GE(times[changedAt + 2] - times[changedAt + 1], 140) << "the new period";

    ASSERT_TRUE(timers.stop(timerId, 0));
    ASSERT_TRUE(timers.setInterval(timerId, 200));
    const int64_t started = nowMsec();
    ASSERT_TRUE(timers.start(timerId, 0));
    const size_t before = listener.count(timerId);
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) > before; }));
    EXPECT_GE(listener.times(timerId)[before] - started, 190);
}

// Inside onTime the listener stops its own timer, with the flag 0 too (it does not wait), and that
// stop holds at once; a waiting start from another thread meanwhile is not deadlocked.
TEST(SharedTimerTest, ListenerStopsItsOwnTimerWhileAnotherThreadWaits) {
    CountingListener listener;
    Gate inside;
    Gate proceed;
    std::atomic<int> stopped{-1};
    SharedTimer timers(0, 0, nullptr, 2, "self");
    const int fast = timers.addTimer(&listener, 1, 0, 1);
    const int other = timers.addTimer(&listener, 1000, 0, 0);
    listener.onExpiry = [&](int timerId) {
        if (timerId != fast || stopped != -1) {
            return;
        }
        inside.open();
        proceed.wait();
        stopped = timers.stop(fast, 0) && timers.setInterval(other, 500);
    };
    ASSERT_TRUE(timers.start(fast, 1));
    ASSERT_TRUE(inside.wait());
    std::atomic<bool> otherStarted{false};
    Sender starter([&] { otherStarted = timers.start(other, 0); });
    ASSERT_TRUE(starter.awaitBlocked()) << "waits for the loop, holding the control lock";
    proceed.open();
    ASSERT_TRUE(waitUntil([&] { return stopped != -1; })) << "the listener is not blocked";
    starter.join();
    EXPECT_TRUE(otherStarted);
    EXPECT_EQ(stopped, 1);
    ASSERT_TRUE(waitUntil([&] { return !timers.isRunning(fast); }));
    EXPECT_EQ(listener.count(fast), 1u) << "no expiry after the stop from inside onTime";
    EXPECT_EQ(timers.getInterval(other), 500u);
}

// Restarting from inside onTime runs the timer on, its count from 0.
TEST(SharedTimerTest, RestartInsideOnTimeRunsTheTimerOnWithItsCountFromZero) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 1, "restart");
    const int timerId = timers.addTimer(&listener, 1, 2, 0);
    listener.onExpiry = [&](int id) {
        if (listener.count(id) == 2) {
            timers.restart(id, 0);
        }
    };
    ASSERT_TRUE(timers.start(timerId, 0));
    ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= 4; }));
    ASSERT_TRUE(waitUntil([&] { return !timers.isRunning(timerId); }));
    utl::Thread::sleep(20);
    EXPECT_EQ(listener.count(timerId), 4u) << "two, then two more after the restart";
}

class Blinker : public utl::Timer {
  public:
    Blinker() : utl::Timer(1, 0, 0, nullptr, 3, 1, "blinker") {}
    ~Blinker() override { destroy(); }
    void onTime(int) override { ++mBlinks; }
    std::atomic<int> mBlinks{0};
};

TEST(TimerTest, ForwardsToItsListenerOrADerivedOnTime) {
    CountingListener listener;
    utl::Timer timer(&listener, 2, 0, 0, nullptr, 0, 1, "forward");
    ASSERT_TRUE(timer.start(0));
    ASSERT_TRUE(waitUntil([&] { return listener.count(1) >= 3; }));
    ASSERT_TRUE(timer.stop(0));
    EXPECT_FALSE(timer.isRunning());

    Blinker blinker;
    ASSERT_TRUE(blinker.start(0));
    ASSERT_TRUE(waitUntil([&] { return !blinker.isRunning(); }));
    EXPECT_EQ(blinker.mBlinks, 3);
}

// destroy() ends timer and thread: afterwards nothing is called and every request fails; from
// inside onTime it does not wait.
TEST(TimerTest, DestroyEndsTheTimerForGood) {
    CountingListener listener;
    utl::Timer timer(&listener, 1, 0, 0, nullptr, 0, 1, "destroy");
    ASSERT_TRUE(timer.start(0));
    ASSERT_TRUE(waitUntil([&] { return listener.count(1) >= 2; }));
    EXPECT_TRUE(timer.destroy());
    const size_t afterDestroy = listener.count(1);
    utl::Thread::sleep(20);
    EXPECT_EQ(listener.count(1), afterDestroy);
    EXPECT_FALSE(timer.destroy());
    EXPECT_FALSE(timer.start(0));
    EXPECT_FALSE(timer.isRunning());
    EXPECT_FALSE(timer.setInterval(5));
    EXPECT_EQ(timer.getInterval(), SharedTimer::UNKNOWN_INTERVAL);

    CountingListener selfListener;
    utl::Timer self(&selfListener, 1, 0, 0, nullptr, 0, 1, "selfDestroy");
    std::atomic<int> destroyed{-1};
    selfListener.onExpiry = [&](int) {
        if (destroyed == -1) {
            destroyed = self.destroy();
        }
    };
    ASSERT_TRUE(self.start(0));
    ASSERT_TRUE(waitUntil([&] { return destroyed != -1; }));
    utl::Thread::sleep(20);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(selfListener.count(1), 1u);
}

// Destroying a timer thread with running timers ends it at once; no listener runs afterwards.
TEST(SharedTimerTest, DestructionWithRunningTimersStopsEveryCall) {
    CountingListener listener;
    std::atomic<int> calls{0};
    listener.onExpiry = [&](int) { ++calls; };
    {
        SharedTimer timers(0, 0, nullptr, 4, "destroyed");
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(timers.start(timers.addTimer(&listener, 1, 0, i % 2), 1));
        }
        ASSERT_TRUE(waitUntil([&] { return calls >= 20; }));
    }
    const int afterDestruction = calls;
    utl::Thread::sleep(20);
    EXPECT_EQ(calls, afterDestruction);
}

// ---- Reliability

// 32 timers are started, stopped and re-armed with new intervals by four threads and by their
// own listener, with and without waiting. Nothing deadlocks, and afterwards every timer still
// behaves as configured: a count limit of 3 gives exactly three expiries from a start.
TEST(SharedTimerStressTest, ManyThreadsAndListenersControlThirtyTwoTimers) {
    constexpr int kTimers = 32;
    constexpr int kThreads = 4;
    const int64_t runFor = 1500;
    CountingListener listener;
    std::mutex selfControlMutex;
    bool selfControl = true;  // Guarded by selfControlMutex.
    int selfControls = 0;     // Guarded by selfControlMutex.
    SharedTimer timers(0, 0, nullptr, kTimers, "stress");
    std::vector<int> ids;
    for (int i = 0; i < kTimers; ++i) {
        ids.push_back(timers.addTimer(&listener, 1 + i % 5, i % 4 == 0 ? 3 : 0, i % 2));
        ASSERT_GT(ids.back(), 0);
    }
    listener.onExpiry = [&](int timerId) {
        std::lock_guard<std::mutex> guard(selfControlMutex);
        if (!selfControl) {
            return;
        }
        const int op = (timerId + selfControls++) % 4;
        if (op == 0) {
            timers.stop(timerId, 1);
        } else if (op == 1) {
            timers.setInterval(timerId, 1 + timerId % 3);
        } else if (op == 2) {
            timers.restart(timerId, 0);
        }
    };
    std::vector<std::thread> controllers;
    for (int t = 0; t < kThreads; ++t) {
        controllers.emplace_back([&, t] {
            unsigned int seed = t;
            const int64_t end = nowMsec() + runFor;
            while (nowMsec() < end) {
                seed = seed * 1103515245u + 12345u;
                const int timerId = ids[(seed >> 8) % kTimers];
                const int noWait = (seed >> 4) & 1;
                switch ((seed >> 16) % 5) {
                    case 0:
                        timers.start(timerId, noWait);
                        break;
                    case 1:
                        timers.stop(timerId, noWait);
                        break;
                    case 2:
                        timers.restart(timerId, noWait);
                        break;
                    case 3:
                        timers.setInterval(timerId, 1 + (seed >> 20) % 4);
                        break;
                    default:
                        timers.startAll(1);
                        break;
                }
            }
        });
    }
    for (std::thread& controller : controllers) {
        controller.join();
    }
    {
        std::lock_guard<std::mutex> guard(selfControlMutex);
        selfControl = false;
        EXPECT_GT(selfControls, 100);
    }
    ASSERT_TRUE(timers.stopAll(0));
    std::vector<size_t> before;
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_FALSE(timers.isRunning(ids[i])) << ids[i];
        before.push_back(listener.count(ids[i]));
        if (i % 4 == 0) {
            ASSERT_TRUE(timers.start(ids[i], 1));
        }
    }
    ASSERT_TRUE(waitUntil([&] {
        for (int i = 0; i < kTimers; i += 4) {
            if (listener.count(ids[i]) < before[i] + 3 || timers.isRunning(ids[i])) {
                return false;
            }
        }
        return true;
    }));
    utl::Thread::sleep(20);
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_EQ(listener.count(ids[i]), before[i] + (i % 4 == 0 ? 3 : 0)) << ids[i];
    }
}

}  // namespace
