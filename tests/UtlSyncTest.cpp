#include "UtlSync.h"

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "LogCapture.h"

namespace {

bool tryLockFromAnotherThread(const utl::SyncObject& lock) {
    bool taken = false;
    std::thread other([&] {
        taken = lock.tryLock();
        if (taken) {
            lock.unlock();
        }
    });
    other.join();
    return taken;
}

TEST(SyncObjectTest, OwnerMayRelockAndMustUnlockAsOften) {
    utl::SyncObject lock;
    {
        utl::SyncGuard outer(lock);
        utl::SyncGuard inner(lock);
        EXPECT_TRUE(lock.tryLock());
        lock.unlock();
        EXPECT_FALSE(tryLockFromAnotherThread(lock));
    }
    EXPECT_TRUE(tryLockFromAnotherThread(lock));
}

// Kernel id of the calling thread.
pid_t currentThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// Waits until thread `tid` of this process sleeps in the kernel. Called once a waiter has
// announced that it is about to wait, so that the sleep is its wait on the event. Gives up after
// 10 s and lets the test go on: it then checks a case where the waiter came late, which must
// pass too.
void awaitBlocked(const std::atomic<pid_t>& tid) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (tid.load() == 0) {
        std::this_thread::yield();
    }
    const std::string path = "/proc/self/task/" + std::to_string(tid.load()) + "/stat";
    while (std::chrono::steady_clock::now() < giveUp) {
        std::ifstream file(path);
        std::string stat;
        std::getline(file, stat);
        const std::size_t nameEnd = stat.rfind(')');
        if (nameEnd != std::string::npos && nameEnd + 2 < stat.size() && stat[nameEnd + 2] == 'S') {
            return;
        }
        std::this_thread::yield();
    }
}

// Timeouts ending in 999 ms make the deadline's nanoseconds carry into its seconds in all but
// one case in a thousand.
constexpr unsigned int kLongTimeout = 9999;

TEST(EventTest, InitialStateAndModeDecideTheImmediateResults) {
    utl::Event oneWaySet(1, utl::Event::ONE_WAY);
    EXPECT_TRUE(oneWaySet.isOn());
    EXPECT_EQ(oneWaySet.waitToOn(500), utl::Event::WAIT_OK);

    utl::Event oneWay(0, utl::Event::ONE_WAY);
    EXPECT_TRUE(oneWay.isOff());
    EXPECT_EQ(oneWay.waitToOff(100), utl::Event::WAIT_FAILED);
    oneWay.setOn();
    oneWay.setOff();
    EXPECT_EQ(oneWay.waitToOff(100), utl::Event::WAIT_FAILED);

    utl::Event twoWay(0, utl::Event::TWO_WAY);
    EXPECT_EQ(twoWay.waitToOff(500), utl::Event::WAIT_OK);
    twoWay.setOn();
    EXPECT_TRUE(twoWay.isOn());
    EXPECT_FALSE(twoWay.isOff());
    EXPECT_EQ(twoWay.waitToOn(500), utl::Event::WAIT_OK);
    twoWay.setOff();
    EXPECT_EQ(twoWay.waitToOff(500), utl::Event::WAIT_OK);
}

TEST(EventTest, TimedWaitRunsOutWithoutTheState) {
    utl::Event event(0, utl::Event::TWO_WAY);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(event.waitToOn(200), utl::Event::WAIT_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(199));
    EXPECT_LT(waited, std::chrono::milliseconds(200 + 5000));
}

TEST(EventTest, SwitchFromAnotherThreadWakesTheWaiter) {
    struct Case {
        const char* name;
        int initialState;
        int mode;
        bool waitForOn;
        unsigned int timeout;
    };
    const Case cases[] = {
        {"timed waitToOn", 0, utl::Event::TWO_WAY, true, kLongTimeout},
        {"timed waitToOff", 1, utl::Event::TWO_WAY, false, kLongTimeout},
        // Last: without a wake-up it never returns.
        {"unlimited waitToOn", 0, utl::Event::ONE_WAY, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        utl::Event event(c.initialState, c.mode);
        std::atomic<pid_t> tid{0};
        int status = 1;
        std::thread waiter([&] {
            tid = currentThreadId();
            status = c.waitForOn ? event.waitToOn(c.timeout) : event.waitToOff(c.timeout);
        });
        awaitBlocked(tid);
        if (c.waitForOn) {
            event.setOn();
        } else {
            event.setOff();
        }
        waiter.join();
        EXPECT_EQ(status, utl::Event::WAIT_OK);
    }
}

TEST(EventTest, SetOnWakesEveryWaiterAgainAndAgain) {
    constexpr int kWaiters = 4;
    utl::Event event(0, utl::Event::ONE_WAY);
    // The second round waits on the condition renewed when the last waiter of the first left.
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        std::atomic<pid_t> tids[kWaiters] = {};
        int statuses[kWaiters] = {};
        std::thread waiters[kWaiters];
        for (int i = 0; i < kWaiters; ++i) {
            waiters[i] = std::thread([&, i] {
                tids[i] = currentThreadId();
                statuses[i] = event.waitToOn(kLongTimeout);
            });
        }
        for (const std::atomic<pid_t>& tid : tids) {
            awaitBlocked(tid);
        }
        event.setOn();
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
        for (int status : statuses) {
            EXPECT_EQ(status, utl::Event::WAIT_OK);
        }
        event.setOff();
    }
}

// The handler of the signal that holds a waiter: it keeps the waiter's thread busy, outside the
// event's mutex, until the test releases it.
std::atomic<bool> gWaiterHeld{false};
std::atomic<bool> gReleaseWaiter{false};

void holdWaiter(int) {
    gWaiterHeld = true;
    while (!gReleaseWaiter.load()) {
        sched_yield();
    }
}

// A waiter woken by setOn that finds the event reset again by setOff waits on for the rest of
// its timeout. The waiter is held in a signal handler while setOn and setOff run, so that it can
// only come back to the event after both; the sleep only makes the held time long enough to
// tell the rest of the timeout from the whole. Should the signal come before the waiter was really
// waiting, the try ends in a plain timeout and the next one follows.
TEST(EventTest, WakeUpWithoutTheStateWaitsOnlyForTheRestOfTheTimeout) {
    constexpr unsigned int kTimeout = 400;
    constexpr unsigned int kHeld = 100;
    const std::string retryLine = "DTL: Wait OK, but Status(mOn)=false.  Timeout=";
    struct sigaction hold = {};
    hold.sa_handler = holdWaiter;
    sigemptyset(&hold.sa_mask);
    struct sigaction previous = {};
    ASSERT_EQ(sigaction(SIGUSR1, &hold, &previous), 0);

    bool retried = false;
    for (int attempt = 0; attempt < 3 && !retried; ++attempt) {
        gWaiterHeld = false;
        gReleaseWaiter = false;
        int status = 1;
        const std::string text = captureStdout([&] {
            utl::Event event(0, utl::Event::TWO_WAY);
            std::atomic<pid_t> tid{0};
            std::thread waiter([&] {
                tid = currentThreadId();
                status = event.waitToOn(kTimeout);
            });
            awaitBlocked(tid);
            syscall(SYS_tgkill, getpid(), tid.load(), SIGUSR1);
            while (!gWaiterHeld.load()) {
                std::this_thread::yield();
            }
            event.setOn();
            event.setOff();
            // The held time counts as waited, so that the first pass uses up part of the timeout.
            std::this_thread::sleep_for(std::chrono::milliseconds(kHeld));
            gReleaseWaiter = true;
            waiter.join();
        });
        EXPECT_EQ(status, utl::Event::WAIT_TIMEOUT);
        const std::size_t at = text.find(retryLine);
        if (at == std::string::npos) {
            continue;
        }
        retried = true;
        unsigned int timeout = 0;
        unsigned int waited = 0;
        unsigned int rest = 0;
        ASSERT_EQ(std::sscanf(text.c_str() + at + retryLine.size(),
                              "%umsec Waited=%umsec Retry wait %umsec after\r\n", &timeout, &waited,
                              &rest),
                  3)
            << text;
        EXPECT_EQ(timeout, kTimeout);
        EXPECT_GE(waited, kHeld - 1);
        EXPECT_EQ(waited + rest, kTimeout);
    }
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(retried) << "the waiter never came back to find the event reset";
}

}  // namespace
