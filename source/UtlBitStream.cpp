#include "UtlBitStream.h"

#include <cassert>
#include <cstdint>

#include "UtlMemory.h"

namespace utl {

static_assert(sizeof(unsigned short) == 2 && sizeof(unsigned int) == 4 &&
                  sizeof(unsigned long long) == 8,
              "the field widths of BitStream are 16, 32 and 64 bits");

namespace {

uint64_t lowMask(unsigned int bits) {
    return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
}

// Replaces the bits of `byte` selected by the low byte of `mask` with those of `bits`.
void mergeByte(unsigned char* byte, uint64_t bits, uint64_t mask) {
    *byte = static_cast<unsigned char>((*byte & ~mask) | (bits & mask));
}

// The `bits` (1..64) bits that start `shift` (0..7) bits into `bytes`, most significant first.
// The field spans at most nine bytes; the first eight are gathered into one 64-bit window whose
// top bit is the field's first bit, the ninth fills the bits shifted out at the bottom.
uint64_t gatherBits(const unsigned char* bytes, unsigned int shift, unsigned int bits) {
    const unsigned int span = shift + bits;
    const unsigned int count = span < 64 ? (span + 7) / 8 : 8;
    uint64_t window = 0;
    for (unsigned int i = 0; i < count; ++i) {
        window = (window << 8) | bytes[i];
    }
    window <<= 64 - 8 * count + shift;
    if (span > 64) {
        window |= bytes[8] >> (8 - shift);
    }
    return window >> (64 - bits);
}

// Writes the low `bits` (1..64) bits of `value` starting `shift` (0..7) bits into `bytes`,
// leaving every other bit of the touched bytes as it was.
void scatterBits(unsigned char* bytes, unsigned int shift, unsigned int bits, uint64_t value) {
    unsigned int span = shift + bits;
    if (span > 64) {
        // The ninth byte takes the field's last bits at its top; the rest fits eight bytes.
        const unsigned int spill = span - 64;
        mergeByte(&bytes[8], value << (8 - spill), 0xFFu << (8 - spill));
        value >>= spill;
        bits -= spill;
        span = 64;
    }
    const unsigned int count = (span + 7) / 8;
    const unsigned int tail = 8 * count - span;
    uint64_t mask = lowMask(bits) << tail;
    uint64_t field = value << tail;
    for (unsigned int i = count; i-- > 0;) {
        mergeByte(&bytes[i], field, mask);
        mask >>= 8;
        field >>= 8;
    }
}

}  // namespace

BitStream::BitStream() : mBuffer(nullptr), mSize(0), mPosition(0), mBitSize(0), mError(false) {}

BitStream::BitStream(unsigned char* buffer, unsigned int size) : BitStream() {
    setBitStream(buffer, size);
}

BitStream::~BitStream() {
    clear(false);
    mBuffer = nullptr;
    mSize = 0;
}

bool BitStream::setBitStream(unsigned char* buffer, unsigned int size) {
    if (buffer == nullptr || size == 0) {
        return false;
    }
    mBuffer = buffer;
    mSize = size;
    mPosition = 0;
    mBitSize = 0;
    mError = false;
    return true;
}

void BitStream::clear(bool fill) {
    mPosition = 0;
    mError = false;
    if (fill && mBuffer != nullptr) {
        mBitSize = 0;
        zeroMemory(mBuffer, mSize);
    }
}

void BitStream::seekBitOffset(unsigned int offset, int origin) {
    if (mError) {
        return;
    }
    uint64_t target = offset;
    if (origin == ORIGIN_CURRENT) {
        target += mPosition;
    } else if (origin == ORIGIN_END) {
        target += mBitSize;
    } else if (origin != ORIGIN_BEGIN) {
        mError = true;
        return;
    }
    if (target > bitCapacity()) {
        mError = true;
        return;
    }
    moveTo(static_cast<uint32_t>(target));
}

void BitStream::writeBitToUint8(unsigned char value, unsigned int bits, int bitOffset) {
    writeField(value, bits, bitOffset, 8);
}

void BitStream::writeBitToUint16(unsigned short value, unsigned int bits, int bitOffset) {
    writeField(value, bits, bitOffset, 16);
}

void BitStream::writeBitToUint32(unsigned int value, unsigned int bits, int bitOffset) {
    writeField(value, bits, bitOffset, 32);
}

void BitStream::writeBitToUint64(unsigned long long value, unsigned int bits, int bitOffset) {
    writeField(value, bits, bitOffset, 64);
}

void BitStream::readBitData(unsigned char* out, unsigned int bits, int bitOffset) {
    uint32_t start = 0;
    if (!beginTransfer(bits, bitOffset, UINT32_MAX, &start)) {
        return;
    }
    if (out == nullptr) {
        mError = true;
        return;
    }
    const uint32_t whole = bits / 8;
    if (start % 8 == 0) {
        copyMemory(out, mBuffer + start / 8, whole);
    } else {
        for (uint32_t i = 0; i < whole; ++i) {
            out[i] = static_cast<unsigned char>(fieldAt(start + 8 * i, 8));
        }
    }
    const unsigned int rest = bits % 8;
    if (rest != 0) {
        out[whole] = static_cast<unsigned char>(fieldAt(start + 8 * whole, rest) << (8 - rest));
    }
    endRead(bitOffset, start + bits);
}

void BitStream::writeBitData(const unsigned char* data, unsigned int bits, int bitOffset) {
    uint32_t start = 0;
    if (!beginTransfer(bits, bitOffset, UINT32_MAX, &start)) {
        return;
    }
    if (data == nullptr) {
        mError = true;
        return;
    }
    const uint32_t whole = bits / 8;
    if (start % 8 == 0) {
        copyMemory(mBuffer + start / 8, data, whole);
    } else {
        for (uint32_t i = 0; i < whole; ++i) {
            putFieldAt(start + 8 * i, 8, data[i]);
        }
    }
    const unsigned int rest = bits % 8;
    if (rest != 0) {
        putFieldAt(start + 8 * whole, rest, data[whole] >> (8 - rest));
    }
    endWrite(bitOffset, start + bits);
}

void BitStream::copy(const BitStream& source, int bitOffset) {
    const uint32_t sourceBits = source.mBitSize;
    uint32_t start = 0;
    if (!beginTransfer(sourceBits, bitOffset, UINT32_MAX, &start)) {
        return;
    }
    const uint32_t sourceBytes = source.getBitStreamSize();
    if (start % 8 == 0) {
        // A move, not a copy: both streams may lend the same buffer.
        moveMemory(mBuffer + start / 8, source.mBuffer, sourceBytes);
        endWrite(bitOffset, start + sourceBits);
        return;
    }
    // The unaligned path keeps the stream's established output: the last byte is shifted by one
    // bit less than writeBitData shifts, and a whole-byte source drops its last byte.
    const uint32_t whole = sourceBytes - 1;
    for (uint32_t i = 0; i < whole; ++i) {
        putFieldAt(start + 8 * i, 8, source.mBuffer[i]);
    }
    const unsigned int rest = sourceBits % 8;
    if (rest != 0) {
        putFieldAt(start + 8 * whole, rest, source.mBuffer[whole] >> (7 - rest));
    }
    endWrite(bitOffset, start + 8 * whole + rest);
}

unsigned char BitStream::readCurBit() {
    assert(mPosition < bitCapacity());
    const unsigned char bit = static_cast<unsigned char>(fieldAt(mPosition, 1));
    moveTo(mPosition + 1);
    return bit;
}

void BitStream::writeCurBit(unsigned char bit) {
    assert(mPosition < bitCapacity());
    putFieldAt(mPosition, 1, bit != 0 ? 1 : 0);
    moveTo(mPosition + 1);
}

// Positions are 32-bit, so a huge buffer is reachable only up to the largest position.
uint64_t BitStream::bitCapacity() const {
    const uint64_t bits = uint64_t{mSize} * 8;
    return bits < UINT32_MAX ? bits : UINT32_MAX;
}

// Applies the checks shared by all transfers and yields the start bit; false when nothing is
// to be transferred (the error flag set where the request was wrong).
bool BitStream::beginTransfer(unsigned int bits, int bitOffset, unsigned int maxBits,
                              uint32_t* start) {
    if (mError || bits == 0) {
        return false;
    }
    if (bits > maxBits || bitOffset < -1) {
        mError = true;
        return false;
    }
    const uint32_t first = bitOffset == -1 ? mPosition : static_cast<uint32_t>(bitOffset);
    if (uint64_t{first} + bits > bitCapacity()) {
        mError = true;
        return false;
    }
    *start = first;
    return true;
}

void BitStream::endRead(int bitOffset, uint32_t end) {
    if (bitOffset == -1) {
        moveTo(end);
    }
}

void BitStream::endWrite(int bitOffset, uint32_t end) {
    if (bitOffset == -1) {
        moveTo(end);
    } else if (end > mBitSize) {
        mBitSize = end;
    }
}

uint64_t BitStream::readFieldChecked(unsigned int bits, int bitOffset, unsigned int width) {
    uint32_t start = 0;
    if (!beginTransfer(bits, bitOffset, width, &start)) {
        return 0;
    }
    const uint64_t value = fieldAt(start, bits);
    endRead(bitOffset, start + bits);
    return value;
}

void BitStream::writeField(uint64_t value, unsigned int bits, int bitOffset, unsigned int width) {
    uint32_t start = 0;
    if (!beginTransfer(bits, bitOffset, width, &start)) {
        return;
    }
    putFieldAt(start, bits, value);
    endWrite(bitOffset, start + bits);
}

uint64_t BitStream::fieldAt(uint32_t start, unsigned int bits) const {
    return gatherBits(mBuffer + start / 8, start % 8, bits);
}

void BitStream::putFieldAt(uint32_t start, unsigned int bits, uint64_t value) {
    scatterBits(mBuffer + start / 8, start % 8, bits, value);
}

}  // namespace utl
