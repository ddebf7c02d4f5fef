#include "UtlMemory.h"

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "UtlLibraryLog.h"
#include "UtlString.h"
#include "UtlThreadManager.h"

namespace {

constexpr unsigned int kCopyFailed = ~0u;

// The frame above and below the message about an unknown release.
constexpr char kFrameRow[] = "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!";
static_assert(sizeof kFrameRow == 67 + 1, "the frame is a row of 67 '!'");

// Index of the first of the `count` records (ascending by address) whose address is above
// `address`, or with `orEqual` at or above it; `count` when there is none.
uint32_t firstAbove(const utl::Memory::DetailHeapInfo* records, uint32_t count, uintptr_t address,
                    bool orEqual) {
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const uintptr_t probe = records[middle].mAddress;
        if (probe < address || (!orEqual && probe == address)) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

// Writes all `length` bytes, going on after a partial write or an interrupting signal.
void writeAll(int descriptor, const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(descriptor, text, length);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        text += written;
        length -= static_cast<std::size_t>(written);
    }
}

}  // namespace

namespace utl {

void fillMemory(void* dst, unsigned int n, unsigned char value) {
    if (dst != nullptr) {
        std::memset(dst, value, n);
    }
}

void zeroMemory(void* dst, unsigned int n) {
    fillMemory(dst, n, 0);
}

bool compareMemory(const void* a, const void* b, unsigned int n) {
    return a != nullptr && b != nullptr && std::memcmp(a, b, n) == 0;
}

// static
SyncObject Memory::mInstantiationSyncObject;
// static
Memory* Memory::mpTheObject = nullptr;

// static
Memory* Memory::get() {
    Memory* object = nullptr;
    {
        SyncGuard guard(mInstantiationSyncObject);
        if (mpTheObject == nullptr) {
            mpTheObject = new (std::nothrow) Memory();
        }
        object = mpTheObject;
    }
    if (object == nullptr) {
        UTL_LOG(LEVEL_ERROR, "Memory::get() Failed. No memory for the object.");
    }
    return object;
}

// static
void Memory::destroy() {
    SyncGuard guard(mInstantiationSyncObject);
    delete mpTheObject;
    mpTheObject = nullptr;
}

Memory::Memory()
    : mLock(),
      mProcessHeapInfo(),
      mDetailHeapInfo(),
      mDetailHeapCount(0),
      mNextSerial(1),
      mMarkedSerial(0),
      mFileNameInfo(),
      mFileNameCount(0),
      mThreadNameInfo(),
      mThreadNameCount(0) {
    initializeManagement();
}

Memory::~Memory() = default;

void Memory::updateManagement(int kind, void* address, unsigned int bytes, unsigned int fileId,
                              int line) {
    if (kind != KIND_ALLOCATION && address == nullptr) {
        return;
    }
    const int32_t threadId = ThreadManager::getCallerId();
    const uintptr_t addressValue = reinterpret_cast<uintptr_t>(address);
    // What the message needs is copied under the lock and written after it is released.
    char fileName[FILE_NAME_SIZE];
    {
        SyncGuard guard(mLock);
        if (kind == KIND_ALLOCATION) {
            const DetailHeapInfo record = {mNextSerial, addressValue, bytes,
                                           threadId,    fileId,       line};
            if (addDetailHeapInfo(record)) {
                return;
            }
        } else if (releaseDetailHeapInfo(addressValue)) {
            return;
        }
        copyStrBase(fileName, sizeof fileName, fileNameLocked(fileId), ~0u, 0);
    }
    // Each message goes out in one write, so that the lines of two threads do not interleave.
    if (kind == KIND_ALLOCATION) {
        printMessage(0, 0,
                     "!!!! DetailHeapInfo management over on allocation\n"
                     "MaxCount:%" PRIu32 ", Address:0x%08" PRIxPTR ", UseBytes:%10" PRIu32
                     ", ThreadId:%10" PRId32 ", Line:%8" PRId32 ", File:%s, \n",
                     DETAIL_HEAP_CAPACITY, addressValue, static_cast<uint32_t>(bytes), threadId,
                     static_cast<int32_t>(line), fileName);
    } else {
        printMessage(0, 0,
                     "%s\n"
                     "!!!! DetailHeapInfo release address is not in under management\n"
                     "Address:0x%08" PRIxPTR ", ThreadId:%10" PRId32 ", Line:%8" PRId32
                     ", File:%s, \n"
                     "%s\n",
                     kFrameRow, addressValue, threadId, static_cast<int32_t>(line), fileName,
                     kFrameRow);
    }
}

void Memory::mark() {
    SyncGuard guard(mLock);
    mMarkedSerial = mNextSerial;
}

void Memory::registerThreadName(int id, const char* name) {
    if (id == 0 || name == nullptr || name[0] == '\0') {
        return;
    }
    {
        SyncGuard guard(mLock);
        for (uint32_t i = 0; i < mThreadNameCount; ++i) {
            if (mThreadNameInfo[i].mThreadId == id &&
                std::strncmp(mThreadNameInfo[i].mName, name, THREAD_NAME_SIZE - 1) == 0) {
                return;
            }
        }
        if (mThreadNameCount == THREAD_NAME_CAPACITY) {
            return;
        }
        ThreadNameInfo& entry = mThreadNameInfo[mThreadNameCount];
        if (copyStrBase(entry.mName, THREAD_NAME_SIZE, name, ~0u, 0) != kCopyFailed) {
            entry.mThreadId = id;
            ++mThreadNameCount;
            return;
        }
    }
    UTL_LOG(LEVEL_WARNING,
            "Memory::registerThreadName() Failed. Name of %zu bytes too long. ThreadId:[%d]",
            std::strlen(name), id);
}

bool Memory::getUsedHeapOfProcess(ProcessHeapInfo* /*out*/) {
    return true;
}

bool Memory::resetUsedHeap() {
    return false;
}

int Memory::getFileId(const char* /*path*/) {
    return -1;
}

bool Memory::printUsedHeap(int /*level*/, const char* /*path*/) {
    return true;
}

bool Memory::printUsedHeapDetail(int /*level*/, const char* /*path*/) {
    return true;
}

bool Memory::printMarkedHeapDetail(int /*level*/, const char* /*path*/) {
    return true;
}

void Memory::printGlobalMemoryStatus(const char* /*path*/) {}

const char* Memory::getFileName(unsigned int id) {
    SyncGuard guard(mLock);
    return fileNameLocked(id);
}

const char* Memory::getThreadName(int id) {
    SyncGuard guard(mLock);
    if (id != 0) {
        for (uint32_t i = 0; i < mThreadNameCount; ++i) {
            if (mThreadNameInfo[i].mThreadId == id) {
                return mThreadNameInfo[i].mName;
            }
        }
    }
    return "";
}

void Memory::printMessage(int /*level*/, int descriptor, const char* format, ...) {
    if (descriptor == -1 || format == nullptr) {
        return;
    }
    // A buffer of the caller's own, so that messages need no lock.
    char text[MESSAGE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<unsigned int>(length) >= MESSAGE_SIZE) {
        return;
    }
    writeAll(descriptor, text, static_cast<std::size_t>(length));
}

void Memory::initializeManagement() {
    SyncGuard guard(mLock);
    mProcessHeapInfo = ProcessHeapInfo();
    for (DetailHeapInfo& record : mDetailHeapInfo) {
        record = INITIAL_DETAIL_HEAP_INFO;
    }
    mDetailHeapCount = 0;
    mNextSerial = 1;
    mMarkedSerial = 0;
    for (FileNameInfo& entry : mFileNameInfo) {
        entry = FileNameInfo();
    }
    mFileNameCount = 0;
    for (ThreadNameInfo& entry : mThreadNameInfo) {
        entry = ThreadNameInfo();
    }
    mThreadNameCount = 0;
}

bool Memory::addDetailHeapInfo(const DetailHeapInfo& record) {
    if (mDetailHeapCount == DETAIL_HEAP_CAPACITY) {
        return false;
    }
    const uint32_t position =
        firstAbove(mDetailHeapInfo, mDetailHeapCount, record.mAddress, /*orEqual=*/false);
    for (uint32_t i = mDetailHeapCount; i > position; --i) {
        mDetailHeapInfo[i] = mDetailHeapInfo[i - 1];
    }
    mDetailHeapInfo[position] = record;
    ++mDetailHeapCount;
    ++mNextSerial;

    ProcessHeapInfo& totals = mProcessHeapInfo;
    totals.mUseBytes += record.mUseBytes;
    totals.mUseCount += 1;
    if (totals.mUseBytes > totals.mMaxBytes) {
        totals.mMaxBytes = totals.mUseBytes;
    }
    if (totals.mUseCount > totals.mMaxCount) {
        totals.mMaxCount = totals.mUseCount;
    }
    return true;
}

bool Memory::releaseDetailHeapInfo(uintptr_t address) {
    const uint32_t position =
        firstAbove(mDetailHeapInfo, mDetailHeapCount, address, /*orEqual=*/true);
    if (position == mDetailHeapCount || mDetailHeapInfo[position].mAddress != address) {
        return false;
    }
    const uint32_t bytes = mDetailHeapInfo[position].mUseBytes;
    for (uint32_t i = position + 1; i < mDetailHeapCount; ++i) {
        mDetailHeapInfo[i - 1] = mDetailHeapInfo[i];
    }
    --mDetailHeapCount;
    mDetailHeapInfo[mDetailHeapCount] = INITIAL_DETAIL_HEAP_INFO;

    // The totals never wrap below 0, even if they were counted from a different start.
    ProcessHeapInfo& totals = mProcessHeapInfo;
    if (totals.mUseBytes != 0) {
        totals.mUseBytes -= bytes;
    }
    if (totals.mUseCount != 0) {
        totals.mUseCount -= 1;
    }
    return true;
}

const char* Memory::fileNameLocked(unsigned int id) const {
    return id == 0 && mFileNameCount != 0 ? mFileNameInfo[0].mName : "";
}

}  // namespace utl
