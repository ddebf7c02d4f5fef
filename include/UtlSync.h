// Locks of utl.
//
// `SyncObject` is the library's one lock: a recursive mutex, so a thread that holds it may call
// code that takes it again. `SyncGuard` holds a lock for the length of a scope.
//
//   utl::SyncObject lock;
//   {
//       utl::SyncGuard guard(lock);  // locked here
//       // ... touch the shared state ...
//   }                                // unlocked here
#ifndef UTL_SYNC_H
#define UTL_SYNC_H

#include <pthread.h>

namespace utl {

// Something that can be locked and unlocked. The operations are const so that a lock can be
// taken on a const object.
class SyncObjectBase {
  public:
    virtual ~SyncObjectBase() = default;
    // Blocks until this thread holds the lock.
    virtual void lock() const = 0;
    // Takes the lock if it is free (or already held by this thread); true when it was taken.
    virtual bool tryLock() const = 0;
    // Releases one hold of the lock.
    virtual void unlock() const = 0;
};

// A recursive POSIX mutex: the thread that holds it may lock it again and must unlock it as
// often. Any thread may use it; not copyable.
class SyncObject : public SyncObjectBase {
  public:
    SyncObject();
    ~SyncObject() override;

    SyncObject(const SyncObject&) = delete;
    SyncObject& operator=(const SyncObject&) = delete;

    void lock() const override;
    bool tryLock() const override;
    void unlock() const override;

  private:
    mutable pthread_mutex_t mMutex;
};

// Locks a `SyncObjectBase` on construction and unlocks it on destruction.
class SyncGuard {
  public:
    explicit SyncGuard(const SyncObjectBase& lock) : mLock(lock) { mLock.lock(); }
    virtual ~SyncGuard() { mLock.unlock(); }

    SyncGuard(const SyncGuard&) = delete;
    SyncGuard& operator=(const SyncGuard&) = delete;

  private:
    const SyncObjectBase& mLock;
};

}  // namespace utl

#endif  // UTL_SYNC_H
