#include "UtlSmartPointer.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "LogCapture.h"

// The shape of the thread handle's holder: a scalar pointee and a policy with a non-const call.
struct FreeThreadId {
    void operator()(unsigned long* id) { delete id; }
};
template class utl::CountingPointer<unsigned long, FreeThreadId>;

namespace {

// Counts its destructions in a counter that the test owns.
class Tracked {
  public:
    explicit Tracked(std::atomic<int>* destroyed) : mDestroyed(destroyed) {}
    virtual ~Tracked() { ++*mDestroyed; }

  private:
    std::atomic<int>* mDestroyed;
};

struct DerivedTracked : Tracked {
    using Tracked::Tracked;
};

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

// A pipe whose ends are closed at the end of the test unless a holder closed them before.
struct Pipe {
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        for (int fd : fds) {
            if (isOpen(fd)) {
                close(fd);
            }
        }
    }
    int fds[2] = {-1, -1};
};

// Records the handles it is asked to dispose of.
std::vector<int> gDisposedHandles;
struct RecordHandle {
    void operator()(int handle) { gDisposedHandles.push_back(handle); }
};

TEST(SmartPointerTest, LastOfTwoHoldersDeletesTheObject) {
    std::atomic<int> destroyed{0};
    utl::SmartPointer<Tracked>* second = nullptr;
    {
        utl::SmartPointer<Tracked> first(new Tracked(&destroyed));
        second = new utl::SmartPointer<Tracked>(first);
    }
    EXPECT_EQ(destroyed, 0);
    EXPECT_FALSE(second->isNull());
    delete second;  // a counter that is not deleted with the object shows up as a leak
    EXPECT_EQ(destroyed, 1);
}

TEST(SmartPointerTest, AssignmentSharesAndLetsGoOfTheOld) {
    std::atomic<int> destroyed{0};
    utl::SmartPointer<Tracked> a(new Tracked(&destroyed));
    utl::SmartPointer<Tracked> b(new Tracked(&destroyed));
    Tracked* kept = a.get();

    b = a;
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(b.get(), kept);
    b.release();

    utl::SmartPointer<Tracked>& self = a;
    a = self;  // the only holder: the increment before the let-go keeps the object
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(a.get(), kept);

    utl::SmartPointer<Tracked> base;
    {
        utl::SmartPointer<DerivedTracked> derived(new DerivedTracked(&destroyed));
        base = derived;
        utl::SmartPointer<Tracked> alsoBase(derived);
    }
    EXPECT_EQ(destroyed, 1);
    base = utl::SmartPointer<Tracked>();  // deleted through the base holder
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(base.isNull());
}

TEST(SmartHandleTest, SetZeroOnTheLastHolderClosesTheDescriptor) {
    Pipe p;
    utl::SmartHandle<utl::DestructCloseFile> first;
    first.set(p.fds[0]);
    utl::SmartHandle<utl::DestructCloseFile> second(first);

    first.set(0);
    EXPECT_TRUE(isOpen(p.fds[0]));
    EXPECT_EQ(first.actGetRefCounter(), nullptr);

    second.set(0);
    EXPECT_FALSE(isOpen(p.fds[0]));
}

TEST(SmartHandleTest, SettingTheHeldHandleAgainChangesNothing) {
    Pipe p;
    utl::SmartHandle<utl::DestructCloseFile> handle;
    handle.set(p.fds[1]);
    handle.set(p.fds[1]);
    EXPECT_TRUE(isOpen(p.fds[1]));
    handle.release();
    EXPECT_FALSE(isOpen(p.fds[1]));
}

TEST(SmartHandleTest, MinusOneIsHeldButNeverDisposedOf) {
    gDisposedHandles.clear();
    {
        utl::Counting<int, RecordHandle> handle;
        handle.set(-1);
        EXPECT_NE(handle.actGetRefCounter(), nullptr);
        handle.set(5);  // -1 let go by its last holder
        utl::Counting<int, RecordHandle> copy;
        copy = handle;
    }
    EXPECT_EQ(gDisposedHandles, std::vector<int>{5});
}

TEST(SmartPointerTest, CountBelowZeroIsLoggedAndNothingIsDisposedOf) {
    std::atomic<int> destroyed{0};
    Pipe p;
    LogCapture capture;

    auto* object = new Tracked(&destroyed);
    utl::SmartPointer<Tracked> pointer(object);
    utl::RefCounter* pointerCounter = pointer.actGetRefCounter();
    pointerCounter->decrement();  // a share taken away behind the holder's back
    pointer.release();
    EXPECT_TRUE(capture.contains("lRefCount(-1) < 0 in CountingPointer::release()"));
    EXPECT_EQ(destroyed, 0);
    EXPECT_TRUE(pointer.isNull());

    utl::SmartHandle<utl::DestructCloseFile> handle;
    handle.set(p.fds[0]);
    utl::RefCounter* handleCounter = handle.actGetRefCounter();
    handleCounter->decrement();
    handleCounter->decrement();
    handle.set(0);
    EXPECT_TRUE(capture.contains("lRefCount(-2) < 0 in Counting::release()"));
    EXPECT_TRUE(isOpen(p.fds[0]));

    delete pointerCounter;
    delete handleCounter;
    delete object;
}

TEST(SmartPointerTest, ConcurrentCopiesDisposeOfTheObjectOnce) {
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 10000;
    std::atomic<int> destroyed{0};
    std::vector<std::thread> threads;
    {
        utl::SmartPointer<Tracked> original(new Tracked(&destroyed));
        for (int t = 0; t < THREADS; ++t) {
            threads.emplace_back([held = original]() mutable {
                utl::SmartPointer<Tracked> other;
                for (int i = 0; i < ROUNDS; ++i) {
                    utl::SmartPointer<Tracked> copy(held);
                    other = copy;
                }
                held.release();
            });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
