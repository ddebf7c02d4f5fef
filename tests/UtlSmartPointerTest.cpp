#include "UtlSmartPointer.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "LogCapture.h"

// The shape of the thread handle's holder: a scalar pointee and a policy with a non-const call.
struct FreeThreadId {
    void operator()(unsigned long* id) { delete id; }
};
template class utl::CountingPointer<unsigned long, FreeThreadId>;

namespace {

std::atomic<int> gDestroyed{0};
struct Tracked {
    virtual ~Tracked() { ++gDestroyed; }
};
struct DerivedTracked : Tracked {};

std::vector<int> gDisposedHandles;
struct RecordHandle {
    void operator()(int handle) { gDisposedHandles.push_back(handle); }
};

TEST(SmartPointerTest, HoldersShareAndTheLastDeletes) {
    gDestroyed = 0;
    utl::SmartPointer<Tracked> a(new Tracked), b(new Tracked);
    Tracked* kept = a.get();
    b = utl::SmartPointer<Tracked>(a);
    a.release();  // b's old object is gone, a's is still held by b
    utl::SmartPointer<Tracked>& self = b;
    b = self;  // the only holder: the increment before the let-go keeps the object
    EXPECT_TRUE(gDestroyed == 1 && b.get() == kept) << gDestroyed;
    b.release();  // a counter not deleted with the object shows up as a leak
    EXPECT_EQ(gDestroyed, 2);

    utl::SmartPointer<Tracked> base;
    {
        utl::SmartPointer<DerivedTracked> derived(new DerivedTracked);
        base = derived;
        utl::SmartPointer<Tracked> alsoBase(derived);
    }
    base = utl::SmartPointer<Tracked>();  // deleted through the base holder
    EXPECT_EQ(gDestroyed, 3);
}

// -1 is held (with a counter) but never disposed of.
TEST(SmartHandleTest, TheLastHolderDisposesOfTheHandleOnce) {
    const int fd = open("/dev/null", O_RDONLY);
    utl::SmartHandle<utl::DestructCloseFile> first, second;
    first.set(fd);
    first.set(fd);  // the held handle again: no new counter, nothing closed
    second = first;
    first.set(0);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    second.set(0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    gDisposedHandles.clear();
    {
        utl::Counting<int, RecordHandle> handle, copy;
        handle.set(-1);
        handle.set(5);  // -1 let go by its last holder
        copy = handle;
    }
    EXPECT_EQ(gDisposedHandles, std::vector<int>{5});
}

TEST(SmartPointerTest, CountBelowZeroIsLoggedAndNothingIsDisposedOf) {
    gDestroyed = 0;
    const int fd = open("/dev/null", O_RDONLY);
    LogCapture capture;
    auto* object = new Tracked;
    utl::SmartPointer<Tracked> pointer(object);
    utl::RefCounter* pointerCounter = pointer.actGetRefCounter();
    pointerCounter->decrement();  // a share taken away behind the holder's back
    pointer.release();
    EXPECT_TRUE(capture.contains("lRefCount(-1) < 0 in CountingPointer::release()"));
    EXPECT_EQ(gDestroyed, 0);

    utl::SmartHandle<utl::DestructCloseFile> handle;
    handle.set(fd);
    utl::RefCounter* handleCounter = handle.actGetRefCounter();
    handleCounter->decrement();
    handle.set(0);
    EXPECT_TRUE(capture.contains("lRefCount(-1) < 0 in Counting::release()"));
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    delete pointerCounter;
    delete handleCounter;
    delete object;
    close(fd);
}

TEST(SmartPointerTest, ConcurrentCopiesDisposeOfTheObjectOnce) {
    gDestroyed = 0;
    std::vector<std::thread> threads;
    utl::SmartPointer<Tracked> original(new Tracked);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([held = original] {
            utl::SmartPointer<Tracked> other;
            for (int i = 0; i < 10000; ++i) {
                other = utl::SmartPointer<Tracked>(held);
            }
        });
    }
    original.release();  // the last holder may be any thread
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(gDestroyed, 1);
}

}  // namespace
