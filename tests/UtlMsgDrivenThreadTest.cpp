#include "UtlMsgDrivenThread.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "ThreadTestSupport.h"

namespace {

using utl::MsgDrivenThread;

constexpr int kLibraryLogType = -2;

// A loop whose listener can be held inside a message while the test queues more.
struct HeldLoop {
    explicit HeldLoop(unsigned int maxMsgSize = 16, unsigned int maxMsgCount = 16)
        : thread(maxMsgSize, maxMsgCount, "held", 4) {
        listener.onReceive = [this](const Received& r) {
            if (r.mId == kHoldId) {
                held.open();
                released.wait();
            }
        };
    }
    ~HeldLoop() {
        release();
        thread.stop(1, 0);
    }
    // Starts the loop and parks it inside a message, so that what follows stays queued.
    void startHeld() {
        ASSERT_EQ(thread.start(&listener), 0);
        ASSERT_TRUE(thread.postMsg(kHoldId));
        ASSERT_TRUE(held.wait());
    }
    void release() { released.open(); }

    static constexpr int kHoldId = 999;
    RecordingListener listener;
    Gate held;
    Gate released;
    MsgDrivenThread thread;
};

TEST(MsgDrivenThreadTest, DeliversEachKindToTheListenerOnItsOwnThread) {
    RecordingListener listener;
    MsgDrivenThread thread(16, 4, "kinds", 0);
    std::atomic<int> selfSync{-1};
    std::atomic<int> selfStop{0};
    listener.onReceive = [&](const Received& r) {
        if (r.mId == 1) {
            selfSync = thread.sendMsgSync(9);
            selfStop = thread.stop(1, 0);
            thread.postMsg(4);
        }
    };
    EXPECT_FALSE(thread.postMsg(1)) << "not running yet";
    EXPECT_EQ(thread.start(nullptr), -1);
    EXPECT_EQ(thread.stop(0, 0), -1) << "not started";
    ASSERT_EQ(thread.start(&listener, 0, 0, nullptr, 1, 0), 0);

    EXPECT_TRUE(thread.postMsg(ValueMsg(1, 11)));
    EXPECT_TRUE(thread.sendMsgSync(ValueMsg(2, 22)));
    EXPECT_TRUE(thread.sendMsgInterrupt(3));
    ASSERT_TRUE(thread.sendMsgSync(5));

    std::vector<Received> got = listener.received();
    std::sort(got.begin(), got.end(),
              [](const Received& a, const Received& b) { return a.mId < b.mId; });
    ASSERT_EQ(got.size(), 5u) << "4, posted by the loop to itself, arrives too";
    EXPECT_EQ(got[0].mValue, 11);
    EXPECT_EQ(got[1].mValue, 22);
    EXPECT_EQ(got[4].mThreadId, thread.getId());
    EXPECT_EQ(selfSync, 0);
    EXPECT_EQ(selfStop, -1);
    EXPECT_EQ(thread.stop(1, 0), 0);
    EXPECT_FALSE(thread.postMsg(4));
    EXPECT_FALSE(thread.sendMsgSync(4));
    EXPECT_EQ(thread.start(&listener), -1) << "a loop starts once only";
}

// A message too big for its slot, a full data queue (one error, then details until a message
// is taken) and a full control queue are each refused with their line.
TEST(MsgDrivenThreadTest, FullQueuesAndOversizedBodiesAreRefused) {
    HeldLoop loop(15, 4);
    loop.startHeld();
    LogCapture log;
    EXPECT_FALSE(loop.thread.postMsg(QuadMsg(7))) << "16 bytes in a 15-byte body";
    EXPECT_FALSE(loop.thread.sendMsgSync(QuadMsg(7)));
    EXPECT_TRUE(log.contains(
        "MsgDrivenThread(held) Overflow MsgSize  MaxSize(include MsgId):19 MsgId:0x00000007"));
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(loop.thread.postMsg(i)) << "4 slots of 19 bytes";
    }
    const std::string out = captureStdout([&] {
        EXPECT_FALSE(loop.thread.postMsg(5));
        EXPECT_FALSE(loop.thread.postMsg(6));
    });
    EXPECT_EQ(log.lines().size(), 3u);
    EXPECT_TRUE(log.contains(
        "<UTIL> ERR: MsgDrivenThread(held) Overflow MsgDataQueue  MaxCount:4 MsgId:0x00000005"));
    EXPECT_NE(
        out.find("DTL: MsgDrivenThread(held) Overflow MsgDataQueue  MaxCount:4 MsgId:0x00000006"),
        std::string::npos);
    // A stop of an unknown timer is a control entry that the loop drops without a word.
    for (int i = 4; i < 4 + 256; ++i) {
        ASSERT_TRUE(loop.thread.postThreadCtlMsg(MsgDrivenThread::MSG_ID_STOP_TIMER, 99)) << i;
    }
    EXPECT_FALSE(loop.thread.postThreadCtlMsg(MsgDrivenThread::MSG_ID_STOP_TIMER, 99));
    EXPECT_TRUE(log.contains(
        "MsgDrivenThread(held) Overflow ThreadCtlMsgQueue  MaxCount:260 MsgId:0x80000007"));

    loop.release();
    EXPECT_TRUE(waitUntil([&] { return loop.thread.sendMsgSync(8); })) << "the loop drains";
    LogCapture after;
    EXPECT_TRUE(loop.thread.postMsg(9)) << "the data queue takes messages again";
    EXPECT_TRUE(after.lines().empty());
}

// A signal without SA_RESTART interrupts the loop's read, which goes on; a pipe that can no longer
// be read ends the loop with result -1.
TEST(MsgDrivenThreadTest, InterruptedReadGoesOnAndAFailedReadEndsTheLoop) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, nullptr);
    RecordingListener listener;
    const std::set<int> before = openDescriptors();
    MsgDrivenThread thread(16, 4, "reads", 0);
    const int pipe = newPipeWriteEnd(before);
    ASSERT_GE(pipe, 0);
    ASSERT_EQ(thread.start(&listener, 0, 0, nullptr, 1, 0), 0);
    LogCapture log;
    ASSERT_TRUE(waitUntil([&] {
        syscall(SYS_tgkill, getpid(), thread.getId(), SIGUSR2);
        return log.contains(
            "MsgDrivenThread(reads) Error. read Ret:4294967295 errno:4=EINTR Retry read");
    }));
    EXPECT_TRUE(thread.sendMsgSync(1));

    // The only write end replaced: the read sees the end of the pipe.
    const int devNull = open("/dev/null", O_WRONLY);
    ASSERT_EQ(dup2(devNull, pipe), pipe);
    close(devNull);
    ASSERT_EQ(thread.waitTo(3, 0), 0);
    EXPECT_TRUE(log.contains("MsgDrivenThread(reads) Error. read Ret:0 errno:"));
    EXPECT_TRUE(log.contains("!!Break msg loop!!"));
    unsigned int result = 0;
    EXPECT_TRUE(thread.getResult(&result));
    EXPECT_EQ(result, ~0u);
    EXPECT_FALSE(thread.postMsg(2));
}

// The loop thread searches its own queue directly: here it posts to itself inside a message, so
// that the posts stay queued while it looks.
TEST(MsgDrivenThreadTest, LoopThreadSearchesPeeksAndErasesItsQueue) {
    RecordingListener listener;
    MsgDrivenThread thread(16, 8, "self", 0);
    listener.onReceive = [&](const Received& r) {
        if (r.mId != 9) {
            return;
        }
        EXPECT_EQ(thread.getFirstMsgId(), MsgDrivenThread::MSG_ID_NONE);
        for (const ValueMsg& msg : {ValueMsg(1, 10), ValueMsg(2, 20), ValueMsg(1, 30)}) {
            ASSERT_TRUE(thread.postMsg(msg));
        }
        EXPECT_EQ(thread.getFirstMsgId(), 1);
        EXPECT_FALSE(thread.hasMsg(3));
        utl::ThreadRawMsg peeked(20);
        ASSERT_TRUE(thread.peekMsg(2, &peeked));
        ValueMsg value(0);
        ASSERT_TRUE(value.restoreFrom(peeked));
        EXPECT_EQ(value.mValue, 20);
        EXPECT_FALSE(thread.peekMsg(2, nullptr));
        EXPECT_TRUE(thread.eraseMsg(1));
        EXPECT_FALSE(thread.hasMsg(1));
        EXPECT_EQ(thread.getFirstMsgId(), 2);
    };
    ASSERT_EQ(thread.start(&listener), 0);
    ASSERT_TRUE(thread.postMsg(9));
    ASSERT_TRUE(waitUntil([&] { return listener.count() == 2; }));
    ASSERT_TRUE(thread.sendMsgSync(5));
    EXPECT_EQ(listener.ids(), (std::vector<int>{9, 2, 5}));
}

// Other threads hand their searches to the loop and wait, and an interrupt overtakes the queued
// posts; all three are pending at once when the loop goes on. Erasing a queued synchronous
// message releases its sender with false.
TEST(MsgDrivenThreadTest, OtherThreadsSearchEraseAndInterruptThroughTheLoop) {
    HeldLoop loop;
    loop.startHeld();
    for (const ValueMsg& msg : {ValueMsg(1, 10), ValueMsg(2, 20), ValueMsg(5), ValueMsg(6)}) {
        ASSERT_TRUE(loop.thread.postMsg(msg));
    }
    std::atomic<int> syncResult{-1};
    std::atomic<int> has{-1};
    std::atomic<int> erased{-1};
    std::atomic<int> interrupted{-1};
    Sender syncSender([&] { syncResult = loop.thread.sendMsgSync(ValueMsg(4, 40)); });
    ASSERT_TRUE(syncSender.awaitBlocked());
    Sender finder([&] { has = loop.thread.hasMsg(2); });
    ASSERT_TRUE(finder.awaitBlocked()) << "the search waits for the loop";
    struct OneOrFour {
        bool judge(utl::ThreadRawMsg& raw) {
            int id = 0;
            return raw.getMsgId(&id) && (id == 1 || id == 4);
        }
    };
    MsgDrivenThread::MsgJudgement<OneOrFour> oneOrFour{OneOrFour()};
    Sender eraser([&] { erased = loop.thread.eraseMsgInternal(&oneOrFour); });
    ASSERT_TRUE(eraser.awaitBlocked());
    Sender interrupter([&] { interrupted = loop.thread.sendMsgInterrupt(100); });
    ASSERT_TRUE(interrupter.awaitBlocked());
    loop.release();
    for (Sender* sender : {&finder, &eraser, &interrupter, &syncSender}) {
        sender->join();
    }
    EXPECT_EQ(has, 1);
    EXPECT_EQ(erased, 1);
    EXPECT_EQ(interrupted, 1);
    EXPECT_EQ(syncResult, 0);
    ASSERT_TRUE(loop.thread.sendMsgSync(3));
    EXPECT_EQ(loop.listener.ids(), (std::vector<int>{HeldLoop::kHoldId, 100, 2, 5, 6, 3}));
}

TEST(MsgDrivenThreadTest, StopDropsQueuedPostsAndReleasesWaitingSenders) {
    HeldLoop loop;
    loop.startHeld();
    ASSERT_TRUE(loop.thread.postMsg(1));
    std::atomic<int> syncResult{-1};
    Sender syncSender([&] { syncResult = loop.thread.sendMsgSync(2); });
    ASSERT_TRUE(syncSender.awaitBlocked());
    Sender stopper([&] { loop.thread.stop(1, 0); });
    ASSERT_TRUE(waitUntil([&] { return loop.thread.hasRequestedStop(); }));
    EXPECT_FALSE(loop.thread.postMsg(3)) << "refused once a stop was requested";
    EXPECT_FALSE(loop.thread.sendMsgInterrupt(3));
    loop.release();
    stopper.join();
    syncSender.join();
    EXPECT_EQ(syncResult, 0);
    EXPECT_EQ(loop.listener.ids(), std::vector<int>{HeldLoop::kHoldId});
    EXPECT_FALSE(loop.thread.hasMsg(MsgDrivenThread::MSG_ID_WILDCARD)) << "not running";
}

// ---- Timers

struct TimerThread : MsgDrivenThread {
    TimerThread() : MsgDrivenThread(16, 8, "timers", 3) {}
    std::vector<int> erased() {
        std::lock_guard<std::mutex> guard(mMutex);
        return mErased;
    }
    void onEraseTimer(int timerId) override {
        std::lock_guard<std::mutex> guard(mMutex);
        mErased.push_back(timerId);
    }
    std::mutex mMutex;
    std::vector<int> mErased;
};

size_t countTimerMsgs(const RecordingListener& listener, int timerId) {
    const std::vector<Received> got = listener.received();
    return std::count_if(got.begin(), got.end(), [&](const Received& r) {
        return r.mId == utl::TimerMsg::ID && r.mValue == timerId;
    });
}

// The timer expiries queued in `thread`, counted by a judgement that matches nothing.
int queuedExpiries(MsgDrivenThread& thread) {
    struct CountTimers {
        bool judge(utl::ThreadRawMsg& raw) {
            int id = 0;
            *mCount += raw.getMsgId(&id) && id == utl::TimerMsg::ID ? 1 : 0;
            return false;
        }
        int* mCount;
    };
    int count = 0;
    MsgDrivenThread::MsgJudgement<CountTimers> judgement{CountTimers{&count}};
    thread.hasMsgInternal(&judgement);
    return count;
}

// A timer with a count limit delivers that many and is erased; one re-armed after each delivery
// keeps no further expiry queued meanwhile. Killed timers, from another thread or directly by the
// loop, deliver nothing more and free their places; registered ones start stopped.
TEST(MsgDrivenThreadTest, TimersEndByCountOrKillAndFreeTheirPlaces) {
    RecordingListener listener;
    TimerThread thread;
    std::atomic<int> mostQueued{0};
    std::atomic<int> loopTimer{-1};
    std::atomic<bool> loopKilled{false};
    listener.onReceive = [&](const Received& r) {
        if (r.mId == 1) {
            loopTimer = thread.setTimer(3, 0, 0, 0);
        } else if (r.mId == utl::TimerMsg::ID && r.mValue == 1) {
            utl::Thread::sleep(5);
            mostQueued = std::max(mostQueued.load(), queuedExpiries(thread));
        } else if (r.mId == utl::TimerMsg::ID && r.mValue == loopTimer && !loopKilled) {
            loopKilled = thread.killTimer(r.mValue, 0);
        }
    };
    EXPECT_EQ(thread.setTimer(10), -1) << "not running";
    ASSERT_EQ(thread.start(&listener), 0);
    EXPECT_EQ(thread.remTimerIdCount(), 3u);
    ASSERT_EQ(thread.setTimer(1, 0, 3, 0), 1);
    ASSERT_TRUE(waitUntil([&] { return !thread.erased().empty(); }));
    EXPECT_EQ(countTimerMsgs(listener, 1), 3u);
    EXPECT_EQ(mostQueued, 0);
    EXPECT_EQ(thread.erased(), std::vector<int>{1});
    EXPECT_EQ(thread.remTimerIdCount(), 3u);
    EXPECT_FALSE(thread.startTimer(1)) << "an ended timer is gone";

    const int a = thread.registerTimer(2, 0, 1);
    ASSERT_EQ(a, 2) << "ids go round-robin";
    const int b = thread.registerTimer(3, 0, 0);
    const int c = thread.registerTimer(4);
    ASSERT_TRUE(b > 0 && c > 0);
    EXPECT_EQ(thread.registerTimer(5), -1) << "the timer table is full";
    EXPECT_EQ(thread.remTimerIdCount(), 0u);
    ASSERT_TRUE(thread.startTimer(a));
    ASSERT_TRUE(thread.startTimer(b, 1));
    ASSERT_TRUE(waitUntil(
        [&] { return countTimerMsgs(listener, a) >= 3 && countTimerMsgs(listener, b) >= 3; }));
    ASSERT_TRUE(thread.killTimer(a));
    ASSERT_TRUE(thread.killTimer(b));
    EXPECT_FALSE(thread.killTimer(a));
    const size_t afterKill = countTimerMsgs(listener, a) + countTimerMsgs(listener, b);
    EXPECT_EQ(thread.remTimerIdCount(), 2u);
    ASSERT_TRUE(thread.postMsg(1));
    ASSERT_TRUE(waitUntil([&] { return loopKilled.load(); }));
    utl::Thread::sleep(50);
    ASSERT_TRUE(thread.sendMsgSync(2));
    EXPECT_EQ(countTimerMsgs(listener, a) + countTimerMsgs(listener, b), afterKill)
        << "no expiry after the kill returned";
    EXPECT_EQ(countTimerMsgs(listener, loopTimer), 1u);
    EXPECT_EQ(countTimerMsgs(listener, c), 0u) << "registered timers start stopped";
    EXPECT_EQ(thread.erased(), std::vector<int>{1}) << "killing is not ending by count";
}

// The listener sleeps two seconds in the first expiry of a 1 ms run-on timer, with the loop's
// pipe cut to one page: the signals overflow it, the handler's writes fail without blocking,
// and the loop reports that once it reads again.
TEST(MsgDrivenThreadTest, BusyListenerKeepsAtMostTwoRunOnExpiriesQueued) {
    RecordingListener listener;
    const std::set<int> before = openDescriptors();
    TimerThread thread;
    const int pipe = newPipeWriteEnd(before);
    ASSERT_GE(pipe, 0);
    ASSERT_GT(fcntl(pipe, F_SETPIPE_SZ, 4096), 0);
    std::atomic<int> deliveries{0};
    std::atomic<int> mostQueued{0};
    listener.onReceive = [&](const Received& r) {
        if (r.mId != utl::TimerMsg::ID) {
            return;
        }
        if (++deliveries == 1) {
            utl::Thread::sleep(2000);
        }
        mostQueued = std::max(mostQueued.load(), queuedExpiries(thread));
    };
    LogCapture log;
    ASSERT_EQ(thread.start(&listener), 0);
    const int timerId = thread.setTimer(1, 0, 0, 1);
    ASSERT_GT(timerId, 0);
    ASSERT_TRUE(waitUntil([&] { return deliveries >= 20; }));
    EXPECT_LE(mostQueued, 1) << "besides the one being delivered, at most one more waits";
    EXPECT_TRUE(thread.sendMsgSync(1)) << "the loop resumed normally";
    EXPECT_TRUE(thread.killTimer(timerId));
    EXPECT_TRUE(
        log.contains("MsgDrivenThread::TimeoutSignalHandler() Error. write Ret:4294967295 "
                     "errno:" +
                     std::to_string(EAGAIN) + " SysTimerNum="));
    EXPECT_TRUE(log.contains(" PIPE=" + std::to_string(pipe)));
}

// ---- Reliability

// Posters retry refused posts, and synchronous and interrupt senders refused sends: a false that
// was in fact delivered would arrive twice. Every message must arrive once, in its sender's order.
TEST(MsgDrivenThreadStressTest, ManySendersEveryMessageOnceInOrder) {
    // UTL_STRESS_MESSAGES sets the total posted (8 x 100,000 by default).
    constexpr int kPosters = 8;
    const char* scale = std::getenv("UTL_STRESS_MESSAGES");
    const int perPoster = (scale != nullptr ? std::atoi(scale) : 800000) / kPosters;
    struct Checker : utl::ThreadMsgListener {
        void receiveMsg(int, utl::ThreadRawMsg& raw) override {
            ValueMsg msg(0);
            if (!msg.restoreFrom(raw) || msg.getMsgId() < 0 ||
                msg.getMsgId() >= static_cast<int>(next.size()) ||
                next[msg.getMsgId()]++ != msg.mValue) {
                ordered = false;
            }
        }
        std::vector<int32_t> next = std::vector<int32_t>(kPosters + 3, 0);
        std::atomic<bool> ordered{true};
    } checker;
    MsgDrivenThread thread(16, 64, "stress", 0);
    ASSERT_EQ(thread.start(&checker), 0);

    // Refusals of a full queue are expected here by the thousand: keep them out of the output.
    setFilterLevel(kLibraryLogType, 0);
    std::vector<std::thread> senders;
    for (int s = 0; s < kPosters + 3; ++s) {
        senders.emplace_back([&, s] {
            for (int32_t i = 0; i < (s < kPosters ? perPoster : perPoster / 100);) {
                const ValueMsg msg(s, i);
                const bool ok = s < kPosters        ? thread.postMsg(msg)
                                : s == kPosters + 2 ? thread.sendMsgInterrupt(msg)
                                                    : thread.sendMsgSync(msg);
                i += ok ? 1 : 0;
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    setFilterLevel(kLibraryLogType, 4);
    ASSERT_TRUE(thread.sendMsgSync(ValueMsg(kPosters, perPoster / 100)));
    EXPECT_TRUE(checker.ordered);
    for (int s = 0; s < kPosters + 3; ++s) {
        EXPECT_EQ(checker.next[s], s < kPosters ? perPoster : perPoster / 100 + (s == kPosters));
    }
}

}  // namespace
