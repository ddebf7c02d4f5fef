// Once a message thread and its timers exist, posting, sending and timer expiries must not touch
// the heap: the queues, buffers and timer records are all made in advance.
//
// This program replaces the global operator new and delete (every form but the over-aligned ones,
// which the library has no use for) with versions that count and forward to malloc and free.
// Outside sanitizer builds it also interposes malloc, calloc and realloc, counting and forwarding
// to glibc's own allocator, so that allocations made by C code (or by C++ code through malloc) are
// seen too. Sanitizers bring their own malloc, which must stay in charge there. Counting is
// switched on only around the message traffic, and covers every thread.
#include "UtlMsgDrivenThread.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "TestMessages.h"
#include "UtlMsg.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UTL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define UTL_TEST_SANITIZED 1
#endif
#endif
#ifndef UTL_TEST_SANITIZED
#define UTL_TEST_SANITIZED 0
#endif

#if !UTL_TEST_SANITIZED
// glibc's allocator under its own names; free() needs no counterpart.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}
#endif

namespace {

std::atomic<bool> gCounting{false};
std::atomic<uint64_t> gAllocations{0};

void countAllocation() {
    if (gCounting.load(std::memory_order_relaxed)) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
    }
}

// operator new counts once and takes its block from glibc directly, past the counting malloc.
void* allocate(std::size_t size) {
    countAllocation();
#if UTL_TEST_SANITIZED
    return std::malloc(size == 0 ? 1 : size);
#else
    return __libc_malloc(size == 0 ? 1 : size);
#endif
}

void* orThrow(void* block) {
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

}  // namespace

// ---- Replaced global allocation functions

void* operator new(std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new[](std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
// Every delete frees with free(), matching the news above (a sanitizer would otherwise report
// a malloc block released by its own operator delete). GCC's check that new and delete match
// cannot see that both are replaced here.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
#if !UTL_TEST_SANITIZED
extern "C" {
void* malloc(std::size_t size) noexcept {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
    countAllocation();
    return __libc_realloc(block, size);
}
}  // extern "C"
#endif

namespace {

using utl::MsgDrivenThread;

constexpr int kPostId = 1;
constexpr int kSyncId = 2;
constexpr int kInterruptId = 3;
constexpr int kAllocateId = 4;

// Keeps the compiler from eliding an allocation whose block is freed at once.
void* volatile gSink = nullptr;

// Counts what arrives, restoring each message as a receiver would; allocates only when asked to
// by a kAllocateId message.
class CountingListener : public utl::ThreadMsgListener {
  public:
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int msgId = MsgDrivenThread::MSG_ID_NONE;
        raw.getMsgId(&msgId);
        if (msgId == utl::TimerMsg::ID) {
            utl::TimerMsg timer;
            if (timer.restoreFrom(raw)) {
                ++mExpiries;
            }
            return;
        }
        if (msgId == kAllocateId) {
            gSink = new int(1);
            delete static_cast<int*>(gSink);
            gSink = std::malloc(8);
            std::free(gSink);
            return;
        }
        QuadMsg msg(0);
        if (msg.restoreFrom(raw) && msg.mValues[3] == 3) {
            ++mMessages;
        }
    }

    std::atomic<uint64_t> mMessages{0};
    std::atomic<uint64_t> mExpiries{0};
};

void sleepMsec(long msec) {
    const timespec pause = {0, msec * 1000000L};
    nanosleep(&pause, nullptr);
}

// Counts allocations made on any thread while it exists.
class CountingWindow {
  public:
    CountingWindow() {
        gAllocations.store(0);
        gCounting.store(true);
    }
    ~CountingWindow() { stop(); }
    uint64_t stop() {
        gCounting.store(false);
        return gAllocations.load();
    }
};

// A running loop with a 1 ms run-on timer, warmed up by every kind of traffic.
class AllocTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(mThread.start(&mListener, 0, 0, nullptr, 1, 0), 0);
        mTimerId = mThread.setTimer(1, 0, 0, 1);
        ASSERT_GT(mTimerId, 0);
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(mThread.postMsg(QuadMsg(kPostId, i)));
            ASSERT_TRUE(mThread.sendMsgSync(QuadMsg(kSyncId, i)));
            ASSERT_TRUE(mThread.sendMsgInterrupt(QuadMsg(kInterruptId, i)));
        }
        ASSERT_TRUE(awaitExpiries(5));
    }
    void TearDown() override {
        mThread.killTimer(mTimerId);
        mThread.stop(1, 0);
    }

    // Waits, without allocating, until `count` more expiries have arrived; false after 60 s.
    bool awaitExpiries(uint64_t count) {
        const uint64_t target = mListener.mExpiries.load() + count;
        for (int waited = 0; waited < 60000; ++waited) {
            if (mListener.mExpiries.load() >= target) {
                return true;
            }
            sleepMsec(1);
        }
        return false;
    }

    CountingListener mListener;
    MsgDrivenThread mThread{16, 64, "alloc", 2};
    int mTimerId = -1;
};

// Without this the main test could pass because the counting does not work.
TEST_F(AllocTest, CountsAllocationsOfOtherThreads) {
    CountingWindow window;
    const bool sent = mThread.sendMsgSync(kAllocateId);
    const uint64_t counted = window.stop();
    ASSERT_TRUE(sent);
    EXPECT_GE(counted, UTL_TEST_SANITIZED ? 1u : 2u) << "operator new and malloc in the loop";
}

TEST_F(AllocTest, PostsSendsAndTimerExpiriesDoNotAllocate) {
    // Per 10 messages: 8 posts, a synchronous send (which drains the posts before it) and an
    // interrupt, so the 64-message queue never fills and no refusal is logged.
    constexpr int kMessages = 10000;
    constexpr uint64_t kMinExpiries = 20;
    const uint64_t messagesBefore = mListener.mMessages.load();
    const uint64_t expiriesBefore = mListener.mExpiries.load();
    int refused = 0;
    bool expiriesArrived = false;
    uint64_t counted = 0;
    {
        CountingWindow window;
        for (int i = 0; i < kMessages; ++i) {
            bool accepted = false;
            switch (i % 10) {
                case 8:
                    accepted = mThread.sendMsgSync(QuadMsg(kSyncId, i));
                    break;
                case 9:
                    accepted = mThread.sendMsgInterrupt(QuadMsg(kInterruptId, i));
                    break;
                default:
                    accepted = mThread.postMsg(QuadMsg(kPostId, i));
                    break;
            }
            refused += accepted ? 0 : 1;
        }
        // Expiries interleave with the traffic; at least some more must come in the window.
        const uint64_t arrived = mListener.mExpiries.load() - expiriesBefore;
        expiriesArrived = arrived >= kMinExpiries || awaitExpiries(kMinExpiries - arrived);
        // The last messages are an interrupt after a synchronous send: all posts are delivered.
        counted = window.stop();
    }
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(expiriesArrived);
    EXPECT_EQ(mListener.mMessages.load() - messagesBefore, static_cast<uint64_t>(kMessages));
    EXPECT_EQ(counted, 0u) << "heap allocations during " << kMessages << " messages and "
                           << mListener.mExpiries.load() - expiriesBefore << " timer expiries";
}

}  // namespace
