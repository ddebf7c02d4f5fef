// Fixed-capacity circular array and first-in first-out queue of utl.
//
// `RingArray` keeps up to a fixed number of elements in one block allocated at construction;
// `Queue` is the FIFO built on it that message loops use for their pending work. Neither
// allocates after construction, throws, logs or locks: a full ring refuses, and the owner
// guards a shared queue with its own lock around every call.
//
//   utl::Queue<unsigned char> data(4096);        // the only allocation
//   const unsigned char bytes[] = {1, 2, 3};
//   if (!data.pushBlock(bytes, sizeof(bytes))) { /* full: nothing was written */ }
//   unsigned char byte;
//   while (data.pop(&byte)) { /* 1, then 2, then 3 */ }
#ifndef UTL_QUEUE_H
#define UTL_QUEUE_H

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "UtlMemory.h"

namespace utl {

static_assert(sizeof(unsigned int) == 4, "utl counts and positions are 32 bits wide");

// A circular array of `getCapacity()` live elements of which `getCount()` are in use, starting
// at a moving head. Logical position 0 is the oldest element.
//
// All slots are default-constructed when the block is made; elements are stored and moved by
// assignment. A capacity of 0, one above INT32_MAX (the head is a signed 32-bit index) or a
// failed allocation leaves a ring without a block that refuses every push. `Arg` is the
// parameter type of `push`. The arrays handed to the block operations must not lie inside the ring.
//
// Not thread-safe and without a lock of its own: the owner holds its queue lock around every
// call. Not copyable.
template <class T, class Arg = const T&>
class RingArray {
  public:
    explicit RingArray(unsigned int capacity)
        : mBuffer(allocate(capacity)),
          mCount(0),
          mCapacity(mBuffer != nullptr ? capacity : 0),
          mHead(0) {}
    virtual ~RingArray() { delete[] mBuffer; }

    RingArray(const RingArray&) = delete;
    RingArray& operator=(const RingArray&) = delete;

    // Appends `value` at the back; false, with nothing changed, when the ring is full.
    bool push(Arg value) {
        if (isFull()) {
            return false;
        }
        slot(mCount) = value;
        ++mCount;
        return true;
    }

    // Appends the `n` elements at `values` as a whole: false, with nothing written, when they do
    // not all fit or `values` is null with n > 0. Pushing 0 elements succeeds.
    bool pushBlock(const T* values, unsigned int n) {
        if (n > mCapacity - mCount || (values == nullptr && n > 0)) {
            return false;
        }
        forEachRun(mCount, n, [this, values](uint32_t at, unsigned int done, unsigned int length) {
            copyElements(values + done, length, mBuffer + at);
        });
        mCount += n;
        return true;
    }

    // Copies the `n` elements from logical position `offset` on to `out` and leaves the ring as it
    // is; false, with nothing copied, when fewer than offset + n elements are there or `out` is
    // null with n > 0.
    bool peekBlock(T* out, unsigned int offset, unsigned int n) const {
        if (offset > mCount || n > mCount - offset || (out == nullptr && n > 0)) {
            return false;
        }
        forEachRun(offset, n, [this, out](uint32_t at, unsigned int done, unsigned int length) {
            copyElements(mBuffer + at, length, out + done);
        });
        return true;
    }

    // Removes the first `n` elements, copying them to `out`; false, with nothing changed, when
    // fewer are there or `out` is null with n > 0.
    bool popBlock(T* out, unsigned int n) {
        if (!peekBlock(out, 0, n)) {
            return false;
        }
        vacate(0, n);
        if (n > 0) {
            mHead = static_cast<int32_t>(physicalIndex(n == mCapacity ? 0 : n));
            mCount -= n;
        }
        return true;
    }

    // The front element; the ring must not be empty.
    T& peek() { return at(0); }
    const T& peek() const { return at(0); }

    // The element at logical position `i`, which must be below `getCount()`.
    T& at(unsigned int i) {
        assert(i < mCount);
        return slot(i);
    }
    const T& at(unsigned int i) const {
        assert(i < mCount);
        return slot(i);
    }

    // Removes the front element and advances the head, copying the element to `out` when it is
    // non-null; false when the ring is empty.
    bool pop(T* out = nullptr) {
        if (isEmpty()) {
            return false;
        }
        if (out != nullptr) {
            *out = at(0);
        }
        vacate(0, 1);
        mHead = static_cast<int32_t>(physicalIndex(1));
        --mCount;
        return true;
    }

    // Removes the element at logical position `k` by copying the later ones down; the head stays
    // where it is, also for k 0. False when k >= count.
    bool eraseAt(unsigned int k) { return eraseRun(k, 1) == 1; }

    // Removes up to `n` elements from logical position `k` on (n is cut to count - k) by copying
    // the later ones down; the head stays where it is. Returns the number removed, 0 for
    // k >= count or n 0.
    unsigned int eraseRun(unsigned int k, unsigned int n) {
        if (k >= mCount || n == 0) {
            return 0;
        }
        if (n > mCount - k) {
            n = mCount - k;
        }
        for (unsigned int i = k + n; i < mCount; ++i) {
            at(i - n) = at(i);
        }
        vacate(mCount - n, n);
        mCount -= n;
        return n;
    }

    // Takes back the last `n` pushed elements; false, with nothing changed, for n 0 or n > count.
    bool removeLast(unsigned int n) {
        if (n == 0 || n > mCount) {
            return false;
        }
        vacate(mCount - n, n);
        mCount -= n;
        return true;
    }

    // Empties the ring and moves the head back to the first slot.
    void reset() {
        vacate(0, mCount);
        mCount = 0;
        mHead = 0;
    }

    unsigned int getCount() const { return mCount; }
    unsigned int getCapacity() const { return mCapacity; }
    bool isEmpty() const { return mCount == 0; }
    bool isFull() const { return mCount == mCapacity; }

  private:
    // Gives the slots of logical positions [from, from + n) a default value, so that an element
    // that left the ring (and whatever it holds, such as a counted pointer) is released now, not
    // when its slot is next overwritten. Nothing to do for trivially destructible elements.
    void vacate(unsigned int from, unsigned int n) {
        if constexpr (!std::is_trivially_destructible<T>::value) {
            for (unsigned int i = from; i < from + n; ++i) {
                slot(i) = T();
            }
        }
    }

    // Calls copyRun(physical index, elements before the run, run length) for each of the at most
    // two contiguous runs that logical positions [from, from + n) occupy: up to the end of the
    // block, then on from its start. `from` must be below the capacity when n > 0.
    template <class CopyRun>
    void forEachRun(unsigned int from, unsigned int n, CopyRun copyRun) const {
        if (n == 0) {
            return;
        }
        const uint32_t start = physicalIndex(from);
        const unsigned int room = mCapacity - start;
        if (n <= room) {
            copyRun(start, 0, n);
        } else {
            copyRun(start, 0, room);
            copyRun(0, room, n - room);
        }
    }

    // One contiguous run; memcpy for elements that may be copied as bytes, since the run never
    // overlaps the caller's array.
    static void copyElements(const T* from, unsigned int n, T* to) {
        if constexpr (std::is_trivially_copyable<T>::value) {
            std::memcpy(to, from, size_t(n) * sizeof(T));
        } else {
            std::copy(from, from + n, to);
        }
    }

    // Null for a capacity the signed head cannot index, besides the cases of allocateElements.
    static T* allocate(unsigned int capacity) {
        return capacity > INT32_MAX ? nullptr : detail::allocateElements<T>(capacity);
    }

    T& slot(unsigned int logical) { return mBuffer[physicalIndex(logical)]; }
    const T& slot(unsigned int logical) const { return mBuffer[physicalIndex(logical)]; }

    // The head only ever takes values of this mapping (or 0), so it lies in [0, capacity), and
    // callers keep `logical` in [0, capacity]: the sum stays below 2 x INT32_MAX, fits the
    // unsigned 32 bits, and one correction brings it into the block.
    uint32_t physicalIndex(unsigned int logical) const {
        const uint32_t j = static_cast<uint32_t>(mHead) + logical;
        return j >= mCapacity ? j - mCapacity : j;
    }

    T* mBuffer;
    uint32_t mCount;
    uint32_t mCapacity;
    int32_t mHead;
};

// A first-in first-out queue of fixed capacity: elements are pushed at the back and popped from
// the front; erasures shift the later elements down and leave the head in place, so positions
// held by the caller before the erased one stay valid. Each operation behaves as the `RingArray`
// operation of the same name.
//
// Not thread-safe and without a lock of its own: the owner holds its queue lock around every
// call. Not copyable.
template <class T>
class Queue {
  public:
    // A queue for `capacity` elements; capacity 0 when that is above INT32_MAX or the block
    // cannot be had, and such a queue refuses every push.
    explicit Queue(unsigned int capacity) : mRing(capacity) {}
    virtual ~Queue() = default;

    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // False, with nothing changed, when the queue is full.
    bool push(const T& value) { return mRing.push(value); }
    // All or nothing: false, with nothing written, when the n elements do not all fit or
    // `values` is null with n > 0.
    bool pushBlock(const T* values, unsigned int n) { return mRing.pushBlock(values, n); }
    // Removes the first n elements into `out`; false, with nothing changed, when fewer are there.
    bool popBlock(T* out, unsigned int n) { return mRing.popBlock(out, n); }
    // Copies n elements from position `offset` on into `out`, the queue unchanged; false, with
    // nothing copied, when fewer than offset + n are there or `out` is null with n > 0.
    bool peekBlock(T* out, unsigned int offset, unsigned int n) const {
        return mRing.peekBlock(out, offset, n);
    }
    // The front element; the queue must not be empty.
    T& peek() { return mRing.peek(); }
    const T& peek() const { return mRing.peek(); }
    // The element at position `i` from the front; i must be below `getCount()`.
    T& at(unsigned int i) { return mRing.at(i); }
    const T& at(unsigned int i) const { return mRing.at(i); }
    // Removes the front element, copying it to `out` when non-null; false when empty.
    bool pop(T* out = nullptr) { return mRing.pop(out); }
    // Removes the element at `k` by shifting the later ones down, head fixed; false for
    // k >= count.
    bool eraseAt(unsigned int k) { return mRing.eraseAt(k); }
    // Removes up to `n` elements from `k` on, head fixed; returns the number removed.
    unsigned int eraseRun(unsigned int k, unsigned int n) { return mRing.eraseRun(k, n); }
    // Takes back the last `n` pushes; false for n 0 or n > count.
    bool removeLast(unsigned int n) { return mRing.removeLast(n); }
    // Empties the queue and moves the head back to the first slot.
    void reset() { mRing.reset(); }

    unsigned int getCount() const { return mRing.getCount(); }
    unsigned int getCapacity() const { return mRing.getCapacity(); }
    bool isEmpty() const { return mRing.isEmpty(); }
    bool isFull() const { return mRing.isFull(); }

  private:
    RingArray<T> mRing;
};

extern template class RingArray<unsigned char>;
extern template class Queue<unsigned char>;

}  // namespace utl

#endif  // UTL_QUEUE_H
