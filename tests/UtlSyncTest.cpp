#include "UtlSync.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
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

// Makes the waiter `tid`, blocked in a wait on `event`, wake without finding the set state: it
// is held in a signal handler while the event is set and reset again.
void wakeWithoutState(utl::Event& event, const std::atomic<pid_t>& tid) {
    gWaiterHeld = gReleaseWaiter = false;
    awaitBlocked(tid);
    tgkill(getpid(), tid.load(), SIGUSR1);
    while (!gWaiterHeld.load()) {
        std::this_thread::yield();
    }
    event.setOn();
    event.setOff();
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
        int status = 1;
        const std::string text = captureStdout([&] {
            utl::Event event(0, utl::Event::TWO_WAY);
            std::atomic<pid_t> tid{0};
            std::thread waiter([&] {
                tid = gettid();
                status = event.waitToOn(kTimeout);
            });
            wakeWithoutState(event, tid);
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

// Standard output into a pipe that is full and read by nobody, unbuffered, so that the next line
// written to it blocks its writer, until `drain` starts reading it into `*text`. Restored on
// destruction.
class BlockedStdout {
  public:
    explicit BlockedStdout(std::string* text) : mSaved(dup(STDOUT_FILENO)), mText(text) {
        std::fflush(stdout);
        EXPECT_EQ(pipe(mPipe), 0);
        fcntl(mPipe[1], F_SETFL, O_NONBLOCK);
        const std::string chunk(4096, '.');
        while (write(mPipe[1], chunk.data(), chunk.size()) > 0) {
        }
        fcntl(mPipe[1], F_SETFL, 0);
        dup2(mPipe[1], STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
    }
    ~BlockedStdout() {
        drain();
        dup2(mSaved, STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        close(mSaved);
        close(mPipe[1]);
        mReader.join();
        close(mPipe[0]);
    }

    // Lets blocked writers go on; what they write is complete in `*text` after the destructor.
    void drain() {
        if (!mReader.joinable()) {
            mReader = std::thread([this] {
                char buffer[4096];
                for (ssize_t n; (n = read(mPipe[0], buffer, sizeof buffer)) > 0;) {
                    mText->append(buffer, static_cast<std::size_t>(n));
                }
            });
        }
    }

  private:
    int mSaved;
    int mPipe[2] = {-1, -1};
    std::thread mReader;
    std::string* mText;
};

// A waiter that logs its retry while standard output is stuck does not hold up the threads that
// switch the event: they finish their pulses while the waiter is still blocked in its log line.
TEST(EventTest, RetryLineStuckInTheOutputDoesNotHoldUpTheEvent) {
    struct sigaction hold = {}, previous = {};
    hold.sa_handler = holdWaiter;
    ASSERT_EQ(sigaction(SIGUSR1, &hold, &previous), 0);
    bool retried = false, allPulsed = true;
    for (int attempt = 0; attempt < 3 && !retried; ++attempt) {
        std::string text;
        {  // No test result may be printed while standard output is blocked.
            utl::Event event(0, utl::Event::TWO_WAY);
            BlockedStdout blocked(&text);
            std::atomic<pid_t> tid{0};
            std::thread waiter([&] {
                tid = gettid();
                event.waitToOn(kLongTimeout);
            });
            wakeWithoutState(event, tid);
            gReleaseWaiter = true;
            awaitBlocked(tid);  // in its retry line, as a rule
            std::atomic<bool> pulsed{false};
            std::thread pulser([&] {
                for (int i = 0; i < 1000; ++i) {
                    event.setOn();
                    event.setOff();
                }
                pulsed = true;
            });
            const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (!pulsed.load() && std::chrono::steady_clock::now() < giveUp) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            allPulsed = allPulsed && pulsed.load();
            blocked.drain();
            pulser.join();
            event.setOn();
            waiter.join();
        }
        retried = text.find("Retry wait") != std::string::npos;
    }
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(allPulsed) << "the pulses waited for standard output";
    EXPECT_TRUE(retried) << "the waiter never came back to find the event reset";
}

}  // namespace
