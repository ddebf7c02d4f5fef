// Bit-level reading and writing of utl.
//
// `BitStream` packs and unpacks bit fields of 1 to 64 bits in a byte buffer that the caller lends
// it, most significant bit first: bit n of the stream is bit 7 - n % 8 of byte n / 8. Use it for
// packed headers and bit-oriented formats. It never allocates, never throws and never logs; a
// failed operation sets a sticky error flag that silences the stream until `clear` or
// `setBitStream`.
//
//   unsigned char bytes[2] = {};
//   utl::BitStream stream(bytes, sizeof bytes);
//   stream.writeBitToUint8(0x5, 3);                    // 101
//   stream.writeBitToUint8(0x1, 5);                    // 101 00001: bytes[0] is 0xA1
//   unsigned int first = stream.readBitToUint32(1, 0);  // 1, the bit at offset 0
#ifndef UTL_BITSTREAM_H
#define UTL_BITSTREAM_H

#include <cstdint>

namespace utl {

// A cursor over a borrowed byte buffer that transfers bit fields at a running bit position or
// at an absolute bit offset.
//
// Every operation with a `bitOffset` works at the position when it is -1 (the position then
// advances by the bits transferred) and at that absolute bit offset when it is 0 or more (the
// position stays). The bit size is the high-water mark of the stream: moving the position past
// it raises it, and so does a write at an absolute offset, to the end of what it wrote.
//
// Field and bulk operations check, in this order: the error flag is set (reads return 0, the
// rest do nothing); `bits` is 0 (nothing happens, no error); `bits` is wider than the type,
// `bitOffset` is below -1, the range runs past the buffer, or a data pointer is null (each sets
// the error flag and transfers nothing). Once set, the error flag makes every read return 0 and
// every write and seek do nothing until `clear` or `setBitStream`; there is no other report.
//
// Positions are 32 bits wide, so of a buffer of 512 MiB or more only the first 2^32 - 1 bits can
// be reached.
//
// Not thread-safe: one owner at a time. Not copyable; two streams may lend the same buffer.
class BitStream {
  public:
    // Origins of `seekBitOffset`.
    static constexpr int ORIGIN_BEGIN = 0;    // offset counts from bit 0
    static constexpr int ORIGIN_CURRENT = 1;  // offset counts from the position
    static constexpr int ORIGIN_END = 2;      // offset counts from the bit size

    // A stream without a buffer: every transfer fails until `setBitStream` succeeds.
    BitStream();
    // A stream over `size` bytes at `buffer`; without a buffer when `setBitStream` refuses them.
    BitStream(unsigned char* buffer, unsigned int size);
    // Clears the position and the error flag and forgets the buffer, leaving its bytes as they are.
    virtual ~BitStream();

    BitStream(const BitStream&) = delete;
    BitStream& operator=(const BitStream&) = delete;

    // Lends the stream `size` bytes at `buffer` and resets position, bit size and error flag.
    // False, with the stream unchanged, for a null buffer or size 0.
    bool setBitStream(unsigned char* buffer, unsigned int size);

    // Sets the position to 0 and clears the error flag. With `fill`, and a buffer set, also sets
    // the bit size to 0 and every byte of the buffer to 0.
    void clear(bool fill);

    unsigned char* getBitStreamAddress() const { return mBuffer; }
    unsigned int getBitStreamBitSize() const { return mBitSize; }
    // The bit size rounded up to whole bytes.
    unsigned int getBitStreamSize() const { return mBitSize / 8 + (mBitSize % 8 != 0 ? 1 : 0); }
    unsigned int getBitPosition() const { return mPosition; }

    // Moves the position to `offset` bits from `origin` (one of the ORIGIN_ values). A target
    // beyond the end of the buffer (the end itself is allowed) or an unknown origin sets the
    // error flag and leaves the position; with the error flag set, nothing happens.
    void seekBitOffset(unsigned int offset, int origin);

    // Read `bits` bits (at most the width of the result type) into the low bits of the result;
    // 0 on any failure, with the error flag set as described above.
    unsigned char readBitToUint8(unsigned int bits, int bitOffset = -1) {
        return static_cast<unsigned char>(readField(bits, bitOffset, 8));
    }
    unsigned short readBitToUint16(unsigned int bits, int bitOffset = -1) {
        return static_cast<unsigned short>(readField(bits, bitOffset, 16));
    }
    unsigned int readBitToUint32(unsigned int bits, int bitOffset = -1) {
        return static_cast<unsigned int>(readField(bits, bitOffset, 32));
    }
    unsigned long long readBitToUint64(unsigned int bits, int bitOffset = -1) {
        return readField(bits, bitOffset, 64);
    }

    // Write the low `bits` bits of `value` (at most the width of its type), most significant
    // first; higher bits of `value` are ignored. On failure nothing is written.
    void writeBitToUint8(unsigned char value, unsigned int bits, int bitOffset = -1);
    void writeBitToUint16(unsigned short value, unsigned int bits, int bitOffset = -1);
    void writeBitToUint32(unsigned int value, unsigned int bits, int bitOffset = -1);
    void writeBitToUint64(unsigned long long value, unsigned int bits, int bitOffset = -1);

    // Reads `bits` bits into `out`: bits / 8 whole bytes, then the remaining bits % 8 bits
    // left-aligned in one more byte whose low bits become 0. Nothing is written to `out` on
    // failure.
    void readBitData(unsigned char* out, unsigned int bits, int bitOffset = -1);

    // Writes `bits` bits from `data`: bits / 8 whole bytes, then the top bits % 8 bits of the
    // next byte. Nothing is written on failure.
    void writeBitData(const unsigned char* data, unsigned int bits, int bitOffset = -1);

    // Writes the bits of `source` (its bit size) into this stream; nothing happens when the
    // source is empty, and a range past the buffer sets the error flag. At a byte-aligned start
    // the source's bytes are moved as they are, so `source` may share this stream's buffer.
    // At an unaligned start the source is written as 8-bit fields except its last byte, of which
    // only bits 1 to bitsize % 8 (counted from the top) are written: a source of whole bytes
    // loses its last byte, and the position advances only by the bits written.
    void copy(const BitStream& source, int bitOffset = -1);

    // Read or write the bit at the position (any non-zero `bit` writes a 1) and advance it. No
    // bounds check and no error flag: the caller keeps the position inside the buffer.
    unsigned char readCurBit();
    void writeCurBit(unsigned char bit);

  private:
    uint64_t bitCapacity() const;
    bool beginTransfer(unsigned int bits, int bitOffset, unsigned int maxBits, uint32_t* start);
    void endRead(int bitOffset, uint32_t end);
    void endWrite(int bitOffset, uint32_t end);
    void moveTo(uint32_t position) {
        mPosition = position;
        if (position > mBitSize) {
            mBitSize = position;
        }
    }

    // Eight bytes as one big-endian number; compilers turn the loop into a load and a swap.
    static uint64_t loadBigEndian64(const unsigned char* bytes) {
        uint64_t window = 0;
        for (unsigned int i = 0; i < 8; ++i) {
            window = (window << 8) | bytes[i];
        }
        return window;
    }

    // A read at the position with nine bytes of buffer ahead is the common case, done inline
    // with one load; every other read, and every refusal, goes through readFieldChecked.
    uint64_t readField(unsigned int bits, int bitOffset, unsigned int width) {
        const uint32_t start = mPosition;
        const uint32_t byte = start / 8;
        if (bitOffset != -1 || mError || bits - 1 >= width || start > UINT32_MAX - 64 ||
            mSize < 9 || byte > mSize - 9) {
            return readFieldChecked(bits, bitOffset, width);
        }
        const unsigned int shift = start % 8;
        uint64_t window = loadBigEndian64(mBuffer + byte) << shift;
        if (shift + bits > 64) {
            window |= mBuffer[byte + 8] >> (8 - shift);
        }
        moveTo(start + bits);
        return window >> (64 - bits);
    }
    uint64_t readFieldChecked(unsigned int bits, int bitOffset, unsigned int width);
    void writeField(uint64_t value, unsigned int bits, int bitOffset, unsigned int width);
    uint64_t fieldAt(uint32_t start, unsigned int bits) const;
    void putFieldAt(uint32_t start, unsigned int bits, uint64_t value);

    unsigned char* mBuffer;
    uint32_t mSize;
    uint32_t mPosition;
    uint32_t mBitSize;
    bool mError;
};

}  // namespace utl

#endif  // UTL_BITSTREAM_H
