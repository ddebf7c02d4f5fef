#include "UtlBitStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

static_assert(!std::is_copy_constructible<utl::BitStream>::value, "copying a stream is refused");
static_assert(!std::is_copy_assignable<utl::BitStream>::value, "copying a stream is refused");

using Bytes = std::vector<unsigned char>;

// The bit order written out one bit at a time: bit n is bit 7 - n % 8 of byte n / 8.
uint64_t modelRead(const Bytes& bytes, uint32_t start, unsigned int bits) {
    uint64_t value = 0;
    for (uint32_t n = start; n < start + bits; ++n) {
        value = (value << 1) | ((bytes[n / 8] >> (7 - n % 8)) & 1u);
    }
    return value;
}

void modelWrite(Bytes& bytes, uint32_t start, unsigned int bits, uint64_t value) {
    for (unsigned int i = 0; i < bits; ++i) {
        const uint32_t n = start + i;
        const unsigned char bit = static_cast<unsigned char>(0x80u >> (n % 8));
        if ((value >> (bits - 1 - i)) & 1u) {
            bytes[n / 8] |= bit;
        } else {
            bytes[n / 8] &= static_cast<unsigned char>(~bit);
        }
    }
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes bytes(n);
    for (unsigned char& b : bytes) {
        b = static_cast<unsigned char>(rng());
    }
    return bytes;
}

uint64_t readAs(utl::BitStream& s, unsigned int width, unsigned int bits, int bitOffset) {
    switch (width) {
        case 8:
            return s.readBitToUint8(bits, bitOffset);
        case 16:
            return s.readBitToUint16(bits, bitOffset);
        case 32:
            return s.readBitToUint32(bits, bitOffset);
        default:
            return s.readBitToUint64(bits, bitOffset);
    }
}

void writeAs(utl::BitStream& s, unsigned int width, uint64_t value, unsigned int bits,
             int bitOffset) {
    switch (width) {
        case 8:
            s.writeBitToUint8(static_cast<unsigned char>(value), bits, bitOffset);
            break;
        case 16:
            s.writeBitToUint16(static_cast<unsigned short>(value), bits, bitOffset);
            break;
        case 32:
            s.writeBitToUint32(static_cast<unsigned int>(value), bits, bitOffset);
            break;
        default:
            s.writeBitToUint64(value, bits, bitOffset);
            break;
    }
}

std::string where(unsigned int width, uint32_t start, unsigned int bits) {
    return "width " + std::to_string(width) + " start " + std::to_string(start) + " bits " +
           std::to_string(bits);
}

// With the error flag set every read yields 0, so reading the first bit tells the flag of a
// stream whose first bit is set.
bool errorFlagSet(utl::BitStream& s) {
    return s.readBitToUint8(1, 0) == 0;
}

const unsigned int kWidths[] = {8, 16, 32, 64};

// Every field of every width at every start in a 16-byte buffer, including 64-bit fields that
// span nine bytes and fields that end on the buffer's last bit. The buffer is exactly 16 bytes
// long, so the sanitizer reports any read past it.
TEST(BitStreamTest, FieldReadsMatchBitByBitModel) {
    std::mt19937 rng(1);
    Bytes bytes = randomBytes(rng, 16);
    utl::BitStream s(bytes.data(), 16);
    for (unsigned int width : kWidths) {
        for (unsigned int bits = 1; bits <= width; ++bits) {
            for (uint32_t start = 0; start + bits <= 128; ++start) {
                SCOPED_TRACE(where(width, start, bits));
                ASSERT_EQ(readAs(s, width, bits, static_cast<int>(start)),
                          modelRead(bytes, start, bits));
            }
        }
    }
    EXPECT_EQ(s.getBitPosition(), 0u);
    EXPECT_EQ(s.getBitStreamBitSize(), 0u);
}

TEST(BitStreamTest, FieldWritesMatchModelAndIgnoreValueBitsAboveBits) {
    std::mt19937_64 rng(2);
    for (unsigned int width : kWidths) {
        for (unsigned int bits = 1; bits <= width; ++bits) {
            for (uint32_t start = 0; start + bits <= 128; start += 3) {
                SCOPED_TRACE(where(width, start, bits));
                std::mt19937 byteRng(start);
                Bytes bytes = randomBytes(byteRng, 17);  // byte 16 guards the end
                Bytes expected = bytes;
                const uint64_t value = rng() | (uint64_t{1} << (width - 1));
                modelWrite(expected, start, bits, value);
                utl::BitStream s(bytes.data(), 16);
                writeAs(s, width, value, bits, static_cast<int>(start));
                ASSERT_EQ(bytes, expected);
                ASSERT_EQ(s.getBitPosition(), 0u);
                ASSERT_EQ(s.getBitStreamBitSize(), start + bits);
            }
        }
    }
}

TEST(BitStreamTest, FieldsAtThePositionFollowEachOther) {
    std::mt19937_64 rng(3);
    Bytes bytes(64);
    Bytes expected(64);
    utl::BitStream s(bytes.data(), 64);
    struct Field {
        unsigned int width, bits;
        uint64_t value;
    };
    std::vector<Field> fields;
    uint32_t end = 0;
    for (;;) {
        const unsigned int width = kWidths[rng() % 4];
        const unsigned int bits = 1 + static_cast<unsigned int>(rng() % width);
        if (end + bits > 512) {
            break;
        }
        const uint64_t value = rng() & (bits == 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1);
        writeAs(s, width, value, bits, -1);
        modelWrite(expected, end, bits, value);
        end += bits;
        fields.push_back({width, bits, value});
    }
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(s.getBitPosition(), end);
    EXPECT_EQ(s.getBitStreamBitSize(), end);
    s.seekBitOffset(0, utl::BitStream::ORIGIN_BEGIN);
    for (const Field& f : fields) {
        ASSERT_EQ(readAs(s, f.width, f.bits, -1), f.value);
    }
    EXPECT_EQ(s.getBitPosition(), end);
}

TEST(BitStreamTest, FieldsPackMostSignificantBitFirst) {
    unsigned char bytes[2] = {0xFF, 0xFF};
    utl::BitStream s(bytes, 2);
    s.writeBitToUint8(0x5, 3);
    s.writeBitToUint8(0x1, 5);
    EXPECT_EQ(bytes[0], 0xA1);
    EXPECT_EQ(s.getBitStreamSize(), 1u);
    s.writeBitToUint8(0, 1);
    EXPECT_EQ(s.getBitStreamBitSize(), 9u);
    EXPECT_EQ(s.getBitStreamSize(), 2u);
}

// Each request below is refused and sets the error flag; from then on reads return 0 and writes
// and seeks do nothing, until clear.
TEST(BitStreamTest, RefusedRequestsSetStickyError) {
    struct Case {
        const char* name;
        void (*request)(utl::BitStream&);
    };
    const Case cases[] = {
        {"8-bit read of 9 bits", [](utl::BitStream& s) { s.readBitToUint8(9); }},
        {"16-bit write of 17 bits", [](utl::BitStream& s) { s.writeBitToUint16(0, 17); }},
        {"32-bit read of 33 bits", [](utl::BitStream& s) { s.readBitToUint32(33); }},
        {"64-bit write of 65 bits", [](utl::BitStream& s) { s.writeBitToUint64(0, 65); }},
        {"offset -2", [](utl::BitStream& s) { s.readBitToUint8(1, -2); }},
        {"offset INT_MIN", [](utl::BitStream& s) { s.writeBitToUint8(0, 1, INT_MIN); }},
        {"read past the end", [](utl::BitStream& s) { s.readBitToUint32(2, 31); }},
        {"write past the end", [](utl::BitStream& s) { s.writeBitToUint64(0, 33, -1); }},
        {"huge offset", [](utl::BitStream& s) { s.writeBitToUint8(0, 8, INT_MAX); }},
        {"bulk read past the end",
         [](utl::BitStream& s) {
             unsigned char out[5] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
             s.readBitData(out, 33, 0);
             EXPECT_EQ(out[0], 0xEE);
         }},
        {"bulk write whose end wraps 32 bits",
         [](utl::BitStream& s) {
             static const unsigned char data[1] = {0};
             s.writeBitData(data, UINT_MAX, -1);
         }},
        {"bulk write of null", [](utl::BitStream& s) { s.writeBitData(nullptr, 1, 0); }},
        {"bulk read into null", [](utl::BitStream& s) { s.readBitData(nullptr, 8, 0); }},
        {"seek past the end", [](utl::BitStream& s) { s.seekBitOffset(33, 0); }},
        {"seek from an unknown origin", [](utl::BitStream& s) { s.seekBitOffset(0, 3); }},
    };
    const unsigned char zeros[1] = {0};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unsigned char bytes[5] = {0xFF, 0xFF, 0xFF, 0xFF, 0x5A};
        utl::BitStream s(bytes, 4);
        s.seekBitOffset(4, utl::BitStream::ORIGIN_BEGIN);
        c.request(s);
        EXPECT_EQ(s.getBitPosition(), 4u);
        EXPECT_EQ(s.getBitStreamBitSize(), 4u);
        EXPECT_TRUE(errorFlagSet(s));
        EXPECT_EQ(s.readBitToUint64(1), 0u);
        s.writeBitToUint32(0, 32, 0);
        s.writeBitData(zeros, 8, 0);
        s.seekBitOffset(8, utl::BitStream::ORIGIN_BEGIN);
        EXPECT_EQ(s.getBitPosition(), 4u);
        EXPECT_EQ(bytes[0], 0xFF);
        EXPECT_EQ(bytes[4], 0x5A);
        s.clear(false);
        EXPECT_FALSE(errorFlagSet(s));
        EXPECT_EQ(s.getBitStreamBitSize(), 4u);
    }
}

TEST(BitStreamTest, ZeroBitsDoNothingAndRaiseNoError) {
    unsigned char bytes[1] = {0xFF};
    utl::BitStream s(bytes, 1);
    EXPECT_EQ(s.readBitToUint32(0), 0u);
    s.writeBitToUint8(0, 0, 8);
    s.writeBitData(nullptr, 0);
    EXPECT_EQ(s.getBitPosition(), 0u);
    EXPECT_EQ(s.getBitStreamBitSize(), 0u);
    EXPECT_FALSE(errorFlagSet(s));
}

TEST(BitStreamTest, SetBitStreamRefusesNoBufferAndResetsState) {
    utl::BitStream s;
    unsigned char a[2] = {0xFF, 0xFF};
    EXPECT_FALSE(s.setBitStream(a, 0));
    s.writeBitToUint8(0, 1);  // no buffer: refused
    EXPECT_EQ(s.getBitPosition(), 0u);
    EXPECT_EQ(a[0], 0xFF);
    EXPECT_TRUE(s.setBitStream(a, 2));
    s.writeBitToUint8(0x1F, 5);
    s.readBitToUint8(9);
    EXPECT_FALSE(s.setBitStream(nullptr, 1));
    EXPECT_EQ(s.getBitStreamAddress(), a);
    EXPECT_EQ(s.getBitPosition(), 5u);
    unsigned char b[1] = {0xFF};
    EXPECT_TRUE(s.setBitStream(b, 1));
    EXPECT_EQ(s.getBitPosition(), 0u);
    EXPECT_EQ(s.getBitStreamBitSize(), 0u);
    EXPECT_FALSE(errorFlagSet(s));
}

TEST(BitStreamTest, ClearWithFillZeroesBufferAndBitSize) {
    unsigned char bytes[3] = {0xAB, 0xCD, 0xEF};
    utl::BitStream s(bytes, 2);
    s.seekBitOffset(12, utl::BitStream::ORIGIN_BEGIN);
    s.clear(false);
    EXPECT_EQ(s.getBitPosition(), 0u);
    EXPECT_EQ(s.getBitStreamBitSize(), 12u);
    EXPECT_EQ(bytes[0], 0xAB);
    s.clear(true);
    EXPECT_EQ(s.getBitStreamBitSize(), 0u);
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(bytes[2], 0xEF);
}

TEST(BitStreamTest, SeekMovesWithinBufferAndRaisesBitSize) {
    struct Case {
        unsigned int offset;
        int origin;
        uint32_t position;  // UINT32_MAX: refused
    };
    // Start: position 10, bit size 20, buffer of 32 bits.
    const Case cases[] = {{0, 0, 0},          {32, 0, 32},         {33, 0, UINT32_MAX},
                          {22, 1, 32},        {23, 1, UINT32_MAX}, {UINT_MAX, 1, UINT32_MAX},
                          {12, 2, 32},        {13, 2, UINT32_MAX}, {0, 2, 20},
                          {0, -1, UINT32_MAX}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + " from " + std::to_string(c.origin));
        unsigned char bytes[4] = {0xFF, 0xFF, 0xFF, 0xFF};
        utl::BitStream s(bytes, 4);
        s.seekBitOffset(20, 0);
        s.seekBitOffset(10, 0);
        s.seekBitOffset(c.offset, c.origin);
        const bool refused = c.position == UINT32_MAX;
        EXPECT_EQ(s.getBitPosition(), refused ? 10u : c.position);
        EXPECT_EQ(s.getBitStreamBitSize(), refused || c.position < 20 ? 20u : c.position);
        EXPECT_EQ(errorFlagSet(s), refused);
    }
}

// Positions are 32 bits, so a buffer of 512 MiB and more is reachable up to bit 2^32 - 1 only.
// The stream is lent a size it does not have; seeks never touch the bytes.
TEST(BitStreamTest, HugeBufferStopsAtTheLastBitPosition) {
    unsigned char bytes[1] = {0xFF};
    utl::BitStream s(bytes, 0x20000000u);
    s.seekBitOffset(UINT32_MAX, utl::BitStream::ORIGIN_BEGIN);
    EXPECT_EQ(s.getBitPosition(), UINT32_MAX);
    EXPECT_EQ(s.getBitStreamSize(), 0x20000000u);
    s.seekBitOffset(1, utl::BitStream::ORIGIN_CURRENT);
    EXPECT_EQ(s.getBitPosition(), UINT32_MAX);
    s.clear(false);
    EXPECT_FALSE(errorFlagSet(s));
    s.readBitToUint8(1, -2);  // must not be taken for bit 2^32 - 2
    EXPECT_TRUE(errorFlagSet(s));
}

TEST(BitStreamTest, CurrentBitTransfersIgnoreErrorFlag) {
    unsigned char bytes[2] = {0x00, 0x00};
    utl::BitStream s(bytes, 2);
    s.writeCurBit(2);
    s.writeCurBit(0);
    s.readBitToUint8(9);  // sets the error flag
    s.writeCurBit(1);
    EXPECT_EQ(bytes[0], 0xA0);
    EXPECT_EQ(s.getBitStreamBitSize(), 3u);
    s.seekBitOffset(0, 0);  // refused: the flag is set
    EXPECT_EQ(s.getBitPosition(), 3u);
    s.clear(false);
    EXPECT_EQ(s.readCurBit(), 1u);
    EXPECT_EQ(s.readCurBit(), 0u);
    EXPECT_EQ(s.getBitPosition(), 2u);
}

// Whole bytes, then the rest left-aligned in one more byte; a guard byte behind must survive.
TEST(BitStreamTest, BulkTransfersMatchModel) {
    struct Case {
        uint32_t start;
        unsigned int bits;
    };
    const Case cases[] = {{0, 64}, {8, 13}, {0, 5}, {3, 64}, {5, 13}, {7, 1}, {9, 100}, {16, 112}};
    for (const Case& c : cases) {
        SCOPED_TRACE(where(0, c.start, c.bits));
        std::mt19937 rng(c.start * 131 + c.bits);
        const Bytes original = randomBytes(rng, 16);
        const Bytes data = randomBytes(rng, 16);
        const uint32_t outBytes = (c.bits + 7) / 8;

        Bytes stream = original;
        Bytes out(outBytes + 1, 0xEE);
        utl::BitStream reader(stream.data(), 16);
        reader.seekBitOffset(c.start, 0);
        reader.readBitData(out.data(), c.bits);
        for (uint32_t i = 0; i < c.bits / 8; ++i) {
            ASSERT_EQ(out[i], modelRead(original, c.start + 8 * i, 8)) << "byte " << i;
        }
        if (const unsigned int rest = c.bits % 8) {
            EXPECT_EQ(out[c.bits / 8], modelRead(original, c.start + c.bits - rest, rest)
                                           << (8 - rest));
        }
        EXPECT_EQ(out[outBytes], 0xEE);
        EXPECT_EQ(reader.getBitPosition(), c.start + c.bits);

        Bytes expected = original;
        for (uint32_t i = 0; i < c.bits / 8; ++i) {
            modelWrite(expected, c.start + 8 * i, 8, data[i]);
        }
        if (const unsigned int rest = c.bits % 8) {
            modelWrite(expected, c.start + c.bits - rest, rest, data[c.bits / 8] >> (8 - rest));
        }
        stream = original;
        stream.push_back(0x5A);
        utl::BitStream writer(stream.data(), 16);
        writer.writeBitData(data.data(), c.bits, static_cast<int>(c.start));
        EXPECT_EQ(stream.back(), 0x5A);
        stream.pop_back();
        EXPECT_EQ(stream, expected);
        EXPECT_EQ(writer.getBitPosition(), 0u);
        EXPECT_EQ(writer.getBitStreamBitSize(), c.start + c.bits);
    }
}

TEST(BitStreamTest, AlignedCopyMovesSourceBytes) {
    unsigned char bytes[8] = {0x92, 0x34, 0x56, 0x78, 0, 0, 0, 0};
    // Two streams over one buffer: the source overlaps the target.
    utl::BitStream source(bytes, 4);
    source.seekBitOffset(20, 0);
    utl::BitStream target(bytes, 8);
    target.seekBitOffset(8, 0);
    target.copy(source);
    const unsigned char moved[8] = {0x92, 0x92, 0x34, 0x56, 0, 0, 0, 0};
    EXPECT_TRUE(std::equal(bytes, bytes + 8, moved));
    EXPECT_EQ(target.getBitPosition(), 28u);
    EXPECT_EQ(target.getBitStreamBitSize(), 28u);

    target.copy(source, 40);
    const unsigned char copied[8] = {0x92, 0x92, 0x34, 0x56, 0, 0x92, 0x92, 0x34};
    EXPECT_TRUE(std::equal(bytes, bytes + 8, copied));
    EXPECT_EQ(target.getBitPosition(), 28u);
    EXPECT_EQ(target.getBitStreamBitSize(), 60u);

    utl::BitStream empty;
    target.copy(empty, -5);
    EXPECT_FALSE(errorFlagSet(target));
    target.copy(source, 45);
    EXPECT_TRUE(errorFlagSet(target));
    EXPECT_TRUE(std::equal(bytes, bytes + 8, copied));
}

// At an unaligned start all source bytes but the last go as 8-bit fields, then the last byte
// shifted right by 7 - bitsize % 8 as a field of bitsize % 8 bits.
TEST(BitStreamTest, UnalignedCopyKeepsItsLastByteRule) {
    struct Case {
        uint32_t sourceBits;
        unsigned char expected[4];
        uint32_t written;
    };
    // Source 1100 0011 1011 0101 0110 1101, target zeroed, written from bit 4.
    const Case cases[] = {
        {12, {0x0C, 0x36, 0, 0}, 12},     // last byte 0xB5 >> 3, low 4 bits 0110
        {16, {0x0C, 0x30, 0, 0}, 8},      // whole bytes: the last one is dropped
        {17, {0x0C, 0x3B, 0x58, 0}, 17},  // last byte 0x6D >> 6, low bit 1
        {3, {0x08, 0, 0, 0}, 3},          // only byte 0xC3 >> 4, low 3 bits 100
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("source bits " + std::to_string(c.sourceBits));
        unsigned char src[3] = {0xC3, 0xB5, 0x6D};
        utl::BitStream source(src, 3);
        source.seekBitOffset(c.sourceBits, 0);
        unsigned char bytes[5] = {0, 0, 0, 0, 0x5A};
        utl::BitStream target(bytes, 4);
        target.seekBitOffset(4, 0);
        target.copy(source);
        EXPECT_TRUE(std::equal(bytes, bytes + 4, c.expected));
        EXPECT_EQ(bytes[4], 0x5A);
        EXPECT_EQ(target.getBitPosition(), 4 + c.written);
        EXPECT_EQ(target.getBitStreamBitSize(), 4 + c.written);
    }
}

}  // namespace
