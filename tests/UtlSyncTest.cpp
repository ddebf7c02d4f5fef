#include "UtlSync.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

bool tryLockFromAnotherThread(const utl::SyncObject& lock) {
    bool taken = false;
    std::thread other([&] {
        taken = lock.tryLock();
        if (taken) {
            lock.unlock();
        }
    });
    other.join();
    return taken;
}

TEST(SyncObjectTest, OwnerMayRelockAndMustUnlockAsOften) {
    utl::SyncObject lock;
    {
        utl::SyncGuard outer(lock);
        utl::SyncGuard inner(lock);
        EXPECT_TRUE(lock.tryLock());
        lock.unlock();
        EXPECT_FALSE(tryLockFromAnotherThread(lock));
    }
    EXPECT_TRUE(tryLockFromAnotherThread(lock));
}

}  // namespace
