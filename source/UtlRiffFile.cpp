#include "UtlRiffFile.h"

#include <cstring>

#include "UtlChunkId.h"

namespace utl {

namespace {

constexpr unsigned int kTypeBuffer = SubChunk::ID_BYTES + 1;
constexpr long long kFormTypeOffset = 8;
constexpr long long kRiffSizeOffset = 4;
constexpr unsigned long long kMaxSize = 0xFFFFFFFFULL;
const char kRiffTag[] = "RIFF";
// Bytes read at a time while walking the sub-chunk headers.
constexpr unsigned int kWalkBlockBytes = 2048;

bool isFlag(int value) {
    return value == 0 || value == 1;
}

bool readBytes(File& file, long long offset, unsigned char* out, unsigned int length) {
    if (file.seek(offset, File::SEEK_FROM_BEGIN) < 0) {
        return false;
    }
    unsigned int done = 0;
    while (done < length) {
        const int got = file.read(out + done, length - done);
        if (got <= 0) {
            return false;
        }
        done += static_cast<unsigned int>(got);
    }
    return true;
}

bool writeBytes(File& file, long long offset, const unsigned char* data, unsigned int length) {
    return file.seek(offset, File::SEEK_FROM_BEGIN) >= 0 &&
           file.write(data, length) == static_cast<int>(length);
}

}  // namespace

RiffFile::RiffFile(const char* path, unsigned int indexCapacity)
    : mFile(path, File::TEXT_UTF8),
      mSubChunk(),
      mFormType(),
      mRiffSize(0),
      mSubChunkCount(0),
      mOpenedNumber(-1),
      mWritable(false),
      mLock(),
      mIndex(indexCapacity, 1) {}

RiffFile::~RiffFile() {
    close();
}

int RiffFile::open(int create, int writable) {
    SyncGuard guard(mLock);
    if (!isFlag(create) || !isFlag(writable) || mFile.isOpened()) {
        return OPEN_FAILED;
    }
    const int openMode = create == 1 ? File::OPEN_TRUNCATE : File::OPEN_EXISTING;
    const int access = writable == 1 ? File::ACCESS_READ_WRITE : File::ACCESS_READ;
    if (!mFile.open(openMode, access)) {
        return OPEN_FAILED;
    }
    mWritable = writable == 1;
    while (mIndex.getCount() > 0) {
        mIndex.removeAt(mIndex.getCount() - 1);
    }
    mSubChunkCount = 0;
    mOpenedNumber = -1;
    // A writable file that is empty (new, truncated, or left empty) gets a fresh header instead
    // of being refused as "not RIFF".
    const int result = mWritable && mFile.size() == 0 ? createHeader() : loadRiffInfo();
    if (result != OPEN_SUCCESS) {
        mFile.close();
    }
    return result;
}

int RiffFile::createHeader() {
    unsigned char header[HEADER_BYTES];
    std::memcpy(header, kRiffTag, 4);
    serialize(0u, header + 4);
    detail::encodeChunkId(mFormType, header + kFormTypeOffset);
    if (!writeBytes(mFile, 0, header, sizeof(header))) {
        mFile.close();
        mFile.erase(0);
        return OPEN_FAILED;
    }
    mRiffSize = 0;
    return OPEN_SUCCESS;
}

int RiffFile::loadRiffInfo() {
    const long long length = mFile.size();
    if (length < 0) {
        return OPEN_FAILED;
    }
    unsigned char header[HEADER_BYTES];
    if (length < static_cast<long long>(HEADER_BYTES) ||
        !readBytes(mFile, 0, header, sizeof(header)) || std::memcmp(header, kRiffTag, 4) != 0) {
        return OPEN_NOT_RIFF;
    }
    unsigned int stored = 0;
    unserialize(header + 4, &stored);
    // The size as stored rather than as the length implies, so that close() also repairs a
    // stale size left by a writer that never closed.
    mRiffSize = stored;
    detail::decodeChunkId(header + kFormTypeOffset, mFormType);
    return walkSubChunks(length);
}

// Each step moves at least 8 bytes forward and stops before a header that does not lie wholly
// inside the file, so neither a zero nor a huge size can loop or read outside it. Headers are
// taken from blocks read ahead, so a file of many small sub-chunks costs one read per block
// rather than several system calls per sub-chunk.
int RiffFile::walkSubChunks(long long fileLength) {
    const unsigned long long end = static_cast<unsigned long long>(fileLength);
    unsigned char block[kWalkBlockBytes];
    unsigned long long blockStart = 0;
    unsigned long long blockEnd = 0;
    unsigned long long offset = HEADER_BYTES;
    while (offset + SubChunk::HEADER_BYTES <= end) {
        if (mSubChunkCount >= INVALID_NUMBER) {
            return OPEN_INDEX_FAILED;
        }
        if (offset < blockStart || offset + SubChunk::HEADER_BYTES > blockEnd) {
            const unsigned long long left = end - offset;
            const unsigned int want =
                left < kWalkBlockBytes ? static_cast<unsigned int>(left) : kWalkBlockBytes;
            if (!readBytes(mFile, static_cast<long long>(offset), block, want)) {
                return OPEN_READ_ERROR;
            }
            blockStart = offset;
            blockEnd = offset + want;
        }
        unsigned int dataSize = 0;
        unserialize(block + (offset - blockStart) + SubChunk::ID_BYTES, &dataSize);
        if (!mIndex.insert(static_cast<int>(mSubChunkCount), offset)) {
            return OPEN_INDEX_FAILED;
        }
        ++mSubChunkCount;
        offset += static_cast<unsigned long long>(SubChunk::HEADER_BYTES) + dataSize;
    }
    return OPEN_SUCCESS;
}

bool RiffFile::close() {
    SyncGuard guard(mLock);
    if (!mFile.isOpened()) {
        return false;
    }
    bool ok = true;
    if (mOpenedNumber >= 0) {
        ok = closeSubChunk();
    }
    if (mWritable) {
        ok = writeRiffSize() && ok;
    }
    mFile.close();
    mOpenedNumber = -1;
    return ok;
}

bool RiffFile::writeRiffSize() {
    const long long length = mFile.size();
    if (length < 8 || static_cast<unsigned long long>(length - 8) > kMaxSize) {
        return false;
    }
    const uint32_t riffSize = static_cast<uint32_t>(length - 8);
    if (riffSize == mRiffSize) {
        return true;
    }
    unsigned char stored[4];
    serialize(static_cast<unsigned int>(riffSize), stored);
    if (!writeBytes(mFile, kRiffSizeOffset, stored, sizeof(stored))) {
        return false;
    }
    mRiffSize = riffSize;
    return true;
}

bool RiffFile::isOpened() const {
    SyncGuard guard(mLock);
    return mFile.isOpened();
}

const char* RiffFile::getPath() const {
    SyncGuard guard(mLock);
    return mFile.getPath();
}

bool RiffFile::setFormType(const char* type) {
    SyncGuard guard(mLock);
    unsigned char stored[SubChunk::ID_BYTES];
    if (!detail::encodeChunkId(type, stored)) {
        return false;
    }
    if (mFile.isOpened()) {
        const long long saved = mFile.position();
        const bool written = saved >= 0 &&
                             mFile.seek(kFormTypeOffset, File::SEEK_FROM_BEGIN) >= 0 &&
                             mSubChunk.writeSubChunKId(type, &mFile);
        if (saved < 0 || mFile.seek(saved, File::SEEK_FROM_BEGIN) < 0 || !written) {
            return false;
        }
    }
    detail::decodeChunkId(stored, mFormType);
    return true;
}

const char* RiffFile::getFormType() const {
    SyncGuard guard(mLock);
    return mFormType;
}

unsigned int RiffFile::addSubChunk(const char* id) {
    SyncGuard guard(mLock);
    if (!mFile.isOpened() || mOpenedNumber >= 0 || mSubChunkCount >= INVALID_NUMBER) {
        return INVALID_NUMBER;
    }
    // Make room in the index first, so that a sub-chunk written to the file is always indexed.
    const int number = static_cast<int>(mSubChunkCount);
    if (!mIndex.insert(number, 0)) {
        return INVALID_NUMBER;
    }
    if (!mSubChunk.add(&mFile, id)) {
        mIndex.erase(number);
        return INVALID_NUMBER;
    }
    mIndex.find(number)->mValue = mFile.position() - SubChunk::HEADER_BYTES;
    ++mSubChunkCount;
    mOpenedNumber = number;
    return static_cast<unsigned int>(number);
}

bool RiffFile::openSubChunk(unsigned int number, int append) {
    SyncGuard guard(mLock);
    if (!mFile.isOpened() || mOpenedNumber >= 0 || !isFlag(append) || number >= mSubChunkCount) {
        return false;
    }
    const auto* entry = mIndex.find(static_cast<int>(number));
    if (entry == nullptr || !mSubChunk.open(&mFile, entry->mValue, append)) {
        return false;
    }
    mOpenedNumber = static_cast<int32_t>(number);
    return true;
}

bool RiffFile::closeSubChunk() {
    SyncGuard guard(mLock);
    if (mOpenedNumber < 0) {
        return false;
    }
    mOpenedNumber = -1;
    return mSubChunk.close();
}

bool RiffFile::isOpenedSubChunk(int number) const {
    SyncGuard guard(mLock);
    return number >= 0 && number == mOpenedNumber;
}

unsigned int RiffFile::getSubChunkNumber() {
    SyncGuard guard(mLock);
    return mFile.isOpened() ? mSubChunkCount : 0;
}

unsigned int RiffFile::getSubChunkNumber(const char* id) {
    SyncGuard guard(mLock);
    const int found = collectInfo(id == nullptr ? "" : id, nullptr, 0);
    return id == nullptr || found < 0 ? 0 : static_cast<unsigned int>(found);
}

bool RiffFile::getSubChunkInfo(unsigned int number, SubChunkInfo* info) {
    SyncGuard guard(mLock);
    if (!mFile.isOpened() || info == nullptr || number >= mSubChunkCount) {
        return false;
    }
    const auto* entry = mIndex.find(static_cast<int>(number));
    return entry != nullptr && readInfo(number, entry->mValue, info);
}

int RiffFile::getSubChunkInfoList(SubChunkInfo* list, unsigned int capacity) {
    SyncGuard guard(mLock);
    return collectInfo(nullptr, list, capacity);
}

int RiffFile::getSubChunkInfoList(const char* id, SubChunkInfo* list, unsigned int capacity) {
    SyncGuard guard(mLock);
    return id == nullptr ? -1 : collectInfo(id, list, capacity);
}

// The index is kept in ascending number order, which is file order.
int RiffFile::collectInfo(const char* id, SubChunkInfo* list, unsigned int capacity) {
    if (!mFile.isOpened() || (list == nullptr && capacity > 0)) {
        return -1;
    }
    unsigned int found = 0;
    for (unsigned int i = 0; i < mIndex.getCount(); ++i) {
        const auto& entry = mIndex.getAt(i);
        SubChunkInfo info;
        if (!readInfo(static_cast<unsigned int>(entry.mKey), entry.mValue, &info)) {
            return -1;
        }
        if (id != nullptr && std::strcmp(id, info.mId) != 0) {
            continue;
        }
        if (found < capacity) {
            list[found] = info;
        }
        ++found;
    }
    return static_cast<int>(found);
}

bool RiffFile::readInfo(unsigned int number, unsigned long long headerOffset, SubChunkInfo* info) {
    char id[kTypeBuffer];
    unsigned int dataSize = 0;
    if (SubChunk::readHeader(&mFile, headerOffset, id, sizeof(id), &dataSize) != 0) {
        return false;
    }
    // The header's size is stale while its sub-chunk is open; the cursor knows the real one.
    if (static_cast<int32_t>(number) == mOpenedNumber) {
        dataSize = mSubChunk.getDataSize();
    }
    *info = SubChunkInfo(number, id, dataSize);
    return true;
}

int RiffFile::read(void* buffer, unsigned int length) {
    SyncGuard guard(mLock);
    return mOpenedNumber < 0 ? SubChunk::FAILED : mSubChunk.read(buffer, length);
}

int RiffFile::write(const void* data, unsigned int length) {
    SyncGuard guard(mLock);
    return mOpenedNumber < 0 ? SubChunk::FAILED : mSubChunk.write(data, length);
}

long long RiffFile::seek(int origin, long long offset) {
    SyncGuard guard(mLock);
    return mOpenedNumber < 0 ? SubChunk::FAILED : mSubChunk.seek(origin, offset);
}

long long RiffFile::position() const {
    SyncGuard guard(mLock);
    return mOpenedNumber < 0 ? SubChunk::FAILED : mSubChunk.position();
}

long long RiffFile::size() const {
    SyncGuard guard(mLock);
    return mOpenedNumber < 0 ? SubChunk::FAILED : static_cast<long long>(mSubChunk.getDataSize());
}

}  // namespace utl
