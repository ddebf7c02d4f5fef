#include "UtlMemoryPool.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

#include "UtlKeepAlive.h"
#include "UtlLibraryLog.h"

namespace {

constexpr const char* kSource = "source/UtlMemoryPool";

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "the in-use table is a table of 32-bit flags");

constexpr uint32_t kFree = 0;
constexpr uint32_t kInUse = 1;

// The bytes of `count` elements of `elementSize` bytes, or 0 when they do not fit in a size_t
// (on the 32-bit target a size times a count easily exceeds the address space).
std::size_t bytesFor(uint64_t elementSize, uint64_t count) {
    const uint64_t bytes = elementSize * count;  // both below 2^32: no wrap in 64 bits
    return bytes <= SIZE_MAX ? static_cast<std::size_t>(bytes) : 0;
}

}  // namespace

namespace utl {

MemoryPool::MemoryPool(unsigned int blockSize, unsigned int blockCount, const char* name)
    : mName(name, 0, 0), mBlockSize(0), mBlockCount(0), mpUseFlags(nullptr), mpRegion(nullptr) {
    if (blockCount == 0) {
        UTL_LOG(LEVEL_ERROR, "utl::MemoryPool::MemoryPool(): Number of memory is 0!! (%s)",
                mName.c_str());
        return;
    }
    if (blockSize == 0) {
        UTL_LOG(LEVEL_ERROR, "utl::MemoryPool::MemoryPool(): Memory size is 0!! (%s)",
                mName.c_str());
        return;
    }
    const std::size_t regionBytes = bytesFor(blockSize, blockCount);
    const std::size_t tableBytes = bytesFor(sizeof(std::atomic<uint32_t>), blockCount);
    if (regionBytes != 0 && tableBytes != 0) {
        mpUseFlags = new (std::nothrow) std::atomic<uint32_t>[blockCount]();
        mpRegion = new (std::nothrow) unsigned char[regionBytes]();
    }
    if (mpUseFlags == nullptr || mpRegion == nullptr) {
        delete[] mpUseFlags;
        delete[] mpRegion;
        mpUseFlags = nullptr;
        mpRegion = nullptr;
        UTL_LOG(LEVEL_ERROR,
                "utl::MemoryPool::MemoryPool(): Out of memory for %u blocks of %u bytes!! (%s)",
                blockCount, blockSize, mName.c_str());
        return;
    }
    // Size and count are stored last: a nonzero size is what makes the pool usable.
    mBlockSize = blockSize;
    mBlockCount = blockCount;
}

MemoryPool::~MemoryPool() {
    for (uint32_t slot = 0; slot < mBlockCount; ++slot) {
        if (mpUseFlags[slot].load(std::memory_order_relaxed) == kInUse) {
            UTL_LOG(LEVEL_ERROR, "utl::MemoryPool::~MemoryPool(): Memory leak!! (%s) Slot=%lu",
                    mName.c_str(), static_cast<unsigned long>(slot));
        }
    }
    delete[] mpUseFlags;
    delete[] mpRegion;
}

void* MemoryPool::create() {
    if (mBlockSize == 0) {
        return nullptr;
    }
    uint32_t index = 0;
    {
        detail::BlockingCall call(kSource, "create", 76);
        index = takeFirstFree();
    }
    if (index == mBlockCount) {
        return nullptr;
    }
    return mpRegion + static_cast<std::size_t>(index) * mBlockSize;
}

void MemoryPool::release(void* block) {
    if (block == nullptr || mBlockSize == 0) {
        return;
    }
    // Addresses are compared rather than subtracted as signed numbers: on the 32-bit target a
    // block more than 2 GiB above the region would otherwise be reported as below it.
    const uintptr_t address = reinterpret_cast<uintptr_t>(block);
    const uintptr_t region = reinterpret_cast<uintptr_t>(mpRegion);
    if (address < region) {
        UTL_LOG(LEVEL_ERROR,
                "utl::MemoryPool::release(): Memory is management outside (under)!! (%s)",
                mName.c_str());
        return;
    }
    const uintptr_t offset = address - region;
    if (offset % mBlockSize != 0) {
        UTL_LOG(LEVEL_ERROR, "utl::MemoryPool::release(): alignment error!! (%s)", mName.c_str());
        return;
    }
    const uintptr_t index = offset / mBlockSize;
    if (index >= mBlockCount) {
        UTL_LOG(LEVEL_ERROR,
                "utl::MemoryPool::release(): Memory is management outside (over)!! (%s)",
                mName.c_str());
        return;
    }
    bool wasInUse = false;
    {
        detail::BlockingCall call(kSource, "release", 138);
        // Only the block's holder gives it back, so a look and a store suffice; release order
        // hands the holder's writes to the block's next taker.
        wasInUse = mpUseFlags[index].load(std::memory_order_relaxed) == kInUse;
        if (wasInUse) {
            mpUseFlags[index].store(kFree, std::memory_order_release);
        }
    }
    if (!wasInUse) {
        UTL_LOG(LEVEL_ERROR, "utl::MemoryPool::release(): Memory is not active!! (%s)",
                mName.c_str());
    }
}

// A flag that another taker claims between the look and the exchange is passed over, so the
// scan never hands a block to two holders and still returns the lowest block it could claim.
uint32_t MemoryPool::takeFirstFree() {
    for (uint32_t index = 0; index < mBlockCount; ++index) {
        uint32_t expected = kFree;
        if (mpUseFlags[index].load(std::memory_order_relaxed) == kFree &&
            mpUseFlags[index].compare_exchange_strong(expected, kInUse, std::memory_order_acquire,
                                                      std::memory_order_relaxed)) {
            return index;
        }
    }
    return mBlockCount;
}

}  // namespace utl
