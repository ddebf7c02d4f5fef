// Queue<unsigned char> block transfers against plain memcpy of the same bytes. One iteration
// moves one message slot of range(0) bytes as a message loop does: into the queue and out again
// (pushBlock + popBlock against two memcpys through a buffer of the queue's size), or a look at
// the queued slot (peekBlock against one memcpy). bytes/s compares directly.
//
// wrap:0 is a data queue of eight slots whose slots never cross the end of the ring. wrap:1 has
// every transfer cross it: the queue holds exactly one slot and its head sits in the middle, so
// the queue copies each slot in two pieces while the memcpy baseline still copies it in one.
#include "UtlQueue.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr unsigned int kSlotsInQueue = 8;

// The sizes and buffers of one benchmark run.
struct Transfer {
    explicit Transfer(const benchmark::State& state)
        : slot(static_cast<unsigned int>(state.range(0))),
          wraps(state.range(1) != 0),
          capacity(wraps ? slot : kSlotsInQueue * slot),
          message(slot, 0x5A),
          received(slot, 0) {
        benchmark::DoNotOptimize(message.data());
        benchmark::DoNotOptimize(received.data());
    }

    // The next slot position in a ring of `capacity` bytes.
    unsigned int next(unsigned int at) const { return at + slot == capacity ? 0 : at + slot; }

    void report(benchmark::State& state) const {
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * slot);
    }

    unsigned int slot;
    bool wraps;
    unsigned int capacity;
    std::vector<unsigned char> message;
    std::vector<unsigned char> received;
};

// Checks the queue's capacity and, for wrap:1, moves the head of the empty queue to the middle of
// its one slot; false after SkipWithError when that cannot be done.
bool prepareQueue(benchmark::State& state, const Transfer& transfer,
                  utl::Queue<unsigned char>& queue) {
    std::vector<unsigned char> half(transfer.slot / 2);
    const unsigned int moved = transfer.wraps ? transfer.slot / 2 : 0;
    if (queue.getCapacity() != transfer.capacity || !queue.pushBlock(half.data(), moved) ||
        !queue.popBlock(half.data(), moved)) {
        state.SkipWithError("cannot set up the queue");
        return false;
    }
    return true;
}

void BM_QueuePushPopBlock(benchmark::State& state) {
    Transfer transfer(state);
    utl::Queue<unsigned char> queue(transfer.capacity);
    if (!prepareQueue(state, transfer, queue)) {
        return;
    }
    for (auto _ : state) {
        const bool pushed = queue.pushBlock(transfer.message.data(), transfer.slot);
        benchmark::ClobberMemory();
        const bool popped = queue.popBlock(transfer.received.data(), transfer.slot);
        benchmark::ClobberMemory();
        if (!pushed || !popped) {
            state.SkipWithError("a block transfer failed");
            break;
        }
    }
    transfer.report(state);
}

void BM_MemcpyPushPop(benchmark::State& state) {
    Transfer transfer(state);
    std::vector<unsigned char> ring(transfer.capacity, 0);
    benchmark::DoNotOptimize(ring.data());
    unsigned int at = 0;
    for (auto _ : state) {
        std::memcpy(ring.data() + at, transfer.message.data(), transfer.slot);
        benchmark::ClobberMemory();
        std::memcpy(transfer.received.data(), ring.data() + at, transfer.slot);
        benchmark::ClobberMemory();
        at = transfer.next(at);
    }
    transfer.report(state);
}

void BM_QueuePeekBlock(benchmark::State& state) {
    Transfer transfer(state);
    utl::Queue<unsigned char> queue(transfer.capacity);
    if (!prepareQueue(state, transfer, queue)) {
        return;
    }
    if (!queue.pushBlock(transfer.message.data(), transfer.slot)) {
        state.SkipWithError("cannot queue the slot");
        return;
    }
    for (auto _ : state) {
        const bool peeked = queue.peekBlock(transfer.received.data(), 0, transfer.slot);
        benchmark::ClobberMemory();
        if (!peeked) {
            state.SkipWithError("the block peek failed");
            break;
        }
    }
    transfer.report(state);
}

void BM_MemcpyPeek(benchmark::State& state) {
    Transfer transfer(state);
    std::vector<unsigned char> ring(transfer.message);
    ring.resize(transfer.capacity);
    benchmark::DoNotOptimize(ring.data());
    for (auto _ : state) {
        std::memcpy(transfer.received.data(), ring.data(), transfer.slot);
        benchmark::ClobberMemory();
    }
    transfer.report(state);
}

void slotsAndWrap(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"slot", "wrap"})->ArgsProduct({{20, 260}, {0, 1}});
}

BENCHMARK(BM_QueuePushPopBlock)->Apply(slotsAndWrap);
BENCHMARK(BM_MemcpyPushPop)->Apply(slotsAndWrap);
BENCHMARK(BM_QueuePeekBlock)->Apply(slotsAndWrap);
BENCHMARK(BM_MemcpyPeek)->Apply(slotsAndWrap);

}  // namespace
