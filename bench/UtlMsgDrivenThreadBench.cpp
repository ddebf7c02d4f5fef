// MsgDrivenThread beside hand-written loops of the same design, so that the price of the
// library's generality can be read off one run as a ratio.
//
// - Synchronous round trip: `sendMsgSync` of a 4-byte body to an idle loop against a loop thread
//   blocked in read() on a pipe, to which the caller writes an 8-byte token and then waits on a
//   mutex and condition variable until the loop has handled it. One iteration is one round trip.
// - Posting throughput: 16-byte bodies posted by one thread and consumed by the loop, against a
//   pipe token per message plus a mutex-guarded ring of fixed 20-byte slots (id and body), and
//   against a std::deque under a std::mutex and std::condition_variable (no pipe, so faster by
//   design). One iteration posts a batch of kBatch messages and waits until all are delivered;
//   the queues hold a whole batch, so a post is never refused ("refused" counts any that were,
//   per batch). items/s is messages delivered per second.
// - Broadcast: the same posting to a MsgDrivenSharedThread with eight listeners; items/s counts
//   deliveries (eight per message), to compare per delivery with the single listener.
// - Timer lateness: a 10 ms run-on timer of the loop against a bare POSIX timer on the monotonic
//   clock whose own real-time signal (SIGRTMIN + 3) writes a token into a pipe read by a thread.
//   Expiry k of 300 is due at arm time + k x 10 ms; its lateness is the monotonic time at which
//   the listener (or the reader thread) sees it minus that. p50_us and p99_us are the counters to
//   compare; one iteration takes 3 s.
//
// Round trips and posting run in two placements, given as the argument `cpus`: 1 puts the
// benchmark thread and the loop (or consumer) thread on one CPU, 2 on two different CPUs. Left
// to the scheduler, the same benchmark flips between the two from run to run, and on a virtual
// machine a wake-up across CPUs costs ten times one on the same CPU, which would swamp the
// ratio. Placement 2 is skipped on a single CPU.
#include "UtlMsgDrivenSharedThread.h"
#include "UtlMsgDrivenThread.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "TestMessages.h"
#include "ThreadBenchSupport.h"
#include "UtlMsg.h"

namespace {

using namespace utl_bench;

constexpr int kValueId = 1;
constexpr int kQuadId = 2;
constexpr int kPinId = 3;

// ---- Messages and shared helpers

constexpr unsigned int kQuadBody = 16;
constexpr unsigned int kQuadSlot = 4 + kQuadBody;

bool writeToken(int fd, int32_t id, int32_t param) {
    const int32_t token[2] = {id, param};
    return write(fd, token, sizeof token) == static_cast<ssize_t>(sizeof token);
}

// A listener that binds the loop thread to the CPU a kPinId message carries, and hands every other
// message to `handle`.
class PinningListener : public utl::ThreadMsgListener {
  public:
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int msgId = 0;
        ValueMsg pin(kPinId, -1);
        if (raw.getMsgId(&msgId) && msgId == kPinId) {
            mPinned = pin.restoreFrom(raw) && pinCallerTo(pin.mValue);
            return;
        }
        handle(raw);
    }
    virtual void handle(utl::ThreadRawMsg& raw) = 0;
    bool mPinned = false;  // Written by the loop before its synchronous sender returns.
};

// Starts `thread` with `listener` and binds its loop to the placement's other CPU.
bool startPlaced(utl::MsgDrivenThread& thread, PinningListener& listener,
                 const Placement& placement, benchmark::State& state) {
    if (!placement.isValid()) {
        return false;
    }
    if (thread.start(&listener, 0, 0, nullptr, 1, 0) != 0) {
        state.SkipWithError("the loop did not start");
        return false;
    }
    if (!thread.sendMsgSync(ValueMsg(kPinId, placement.otherCpu())) || !listener.mPinned) {
        state.SkipWithError("cannot bind the loop thread");
        return false;
    }
    return true;
}

// Counts deliveries; the producer waits until a target count has been reached.
class DeliveryCount {
  public:
    // Called by the consumer for each message.
    void delivered() {
        const uint64_t now = mCount.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (now == mTarget.load(std::memory_order_acquire)) {
            std::lock_guard<std::mutex> guard(mMutex);
            mCondition.notify_one();
        }
    }
    // Sets the count that `awaitTarget` waits for; before the messages are sent.
    void setTarget(uint64_t target) { mTarget.store(target, std::memory_order_release); }
    void awaitTarget() {
        std::unique_lock<std::mutex> lock(mMutex);
        mCondition.wait(lock, [this] {
            return mCount.load(std::memory_order_acquire) >=
                   mTarget.load(std::memory_order_acquire);
        });
    }
    uint64_t count() const { return mCount.load(std::memory_order_acquire); }

  private:
    std::atomic<uint64_t> mCount{0};
    std::atomic<uint64_t> mTarget{0};
    std::mutex mMutex;
    std::condition_variable mCondition;
};

// ---- Synchronous round trip

class SinkListener : public PinningListener {
  public:
    void handle(utl::ThreadRawMsg& raw) override {
        ValueMsg msg(kValueId);
        if (msg.restoreFrom(raw)) {
            mSum += msg.mValue;
        }
    }
    int64_t mSum = 0;  // Loop thread only.
};

void BM_MsgDrivenThreadSendSync(benchmark::State& state) {
    Placement placement(state);
    SinkListener listener;
    utl::MsgDrivenThread thread(16, 16, "benchSync", 0);
    if (!startPlaced(thread, listener, placement, state)) {
        return;
    }
    int32_t i = 0;
    for (auto _ : state) {
        if (!thread.sendMsgSync(ValueMsg(kValueId, ++i))) {
            state.SkipWithError("a synchronous send failed");
            break;
        }
    }
    thread.stop(1, 0);
    state.SetItemsProcessed(state.iterations());
}

// The floor: the token carries the message; the loop handles it and answers under a mutex.
void BM_PipeLoopSendSync(benchmark::State& state) {
    Placement placement(state);
    Pipe pipe;
    if (!placement.isValid()) {
        return;
    }
    if (!pipe.isOpen()) {
        state.SkipWithError("no pipe");
        return;
    }
    std::mutex mutex;
    std::condition_variable condition;
    bool handled = false;
    int64_t sum = 0;
    std::thread loop([&] {
        pinCallerTo(placement.otherCpu());
        int32_t token[2];
        while (readToken(pipe.readEnd(), token)) {
            sum += token[1];
            {
                std::lock_guard<std::mutex> guard(mutex);
                handled = true;
            }
            condition.notify_one();
        }
    });
    int32_t i = 0;
    for (auto _ : state) {
        if (!writeToken(pipe.writeEnd(), kValueId, ++i)) {
            state.SkipWithError("write failed");
            break;
        }
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [&] { return handled; });
        handled = false;
    }
    pipe.closeWriteEnd();
    loop.join();
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
}

// ---- Posting throughput

constexpr unsigned int kBatch = 1024;

class QuadListener : public PinningListener {
  public:
    void handle(utl::ThreadRawMsg& raw) override {
        QuadMsg msg(kQuadId);
        if (msg.restoreFrom(raw)) {
            mSum += msg.mValues[0] + msg.mValues[3];
        }
        mCount.delivered();
    }
    int64_t mSum = 0;  // Loop thread only.
    DeliveryCount mCount;
};

void reportPosting(benchmark::State& state, uint64_t delivered, uint64_t refused) {
    state.SetItemsProcessed(static_cast<int64_t>(delivered));
    state.counters["refused"] =
        benchmark::Counter(static_cast<double>(refused), benchmark::Counter::kAvgIterations);
}

// Posts batches of kBatch messages through `thread`, each awaited until `lastServed` has received
// all of it, and reports the deliveries: `listenersServed` per message.
void postBatches(benchmark::State& state, utl::MsgDrivenThread& thread, QuadListener& lastServed,
                 unsigned int listenersServed) {
    uint64_t refused = 0;
    uint64_t target = 0;
    int32_t value = 0;
    for (auto _ : state) {
        target += kBatch;
        lastServed.mCount.setTarget(target);
        for (unsigned int n = 0; n < kBatch;) {
            if (thread.postMsg(QuadMsg(kQuadId, ++value))) {
                ++n;
            } else {
                ++refused;
                std::this_thread::yield();
            }
        }
        lastServed.mCount.awaitTarget();
    }
    const uint64_t delivered = lastServed.mCount.count() * listenersServed;
    thread.stop(1, 0);
    reportPosting(state, delivered, refused);
}

void BM_MsgDrivenThreadPost(benchmark::State& state) {
    Placement placement(state);
    QuadListener listener;
    utl::MsgDrivenThread thread(kQuadBody, kBatch, "benchPost", 0);
    if (startPlaced(thread, listener, placement, state)) {
        postBatches(state, thread, listener, 1);
    }
}

// The same posting to a shared thread with kListeners listeners, each of which receives every
// message; items/s counts deliveries, so it compares per delivery with the loop's own single
// listener above. The first listener attached is served last: once it has all messages of the
// batch, so have the others.
constexpr unsigned int kListeners = 8;

void BM_MsgDrivenSharedThreadBroadcast(benchmark::State& state) {
    Placement placement(state);
    QuadListener listeners[kListeners];
    utl::MsgDrivenSharedThread thread(kQuadBody, kBatch, kListeners, "benchBroadcast", 0);
    for (QuadListener& listener : listeners) {
        thread.attachMsgListener(&listener);
    }
    if (!placement.isValid()) {
        return;
    }
    if (thread.start(0, 0, nullptr, 1, 0) != 0 ||
        !thread.sendMsgSync(ValueMsg(kPinId, placement.otherCpu())) || !listeners[0].mPinned) {
        state.SkipWithError("cannot start and bind the loop thread");
        return;
    }
    postBatches(state, thread, listeners[0], kListeners);
}

// The floor: a mutex-guarded ring of bytes in fixed slots, and a pipe token per message.
class SlotRing {
  public:
    explicit SlotRing(unsigned int slots) : mBytes(slots * kQuadSlot) {}

    bool push(const unsigned char* slot) {
        std::lock_guard<std::mutex> guard(mMutex);
        if (mCount == mBytes.size()) {
            return false;
        }
        std::memcpy(&mBytes[(mHead + mCount) % mBytes.size()], slot, kQuadSlot);
        mCount += kQuadSlot;
        return true;
    }
    bool pop(unsigned char* slot) {
        std::lock_guard<std::mutex> guard(mMutex);
        if (mCount == 0) {
            return false;
        }
        std::memcpy(slot, &mBytes[mHead], kQuadSlot);
        mHead = (mHead + kQuadSlot) % mBytes.size();
        mCount -= kQuadSlot;
        return true;
    }

  private:
    std::mutex mMutex;
    std::vector<unsigned char> mBytes;  // Guarded by mMutex; slots never wrap.
    size_t mHead = 0;                   // Guarded by mMutex.
    size_t mCount = 0;                  // Guarded by mMutex.
};

void BM_PipeRingPost(benchmark::State& state) {
    Placement placement(state);
    Pipe pipe;
    if (!placement.isValid()) {
        return;
    }
    if (!pipe.isOpen()) {
        state.SkipWithError("no pipe");
        return;
    }
    SlotRing ring(kBatch);
    DeliveryCount count;
    int64_t sum = 0;
    std::thread consumer([&] {
        pinCallerTo(placement.otherCpu());
        int32_t token[2];
        while (readToken(pipe.readEnd(), token)) {
            unsigned char slot[kQuadSlot];
            if (!ring.pop(slot)) {
                continue;
            }
            int32_t fields[5];
            std::memcpy(fields, slot, sizeof fields);
            if (fields[0] == kQuadId) {
                sum += fields[1] + fields[4];
            }
            count.delivered();
        }
    });
    uint64_t refused = 0;
    uint64_t target = 0;
    int32_t value = 0;
    for (auto _ : state) {
        target += kBatch;
        count.setTarget(target);
        for (unsigned int n = 0; n < kBatch;) {
            const int32_t fields[5] = {kQuadId, ++value, 1, 2, 3};
            unsigned char slot[kQuadSlot];
            std::memcpy(slot, fields, sizeof slot);
            if (ring.push(slot)) {
                writeToken(pipe.writeEnd(), kQuadId, -1);
                ++n;
            } else {
                ++refused;
                std::this_thread::yield();
            }
        }
        count.awaitTarget();
    }
    pipe.closeWriteEnd();
    consumer.join();
    benchmark::DoNotOptimize(sum);
    reportPosting(state, count.count(), refused);
}

// For the record: no pipe, no fixed slots; the consumer sleeps only when the deque is empty.
void BM_StdDequePost(benchmark::State& state) {
    Placement placement(state);
    if (!placement.isValid()) {
        return;
    }
    struct Quad {
        int32_t mId;
        int32_t mValues[4];
    };
    std::mutex mutex;
    std::condition_variable condition;
    std::deque<Quad> queue;  // Guarded by mutex.
    bool done = false;       // Guarded by mutex.
    DeliveryCount count;
    int64_t sum = 0;
    std::thread consumer([&] {
        pinCallerTo(placement.otherCpu());
        for (;;) {
            Quad quad;
            {
                std::unique_lock<std::mutex> lock(mutex);
                condition.wait(lock, [&] { return done || !queue.empty(); });
                if (queue.empty()) {
                    return;
                }
                quad = queue.front();
                queue.pop_front();
            }
            if (quad.mId == kQuadId) {
                sum += quad.mValues[0] + quad.mValues[3];
            }
            count.delivered();
        }
    });
    uint64_t target = 0;
    int32_t value = 0;
    for (auto _ : state) {
        target += kBatch;
        count.setTarget(target);
        for (unsigned int n = 0; n < kBatch; ++n) {
            {
                std::lock_guard<std::mutex> guard(mutex);
                queue.push_back(Quad{kQuadId, {++value, 1, 2, 3}});
            }
            condition.notify_one();
        }
        count.awaitTarget();
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        done = true;
    }
    condition.notify_one();
    consumer.join();
    benchmark::DoNotOptimize(sum);
    reportPosting(state, count.count(), 0);
}

// ---- Timer lateness

// Arms the loop's timer from inside the loop, as the floor arms its own: the arm time is then
// taken right before the POSIX timer is set, not before a hand-off to another thread.
class TimerListener : public utl::ThreadMsgListener {
  public:
    static constexpr int kArmId = 77;

    explicit TimerListener(utl::MsgDrivenThread& thread) : mThread(thread) {}
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int msgId = 0;
        raw.getMsgId(&msgId);
        if (msgId == utl::TimerMsg::ID) {
            mArrivals.arrived();
        } else if (msgId == kArmId) {
            mArmNsec = monotonicNsec();
            mTimerId = mThread.setTimer(kPeriodMsec, 0, 0, 1);
        }
    }
    Arrivals mArrivals;
    int64_t mArmNsec = 0;
    int mTimerId = -1;

  private:
    utl::MsgDrivenThread& mThread;
};

// Both timer benchmarks run all their threads on one CPU (threads inherit the binding of the
// thread that creates them): on this kind of machine a wake-up across CPUs costs tens of
// microseconds and varies too much to compare a few microseconds of difference.
void BM_MsgDrivenThreadTimerLateness(benchmark::State& state) {
    const Placement placement(state);
    for (auto _ : state) {
        utl::MsgDrivenThread thread(16, 16, "benchTimer", 1);
        TimerListener listener(thread);
        if (thread.start(&listener, 0, 0, nullptr, 1, 0) != 0 ||
            !thread.sendMsgSync(TimerListener::kArmId) || listener.mTimerId < 0) {
            state.SkipWithError("the loop or its timer did not start");
            break;
        }
        const bool complete = listener.mArrivals.awaitAll();
        thread.killTimer(listener.mTimerId);
        thread.stop(1, 0);
        if (!complete) {
            state.SkipWithError("expiries missing");
            break;
        }
        listener.mArrivals.report(state, listener.mArmNsec);
    }
}

}  // namespace

BENCHMARK(BM_MsgDrivenThreadSendSync)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_PipeLoopSendSync)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MsgDrivenThreadPost)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MsgDrivenSharedThreadBroadcast)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_PipeRingPost)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_StdDequePost)->ArgName("cpus")->Arg(1)->Arg(2)->UseRealTime();
UTL_LATENESS_BENCHMARK(BM_MsgDrivenThreadTimerLateness);
UTL_LATENESS_BENCHMARK(BM_PosixTimerLateness);
