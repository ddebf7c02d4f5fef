#include "UtlMsgDrivenSharedThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TestMessages.h"
#include "ThreadTestSupport.h"

namespace {

using utl::MsgDrivenSharedThread;
using utl::MsgDrivenThread;

constexpr int kLibraryLogType = -2;
constexpr int kValueId = 100;
constexpr int kOtherId = 101;
constexpr int kBlockId = 102;

// A message with a 20-byte body.
class FiveValueMsg : public QuadMsg {
  public:
    FiveValueMsg() : QuadMsg(kValueId) {}
    void storeDataTo(utl::MsgDataBroker* broker) const override {
        QuadMsg::storeDataTo(broker);
        broker->set(mValues[0]);
    }
};

// The order in which named listeners received messages, across all of them.
class Journal {
  public:
    void note(const std::string& entry) {
        std::lock_guard<std::mutex> guard(mMutex);
        mEntries.push_back(entry);
    }
    std::vector<std::string> entries() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mEntries;
    }
    size_t size() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mEntries.size();
    }

  private:
    mutable std::mutex mMutex;
    std::vector<std::string> mEntries;
};

// A recording listener that notes "<name>:<value>" in a journal for each message.
class NamedListener : public RecordingListener {
  public:
    NamedListener(const std::string& name, Journal& journal) {
        onReceive = [name, &journal, this](const Received& r) {
            if (r.mId == kBlockId) {
                return;
            }
            journal.note(name + ":" + std::to_string(r.mValue));
            if (onNamedReceive) {
                onNamedReceive(r);
            }
        };
    }
    std::function<void(const Received&)> onNamedReceive;
};

// A listener whose kBlockId message holds the loop until the test lets it go, running `whileHeld`
// in the loop thread first.
class Blocker : public utl::ThreadMsgListener {
  public:
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int id = 0;
        raw.getMsgId(&id);
        if (id != kBlockId) {
            return;
        }
        held.open();
        release.wait();
        if (whileHeld) {
            whileHeld();
        }
    }
    Gate held;
    Gate release;
    std::function<void()> whileHeld;
};

class SharedThreadTest : public ::testing::Test {
  protected:
    ~SharedThreadTest() override { shared.stop(1, 0); }

    Journal journal;
    MsgDrivenSharedThread shared{16, 32, 4, "shared", 4};
};

TEST_F(SharedThreadTest, BroadcastRunsFromLastListenerToFirstAndAddressedReachesOneListener) {
    NamedListener a("a", journal), b("b", journal), c("c", journal);
    ASSERT_TRUE(shared.attachMsgListener(&a));  // before the start: directly
    ASSERT_TRUE(shared.attachMsgListener(&b));
    ASSERT_TRUE(shared.attachMsgListener(&a));  // once only
    ASSERT_EQ(0, shared.start());
    ASSERT_TRUE(shared.attachMsgListener(&c));  // through the loop
    EXPECT_FALSE(shared.attachMsgListener(nullptr));

    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 1)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kValueId, 2)));
    ASSERT_TRUE(shared.sendMsgSync(&a, ValueMsg(kValueId, 3)));
    ASSERT_TRUE(shared.sendMsgInterrupt(&c, ValueMsg(kValueId, 4)));
    ASSERT_TRUE(shared.sendMsgSync(&b, kOtherId));
    EXPECT_EQ(kOtherId, b.received().back().mId);
    std::vector<std::string> entries = journal.entries();
    entries.pop_back();  // the value of the SimpleMsg is whatever its slot held before
    EXPECT_EQ((std::vector<std::string>{"c:1", "b:1", "a:1", "b:2", "a:3", "c:4"}), entries);
    EXPECT_EQ(shared.getId(), a.received().front().mThreadId);

    EXPECT_FALSE(shared.postMsg(nullptr, ValueMsg(kValueId)));
    EXPECT_TRUE(shared.sendMsgSync(&a, QuadMsg(kValueId)));  // 16 bytes fit
    EXPECT_FALSE(shared.sendMsgSync(&a, FiveValueMsg()));    // 20 bytes do not
    ASSERT_TRUE(shared.detachMsgListener(&c));
    ASSERT_TRUE(shared.sendMsgSync(kOtherId));
    EXPECT_EQ(2u, c.count());
}

TEST_F(SharedThreadTest, ListenersDetachingDuringABroadcastSkipNobodyAndRepeatNobody) {
    NamedListener a("a", journal), b("b", journal), c("c", journal), d("d", journal);
    NamedListener late("late", journal);
    for (NamedListener* l : {&a, &b, &c, &d}) {
        ASSERT_TRUE(shared.attachMsgListener(l));
    }
    // During the first broadcast c detaches d (served before it) and itself, and attaches late,
    // which first receives the next message.
    c.onNamedReceive = [&](const Received& r) {
        if (r.mValue == 1) {
            EXPECT_TRUE(shared.detachMsgListener(&d));
            EXPECT_TRUE(shared.detachMsgListener(&c));
            EXPECT_TRUE(shared.attachMsgListener(&late));
        }
    };
    ASSERT_EQ(0, shared.start());
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 1)));
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 2)));
    EXPECT_EQ((std::vector<std::string>{"d:1", "c:1", "b:1", "a:1", "late:2", "b:2", "a:2"}),
              journal.entries());
}

TEST_F(SharedThreadTest, ListenerListIsBoundedAndChangesDirectlyWhenTheLoopHasEnded) {
    RecordingListener l[5];
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(shared.attachMsgListener(&l[i]));
    }
    EXPECT_FALSE(shared.attachMsgListener(&l[4]));
    ASSERT_EQ(0, shared.start());
    EXPECT_FALSE(shared.attachMsgListener(&l[4]));
    ASSERT_EQ(0, shared.stop(1, 0));
    ASSERT_TRUE(shared.detachMsgListener(&l[0]));
    EXPECT_TRUE(shared.attachMsgListener(&l[4]));
}

TEST_F(SharedThreadTest, AttachThatCannotReachTheLoopIsLogged) {
    MsgDrivenSharedThread small(8, 1, 2, "small", 0);
    Blocker blocker;
    RecordingListener other;
    ASSERT_TRUE(small.attachMsgListener(&blocker));
    ASSERT_EQ(0, small.start());
    ASSERT_TRUE(small.postMsg(kBlockId));
    ASSERT_TRUE(blocker.held.wait());
    ASSERT_TRUE(small.postMsg(kValueId));  // fills the one-message queue
    LogCapture log;
    EXPECT_FALSE(small.attachMsgListener(&other));
    EXPECT_FALSE(small.detachMsgListener(&blocker));
    blocker.release.open();
    EXPECT_TRUE(log.contains("MsgDrivenSharedThread::attachMsgListener(): Can't send thread"));
    EXPECT_TRUE(log.contains("MsgDrivenSharedThread::detachMsgListener(): Can't send thread"));
    small.stop(1, 0);
}

TEST_F(SharedThreadTest, SearchesTellAddressedFromBroadcastMessages) {
    Blocker blocker;
    NamedListener a("a", journal), b("b", journal);
    for (utl::ThreadMsgListener* l : std::vector<utl::ThreadMsgListener*>{&blocker, &a, &b}) {
        ASSERT_TRUE(shared.attachMsgListener(l));
    }
    ASSERT_EQ(0, shared.start());
    ASSERT_TRUE(shared.postMsg(kBlockId));
    ASSERT_TRUE(blocker.held.wait());
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kValueId, 7)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kOtherId, 8)));
    ASSERT_TRUE(shared.postMsg(ValueMsg(kOtherId, 9)));
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kOtherId, 10)));
    // The searches run in the loop thread, where they search the queue at once.
    std::map<std::string, int> found;
    utl::ThreadRawMsg peeked(64);
    blocker.whileHeld = [&] {
        found["a has value"] = shared.hasMsg(&a, kValueId);
        found["b has value"] = shared.hasMsg(&b, kValueId);
        found["broadcast has value"] = shared.hasMsg(kValueId);
        found["a first"] = shared.getFirstMsgId(&a);
        found["b first"] = shared.getFirstMsgId(&b);
        found["broadcast first"] = shared.getFirstMsgId();
        found["peek a"] = shared.peekMsg(&a, MsgDrivenThread::MSG_ID_WILDCARD, &peeked);
        found["erase a other"] = shared.eraseMsg(&a, kOtherId);
        found["broadcast erase"] = shared.eraseMsg(kOtherId);
    };
    blocker.release.open();
    ASSERT_TRUE(shared.sendMsgSync(&a, kBlockId));
    EXPECT_EQ(1, found["a has value"]);
    EXPECT_EQ(0, found["b has value"]);
    EXPECT_EQ(0, found["broadcast has value"]);
    EXPECT_EQ(kValueId, found["a first"]);
    EXPECT_EQ(kOtherId, found["b first"]);
    EXPECT_EQ(kOtherId, found["broadcast first"]);
    ValueMsg value(0);
    ASSERT_EQ(1, found["peek a"]);
    ASSERT_TRUE(value.restoreFrom(peeked));  // the listener's own message, unwrapped
    EXPECT_EQ(kValueId, value.getMsgId());
    EXPECT_EQ(7, value.mValue);
    EXPECT_EQ(1, found["erase a other"]);
    EXPECT_EQ(1, found["broadcast erase"]);
    // a lost its kOtherId message, the broadcast is gone; b keeps its addressed kOtherId.
    EXPECT_EQ((std::vector<std::string>{"a:7", "b:8"}), journal.entries());
}

TEST_F(SharedThreadTest, OwnedTimersReachTheirOwnerAndBroadcastTimersEveryone) {
    NamedListener a("a", journal), b("b", journal);
    ASSERT_TRUE(shared.attachMsgListener(&a));
    ASSERT_TRUE(shared.attachMsgListener(&b));
    ASSERT_EQ(0, shared.start());
    const int owned = shared.setTimer(&a, 5, 0, 2);
    ASSERT_NE(-1, owned);
    ASSERT_TRUE(waitUntil([&] { return a.count() == 2; }));
    const int broadcast = shared.setTimer(5, 0, 1);
    ASSERT_NE(-1, broadcast);
    ASSERT_TRUE(waitUntil([&] { return b.count() == 1 && a.count() == 3; }));
    EXPECT_EQ(broadcast, b.received().front().mValue);
    EXPECT_EQ(owned, a.received().front().mValue);
    EXPECT_EQ(4u, shared.remTimerIdCount());  // both ended by their count limits
}

TEST_F(SharedThreadTest, AbortMsgKillsTheListenersTimersAndErasesWhatIsAddressedToIt) {
    Blocker blocker;
    NamedListener a("a", journal), b("b", journal);
    for (utl::ThreadMsgListener* l : std::vector<utl::ThreadMsgListener*>{&blocker, &a, &b}) {
        ASSERT_TRUE(shared.attachMsgListener(l));
    }
    ASSERT_EQ(0, shared.start());
    const int timerA = shared.setTimer(&a, 2);
    const int timerB = shared.setTimer(&b, 2);
    ASSERT_TRUE(waitUntil([&] { return a.count() > 0 && b.count() > 0; }));
    ASSERT_TRUE(shared.postMsg(kBlockId));
    ASSERT_TRUE(blocker.held.wait());
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kValueId, 41)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kValueId, 42)));
    bool aborted = false;
    Sender abort([&] { aborted = shared.abortMsg(&a); });  // waits for the loop
    ASSERT_TRUE(abort.awaitBlocked());
    blocker.release.open();
    abort.join();
    EXPECT_TRUE(aborted);
    EXPECT_FALSE(shared.abortMsg(nullptr));
    const size_t afterAbort = a.count();
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 3)));
    ASSERT_TRUE(waitUntil([&] {
        std::vector<Received> r = b.received();
        return std::count_if(r.begin(), r.end(),
                             [&](const Received& x) { return x.mId == utl::TimerMsg::ID; }) > 3;
    }));
    // a got the broadcast alone: no addressed message, no further expiry of its timer.
    std::vector<Received> late = a.received();
    ASSERT_EQ(afterAbort + 1, late.size());
    EXPECT_EQ(3, late.back().mValue);
    std::vector<std::string> entries = journal.entries();
    EXPECT_NE(entries.end(), std::find(entries.begin(), entries.end(), "b:42"));
    EXPECT_EQ(entries.end(), std::find(entries.begin(), entries.end(), "a:41"));
    EXPECT_FALSE(shared.killTimer(timerA));
    EXPECT_TRUE(shared.killTimer(timerB));
}

// Listeners come and go while others broadcast and address them: a listener receives nothing
// once abortMsg and detach have returned, and the permanent listener misses nothing.
TEST(SharedThreadReliabilityTest, ListenersComingAndGoingUnderLoad) {
    constexpr int kCyclers = 4;
    constexpr int kRounds = 300;
    MsgDrivenSharedThread shared(16, 64, kCyclers + 1, "churn", 8);
    std::atomic<int> permanentCount{0}, violations{0};
    struct Cycler : utl::ThreadMsgListener {
        std::atomic<bool> gone{true};
        std::atomic<int>* violations = nullptr;
        std::atomic<int> addressed{0};
        void receiveMsg(int, utl::ThreadRawMsg& raw) override {
            if (gone) {
                ++*violations;
            }
            int id = 0;
            raw.getMsgId(&id);
            addressed += id == kOtherId ? 1 : 0;
        }
    } cyclers[kCyclers];
    struct Permanent : utl::ThreadMsgListener {
        std::atomic<int>* count = nullptr;
        void receiveMsg(int, utl::ThreadRawMsg& raw) override {
            int id = 0;
            raw.getMsgId(&id);
            *count += id == kValueId ? 1 : 0;
        }
    } permanent;
    permanent.count = &permanentCount;
    ASSERT_TRUE(shared.attachMsgListener(&permanent));
    ASSERT_EQ(0, shared.start());
    // Refusals of a full queue are expected here: keep them out of the output.
    setFilterLevel(kLibraryLogType, 0);

    // Broadcasts go on for as long as the listeners come and go.
    std::atomic<bool> churning{true};
    int broadcasts = 0;
    std::thread broadcaster([&] {
        while (churning) {
            if (shared.postMsg(ValueMsg(kValueId, broadcasts))) {
                ++broadcasts;
            } else {
                std::this_thread::yield();
            }
        }
    });
    std::vector<std::thread> threads;
    const auto retry = [](const std::function<bool()>& request) {
        while (!request()) {
            std::this_thread::yield();
        }
    };
    for (Cycler& c : cyclers) {
        c.violations = &violations;
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                c.gone = false;
                // Requests may find the queue full of broadcasts: each is tried again.
                retry([&] { return shared.attachMsgListener(&c); });
                retry([&] { return shared.sendMsgSync(&c, kOtherId); });
                shared.postMsg(&c, kOtherId);
                if (round % 3 == 0) {
                    shared.setTimer(&c, 1);
                }
                retry([&] { return shared.abortMsg(&c); });
                retry([&] { return shared.detachMsgListener(&c); });
                c.gone = true;
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    churning = false;
    broadcaster.join();
    setFilterLevel(kLibraryLogType, 4);
    ASSERT_TRUE(shared.sendMsgSync(kOtherId));
    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(broadcasts, permanentCount.load());
    for (Cycler& c : cyclers) {
        EXPECT_GE(c.addressed.load(), kRounds);
    }
    EXPECT_EQ(8u, shared.remTimerIdCount());
    shared.stop(1, 0);
}

}  // namespace
