#include "UtlSync.h"

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

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
    oneWay.setOff();
    EXPECT_EQ(oneWay.waitToOff(100), utl::Event::WAIT_FAILED);

    utl::Event twoWay(0, utl::Event::TWO_WAY);
    EXPECT_EQ(twoWay.waitToOff(500), utl::Event::WAIT_OK);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(twoWay.waitToOn(200), utl::Event::WAIT_TIMEOUT);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(199));
    EXPECT_LT(waited, std::chrono::milliseconds(200 + 5000));
    twoWay.setOn();
    EXPECT_TRUE(twoWay.isOn() && !twoWay.isOff());
    EXPECT_EQ(twoWay.waitToOn(500), utl::Event::WAIT_OK);
    twoWay.setOff();
    EXPECT_EQ(twoWay.waitToOff(500), utl::Event::WAIT_OK);
}

// Every waiter is woken, in the second round by the condition renewed after the first.
TEST(EventTest, SwitchFromAnotherThreadWakesEveryWaiterAgainAndAgain) {
    const struct {
        const char* name;
        int initialState, mode;  // initially off: wait for on; on: wait for off
        unsigned int timeout;
    } cases[] = {
        {"two-way timed waitToOn", 0, utl::Event::TWO_WAY, kLongTimeout},
        {"two-way timed waitToOff", 1, utl::Event::TWO_WAY, kLongTimeout},
        {"one-way timed waitToOn", 0, utl::Event::ONE_WAY, kLongTimeout},
        {"unlimited waitToOn", 0, utl::Event::ONE_WAY, 0},  // last: may never return
    };
    for (const auto& c : cases) {
        utl::Event event(c.initialState, c.mode);
        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE(std::string(c.name) + " round " + std::to_string(round));
            std::vector<std::atomic<pid_t>> tids(3);
            std::vector<int> statuses(tids.size(), 1);
            std::vector<std::thread> waiters;
            for (std::size_t i = 0; i < tids.size(); ++i) {
                waiters.emplace_back([&, i] {
                    tids[i] = gettid();
                    statuses[i] =
                        c.initialState ? event.waitToOff(c.timeout) : event.waitToOn(c.timeout);
                });
            }
            for (const std::atomic<pid_t>& tid : tids) {
                awaitBlocked(tid);
            }
            c.initialState ? event.setOff() : event.setOn();
            for (std::thread& waiter : waiters) {
                waiter.join();
            }
            EXPECT_EQ(statuses, std::vector<int>(tids.size(), utl::Event::WAIT_OK));
            c.initialState ? event.setOn() : event.setOff();
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
