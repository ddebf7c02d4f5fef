#include "UtlSubChunk.h"

#include <cstring>

#include "UtlArray.h"
#include "UtlCharConvert.h"
#include "UtlChunkId.h"
#include "UtlKeepAlive.h"

namespace utl {

namespace {

const char* const kSource = "source/UtlSubChunk";
constexpr unsigned int kIdBuffer = SubChunk::ID_BYTES + 1;
constexpr long long kMaxLength = 0x7FFFFFFF;
constexpr unsigned long long kMaxSize = 0xFFFFFFFFULL;

// Takes the cursor's lock between two liveness reports, so that a thread waiting behind a slow
// write of another thread is not taken for a hung one.
class UTL_SCOPED_CAPABILITY ReportedGuard {
  public:
    ReportedGuard(const SyncObject& lock, const char* operation) UTL_ACQUIRE(lock) : mLock(lock) {
        detail::BlockingCall report(kSource, operation, __LINE__);
        mLock.lock();
    }
    ~ReportedGuard() UTL_RELEASE() { mLock.unlock(); }
    ReportedGuard(const ReportedGuard&) = delete;
    ReportedGuard& operator=(const ReportedGuard&) = delete;

  private:
    const SyncObject& mLock;
};

// File::read may return fewer bytes than asked; header fields are read whole.
int readFully(File* file, unsigned char* out, unsigned int length) {
    unsigned int done = 0;
    while (done < length) {
        const int got = file->read(out + done, length - done);
        if (got == File::END_OF_FILE) {
            return SubChunk::END_OF_DATA;
        }
        if (got <= 0) {
            return SubChunk::FAILED;
        }
        done += static_cast<unsigned int>(got);
    }
    return 0;
}

}  // namespace

namespace detail {

void decodeChunkId(const unsigned char* stored, char* text) {
    char raw[kIdBuffer] = {};
    std::memcpy(raw, stored, SubChunk::ID_BYTES);
    if (convertCharSet(text, kIdBuffer, raw) == ~0u) {
        text[0] = '\0';
    }
    for (size_t end = std::strlen(text); end > 0 && text[end - 1] == ' '; --end) {
        text[end - 1] = '\0';
    }
}

bool encodeChunkId(const char* text, unsigned char* stored) {
    char converted[kIdBuffer] = {};
    if (text == nullptr || convertCharSet(converted, kIdBuffer, text) == ~0u) {
        return false;
    }
    const size_t length = std::strlen(converted);
    std::memset(stored, ' ', SubChunk::ID_BYTES);
    std::memcpy(stored, converted, length);
    return true;
}

}  // namespace detail

SubChunkInfo::SubChunkInfo(unsigned int number, const char* id, unsigned int size)
    : mNumber(number), mId(), mSize(size) {
    if (id != nullptr) {
        std::strncpy(mId, id, sizeof(mId) - 1);
    }
}

SubChunk::SubChunk() : mFile(nullptr), mId(), mDataSize(0), mHeaderOffset(0), mOpened(false) {}

SubChunk::~SubChunk() {
    close();
}

bool SubChunk::add(File* file, const char* id) {
    ReportedGuard guard(mLock, "add");
    unsigned char stored[ID_BYTES];
    if (mOpened || file == nullptr || !detail::encodeChunkId(id, stored) || id[0] == '\0') {
        return false;
    }
    const long long end = file->seek(0, File::SEEK_FROM_END);
    if (end < 0 || !writeSubChunKId(id, file)) {
        return false;
    }
    unsigned char zeroSize[4] = {};
    if (file->write(zeroSize, sizeof(zeroSize)) != static_cast<int>(sizeof(zeroSize))) {
        return false;
    }
    mFile = file;
    detail::decodeChunkId(stored, mId);
    mDataSize = 0;
    mHeaderOffset = static_cast<uint64_t>(end);
    mOpened = true;
    return true;
}

bool SubChunk::open(File* file, unsigned long long headerOffset, int append) {
    ReportedGuard guard(mLock, "open");
    if (mOpened || file == nullptr || (append != 0 && append != 1)) {
        return false;
    }
    unsigned int dataSize = 0;
    if (readHeader(file, headerOffset, mId, sizeof(mId), &dataSize) != 0) {
        mId[0] = '\0';
        return false;
    }
    const unsigned long long start = headerOffset + HEADER_BYTES;
    const unsigned long long target = append == 1 ? start + dataSize : start;
    if (file->seek(static_cast<long long>(target), File::SEEK_FROM_BEGIN) < 0) {
        mId[0] = '\0';
        return false;
    }
    mFile = file;
    mDataSize = dataSize;
    mHeaderOffset = headerOffset;
    mOpened = true;
    return true;
}

bool SubChunk::close() {
    ReportedGuard guard(mLock, "close");
    if (!mOpened) {
        return false;
    }
    char id[kIdBuffer];
    unsigned int stored = 0;
    bool ok = readHeader(mFile, mHeaderOffset, id, sizeof(id), &stored) == 0;
    if (ok && stored != mDataSize) {
        unsigned char size[4];
        serialize(static_cast<unsigned int>(mDataSize), size);
        ok = mFile->seek(static_cast<long long>(mHeaderOffset + ID_BYTES), File::SEEK_FROM_BEGIN) >=
                 0 &&
             mFile->write(size, sizeof(size)) == static_cast<int>(sizeof(size));
    }
    reset();
    return ok;
}

bool SubChunk::isOpened() const {
    ReportedGuard guard(mLock, "isOpened");
    return mOpened;
}

int SubChunk::read(void* buffer, unsigned int length) {
    ReportedGuard guard(mLock, "read");
    if (!mOpened || buffer == nullptr || length == 0 || length > kMaxLength) {
        return FAILED;
    }
    const long long here = mFile->position();
    if (here < 0) {
        return FAILED;
    }
    const unsigned long long end = dataEnd();
    if (static_cast<unsigned long long>(here) >= end) {
        return END_OF_DATA;
    }
    const unsigned long long left = end - static_cast<unsigned long long>(here);
    const unsigned int want = left < length ? static_cast<unsigned int>(left) : length;
    const int got = mFile->read(buffer, want);
    return got == File::END_OF_FILE ? END_OF_DATA : got;
}

int SubChunk::write(const void* data, unsigned int length) {
    ReportedGuard guard(mLock, "write");
    if (!mOpened || wouldOverrunNextSubChunk(length)) {
        return FAILED;
    }
    const int written = mFile->write(data, length);
    if (written < 0) {
        return FAILED;
    }
    const long long here = mFile->position();
    if (here > 0 && static_cast<unsigned long long>(here) > dataEnd()) {
        const unsigned long long grown = static_cast<unsigned long long>(here) - dataStart();
        if (grown <= kMaxSize) {
            mDataSize = static_cast<uint32_t>(grown);
        }
    }
    return written;
}

long long SubChunk::seek(int origin, long long offset) {
    ReportedGuard guard(mLock, "seek");
    if (!mOpened) {
        return FAILED;
    }
    const long long size = static_cast<long long>(mDataSize);
    long long target = 0;
    switch (origin) {
        case SEEK_FROM_BEGIN:
            if (offset < 0) {
                return FAILED;
            }
            target = offset;
            break;
        case SEEK_FROM_END:
            if (offset > 0) {
                return FAILED;
            }
            target = size + offset;
            break;
        case SEEK_FROM_CURRENT: {
            const long long here = mFile->position();
            if (here < 0) {
                return FAILED;
            }
            target = here - static_cast<long long>(dataStart()) + offset;
            break;
        }
        default:
            return FAILED;
    }
    if (target < 0 || target > size) {
        return FAILED;
    }
    const long long moved =
        mFile->seek(static_cast<long long>(dataStart()) + target, File::SEEK_FROM_BEGIN);
    return moved < 0 ? FAILED : target;
}

long long SubChunk::position() const {
    ReportedGuard guard(mLock, "position");
    if (!mOpened) {
        return FAILED;
    }
    const long long here = mFile->position();
    return here < 0 ? FAILED : here - static_cast<long long>(dataStart());
}

const char* SubChunk::getSubChunkId() const {
    ReportedGuard guard(mLock, "getSubChunkId");
    return mId;
}

unsigned int SubChunk::getDataSize() const {
    ReportedGuard guard(mLock, "getDataSize");
    return mDataSize;
}

// static
int SubChunk::readHeader(File* file, unsigned long long headerOffset, char* id, unsigned int idSize,
                         unsigned int* dataSize) {
    if (file == nullptr || id == nullptr || idSize < kIdBuffer || dataSize == nullptr) {
        return FAILED;
    }
    const long long saved = file->position();
    if (saved < 0) {
        return FAILED;
    }
    unsigned char header[HEADER_BYTES];
    int result = FAILED;
    if (file->seek(static_cast<long long>(headerOffset), File::SEEK_FROM_BEGIN) >= 0) {
        result = readFully(file, header, sizeof(header));
    }
    if (result == 0) {
        detail::decodeChunkId(header, id);
        unserialize(header + ID_BYTES, dataSize);
    }
    if (file->seek(saved, File::SEEK_FROM_BEGIN) < 0) {
        return FAILED;
    }
    return result;
}

bool SubChunk::writeSubChunKId(const char* id, File* file) {
    unsigned char stored[ID_BYTES];
    if (file == nullptr || !detail::encodeChunkId(id, stored)) {
        return false;
    }
    return file->write(stored, sizeof(stored)) == static_cast<int>(sizeof(stored));
}

// Growing a sub-chunk that has another one after it would overwrite that one's header.
bool SubChunk::wouldOverrunNextSubChunk(unsigned int length) const {
    const long long here = mFile->position();
    if (here < 0 || static_cast<unsigned long long>(here) + length <= dataEnd()) {
        return here < 0;
    }
    const long long fileEnd = mFile->size();
    return fileEnd < 0 || static_cast<unsigned long long>(fileEnd) > dataEnd();
}

unsigned long long SubChunk::dataEnd() const {
    return dataStart() + mDataSize;
}

void SubChunk::reset() {
    mFile = nullptr;
    mId[0] = '\0';
    mDataSize = 0;
    mHeaderOffset = 0;
    mOpened = false;
}

}  // namespace utl
