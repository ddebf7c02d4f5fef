// Once a message thread and its timers exist, posting, sending and timer expiries must not touch
// the heap. Allocations on every thread are counted while counting is on: in sanitizer builds,
// whose own allocator must stay in charge, through its allocation hook; in other builds by
// interposing malloc, calloc and realloc (operator new takes its blocks from malloc).
#include "UtlMsgDrivenThread.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

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

namespace {

std::atomic<bool> gCounting{false};
std::atomic<uint64_t> gAllocations{0};

void countAllocation() {
    if (gCounting.load(std::memory_order_relaxed)) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

#if UTL_TEST_SANITIZED
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          std::size_t),
                                                         void (*onFree)(const volatile void*));
// The sanitizer's allocator, behind malloc and every operator new, calls the first hook.
[[maybe_unused]] const int gHooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { countAllocation(); }, [](const volatile void*) {});
#else
// glibc's allocator under its own names; free() needs no counterpart.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

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
struct CountingListener : utl::ThreadMsgListener {
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int msgId = MsgDrivenThread::MSG_ID_NONE;
        raw.getMsgId(&msgId);
        utl::TimerMsg timer;
        QuadMsg msg(0);
        if (msgId == utl::TimerMsg::ID) {
            mExpiries += timer.restoreFrom(raw) ? 1 : 0;
        } else if (msgId == kAllocateId) {
            gSink = new int(1);
            delete static_cast<int*>(gSink);
            gSink = std::malloc(8);
            std::free(gSink);
        } else if (msg.restoreFrom(raw) && msg.mValues[3] == 3) {
            ++mMessages;
        }
    }
    std::atomic<uint64_t> mMessages{0};
    std::atomic<uint64_t> mExpiries{0};
};

// The allocations made on any thread while `body` runs.
template <class Body>
uint64_t allocationsDuring(Body body) {
    gAllocations.store(0);
    gCounting.store(true);
    body();
    gCounting.store(false);
    return gAllocations.load();
}

// Waits, without allocating, until `count` more expiries have arrived; false after 60 s.
bool awaitExpiries(const CountingListener& listener, uint64_t count) {
    const uint64_t target = listener.mExpiries.load() + count;
    const timespec pause = {0, 1000000L};
    for (int waited = 0; waited < 60000 && listener.mExpiries.load() < target; ++waited) {
        nanosleep(&pause, nullptr);
    }
    return listener.mExpiries.load() >= target;
}

// Per 10 messages: 8 posts, a synchronous send (which drains the posts before it) and an
// interrupt, so that the 64-message queue never fills. The number of messages refused.
int sendMixed(MsgDrivenThread& thread, int count) {
    int refused = 0;
    for (int i = 0; i < count; ++i) {
        const int kind = i % 10;
        const QuadMsg msg(kind == 8 ? kSyncId : kind == 9 ? kInterruptId : kPostId, i);
        const bool accepted = kind == 8   ? thread.sendMsgSync(msg)
                              : kind == 9 ? thread.sendMsgInterrupt(msg)
                                          : thread.postMsg(msg);
        refused += accepted ? 0 : 1;
    }
    return refused;
}

TEST(MsgDrivenThreadAllocTest, PostsSendsAndTimerExpiriesDoNotAllocate) {
    constexpr int kMessages = 10000;
    constexpr uint64_t kMinExpiries = 20;
    CountingListener listener;
    MsgDrivenThread thread(16, 64, "alloc", 2);
    ASSERT_EQ(thread.start(&listener, 0, 0, nullptr, 1, 0), 0);
    ASSERT_GT(thread.setTimer(1, 0, 0, 1), 0) << "a 1 ms run-on timer";
    ASSERT_EQ(sendMixed(thread, 300), 0) << "warming up";
    ASSERT_TRUE(awaitExpiries(listener, 5));
    // Without this the test could pass because the counting does not work.
    bool sent = false;
    EXPECT_GE(allocationsDuring([&] { sent = thread.sendMsgSync(kAllocateId); }), 2u)
        << "operator new and malloc in the loop";
    ASSERT_TRUE(sent);

    const uint64_t messagesBefore = listener.mMessages.load();
    const uint64_t expiriesBefore = listener.mExpiries.load();
    int refused = 0;
    bool expiriesArrived = false;
    // Expiries interleave with the traffic; at least some more must come in the window. The
    // last messages are an interrupt after a synchronous send: all posts are delivered by then.
    const uint64_t counted = allocationsDuring([&] {
        refused = sendMixed(thread, kMessages);
        const uint64_t arrived = listener.mExpiries.load() - expiriesBefore;
        expiriesArrived =
            arrived >= kMinExpiries || awaitExpiries(listener, kMinExpiries - arrived);
    });
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(expiriesArrived);
    EXPECT_EQ(listener.mMessages.load() - messagesBefore, static_cast<uint64_t>(kMessages));
    EXPECT_EQ(counted, 0u) << "heap allocations during " << kMessages << " messages and "
                           << listener.mExpiries.load() - expiriesBefore << " timer expiries";
}

}  // namespace
