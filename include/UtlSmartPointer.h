// Reference-counted pointers and handles of utl.
//
// Copies of a holder share one object (`CountingPointer`, `SmartPointer`) or one OS handle
// (`Counting`, `SmartHandle`) through a separately allocated counter. The last holder to let go
// disposes of what they shared through the holder's disposal policy: `DestructPointer` deletes an
// object, `DestructCloseFile` syncs and closes a descriptor. Use them where several owners on
// several threads share an object or a descriptor and none of them knows which one finishes
// last.
//
//   utl::SmartPointer<utl::Event> started(new utl::Event(0, 0));  // counter created, count 1
//   utl::SmartPointer<utl::Event> seen = started;                 // count 2
//   started.release();                                            // count 1, the event lives
//   seen->waitToOn(0);
//   utl::SmartHandle<utl::DestructCloseFile> fd;
//   fd.set(open("/tmp/x", O_RDONLY));                             // closed by the last holder
//
// Thread-safety: the holders' counts may change from any number of threads at once (each change
// is one atomic step on the counter, and only the holder whose own decrement left 0 disposes). One
// holder object itself is not thread-safe: a thread must not assign to a holder while another
// thread reads or copies that same holder. The held object is not protected by the counter.
//
// Out of memory: a holder that is handed a pointer or a handle takes ownership of it. When it
// cannot allocate the counter it logs "new RefCounter failed in <holder>" at error level under
// type -2, disposes of what it was handed at once (so that nothing leaks and nothing is disposed
// of twice) and stays empty; the caller sees `isNull()` or a handle of 0.
#ifndef UTL_SMART_POINTER_H
#define UTL_SMART_POINTER_H

#include <sys/single_threaded.h>

#include <atomic>
#include <cstdint>

// The holders need no lock of their own any more; the lock family stays included because code
// that includes this header has always found events and locks with it (as the example above).
#include "UtlSync.h"

namespace utl {

// The count shared by the copies of one holder. Holders allocate it on the heap; the first one
// raises the count from 0 to 1. Every operation may be called from any thread. Not copyable.
//
// The count is one atomic number rather than a number behind a lock: each change is a single
// indivisible read-modify-write that returns the value it left, so changes made at the same time
// yield the same values, and the holders the same disposal decisions, as changes made one after
// the other under a lock would. A decrement orders the holder's earlier use of the shared object
// before the disposal that the decrement reaching 0 starts.
class RefCounter final {
  public:
    RefCounter() : mCount(0) {}
    virtual ~RefCounter();

    RefCounter(const RefCounter&) = delete;
    RefCounter& operator=(const RefCounter&) = delete;

    // Adds one and returns the count it left.
    int32_t increment() {
        if (__libc_single_threaded) {
            return changeAlone(+1);
        }
        // A share is made from a share that is still held (or on a counter that no other thread
        // can see yet), so the object cannot go meanwhile: the increment needs no ordering.
        return mCount.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    // Subtracts one and returns the count it left; may go below 0.
    int32_t decrement() {
        if (__libc_single_threaded) {
            return changeAlone(-1);
        }
        return mCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    }
    int32_t getCount() const { return mCount.load(std::memory_order_acquire); }

  private:
    // While the process has only ever had one thread, nothing can race with the change and a
    // plain load and store replace the locked instruction (the C library clears the flag for good
    // before a second thread starts, so the creation of that thread orders every earlier change
    // before its first look).
    int32_t changeAlone(int32_t delta) {
        const int32_t count = mCount.load(std::memory_order_relaxed) + delta;
        mCount.store(count, std::memory_order_relaxed);
        return count;
    }

    std::atomic<int32_t> mCount;
};

// Base of every holder: gives access to the counter that a holder shares, also across holders
// of different types. Thread-safety as the holder that implements it.
class GetRefCounterInterface {
  public:
    virtual ~GetRefCounterInterface() = default;

    // The counter this holder shares; null when it holds nothing.
    virtual RefCounter* actGetRefCounter() const = 0;

  protected:
    GetRefCounterInterface() = default;
    GetRefCounterInterface(const GetRefCounterInterface&) = default;
    GetRefCounterInterface& operator=(const GetRefCounterInterface&) = default;

    // The counter of `holder` (its `actGetRefCounter()`): how a holder reaches the counter of a
    // holder of another type.
    RefCounter* getRefCounter(const GetRefCounterInterface& holder) const;
};

namespace detail {

// A new counter with count 1; null, after logging "new RefCounter failed in <where>", when it
// cannot be allocated.
RefCounter* newRefCounter(const char* where);

// Logs "lRefCount(<count>) < 0 in <holderClass>::release()" at error level under type -2.
void logNegativeCount(int32_t count, const char* holderClass);

// Takes one holder's share of `counter` away: decrements the count. True when the count reached
// 0; the caller then disposes of what it held and deletes the counter. A count that fell below 0
// is logged (logNegativeCount) and answered with false: nothing is disposed of. The decision
// rests on the value that this holder's own decrement left, so of several holders letting go at
// once exactly one sees 0. Inline, with only the log out of line, because copying and dropping
// holders is the hot path.
inline bool letGo(RefCounter& counter, const char* holderClass) {
    const int32_t count = counter.decrement();
    if (count < 0) {
        logNegativeCount(count, holderClass);
    }
    return count == 0;
}

}  // namespace detail

// Disposal policy that deletes an object, through its virtual destructor when it has one.
template <class T>
struct DestructPointer {
    virtual ~DestructPointer() = default;
    void operator()(T* object) const { delete object; }
};

// Disposal policy for file descriptors: `fsync`, then `close`; a descriptor of 0 or below is left
// alone. The results of both calls are not examined.
struct DestructCloseFile {
    virtual ~DestructCloseFile() = default;
    void operator()(int fd) const;
};

// Shares ownership of the object at a `T*` among its copies. The last copy to let go hands the
// pointer to a default-constructed `Destruct`, whose `operator()(T*)` disposes of it (it need not
// be const). An empty holder (`isNull()`) has neither object nor counter.
//
// A holder may be copied from a holder of another type whose `U*` converts to `T*` (a derived
// class, say); the copies then share one counter, and whichever lets go last disposes with its
// own policy and pointer type, so both must be able to dispose of the object (DestructPointer of
// a base with a virtual destructor is).
//
// Thread-safety: see the file comment; copies may be made and dropped on any threads.
template <class T, class Destruct = DestructPointer<T>>
class CountingPointer : public GetRefCounterInterface {
  public:
    CountingPointer() : mObject(nullptr), mCounter(nullptr) {}

    // Takes ownership of `object` with a new counter of count 1; a null pointer holds nothing.
    // When the counter cannot be allocated, `object` is disposed of at once and the holder stays
    // empty (logged, see the file comment).
    explicit CountingPointer(T* object) : mObject(object), mCounter(nullptr) {
        if (object != nullptr) {
            mCounter = detail::newRefCounter("CountingPointer::CountingPointer()");
            if (mCounter == nullptr) {
                Destruct destruct;
                destruct(object);
                mObject = nullptr;
            }
        }
    }

    // Shares the object of `other`.
    CountingPointer(const CountingPointer& other)
        : GetRefCounterInterface(other), mObject(other.mObject), mCounter(other.mCounter) {
        if (mCounter != nullptr) {
            mCounter->increment();
        }
    }
    template <class U, class OtherDestruct>
    CountingPointer(const CountingPointer<U, OtherDestruct>& other)
        : mObject(other.get()), mCounter(getRefCounter(other)) {
        if (mCounter != nullptr) {
            mCounter->increment();
        }
    }

    // Lets go of the object held so far and shares the object of `other` instead. Assigning a
    // holder to itself, or to a copy of itself, keeps the object.
    CountingPointer& operator=(const CountingPointer& other) {
        share(other.mObject, other.mCounter);
        return *this;
    }
    template <class U, class OtherDestruct>
    CountingPointer& operator=(const CountingPointer<U, OtherDestruct>& other) {
        share(other.get(), getRefCounter(other));
        return *this;
    }

    ~CountingPointer() override { release(); }

    // Lets go of the object: when this was the last holder it is disposed of and the counter
    // deleted. Afterwards the holder is empty.
    void release() {
        if (mCounter != nullptr && detail::letGo(*mCounter, "CountingPointer")) {
            if (mObject != nullptr) {
                Destruct destruct;
                destruct(mObject);
            }
            delete mCounter;
        }
        mObject = nullptr;
        mCounter = nullptr;
    }

    T* get() const { return mObject; }
    T* operator->() const { return mObject; }
    T& operator*() const { return *mObject; }
    bool isNull() const { return mObject == nullptr; }

    RefCounter* actGetRefCounter() const final { return mCounter; }

  private:
    // The counter is raised before the old object is let go, so that sharing what this holder
    // already holds never lets the count reach 0.
    void share(T* object, RefCounter* counter) {
        if (counter != nullptr) {
            counter->increment();
        }
        release();
        mObject = object;
        mCounter = counter;
    }

    T* mObject;
    RefCounter* mCounter;
};

// `CountingPointer` that deletes its object: the holder for objects made with `new`.
template <class T>
using SmartPointer = CountingPointer<T, DestructPointer<T>>;

// Shares ownership of a handle value (a file descriptor, say) among its copies. The last copy to
// let go hands the handle to a default-constructed `Destruct`, whose `operator()(Handle)`
// disposes of it; the values 0 and -1 are never disposed of. Handle 0 stands for an empty holder
// and has no counter (although 0 is a valid descriptor number); -1 is held with a counter like
// any other value. Copies share only with holders of the same type.
//
// Thread-safety: see the file comment; copies may be made and dropped on any threads.
template <class Handle, class Destruct>
class Counting : public GetRefCounterInterface {
  public:
    Counting() : mHandle(0), mCounter(nullptr) {}

    // Shares the handle of `other`.
    Counting(const Counting& other)
        : GetRefCounterInterface(other), mHandle(other.mHandle), mCounter(other.mCounter) {
        if (mCounter != nullptr) {
            mCounter->increment();
        }
    }

    // Lets go of the handle held so far and shares the handle of `other` instead. Assigning a
    // holder to itself, or to a copy of itself, keeps the handle.
    Counting& operator=(const Counting& other) {
        Handle handle = other.mHandle;
        RefCounter* counter = other.mCounter;
        if (counter != nullptr) {
            counter->increment();
        }
        release();
        mHandle = handle;
        mCounter = counter;
        return *this;
    }

    ~Counting() override { release(); }

    // Holds `handle` alone, with a new counter, after letting go of the old handle (disposed of
    // when this was its last holder). Nothing happens when `handle` is the one already held, and
    // `set(0)` only lets go. True when `handle` is held; false when its counter cannot be
    // allocated: `handle` is then disposed of at once and the holder is left with 0 (logged, see
    // the file comment).
    bool set(Handle handle) {
        if (handle == mHandle) {
            return true;
        }
        RefCounter* counter = nullptr;
        bool held = true;
        if (handle != Handle(0)) {
            counter = detail::newRefCounter("Counting::set()");
            if (counter == nullptr) {
                dispose(handle);
                handle = Handle(0);
                held = false;
            }
        }
        release();
        mHandle = handle;
        mCounter = counter;
        return held;
    }

    // Lets go of the handle: when this was the last holder it is disposed of and the counter
    // deleted. Afterwards the holder holds 0.
    void release() {
        if (mCounter != nullptr && detail::letGo(*mCounter, "Counting")) {
            dispose(mHandle);
            delete mCounter;
        }
        mHandle = Handle(0);
        mCounter = nullptr;
    }

    Handle get() const { return mHandle; }

    RefCounter* actGetRefCounter() const final { return mCounter; }

  private:
    static void dispose(Handle handle) {
        if (handle != Handle(0) && handle != Handle(-1)) {
            Destruct destruct;
            destruct(handle);
        }
    }

    Handle mHandle;
    RefCounter* mCounter;
};

// `Counting` of an `int` handle: the holder for file descriptors
// (`SmartHandle<DestructCloseFile>`).
template <class Destruct>
using SmartHandle = Counting<int, Destruct>;

}  // namespace utl

#endif  // UTL_SMART_POINTER_H
