#include "UtlWaveFile.h"

#include <cstring>

#include "UtlArray.h"
#include "UtlFile.h"

namespace utl {

namespace {

// Sub-chunk index slots of the owned RIFF file: room for "fmt", "data" and the usual extra
// chunks ("LIST", "fact", "cue ", ...) of files written by other tools.
constexpr unsigned int kIndexCapacity = 64;

const char kFormType[] = "WAVE";
const char kFmtId[] = "fmt";
const char kDataId[] = "data";

bool isFlag(int value) {
    return value == 0 || value == 1;
}

// The first sub-chunk with identifier `id`, or `absent` when there is none.
uint32_t findFirst(RiffFile& riff, const char* id, uint32_t absent) {
    SubChunkInfo info;
    if (riff.getSubChunkInfoList(id, &info, 1) < 1) {
        return absent;
    }
    return info.getNumber();
}

}  // namespace

WaveFile::WaveFile(const char* path)
    : mRiff(path, kIndexCapacity),
      mFmtChunk(NO_CHUNK),
      mDataChunk(NO_CHUNK),
      mSamplingRate(0),
      mChannel(0),
      mBitsWidth(0),
      mFormatId(0) {}

WaveFile::~WaveFile() {
    close();
}

int WaveFile::open(int create, int writable) {
    SyncGuard guard(mLock);
    if (!isFlag(create) || !isFlag(writable) || mRiff.isOpened()) {
        return OPEN_FAILED;
    }
    const bool existed = File::exists(mRiff.getPath());
    const int result = mRiff.open(create, writable);
    if (result != 0) {
        // The RIFF file is closed already; only its "not RIFF" result has a code of our own,
        // its read and index failures are plain failures here.
        return result == RiffFile::OPEN_NOT_RIFF ? OPEN_NOT_WAVE : OPEN_FAILED;
    }
    mFmtChunk = NO_CHUNK;
    mDataChunk = NO_CHUNK;
    if (writable == 1 && (create == 1 || !existed)) {
        if (!mRiff.setFormType(kFormType)) {
            mRiff.close();
            return OPEN_FAILED;
        }
        return OPEN_OK;
    }
    const int loaded = loadWaveInfo();
    if (loaded != OPEN_OK) {
        mRiff.close();
    }
    return loaded;
}

int WaveFile::loadWaveInfo() {
    if (std::strcmp(mRiff.getFormType(), kFormType) != 0) {
        return OPEN_NOT_WAVE;
    }
    mFmtChunk = findFirst(mRiff, kFmtId, NO_CHUNK);
    if (mFmtChunk == NO_CHUNK) {
        return OPEN_NO_FMT;
    }
    mDataChunk = findFirst(mRiff, kDataId, NO_CHUNK);
    if (mDataChunk == NO_CHUNK) {
        return OPEN_NO_DATA;
    }
    if (!mRiff.openSubChunk(mFmtChunk, 0)) {
        return OPEN_FAILED;
    }
    const bool read = readFmtData();
    mRiff.closeSubChunk();
    return read ? OPEN_OK : OPEN_FAILED;
}

bool WaveFile::readFmtData() {
    unsigned char bytes[FMT_BYTES];
    if (mRiff.read(bytes, FMT_BYTES) != static_cast<int>(FMT_BYTES)) {
        return false;
    }
    // Byte rate (offset 8) and block align (offset 12) are derived from the others, not kept.
    unsigned short formatId = 0;
    unsigned short channel = 0;
    unsigned int samplingRate = 0;
    unsigned short bitsWidth = 0;
    unserialize(bytes + 0, &formatId);
    unserialize(bytes + 2, &channel);
    unserialize(bytes + 4, &samplingRate);
    unserialize(bytes + 14, &bitsWidth);
    mFormatId = formatId;
    mChannel = channel;
    mSamplingRate = samplingRate;
    mBitsWidth = bitsWidth;
    return true;
}

bool WaveFile::close() {
    SyncGuard guard(mLock);
    mFmtChunk = NO_CHUNK;
    mDataChunk = NO_CHUNK;
    return mRiff.close();
}

bool WaveFile::isOpened() {
    SyncGuard guard(mLock);
    return mRiff.isOpened();
}

const char* WaveFile::getPath() const {
    SyncGuard guard(mLock);
    return mRiff.getPath();
}

bool WaveFile::setFmtChunkData(unsigned int samplingRate, unsigned short channel,
                               unsigned short bitsWidth, unsigned short formatId) {
    SyncGuard guard(mLock);
    if (!mRiff.isOpened()) {
        return false;
    }
    // 32-bit and 16-bit products of the bit width, not divided by 8: the format data has always
    // been written this way.
    const uint32_t byteRate = static_cast<uint32_t>(samplingRate) * channel * bitsWidth;
    const uint16_t blockAlign = static_cast<uint16_t>(static_cast<uint32_t>(channel) * bitsWidth);
    unsigned char bytes[FMT_BYTES];
    serialize(formatId, bytes + 0);
    serialize(channel, bytes + 2);
    serialize(samplingRate, bytes + 4);
    serialize(static_cast<unsigned int>(byteRate), bytes + 8);
    serialize(static_cast<unsigned short>(blockAlign), bytes + 12);
    serialize(bitsWidth, bytes + 14);

    if (mFmtChunk != NO_CHUNK) {
        if (!mRiff.openSubChunk(mFmtChunk, 0)) {
            return false;
        }
    } else {
        const unsigned int added = mRiff.addSubChunk(kFmtId);
        if (added == RiffFile::INVALID_NUMBER) {
            return false;
        }
        mFmtChunk = added;
    }
    const bool written = mRiff.write(bytes, FMT_BYTES) == static_cast<int>(FMT_BYTES);
    const bool closed = mRiff.closeSubChunk();
    if (!written || !closed) {
        return false;
    }
    mSamplingRate = samplingRate;
    mChannel = channel;
    mBitsWidth = bitsWidth;
    mFormatId = formatId;
    return true;
}

unsigned int WaveFile::getSamplingRate() {
    SyncGuard guard(mLock);
    return mSamplingRate;
}

unsigned short WaveFile::getChannel() {
    SyncGuard guard(mLock);
    return mChannel;
}

unsigned short WaveFile::getBitsWidth() {
    SyncGuard guard(mLock);
    return mBitsWidth;
}

unsigned short WaveFile::getFormatId() {
    SyncGuard guard(mLock);
    return mFormatId;
}

unsigned int WaveFile::getBytePerSec() {
    SyncGuard guard(mLock);
    return static_cast<uint32_t>(mSamplingRate) * mChannel * mBitsWidth;
}

unsigned short WaveFile::getBlockAlign() {
    SyncGuard guard(mLock);
    return static_cast<uint16_t>(static_cast<uint32_t>(mChannel) * mBitsWidth);
}

uint32_t* WaveFile::chunkNumberSlot(int chunk) {
    if (chunk == CHUNK_FMT) {
        return &mFmtChunk;
    }
    return chunk == CHUNK_DATA ? &mDataChunk : nullptr;
}

uint32_t WaveFile::chunkNumber(int chunk) const {
    if (chunk == CHUNK_FMT) {
        return mFmtChunk;
    }
    return chunk == CHUNK_DATA ? mDataChunk : NO_CHUNK;
}

bool WaveFile::openSubChunk(int append, int chunk) {
    SyncGuard guard(mLock);
    uint32_t* number = chunkNumberSlot(chunk);
    if (number == nullptr || !isFlag(append) || !mRiff.isOpened()) {
        return false;
    }
    if (chunk == CHUNK_DATA && mFmtChunk == NO_CHUNK) {
        return false;
    }
    if (*number != NO_CHUNK) {
        return mRiff.openSubChunk(*number, append);
    }
    const unsigned int added = mRiff.addSubChunk(chunk == CHUNK_FMT ? kFmtId : kDataId);
    if (added == RiffFile::INVALID_NUMBER) {
        return false;
    }
    *number = added;
    return true;
}

bool WaveFile::closeSubChunk() {
    SyncGuard guard(mLock);
    return mRiff.closeSubChunk();
}

bool WaveFile::isOpenedSubChunk(int chunk) {
    SyncGuard guard(mLock);
    const uint32_t number = chunkNumber(chunk);
    return number != NO_CHUNK && mRiff.isOpenedSubChunk(static_cast<int>(number));
}

long long WaveFile::getChunkDataSize(int chunk) const {
    SyncGuard guard(mLock);
    const uint32_t number = chunkNumber(chunk);
    if (number == NO_CHUNK || !mRiff.isOpened()) {
        return -1;
    }
    SubChunkInfo info;
    if (!mRiff.getSubChunkInfo(number, &info)) {
        return -1;
    }
    return info.getSize();
}

int WaveFile::read(void* buffer, unsigned int length) {
    SyncGuard guard(mLock);
    return mRiff.read(buffer, length);
}

int WaveFile::write(const void* data, unsigned int length) {
    SyncGuard guard(mLock);
    return mRiff.write(data, length);
}

long long WaveFile::seek(int origin, long long offset) {
    SyncGuard guard(mLock);
    return mRiff.seek(origin, offset);
}

long long WaveFile::position() const {
    SyncGuard guard(mLock);
    return mRiff.position();
}

long long WaveFile::size() const {
    SyncGuard guard(mLock);
    return mRiff.size();
}

}  // namespace utl
