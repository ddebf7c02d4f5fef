#include "UtlThreadManager.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "ThreadTestSupport.h"

namespace {

using utl::Thread;
using utl::ThreadManager;
using utl::ThreadPriority;

TEST(ThreadPriorityTest, LabelsAndOsValuesMapBothWays) {
    const struct {
        int label;
        int osValue;
        const char* name;
    } table[] = {{ThreadPriority::TIME_CRITICAL, -4, "TIME_CRITICAL"},
                 {ThreadPriority::HIGH, -2, "HIGH"},
                 {ThreadPriority::ABOVE_NORMAL, -1, "ABOVE_NORMAL"},
                 {ThreadPriority::NORMAL, 0, "NORMAL"},
                 {ThreadPriority::BELOW_NORMAL, 1, "BELOW_NORMAL"},
                 {ThreadPriority::LOW, 2, "LOW"},
                 {ThreadPriority::IDLE, 3, "IDLE"}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const ThreadPriority priority(row.label);
        EXPECT_EQ(priority.OsValue(), row.osValue);
        EXPECT_EQ(priority.value(), row.label);
        EXPECT_STREQ(priority.label(), row.name);
    }
    ThreadPriority priority(9);
    EXPECT_EQ(priority.OsValue(), 100);
    EXPECT_EQ(priority.value(), -1);
    priority.value(-1);
    EXPECT_EQ(priority.OsValue(), 100) << "negative indexes are above 6 as unsigned numbers";

    const struct {
        int osValue;
        int label;
    } reverse[] = {{-20, 0}, {-4, 0}, {-3, 1}, {-2, 1}, {3, 6}, {4, -1}};
    for (const auto& row : reverse) {
        priority.OsValue(row.osValue);
        EXPECT_EQ(priority.value(), row.label) << row.osValue;
    }
    priority = ThreadPriority::LOW;
    EXPECT_EQ(priority, ThreadPriority(ThreadPriority::LOW));
    EXPECT_NE(priority, ThreadPriority(ThreadPriority::IDLE));
}

// A thread that records its life cycle and can be held inside execute().
class Worker : public Thread {
  public:
    explicit Worker(const char* name = "worker") : Thread(name, nullptr) {}
    ~Worker() override {
        release.open();
        if (hasDone(0)) {
            waitTo(3, 0);
        }
    }

    void preExecute() override { steps.push_back("pre"); }
    unsigned int execute() override {
        steps.push_back("execute");
        niceInside = getpriority(PRIO_PROCESS, 0);
        idInside = ThreadManager::getCallerId();
        if (body) {
            body(*this);
        }
        running.open();
        release.wait();
        return 42;
    }
    void postExecute() override { steps.push_back("post"); }
    void requestStop() override {
        stopRequests++;
        release.open();
    }

    std::function<void(Worker&)> body;  // Runs inside execute(), in the new thread.
    std::vector<std::string> steps;
    std::atomic<int> niceInside{-100};
    std::atomic<int> idInside{0};
    std::atomic<int> stopRequests{0};
    Gate running;
    Gate release;
};

// The new thread also sets its own priority before its work, and only it may change it.
TEST(ThreadTest, LifeCycleRunsInOrderAtItsPriorityAndReportsItsResult) {
    int id = 0;
    {
        Worker worker;
        EXPECT_EQ(worker.getId(), 0);
        EXPECT_EQ(worker.stop(1, 100), -1) << "not started";
        EXPECT_EQ(worker.waitTo(3, 100), -1) << "nothing to wait for before the start";
        EXPECT_EQ(worker.waitTo(2, 100), -1);
        EXPECT_EQ(worker.waitTo(5, 100), -1);
        EXPECT_FALSE(worker.hasDone(4));
        std::atomic<int> changed{-1}, invalid{-1}, niceAfter{-100};
        worker.body = [&](Worker& self) {
            changed = self.setPriority(ThreadPriority(ThreadPriority::IDLE));
            invalid = self.setPriority(ThreadPriority(8));
            niceAfter = getpriority(PRIO_PROCESS, 0);
        };
        LogCapture log;

        ASSERT_EQ(worker.start(0, 0, nullptr, 1, 0, ThreadPriority(ThreadPriority::LOW)), 0);
        EXPECT_EQ(worker.start(), -1) << "a thread starts once";
        ASSERT_TRUE(worker.running.wait());
        EXPECT_EQ(worker.idInside, worker.getId());
        EXPECT_TRUE(worker.hasDone(0) && worker.hasDone(1) && !worker.hasDone(2) &&
                    !worker.hasDone(3));
        EXPECT_TRUE(worker.isRunning());
        unsigned int result = 0;
        EXPECT_FALSE(worker.getResult(&result));
        EXPECT_EQ(worker.waitTo(3, 20), utl::Event::WAIT_TIMEOUT);
        EXPECT_FALSE(worker.leaveManagement()) << "a running thread stays registered";
        EXPECT_EQ(worker.niceInside, 2);
        EXPECT_EQ(changed, 1);
        EXPECT_EQ(invalid, 0);
        EXPECT_EQ(niceAfter, 3);
        EXPECT_TRUE(log.contains("ThreadManager::setPriority() Error ID:" +
                                 std::to_string(worker.getId()) + ", invalidOsValue:100"));
        ThreadPriority priority;
        ASSERT_TRUE(worker.getPriority(&priority));
        EXPECT_EQ(priority.OsValue(), 3);
        EXPECT_FALSE(worker.setPriority(ThreadPriority(ThreadPriority::LOW)));
        EXPECT_FALSE(ThreadManager::get()->setPriority(ThreadManager::getCallerId(), priority))
            << "the test's thread is not registered";

        EXPECT_EQ(worker.stop(1, 0), 0);
        EXPECT_EQ(worker.stopRequests, 1);
        EXPECT_TRUE(worker.hasRequestedStop() && worker.hasDone(3));
        EXPECT_FALSE(worker.isRunning());
        EXPECT_TRUE(worker.getResult(&result));
        EXPECT_EQ(result, 42u);
        EXPECT_FALSE(worker.getResult(nullptr));
        EXPECT_EQ(worker.steps, (std::vector<std::string>{"pre", "execute", "post"}));
        EXPECT_EQ(worker.stop(1, 0), -1) << "finished";
        EXPECT_EQ(worker.waitTo(3, 0), 0);
        id = worker.getId();
        EXPECT_TRUE(ThreadManager::get()->isThreadExist(id));
    }
    EXPECT_FALSE(ThreadManager::get()->isThreadExist(id))
        << "the object takes it out of the registry";
}

TEST(ThreadTest, DefaultExecuteRunsTheCommandOrFails) {
    struct Answer : utl::Command {
        unsigned int execute() override { return 7; }
    } answer;
    for (utl::Command* command : std::initializer_list<utl::Command*>{&answer, nullptr}) {
        Thread thread("command", command);
        ASSERT_EQ(thread.start(), 0);
        ASSERT_EQ(thread.waitTo(3, 0), 0);
        unsigned int result = 0;
        EXPECT_TRUE(thread.getResult(&result));
        EXPECT_EQ(result, command != nullptr ? 7u : ~0u);
        EXPECT_TRUE(thread.leaveManagement());
        EXPECT_FALSE(thread.leaveManagement());
    }
}

void parkUntilOpen(void* gate) {
    static_cast<Gate*>(gate)->wait();
}

// Starts a registered thread that waits for `gate`; its id, or 0.
int park(Gate& gate, const char* name, int priority = ThreadPriority::IDLE) {
    return ThreadManager::get()->entry(parkUntilOpen, &gate, 0, 0, nullptr, name,
                                       ThreadPriority(priority), 0);
}

TEST(ThreadManagerTest, RegistryKnowsAndPrintsRunningAndEndedThreadsInIdOrder) {
    ThreadManager* manager = ThreadManager::get();
    EXPECT_EQ(manager->entry(nullptr, nullptr, 0, 0, nullptr, "x", ThreadPriority(), 0), 0);
    EXPECT_EQ(manager->entry(parkUntilOpen, nullptr, 0, 0, nullptr, nullptr, ThreadPriority(), 0),
              0);
    Gate gate;
    manager->enableRegistrationLog();
    std::vector<int> ids;
    {
        LogCapture log;
        ids = {park(gate, "first"), park(gate, "second", ThreadPriority::BELOW_NORMAL)};
        EXPECT_TRUE(log.contains("Thread Start and Register ID:" + std::to_string(ids[1]) +
                                 ", PriOs:1, Name:second"));
    }
    const int id = ids[0];
    ASSERT_TRUE(id > 0 && ids[1] > 0);
    EXPECT_TRUE(manager->isThreadExist(id) && manager->isThreadActive(id) && manager->isActive(id));
    EXPECT_STREQ(manager->getName(id), "first");
    EXPECT_STREQ(manager->findName(id).c_str(), "first");
    EXPECT_FALSE(manager->unregister(id)) << "a running thread stays registered";
    EXPECT_EQ(manager->waitToStop(id, 20), utl::Event::WAIT_TIMEOUT);

    LogCapture log;
    manager->printThreadInfoReg(3);
    gate.open();
    for (int i : ids) {
        EXPECT_EQ(manager->waitToStop(i, 0), 0);
    }
    manager->printThreadInfoReg(3);
    EXPECT_TRUE(manager->isThreadExist(id));
    EXPECT_FALSE(manager->isThreadActive(id) || manager->isActive(id));
    for (int i : ids) {
        EXPECT_TRUE(manager->unregister(i));
    }
    EXPECT_FALSE(manager->isThreadExist(id));
    EXPECT_FALSE(manager->unregister(id));
    EXPECT_EQ(manager->waitToStop(id, 0), -1);
    EXPECT_STREQ(manager->getName(id), "");
    EXPECT_STREQ(manager->findName(id).c_str(), "");

    const std::vector<std::string> lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[0].find("ID        , Name                            , Status      , "
                            "Pri.Os    , Pri.Label       ,"),
              std::string::npos);
    // The line number of each thread's row, with ACTIVE in the first print, INACTIVE in the second.
    std::vector<long> rows;
    for (const char* status : {"ACTIVE", "INACTIVE"}) {
        for (size_t i = 0; i < ids.size(); ++i) {
            char row[128];
            snprintf(row, sizeof row, "%10d, %-32s, %-12s, %10d, %-16s,", ids[i],
                     i == 0 ? "first" : "second", status, i == 0 ? 3 : 1,
                     i == 0 ? "IDLE" : "BELOW_NORMAL");
            const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& l) {
                return l.find(row) != std::string::npos;
            });
            EXPECT_NE(found, lines.end()) << row;
            rows.push_back(found - lines.begin());
        }
    }
    EXPECT_EQ(ids[0] < ids[1], rows[0] < rows[1]) << "rows in id order";
}

TEST(ThreadManagerTest, EntryMaximumCanBeChangedAndDestroyedManagerIsMadeAgain) {
    Gate gate;
    ThreadManager* manager = ThreadManager::get();
    const int parked = park(gate, "p");
    ASSERT_GT(parked, 0);
    EXPECT_FALSE(ThreadManager::initializeEntryMax(0));
    EXPECT_TRUE(ThreadManager::initializeEntryMax(1)) << "not below the registered count";
    EXPECT_EQ(park(gate, "q"), 0);
    gate.open();
    EXPECT_EQ(manager->waitToStop(parked, 0), 0);
    EXPECT_TRUE(manager->unregister(parked));
    const int next = park(gate, "q");
    EXPECT_GT(next, 0) << "an unregistered thread frees its place";
    EXPECT_TRUE(ThreadManager::initializeEntryMax(ThreadManager::DEFAULT_ENTRY_MAX));
    EXPECT_EQ(manager->waitToStop(next, 0), 0);
    EXPECT_TRUE(manager->unregister(next));

    ThreadManager::destroy();
    EXPECT_EQ(ThreadManager::getIfCreated(), nullptr);
    const int again = park(gate, "again");
    EXPECT_GT(again, 0);
    EXPECT_EQ(ThreadManager::get()->waitToStop(again, 0), 0);
    EXPECT_TRUE(ThreadManager::get()->unregister(again));
}

void noOp(int) {}

TEST(ThreadTest, SleepGoesOnAfterASignal) {
    struct sigaction action = {};
    action.sa_handler = noOp;
    sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART: nanosleep ends with EINTR
    std::atomic<int> sleeper{0};
    std::atomic<int> result{-2};
    std::chrono::steady_clock::duration slept{};
    Sender thread([&] {
        sleeper = ThreadManager::getCallerId();
        const auto begin = std::chrono::steady_clock::now();
        result = Thread::sleep(300);
        slept = std::chrono::steady_clock::now() - begin;
    });
    ASSERT_TRUE(waitUntil([&] { return sleeper != 0; }));
    ASSERT_TRUE(thread.awaitBlocked());
    for (int i = 0; i < 3; ++i) {
        syscall(SYS_tgkill, getpid(), sleeper.load(), SIGUSR1);
        Thread::sleep(10);
    }
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_GE(slept, std::chrono::milliseconds(299));
}

}  // namespace
