// Fixed-size memory blocks of utl.
//
// `MemoryPool` hands out equal-sized blocks from one region allocated when the pool is made, so
// that code which needs many short-lived buffers of one size makes no heap calls afterwards.
// Blocks are taken first-fit (always the lowest free one), are not cleared between users, and
// come back through `release`, which refuses and logs anything that is not a block in use.
//
//   utl::MemoryPool pool(64, 16, "frames");  // 16 blocks of 64 bytes
//   void* frame = pool.create();             // null when all 16 are in use
//   if (frame != nullptr) {
//       // ... fill and use the 64 bytes ...
//       pool.release(frame);
//   }
#ifndef UTL_MEMORY_POOL_H
#define UTL_MEMORY_POOL_H

#include <atomic>
#include <cstdint>

#include "UtlString.h"

namespace utl {

// A pool of `blockCount` blocks of `blockSize` bytes each, in one region.
//
// `create` and `release` may be called from any thread, concurrently, and never wait for each
// other: `create` claims a block by one atomic compare-and-exchange of its flag (free to in use),
// so a block never has two holders, and `release`, made by the block's one holder, stores the
// flag back; no lock is needed. Both still report to the thread watchdog around that step. Two
// threads releasing the same block at the same moment (a double release made concurrently) may
// both pass unreported. The pool must outlive every call on it: destruction is for the one
// remaining user. Not copyable.
//
// Every message is logged as one error line under the library's log type and quotes the pool's
// name (the empty text for a null name) in parentheses:
//
//   "utl::MemoryPool::MemoryPool(): Number of memory is 0!! (name)"     block count 0
//   "utl::MemoryPool::MemoryPool(): Memory size is 0!! (name)"          block size 0 (count not 0)
//   "utl::MemoryPool::MemoryPool(): Out of memory for <count> blocks of <size> bytes!! (name)"
//   "utl::MemoryPool::release(): Memory is management outside (under)!! (name)"
//   "utl::MemoryPool::release(): alignment error!! (name)"
//   "utl::MemoryPool::release(): Memory is management outside (over)!! (name)"
//   "utl::MemoryPool::release(): Memory is not active!! (name)"          released twice
//   "utl::MemoryPool::~MemoryPool(): Memory leak!! (name) Slot=<index>" one per block in use
//
// A pool whose construction failed (a count or size of 0, or no memory for its region or table)
// is unusable: `create` returns null and `release` ignores everything, silently.
class MemoryPool {
  public:
    // Allocates the region and the in-use table, both zeroed. A count of 0 is reported before a
    // size of 0, so a (0, 0) pool logs only the count. When the region (size x count bytes,
    // refused if that does not fit the address space) or the table cannot be allocated, the
    // out-of-memory line is logged and the pool is unusable, as with a count of 0.
    MemoryPool(unsigned int blockSize, unsigned int blockCount, const char* name);
    // Logs one leak line for each block still in use, in ascending slot order, then frees all.
    virtual ~MemoryPool();

    MemoryPool(const MemoryPool&) = delete;
    MemoryPool& operator=(const MemoryPool&) = delete;

    // The lowest free block, now in use; its bytes are what its last user left (zero at first).
    // Null when every block is in use or the pool is unusable.
    void* create();
    // Gives `block` back. A pointer below the region, not on a block boundary or past the last
    // block is logged (in that order of checks) and changes nothing; so does a block that is not
    // in use (a double release). Null is ignored.
    void release(void* block);

  private:
    // The index of the lowest free block, now marked in use; mBlockCount when none is free.
    uint32_t takeFirstFree();

    BasicString<char> mName;
    uint32_t mBlockSize;                // 0 while the pool is unusable.
    uint32_t mBlockCount;               // 0 while the pool is unusable.
    std::atomic<uint32_t>* mpUseFlags;  // mBlockCount flags, 0 free, 1 in use.
    unsigned char* mpRegion;            // Block i starts at mpRegion + i * mBlockSize.
};

}  // namespace utl

#endif  // UTL_MEMORY_POOL_H
