// Raw memory helpers and heap accounting of utl.
//
// The helpers are thin, null-tolerant wrappers over the C memory functions. Every helper does
// nothing (or returns false) when it is handed a null pointer, so callers that pass through
// optional buffers need no checks of their own. Sizes are byte counts.
//
// `Memory` is the process-wide heap-accounting object: allocation hooks outside the library tell
// it about each allocation and release, and it keeps the totals, their peaks and a table of live
// allocations, and complains on descriptor 0 about a full table or an unknown release.
//
//   unsigned char header[4];
//   utl::zeroMemory(header, sizeof header);
//   utl::copyMemory(header, "RIFF", 4);
//   bool isRiff = utl::compareMemory(header, "RIFF", 4);  // true
//
//   utl::Memory* memory = utl::Memory::get();
//   memory->updateManagement(utl::Memory::KIND_ALLOCATION, block, 64, 0, __LINE__);
//   memory->updateManagement(utl::Memory::KIND_RELEASE, block, 0, 0, __LINE__);
//
// The helpers are thread-safe as long as the callers own the memory they touch; `Memory` may be
// used from any thread.
#ifndef UTL_MEMORY_H
#define UTL_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "UtlSync.h"

namespace utl {

// Copies n bytes from src to dst; the ranges must not overlap. Does nothing if either is null.
// Inline, so that the short copies of message serialisation compile to plain moves.
inline void copyMemory(void* dst, const void* src, unsigned int n) {
    if (dst != nullptr && src != nullptr) {
        std::memcpy(dst, src, n);
    }
}

// Copies n bytes from src to dst; the ranges may overlap. Does nothing if either is null.
inline void moveMemory(void* dst, const void* src, unsigned int n) {
    if (dst != nullptr && src != nullptr) {
        std::memmove(dst, src, n);
    }
}

// Sets n bytes at dst to value. Does nothing if dst is null.
void fillMemory(void* dst, unsigned int n, unsigned char value);

// Sets n bytes at dst to 0. Does nothing if dst is null.
void zeroMemory(void* dst, unsigned int n);

// True when the first n bytes of a and b are equal (also for n 0); false if either is null.
bool compareMemory(const void* a, const void* b, unsigned int n);

namespace detail {

// Allocates n default-constructed elements with array-new, as the containers keep their storage.
// Null for n 0, for a count whose byte size (with the allocator's element-count header) would
// wrap, or when no memory is left.
template <class T>
T* allocateElements(unsigned int n) {
    constexpr std::size_t maxElements = (SIZE_MAX - 2 * sizeof(std::size_t)) / sizeof(T);
    if (n == 0 || n > maxElements) {
        return nullptr;
    }
    return new (std::nothrow) T[n];
}

// The one object of type T, made on first use in static storage and never destroyed, so that it
// still works while other static objects are being destroyed. Process-wide state of the library
// (the log table, the tick-counter ids) lives here; a static initialiser that calls this for T
// makes the object at load, before application code runs.
template <class T>
T& immortalInstance() {
    alignas(T) static unsigned char storage[sizeof(T)];
    static T* const instance = new (storage) T();
    return *instance;
}

}  // namespace detail

// The process-wide heap-accounting object.
//
// It keeps the heap totals of the process (bytes and blocks in use and their peaks), a table of
// live allocations (serial number, address, size, caller's thread, file id, line) with room for
// exactly one record, a file name table and a thread name table of one entry each. Every
// operation may be called from any thread; each takes the object's lock for the data it touches.
// Messages about faults are formatted and written after the lock has been released, so a slow
// descriptor holds up only the thread that reports.
//
// Life cycle of the one object; `destroy()` only while no other thread uses it:
//
//   state     | get()                              | destroy()             | other operations
//   ----------+------------------------------------+-----------------------+------------------
//   not made  | makes it; null when out of memory  | nothing               | need an object
//   made      | the same object                    | deletes it: not made  | as documented
//
// Reports are disabled in this build: `enabledHeapManagement()` is a constant false, and the
// operations behind it return at once without touching the tables:
//
//   operation                                    | returns
//   ---------------------------------------------+------------------------------------------
//   printUsedHeap, printUsedHeapDetail,          | true; no file is made, nothing is written
//   printMarkedHeapDetail                        |
//   getUsedHeapOfProcess                         | true; the output is left as it was
//   resetUsedHeap                                | false; the tables are kept
//   getFileId                                    | -1 (so the file name table stays empty)
//   printGlobalMemoryStatus                      | nothing to return; does nothing
//
// The bookkeeping (`updateManagement`, `mark`, `registerThreadName`) does not depend on the
// switch and always runs.
class Memory {
  public:
    // Kinds of `updateManagement`: 0 records an allocation, any other value a release.
    static constexpr int KIND_ALLOCATION = 0;
    static constexpr int KIND_RELEASE = 1;

    // Capacities of the tables and sizes of the text fields, terminator included.
    static constexpr uint32_t DETAIL_HEAP_CAPACITY = 1;
    static constexpr uint32_t FILE_NAME_CAPACITY = 1;
    static constexpr uint32_t THREAD_NAME_CAPACITY = 1;
    static constexpr unsigned int FILE_NAME_SIZE = 260;
    static constexpr unsigned int THREAD_NAME_SIZE = 128;
    // `printMessage` writes only texts shorter than this.
    static constexpr unsigned int MESSAGE_SIZE = 1024;

    // The heap totals of the process. The peaks are the highest values the totals have reached.
    struct ProcessHeapInfo {
        uint32_t mUseBytes;
        uint32_t mUseCount;
        uint32_t mMaxBytes;
        uint32_t mMaxCount;
    };

    // One live allocation. The address has the width of a pointer on the host (32 bits on the
    // ARM target) and is printed as "0x%08" PRIxPTR: eight digits there, as many as needed on a
    // 64-bit host.
    struct DetailHeapInfo {
        uint64_t mSerial;
        uintptr_t mAddress;
        uint32_t mUseBytes;
        int32_t mThreadId;
        uint32_t mFileId;
        int32_t mLine;
    };
    // The empty record that a table slot holds while no allocation occupies it.
    static constexpr DetailHeapInfo INITIAL_DETAIL_HEAP_INFO = {0, 0, 0, 0, 0, 0};

    // A source file name, indexed by its file id.
    struct FileNameInfo {
        char mName[FILE_NAME_SIZE];
    };

    // A thread's name, registered under its kernel thread id.
    struct ThreadNameInfo {
        int32_t mThreadId;
        char mName[THREAD_NAME_SIZE];
    };

    // The process-wide object, made on first use under the instantiation lock; null (logged)
    // when there is no memory for it.
    static Memory* get();
    // Deletes the process-wide object, if any; the next `get()` makes a fresh one. Pointers from
    // `get()` and names from `getFileName`/`getThreadName` are invalid afterwards.
    static void destroy();
    // Whether reports and file ids are enabled: always false in this build.
    static constexpr bool enabledHeapManagement() { return false; }

    // Records an allocation (`kind` 0) or a release (any other kind) of `address` by the calling
    // thread, made at `line` of file `fileId` (`bytes` counts only for an allocation).
    // An allocation takes a serial number and is added to the totals; when the table is full it
    // is refused, the totals stay, and "!!!! DetailHeapInfo management over on allocation" with a
    // line naming capacity, address, bytes, thread, line and file is written to descriptor 0.
    // A release of a recorded address removes its record and takes its bytes and one block off
    // the totals (neither goes below 0; the peaks stay); a release of any other non-null address
    // changes nothing and writes a four-line message framed by rows of '!' to descriptor 0.
    // A release of null is ignored.
    void updateManagement(int kind, void* address, unsigned int bytes, unsigned int fileId,
                          int line);
    // Marks the point from which a marked report would list allocations: the next serial number.
    void mark();
    // Registers the name of thread `id`. Ignored for an id of 0, a null or empty name, an id and
    // name already registered (names compared on their first 127 bytes) and while the table is
    // full: only the first registration is kept. A name of 128 bytes or more is refused
    // (logged), not cut.
    void registerThreadName(int id, const char* name);
    // Disabled: true, `out` untouched.
    bool getUsedHeapOfProcess(ProcessHeapInfo* out);
    // Disabled: false, nothing is reset.
    bool resetUsedHeap();
    // Disabled: -1.
    int getFileId(const char* path);
    // Disabled: true, no file is made and nothing is written.
    bool printUsedHeap(int level, const char* path);
    bool printUsedHeapDetail(int level, const char* path);
    bool printMarkedHeapDetail(int level, const char* path);
    // Disabled: does nothing.
    void printGlobalMemoryStatus(const char* path);
    // The name held for file id `id` (only id 0 can have one), else the empty text. The text
    // stays valid until the object is destroyed.
    const char* getFileName(unsigned int id);
    // The name registered for thread `id` (never for id 0), else the empty text. The text stays
    // valid until the object is destroyed.
    const char* getThreadName(int id);
    // Formats like printf and writes the text, without terminator, to `descriptor`. A text of
    // MESSAGE_SIZE bytes or more is not written at all, and descriptor -1 writes nothing. The
    // level is accepted for interface compatibility and ignored. Takes no lock; a failed write
    // is not reported (this is the reporting channel).
    void printMessage(int level, int descriptor, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

  private:
    friend class MemoryTestAccess;  // The unit tests read the tables through it.

    Memory();
    virtual ~Memory();

    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    // Empties all tables and zeroes the totals; next serial 1, no mark.
    void initializeManagement();
    // Stores `record` after the records with a lower or equal address; false when full.
    bool addDetailHeapInfo(const DetailHeapInfo& record) UTL_REQUIRES(mLock);
    // Removes the record of `address` and takes it off the totals; false when none is held.
    bool releaseDetailHeapInfo(uintptr_t address) UTL_REQUIRES(mLock);
    // `getFileName` for a caller that holds mLock.
    const char* fileNameLocked(unsigned int id) const UTL_REQUIRES(mLock);

    // Made by a static initialiser at load, before any application call.
    static SyncObject mInstantiationSyncObject;
    static Memory* mpTheObject UTL_GUARDED_BY(mInstantiationSyncObject);
    SyncObject mLock;
    ProcessHeapInfo mProcessHeapInfo UTL_GUARDED_BY(mLock);
    DetailHeapInfo mDetailHeapInfo[DETAIL_HEAP_CAPACITY] UTL_GUARDED_BY(mLock);
    uint32_t mDetailHeapCount UTL_GUARDED_BY(mLock);
    uint64_t mNextSerial UTL_GUARDED_BY(mLock);
    uint64_t mMarkedSerial UTL_GUARDED_BY(mLock);
    FileNameInfo mFileNameInfo[FILE_NAME_CAPACITY] UTL_GUARDED_BY(mLock);
    uint32_t mFileNameCount UTL_GUARDED_BY(mLock);
    ThreadNameInfo mThreadNameInfo[THREAD_NAME_CAPACITY] UTL_GUARDED_BY(mLock);
    uint32_t mThreadNameCount UTL_GUARDED_BY(mLock);
};

}  // namespace utl

#endif  // UTL_MEMORY_H
