#include "UtlThreadWatchdog.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "ThreadTestSupport.h"

namespace {

using utl::StatementInfo;
using utl::ThreadManager;
using utl::ThreadWatchdog;
using utl::WatchdogInfo;

// Thread id and status in the table snapshot of each timeout told.
using Timeouts = std::vector<std::pair<int, int>>;

class TimeoutRecorder : public utl::WatchdogTimerListener {
  public:
    void onTime(int id, const utl::WatchdogInfoMap& table) override {
        const utl::WatchdogInfoMap::Entry* entry = table.find(id);
        std::lock_guard<std::mutex> guard(mMutex);
        mTimeouts.emplace_back(id, entry != nullptr ? entry->mValue.mStatus : -1);
        timedOut.open();
    }
    Timeouts timeouts() {
        std::lock_guard<std::mutex> guard(mMutex);
        return mTimeouts;
    }
    Gate timedOut;

  private:
    std::mutex mMutex;
    Timeouts mTimeouts;
};

int countLines(const LogCapture& log, const std::string& text) {
    int count = 0;
    for (const std::string& line : log.lines()) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

const StatementInfo kHere("test", "report", 1, 1);

// Runs first in this program: nothing here has watched a thread yet.
TEST(ThreadWatchdogTest, WatchdogsWatchNothingBeforeInitializeAndTheManagersStartsOnDemand) {
    ThreadWatchdog idle(2);  // keeps a table, but watches nothing before initialize
    EXPECT_TRUE(idle.entry(1, 100, nullptr, "x"));
    EXPECT_FALSE(idle.start(1));
    EXPECT_FALSE(idle.stop(1));
    EXPECT_FALSE(idle.setWatchInterval(10));
    EXPECT_TRUE(idle.entry(2, 100, nullptr, "y"));
    EXPECT_FALSE(idle.entry(3, 100, nullptr, "z")) << "the table is full";

    ThreadManager* manager = ThreadManager::get();
    ASSERT_NE(manager->getWatchdog(), nullptr);
    EXPECT_FALSE(manager->getWatchdog()->isInitialized());
    EXPECT_FALSE(manager->keepAliveWatchdog(kHere)) << "nothing works before the start";

    RecordingListener listener;
    utl::MsgDrivenThread thread(16, 4, "watched", 0);
    ASSERT_EQ(thread.start(&listener, 1, 1000, nullptr, 1, 0), 0);
    EXPECT_TRUE(manager->getWatchdog()->isInitialized());
    EXPECT_TRUE(manager->isRegisteredWatchdog(thread.getId()));
    EXPECT_TRUE(manager->isWatchingWatchdog(thread.getId()));
    EXPECT_EQ(thread.stop(1, 0), 0);
    EXPECT_FALSE(manager->isRegisteredWatchdog(thread.getId())) << "a stop unregisters";
}

TEST(ThreadWatchdogTest, HungListenerTimesOutOnceAndComesBackAlive) {
    ThreadManager* manager = ThreadManager::get();
    ASSERT_TRUE(manager->setWatchdogWatchInterval(20));
    TimeoutRecorder recorder;
    RecordingListener listener;
    utl::MsgDrivenThread thread(16, 4, "hangs", 0);
    listener.onReceive = [&](const Received& r) {
        if (r.mId == 1) {
            recorder.timedOut.wait();
            utl::Thread::sleep(200);  // several more watch passes while still hung
        }
    };
    ASSERT_EQ(thread.start(&listener, 1, 150, &recorder, 1, 0), 0);
    // Idle in its read for longer than its alive time: not a hang.
    utl::Thread::sleep(400);
    EXPECT_TRUE(recorder.timeouts().empty());

    LogCapture log;
    ASSERT_TRUE(thread.postMsg(1));
    ASSERT_TRUE(recorder.timedOut.wait());
    ASSERT_TRUE(thread.sendMsgSync(2));
    const std::string id = std::to_string(thread.getId());
    EXPECT_EQ(recorder.timeouts(), (Timeouts{{thread.getId(), WatchdogInfo::STATUS_TIMEOUT}}));
    EXPECT_EQ(countLines(log, "<UTIL> ERR: !!!!!!!! ThreadWatchdog Timeout ID:" + id +
                                  " Name:hangs !!!!!!!!"),
              1);
    EXPECT_EQ(countLines(log, "<UTIL> INF: ThreadWatchdog Timeout->Alive ID:" + id + " Name:hangs"),
              1);
    EXPECT_EQ(thread.stop(1, 0), 0);
}

// A watchdog of its own, watching the test's thread.
class OwnWatchdogTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(watchdog.initialize(10)); }

    ThreadWatchdog watchdog{8};
    TimeoutRecorder recorder;
    const int self = ThreadManager::getCallerId();
};

TEST_F(OwnWatchdogTest, SilentThreadTimesOutOnceUntilItReports) {
    EXPECT_FALSE(watchdog.initialize(10)) << "once only";
    LogCapture log;
    EXPECT_FALSE(watchdog.entry(self, 0, &recorder, "zero"));
    EXPECT_TRUE(log.contains(
        "<UTIL> ERR: ThreadWatchdog Register AliveTime is 0 ID:" + std::to_string(self) + " "));
    EXPECT_FALSE(watchdog.isRegistered(self));
    ASSERT_TRUE(watchdog.entry(self, 30, &recorder, "silent"));
    EXPECT_FALSE(watchdog.setAliveTime(self, 0));
    EXPECT_FALSE(watchdog.setAliveTime(self + 100000, 10)) << "not registered";
    EXPECT_TRUE(recorder.timeouts().empty()) << "a thread that never reported is not judged";
    ASSERT_TRUE(watchdog.keepAlive(kHere));
    ASSERT_TRUE(watchdog.start(self)) << "already watching: the last report still counts";
    ASSERT_TRUE(recorder.timedOut.wait());
    utl::Thread::sleep(100);  // passes that must not time it out again
    const Timeouts once{{self, WatchdogInfo::STATUS_TIMEOUT}};
    EXPECT_EQ(recorder.timeouts(), once);
    ASSERT_TRUE(watchdog.keepAlive(kHere));
    EXPECT_TRUE(
        log.contains("ThreadWatchdog Timeout->Alive ID:" + std::to_string(self) + " Name:silent"));

    ASSERT_TRUE(watchdog.stop(self));
    EXPECT_FALSE(watchdog.isWatching(self));
    EXPECT_FALSE(watchdog.keepAlive(kHere)) << "a stopped entry ignores reports";
    utl::Thread::sleep(100);
    EXPECT_EQ(recorder.timeouts(), once) << "a stopped entry never times out";
    ASSERT_TRUE(watchdog.setAliveTime(self, 5000));
    ASSERT_TRUE(watchdog.start(self)) << "the clock restarts from the start";
    utl::Thread::sleep(100);
    EXPECT_EQ(recorder.timeouts(), once);
    EXPECT_TRUE(watchdog.unregister(self));
    EXPECT_FALSE(watchdog.isRegistered(self));
}

TEST_F(OwnWatchdogTest, DefaultListenerAndPrintShowTheTable) {
    // The three-byte character at bytes 29 to 31 does not fit the 31 printed bytes.
    const std::string name = "watchdog-01234567890123456789\xE3\x81\x82xyz";
    const std::string printed = name.substr(0, 29);
    ASSERT_TRUE(watchdog.entry(self, 40, nullptr, name.c_str()));
    ASSERT_TRUE(watchdog.entry(self + 1000000, 100, nullptr, "never"));
    const auto row = [](int id, const std::string& name, unsigned int aliveTime,
                        const char* watching, const char* alive, unsigned int count,
                        const char* last) {
        char text[256];
        snprintf(text, sizeof text, "%10d, %-32s, %10u, %-12s, %-12s, %13u, %s", id, name.c_str(),
                 aliveTime, watching, alive, count, last);
        return std::string(text);
    };
    const char* const kReported = "(file.cpp, work:77:2)";
    LogCapture log;
    ASSERT_TRUE(watchdog.keepAlive(StatementInfo("file.cpp", "work", 77, 2)));
    // The default listener logs the table when the thread times out.
    EXPECT_TRUE(waitUntil(
        [&] { return log.contains(row(self, printed, 40, "WATCHING", "TIMEOUT", 1, kReported)); }));
    watchdog.stop(self);
    watchdog.printWatchdogInfo(3);
    EXPECT_TRUE(log.contains(row(self, printed, 40, "NOT_WATCHING", "TIMEOUT", 1, kReported)));
    EXPECT_TRUE(
        log.contains(row(self + 1000000, "never", 100, "WATCHING", "UNKNOWN", 0, "(, :0:0)")));
    EXPECT_TRUE(log.contains("ThreadWatchdog:: Watchdog info of threads in this process."));
    EXPECT_TRUE(log.contains(
        "ID        , Name                            , AliveTime , WatchStatus , AliveStatus , "
        "TimeoutCount , LastAliveInfo(File, Function:Line:Sub) , "));
}

}  // namespace
