#include "UtlMsgDrivenSharedThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TestMessages.h"
#include "ThreadTestSupport.h"

namespace {

using utl::MsgDrivenSharedThread;
using utl::ThreadMsgListener;

constexpr int kLibraryLogType = -2;
constexpr int kValueId = 100;
constexpr int kOtherId = 101;
constexpr int kBlockId = 102;

// A message with a 20-byte body: one value more than the test loop's 16 bytes.
class FiveValueMsg : public QuadMsg {
  public:
    FiveValueMsg() : QuadMsg(kValueId) {}
    void storeDataTo(utl::MsgDataBroker* broker) const override {
        QuadMsg::storeDataTo(broker);
        broker->set(mValues[0]);
    }
};

// The order in which named listeners received messages, across all of them.
struct Journal {
    std::mutex mutex;
    std::vector<std::string> entries;
    std::vector<std::string> read() {
        std::lock_guard<std::mutex> guard(mutex);
        return entries;
    }
};

// Notes "<name>:<value>" in the journal for each message but kBlockId.
class NamedListener : public RecordingListener {
  public:
    NamedListener(const std::string& name, Journal& journal) {
        onReceive = [name, &journal](const Received& r) {
            std::lock_guard<std::mutex> guard(journal.mutex);
            if (r.mId != kBlockId) {
                journal.entries.push_back(name + ":" + std::to_string(r.mValue));
            }
        };
    }
};

// The loop's first listener is `blocker`, which holds the loop on a kBlockId message until
// `release` opens, then runs `whileHeld` in the loop thread.
class SharedThreadTest : public ::testing::Test {
  protected:
    SharedThreadTest() {
        blocker.onReceive = [this](const Received& r) {
            if (r.mId == kBlockId) {
                held.open();
                release.wait();
                if (whileHeld) {
                    whileHeld();
                }
            }
        };
    }
    ~SharedThreadTest() override { shared.stop(1, 0); }

    void startWith(std::initializer_list<ThreadMsgListener*> listeners) {
        for (ThreadMsgListener* l : listeners) {
            ASSERT_TRUE(shared.attachMsgListener(l));
        }
        ASSERT_EQ(0, shared.start());
    }
    // Posts kBlockId and returns once the loop is held in `blocker`.
    void hold() {
        ASSERT_TRUE(shared.postMsg(kBlockId));
        ASSERT_TRUE(held.wait());
    }

    Journal journal;
    MsgDrivenSharedThread shared{16, 32, 4, "shared", 4};
    RecordingListener blocker;
    Gate held;
    Gate release;
    std::function<void()> whileHeld;
};

// The list holds four, whether a change is made directly (before the start, after the end) or
// travels through the loop.
TEST_F(SharedThreadTest, BroadcastRunsFromLastListenerToFirstAndAddressedReachesOneListener) {
    NamedListener a("a", journal), b("b", journal), c("c", journal), s("s", journal),
        t("t", journal);
    for (NamedListener* l : {&a, &b, &a, &s, &t}) {  // a is listed once, or t would not fit
        ASSERT_TRUE(shared.attachMsgListener(l));
    }
    EXPECT_FALSE(shared.attachMsgListener(&c));
    ASSERT_EQ(0, shared.start());
    EXPECT_FALSE(shared.attachMsgListener(&c));
    EXPECT_FALSE(shared.attachMsgListener(nullptr));
    ASSERT_TRUE(shared.detachMsgListener(&s));
    ASSERT_TRUE(shared.attachMsgListener(&c));

    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 1)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kValueId, 2)));
    ASSERT_TRUE(shared.sendMsgSync(&a, ValueMsg(kValueId, 3)));
    ASSERT_TRUE(shared.sendMsgInterrupt(&c, ValueMsg(kValueId, 4)));
    ASSERT_TRUE(shared.sendMsgSync(&b, kOtherId));
    EXPECT_EQ(kOtherId, b.received().back().mId);
    std::vector<std::string> entries = journal.read();
    entries.pop_back();  // the value of the SimpleMsg is whatever its slot held before
    EXPECT_EQ((std::vector<std::string>{"c:1", "t:1", "b:1", "a:1", "b:2", "a:3", "c:4"}), entries);
    EXPECT_EQ(shared.getId(), a.received().front().mThreadId);

    EXPECT_FALSE(shared.postMsg(nullptr, ValueMsg(kValueId)));
    EXPECT_TRUE(shared.sendMsgSync(&a, QuadMsg(kValueId)));  // 16 bytes fit
    EXPECT_FALSE(shared.sendMsgSync(&a, FiveValueMsg()));    // 20 bytes do not
    ASSERT_TRUE(shared.detachMsgListener(&c));
    ASSERT_TRUE(shared.sendMsgSync(kOtherId));
    EXPECT_EQ(2u, c.count());
    ASSERT_EQ(0, shared.stop(1, 0));
    ASSERT_TRUE(shared.detachMsgListener(&a));
    EXPECT_TRUE(shared.attachMsgListener(&c));
    EXPECT_TRUE(shared.attachMsgListener(&s));  // fits only if a has left
}

TEST_F(SharedThreadTest, ListenersDetachingDuringABroadcastSkipNobodyAndRepeatNobody) {
    NamedListener a("a", journal), b("b", journal), c("c", journal), d("d", journal);
    NamedListener late("late", journal);
    // c detaches d (served before it) and itself, and attaches late, which starts with message 2.
    const auto noteC = c.onReceive;
    c.onReceive = [&, noteC](const Received& r) {
        noteC(r);
        if (r.mValue == 1) {
            EXPECT_TRUE(shared.detachMsgListener(&d));
            EXPECT_TRUE(shared.detachMsgListener(&c));
            EXPECT_TRUE(shared.attachMsgListener(&late));
        }
    };
    startWith({&a, &b, &c, &d});
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 1)));
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 2)));
    EXPECT_EQ((std::vector<std::string>{"d:1", "c:1", "b:1", "a:1", "late:2", "b:2", "a:2"}),
              journal.read());
}

TEST_F(SharedThreadTest, AttachThatCannotReachTheLoopIsLogged) {
    RecordingListener other;
    startWith({&blocker});
    hold();
    while (shared.postMsg(kValueId)) {
    }
    LogCapture log;
    EXPECT_FALSE(shared.attachMsgListener(&other));
    EXPECT_FALSE(shared.detachMsgListener(&blocker));
    release.open();
    EXPECT_TRUE(log.contains("MsgDrivenSharedThread::attachMsgListener(): Can't send thread"));
    EXPECT_TRUE(log.contains("MsgDrivenSharedThread::detachMsgListener(): Can't send thread"));
}

TEST_F(SharedThreadTest, SearchesTellAddressedFromBroadcastMessages) {
    NamedListener a("a", journal), b("b", journal);
    startWith({&blocker, &a, &b});
    hold();
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kValueId, 7)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kOtherId, 8)));
    ASSERT_TRUE(shared.postMsg(ValueMsg(kOtherId, 9)));
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kOtherId, 10)));
    // In the loop thread the searches look at the queue at once. In order: hasMsg for a, b and
    // broadcast; getFirstMsgId for a, b and broadcast; peekMsg for a; eraseMsg for a, broadcast.
    std::vector<int> found;
    utl::ThreadRawMsg peeked(64);
    whileHeld = [&] {
        found = {shared.hasMsg(&a, kValueId),
                 shared.hasMsg(&b, kValueId),
                 shared.hasMsg(kValueId),
                 shared.getFirstMsgId(&a),
                 shared.getFirstMsgId(&b),
                 shared.getFirstMsgId(),
                 shared.peekMsg(&a, utl::MsgDrivenThread::MSG_ID_WILDCARD, &peeked),
                 shared.eraseMsg(&a, kOtherId),
                 shared.eraseMsg(kOtherId)};
    };
    release.open();
    ASSERT_TRUE(shared.sendMsgSync(&a, kBlockId));
    EXPECT_EQ((std::vector<int>{1, 0, 0, kValueId, kOtherId, kOtherId, 1, 1, 1}), found);
    ValueMsg value(0);
    ASSERT_TRUE(value.restoreFrom(peeked));  // the listener's own message, unwrapped
    EXPECT_EQ(kValueId, value.getMsgId());
    EXPECT_EQ(7, value.mValue);
    // b keeps its addressed kOtherId.
    EXPECT_EQ((std::vector<std::string>{"a:7", "b:8"}), journal.read());
}

TEST_F(SharedThreadTest, OwnedTimersReachTheirOwnerAndBroadcastTimersEveryone) {
    NamedListener a("a", journal), b("b", journal);
    startWith({&a, &b});
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
    NamedListener a("a", journal), b("b", journal);
    startWith({&blocker, &a, &b});
    const int timerA = shared.setTimer(&a, 2);
    const int timerB = shared.setTimer(&b, 2);
    ASSERT_TRUE(waitUntil([&] { return a.count() > 0 && b.count() > 0; }));
    hold();
    ASSERT_TRUE(shared.postMsg(&a, ValueMsg(kValueId, 41)));
    ASSERT_TRUE(shared.postMsg(&b, ValueMsg(kValueId, 42)));
    bool aborted = false;
    Sender abort([&] { aborted = shared.abortMsg(&a); });  // waits for the loop
    ASSERT_TRUE(abort.awaitBlocked());
    release.open();
    abort.join();
    EXPECT_TRUE(aborted);
    EXPECT_FALSE(shared.abortMsg(nullptr));
    const size_t afterAbort = a.count();
    ASSERT_TRUE(shared.sendMsgSync(ValueMsg(kValueId, 3)));
    ASSERT_TRUE(waitUntil([&] {
        const std::vector<int> ids = b.ids();
        return std::count(ids.begin(), ids.end(), utl::TimerMsg::ID) > 3;
    }));
    // a got the broadcast alone: no addressed message, no further expiry of its timer.
    std::vector<Received> late = a.received();
    ASSERT_EQ(afterAbort + 1, late.size());
    EXPECT_EQ(3, late.back().mValue);
    const std::vector<std::string> entries = journal.read();
    EXPECT_EQ(1, std::count(entries.begin(), entries.end(), "b:42"));
    EXPECT_EQ(0, std::count(entries.begin(), entries.end(), "a:41"));
    EXPECT_FALSE(shared.killTimer(timerA));
    EXPECT_TRUE(shared.killTimer(timerB));
}

// Listeners come and go while others broadcast and address them: a listener receives nothing
// once abortMsg and detach have returned, and the permanent listener misses nothing.
TEST(SharedThreadReliabilityTest, ListenersComingAndGoingUnderLoad) {
    constexpr int kCyclers = 4;
    constexpr int kRounds = 300;
    MsgDrivenSharedThread shared(16, 64, kCyclers + 1, "churn", 8);
    struct Counter : ThreadMsgListener {
        std::atomic<bool> gone{false};
        std::atomic<int> violations{0}, addressed{0}, broadcasts{0};
        void receiveMsg(int, utl::ThreadRawMsg& raw) override {
            int id = 0;
            raw.getMsgId(&id);
            violations += gone ? 1 : 0;
            addressed += id == kOtherId ? 1 : 0;
            broadcasts += id == kValueId ? 1 : 0;
        }
    } cyclers[kCyclers], permanent;
    ASSERT_TRUE(shared.attachMsgListener(&permanent));
    ASSERT_EQ(0, shared.start());
    setFilterLevel(kLibraryLogType, 0);  // refusals of a full queue are expected here

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
    // Requests may find the queue full of broadcasts: each is tried again.
    const auto retry = [](const std::function<bool()>& request) {
        while (!request()) {
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> threads;
    for (Counter& c : cyclers) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                c.gone = false;
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
    EXPECT_EQ(broadcasts, permanent.broadcasts.load());
    for (Counter& c : cyclers) {
        EXPECT_EQ(0, c.violations.load());
        EXPECT_GE(c.addressed.load(), kRounds);
    }
    EXPECT_EQ(8u, shared.remTimerIdCount());
    shared.stop(1, 0);
}

}  // namespace
