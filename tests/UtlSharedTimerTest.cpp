#include "UtlSharedTimer.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <map>
#include <mutex>
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

// Records the arrival time of each expiry per timer; `onExpiry` (optional) runs afterwards.
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
    std::vector<int64_t> times(int timerId) const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mTimes.count(timerId) != 0 ? mTimes.at(timerId) : std::vector<int64_t>();
    }
    size_t count(int timerId) const { return times(timerId).size(); }
    // Milliseconds from `since` to the first expiry after the `seen` ones; -1 when none comes.
    int64_t nextExpiryAfter(int timerId, size_t seen, int64_t since) const {
        return waitUntil([&] { return count(timerId) > seen; }) ? times(timerId)[seen] - since : -1;
    }
    // The count once 20 ms have passed without the timer running (room for a stray expiry).
    size_t settledCount(const SharedTimer& timers, int timerId) const {
        EXPECT_TRUE(waitUntil([&] { return !timers.isRunning(timerId); }));
        utl::Thread::sleep(20);
        return count(timerId);
    }

    std::function<void(int)> onExpiry;

  private:
    mutable std::mutex mMutex;
    std::map<int, std::vector<int64_t>> mTimes;
};

// A timer thread whose loop the test holds inside an expiry while it queues messages behind it.
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
    Gate held, released;
    SharedTimer timers;
    int holdId;
};

// A queued stop and start drop the piled-up expiries of the ended run, and the start arms the
// interval set meanwhile; the queue holds 256, and starts and stops that the table or the queue
// already make true need no place in it.
TEST(SharedTimerTest, RestartDropsPiledUpExpiriesAndTheQueueHolds256) {
    CountingListener listener;
    HeldTimers loop;
    const int timerId = loop.timers.addTimer(&listener, 100, 0, 1);
    const int idle = loop.timers.addTimer(&listener, 100, 0, 1);
    ASSERT_TRUE(loop.timers.start(timerId, 0));
    loop.hold();
    utl::Thread::sleep(250);
    for (unsigned int i = 0; i < SharedTimer::CTL_QUEUE_SIZE - 2; ++i) {
        ASSERT_TRUE(loop.timers.postTimerCtlMsg(SharedTimer::MSG_ID_STOP_TIMER, 999)) << i;
    }
    EXPECT_TRUE(loop.timers.stop(idle, 1)) << "not running: nothing to queue";
    ASSERT_TRUE(loop.timers.stop(timerId, 1)) << "the 255th message";
    EXPECT_TRUE(loop.timers.stop(timerId, 1)) << "the stop is queued already";
    ASSERT_TRUE(loop.timers.start(timerId, 1)) << "the 256th message";
    EXPECT_TRUE(loop.timers.start(timerId, 1)) << "the start is queued already";
    EXPECT_FALSE(loop.timers.stop(timerId, 1)) << "a 257th message is refused";
    EXPECT_FALSE(loop.timers.postTimerCtlMsg(SharedTimer::MSG_ID_STOP_TIMER, 999));
    ASSERT_TRUE(loop.timers.setInterval(timerId, 200));
    const size_t before = listener.count(timerId);
    const int64_t released = nowMsec();
    loop.released.open();
    EXPECT_GE(listener.nextExpiryAfter(timerId, before, released), 190);
    EXPECT_TRUE(loop.timers.isRunning(timerId));
}

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
}

// A restart inside onTime and a later start both count the limit from 0 again.
TEST(SharedTimerTest, CountLimitedTimerStopsAndStartsAgainForAsMany) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 2, "limited");
    listener.onExpiry = [&](int timerId) {
        if (listener.count(timerId) == 2) {
            timers.restart(timerId, 0);
        }
    };
    for (const bool runOn : {false, true}) {
        SCOPED_TRACE(runOn);
        const int timerId = timers.addTimer(&listener, 1, 2, runOn ? 1 : 0);
        EXPECT_FALSE(timers.isRunning(timerId)) << "created stopped";
        ASSERT_TRUE(timers.start(timerId, 0));
        ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= 4; }));
        EXPECT_EQ(listener.settledCount(timers, timerId), 4u) << "two, restart, two more";
        ASSERT_TRUE(timers.start(timerId, 0)) << "still registered";
        ASSERT_TRUE(waitUntil([&] { return listener.count(timerId) >= 6; }));
        EXPECT_EQ(listener.settledCount(timers, timerId), 6u);
        EXPECT_TRUE(timers.eraseTimer(timerId, 0));
    }
}

// A listener busy for 700 ms while its 1 ms timer fills the pipe (cut to 512 tokens): the
// handler's failed writes are reported afterwards, and missed signals are not all delivered.
TEST(SharedTimerTest, BusyListenerIsNotFloodedAndOverflowIsReported) {
    CountingListener listener;
    const auto before = openDescriptors();
    SharedTimer timers(0, 0, nullptr, 1, "busy");
    ASSERT_GT(fcntl(newPipeWriteEnd(before), F_SETPIPE_SZ, 4096), 0);
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

TEST(SharedTimerTest, UnknownFullAndErasedTimersAreRefused) {
    CountingListener listener;
    SharedTimer timers(0, 0, nullptr, 2, "refusals");
    EXPECT_FALSE(timers.start(7, 0) || timers.stop(7, 0) || timers.restart(7, 0) ||
                 timers.setInterval(7, 10) || timers.eraseTimer(7, 0));
    EXPECT_EQ(timers.addTimer(&listener, 0, 0, 0), -1);
    EXPECT_EQ(timers.addTimer(&listener, 0x80000000u, 0, 0), -1);
    const int a = timers.addTimer(&listener, 2, 0, 1);
    const int b = timers.addTimer(&listener, 30, 0, 0);
    EXPECT_EQ(timers.addTimer(&listener, 10, 0, 0), -1) << "the table is full";
    EXPECT_FALSE(timers.setInterval(a, 0));

    ASSERT_TRUE(timers.startAll(0));
    EXPECT_TRUE(timers.isRunning(a) && timers.isRunning(b));
    ASSERT_TRUE(waitUntil([&] { return listener.count(a) >= 3; }));
    ASSERT_TRUE(timers.eraseTimer(a, 0));
    const size_t afterErase = listener.count(a);
    EXPECT_EQ(timers.getInterval(a), SharedTimer::UNKNOWN_INTERVAL);
    utl::Array<int> ids(2, 0);
    EXPECT_TRUE(timers.getTimerIdSet(&ids) && ids.getCount() == 1 && ids.getAt(0) == b);
    EXPECT_TRUE(timers.stopAll(0));
    EXPECT_FALSE(timers.isRunning(b));
    utl::Thread::sleep(20);
    EXPECT_EQ(listener.count(a), afterErase) << "no expiry after the erase returned";
    EXPECT_EQ(timers.addTimer(&listener, 10, 0, 0), b + 1) << "the freed place, the next id";
}

// A running run-on timer takes a new interval from its next expiry on.
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
}

// A waiting stop inside onTime neither waits nor deadlocks with a caller holding the control lock.
TEST(SharedTimerTest, ListenerStopsItsOwnTimerWhileAnotherThreadWaits) {
    CountingListener listener;
    Gate inside, proceed;
    std::atomic<int> stopped{-1};
    SharedTimer timers(0, 0, nullptr, 2, "self");
    const int fast = timers.addTimer(&listener, 1, 0, 1);
    const int other = timers.addTimer(&listener, 1000, 0, 0);
    listener.onExpiry = [&](int timerId) {
        if (timerId == fast && stopped == -1) {
            inside.open();
            proceed.wait();
            stopped = timers.stop(fast, 0) && timers.setInterval(other, 500);
        }
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
    EXPECT_EQ(listener.settledCount(timers, fast), 1u) << "no expiry after the stop in onTime";
    EXPECT_EQ(timers.getInterval(other), 500u);
}

// Without a listener a Timer calls its own onTime; this one ends itself in its third.
class Blinker : public utl::Timer {
  public:
    Blinker() : utl::Timer(1, 0, 0, nullptr, 0, 1, "blinker") {}
    ~Blinker() override { destroy(); }
    void onTime(int) override {
        if (++mBlinks == 3) {
            mDestroyed = destroy();
        }
    }
    std::atomic<int> mBlinks{0};
    std::atomic<int> mDestroyed{-1};
};

// A Timer calls its listener; destroy() ends timer and thread for good (nothing is called
// afterwards, every request fails), and inside onTime it does not wait.
TEST(TimerTest, ForwardsExpiriesAndDestroyEndsTheTimerForGood) {
    CountingListener listener;
    utl::Timer timer(&listener, 1, 0, 0, nullptr, 0, 1, "destroy");
    ASSERT_TRUE(timer.start(0));
    ASSERT_TRUE(waitUntil([&] { return listener.count(1) >= 2; }));
    ASSERT_TRUE(timer.stop(0));
    EXPECT_FALSE(timer.isRunning());
    ASSERT_TRUE(timer.start(0));
    EXPECT_TRUE(timer.destroy());
    const size_t afterDestroy = listener.count(1);
    utl::Thread::sleep(20);
    EXPECT_EQ(listener.count(1), afterDestroy);
    EXPECT_FALSE(timer.destroy() || timer.start(0) || timer.isRunning() || timer.setInterval(5));
    EXPECT_EQ(timer.getInterval(), SharedTimer::UNKNOWN_INTERVAL);

    Blinker blinker;
    ASSERT_TRUE(blinker.start(0));
    ASSERT_TRUE(waitUntil([&] { return blinker.mDestroyed != -1; }));
    utl::Thread::sleep(20);
    EXPECT_EQ(blinker.mDestroyed, 1);
    EXPECT_EQ(blinker.mBlinks, 3);
}

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

// Four threads and the listener control 32 timers at random; each still keeps its limit after.
TEST(SharedTimerStressTest, ManyThreadsAndListenersControlThirtyTwoTimers) {
    constexpr int kTimers = 32;
    CountingListener listener;
    std::mutex selfControlMutex;
    bool selfControl = true;  // Guarded by selfControlMutex.
    int selfControls = 0;     // Guarded by selfControlMutex.
    SharedTimer timers(0, 0, nullptr, kTimers, "stress");
    for (int i = 0; i < kTimers; ++i) {  // ids 1 ... 32
        ASSERT_EQ(timers.addTimer(&listener, 1 + i % 5, i % 4 == 0 ? 3 : 0, i % 2), i + 1);
    }
    // 0 start, 1 stop, 2 restart, 3 setInterval; 4 startAll (not from inside onTime).
    const auto control = [&timers](int timerId, unsigned int op, int noWait) {
        switch (op) {
            case 0:
                return timers.start(timerId, noWait);
            case 1:
                return timers.stop(timerId, noWait);
            case 2:
                return timers.restart(timerId, noWait);
            case 3:
                return timers.setInterval(timerId, 1 + (timerId + noWait) % 4);
            default:
                return timers.startAll(noWait);
        }
    };
    listener.onExpiry = [&](int timerId) {
        std::lock_guard<std::mutex> guard(selfControlMutex);
        if (selfControl) {
            const int n = selfControls++;
            control(timerId, (timerId + n) % 4, n % 2);
        }
    };
    std::vector<std::thread> controllers;
    for (unsigned int t = 0; t < 4; ++t) {
        controllers.emplace_back([&, seed = t]() mutable {
            for (const int64_t end = nowMsec() + 1500; nowMsec() < end;) {
                seed = seed * 1103515245u + 12345u;
                control(1 + (seed >> 8) % kTimers, (seed >> 16) % 5, (seed >> 4) & 1);
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
    std::vector<size_t> expected;
    for (int id = 1; id <= kTimers; ++id) {
        EXPECT_FALSE(timers.isRunning(id)) << id;
        const bool limited = id % 4 == 1;
        expected.push_back(listener.count(id) + (limited ? 3 : 0));
        ASSERT_TRUE(!limited || timers.start(id, 1));
    }
    for (int id = 1; id <= kTimers; ++id) {
        ASSERT_TRUE(waitUntil([&] { return listener.count(id) >= expected[id - 1]; }));
        EXPECT_EQ(listener.settledCount(timers, id), expected[id - 1]) << id;
    }
}

}  // namespace
