#include "UtlSync.h"

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"

namespace {

bool tryLockFromAnotherThread(const utl::SyncObject& lock) {
    bool taken = false;
    std::thread([&] { taken = lock.tryLock() && (lock.unlock(), true); }).join();
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

// Waits until thread `tid` sleeps in the kernel (10 s at most: a late waiter must pass too).
void awaitBlocked(const std::atomic<pid_t>& tid) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (std::string stat; std::chrono::steady_clock::now() < giveUp; std::this_thread::yield()) {
        std::ifstream file("/proc/self/task/" + std::to_string(tid.load()) + "/stat");
        if (std::getline(file, stat) && stat.find(") S ") != std::string::npos) {
            return;
        }
    }
}

// Ending in 999 ms, the deadline's nanoseconds carry into its seconds nearly always.
constexpr unsigned int kLongTimeout = 9999;

TEST(EventTest, InitialStateAndModeDecideTheImmediateResults) {
    utl::Event oneWaySet(1, utl::Event::ONE_WAY), oneWay(0, utl::Event::ONE_WAY);
    EXPECT_TRUE(oneWaySet.isOn() && oneWay.isOff());
    EXPECT_EQ(oneWaySet.waitToOn(500), utl::Event::WAIT_OK);
    EXPECT_EQ(oneWay.waitToOff(100), utl::Event::WAIT_FAILED);
    oneWay.setOn();
    EXPECT_FALSE(oneWay.isOff()) << "one-way: isOff() is !isOn()";

    utl::Event twoWay(0, utl::Event::TWO_WAY);
    EXPECT_EQ(twoWay.waitToOff(500), utl::Event::WAIT_OK);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(twoWay.waitToOn(200), utl::Event::WAIT_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(waited >= std::chrono::milliseconds(199) && waited < std::chrono::seconds(5));
    twoWay.setOn();
    EXPECT_TRUE(twoWay.isOn() && !twoWay.isOff());
}

// Every waiter is woken, in the second round by the condition renewed after the first: two-way
// waiting for off, one-way for on, and (last, as it may never return) an unlimited wait.
TEST(EventTest, SwitchFromAnotherThreadWakesEveryWaiterAgainAndAgain) {
    for (int c = 0; c < 3; ++c) {
        const bool off = c == 0;
        const unsigned int timeout = c == 2 ? 0 : kLongTimeout;
        utl::Event event(off ? 1 : 0, off ? utl::Event::TWO_WAY : utl::Event::ONE_WAY);
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(testing::Message() << "case " << c << " round " << round);
            std::vector<std::atomic<pid_t>> tids(3);
            std::vector<int> statuses(tids.size(), 1);
            std::vector<std::thread> waiters;
            for (std::size_t i = 0; i < tids.size(); ++i) {
                waiters.emplace_back([&, i] {
                    tids[i] = gettid();
                    statuses[i] = off ? event.waitToOff(timeout) : event.waitToOn(timeout);
                });
            }
            std::for_each(tids.begin(), tids.end(), awaitBlocked);
            off ? event.setOff() : event.setOn();
            std::for_each(waiters.begin(), waiters.end(), [](std::thread& t) { t.join(); });
            EXPECT_EQ(statuses, std::vector<int>(tids.size(), utl::Event::WAIT_OK));
            off ? event.setOn() : event.setOff();
        }
    }
}

// Holds the signalled waiter outside the event's mutex until the test releases it.
std::atomic<bool> gWaiterHeld{false}, gReleaseWaiter{false};
void holdWaiter(int) {
    gWaiterHeld = true;
    while (!gReleaseWaiter.load()) {
        sched_yield();
    }
}

// A waiter woken by setOn that finds the event reset waits only the rest of its timeout. Held in a
// signal handler while setOn and setOff run; a signal before its wait ends in a timeout: retry.
TEST(EventTest, WakeUpWithoutTheStateWaitsOnlyForTheRestOfTheTimeout) {
    constexpr unsigned int kTimeout = 400, kHeld = 100;
    const std::string head = "DTL: Wait OK, but Status(mOn)=false.  Timeout=400msec Waited=";
    struct sigaction hold = {}, previous = {};
    hold.sa_handler = holdWaiter;
    ASSERT_EQ(sigaction(SIGUSR1, &hold, &previous), 0);

    bool retried = false;
    for (int attempt = 0; attempt < 3 && !retried; ++attempt) {
        gWaiterHeld = gReleaseWaiter = false;
        int status = 1;
        const std::string text = captureStdout([&] {
            utl::Event event(0, utl::Event::TWO_WAY);
            std::atomic<pid_t> tid{0};
            std::thread waiter([&] {
                tid = gettid();
                status = event.waitToOn(kTimeout);
            });
            awaitBlocked(tid);
            tgkill(getpid(), tid.load(), SIGUSR1);
            while (!gWaiterHeld.load()) {
                std::this_thread::yield();
            }
            event.setOn();
            event.setOff();
            std::this_thread::sleep_for(std::chrono::milliseconds(kHeld));  // counts as waited
            gReleaseWaiter = true;
            waiter.join();
        });
        EXPECT_EQ(status, utl::Event::WAIT_TIMEOUT);
        const std::size_t at = text.find(head);
        if (at == std::string::npos) {
            continue;
        }
        retried = true;
        const unsigned int waited = std::stoul(text.substr(at + head.size()));
        EXPECT_GE(waited, kHeld - 1);
        const std::string line = head + std::to_string(waited) + "msec Retry wait " +
                                 std::to_string(kTimeout - waited) + "msec after\r\n";
        EXPECT_EQ(text.substr(at, line.size()), line);
    }
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(retried) << "the waiter never came back to find the event reset";
}

}  // namespace
