#include "UtlBitStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Stream = utl::BitStream;

// The reference bit order, one bit at a time: bit n is bit 7 - n % 8 of byte n / 8.
uint64_t modelRead(const Bytes& bytes, uint32_t start, unsigned int bits) {
    uint64_t value = 0;
    for (uint32_t n = start; n < start + bits; ++n) {
        value = (value << 1) | ((bytes[n / 8] >> (7 - n % 8)) & 1u);
    }
    return value;
}

void modelWrite(Bytes& bytes, uint32_t start, unsigned int bits, uint64_t value) {
    for (uint32_t n = start; n < start + bits; ++n) {
        const unsigned int mask = 0x80u >> (n % 8), bit = (value >> (start + bits - 1 - n)) & 1u;
        bytes[n / 8] = static_cast<unsigned char>((bytes[n / 8] & ~mask) | (bit != 0 ? mask : 0));
    }
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes bytes(n);
    std::generate(bytes.begin(), bytes.end(), [&rng] { return static_cast<unsigned char>(rng()); });
    return bytes;
}

uint64_t readAs(Stream& s, unsigned int width, unsigned int bits, int at) {
    return width == 8    ? s.readBitToUint8(bits, at)
           : width == 16 ? s.readBitToUint16(bits, at)
           : width == 32 ? s.readBitToUint32(bits, at)
                         : s.readBitToUint64(bits, at);
}

void writeAs(Stream& s, unsigned int width, uint64_t value, unsigned int bits, int at) {
    width == 8    ? s.writeBitToUint8(static_cast<unsigned char>(value), bits, at)
    : width == 16 ? s.writeBitToUint16(static_cast<unsigned short>(value), bits, at)
    : width == 32 ? s.writeBitToUint32(static_cast<unsigned int>(value), bits, at)
                  : s.writeBitToUint64(value, bits, at);
}

// With the error flag set every read yields 0: this tells the flag of a stream whose bit 0 is 1.
bool errorFlagSet(Stream& s) {
    return s.readBitToUint8(1, 0) == 0;
}

// Every width, field size and start in exactly 16 bytes (so ASan sees overruns; 64-bit fields span
// up to nine bytes). Values have their type's top bit set, to be ignored by narrower fields.
TEST(BitStreamTest, FieldTransfersMatchBitByBitModel) {
    std::mt19937 rng(1);
    const Bytes original = randomBytes(rng, 16);
    for (unsigned int width : {8u, 16u, 32u, 64u}) {
        for (unsigned int bits = 1; bits <= width; ++bits) {
            for (uint32_t start = 0; start + bits <= 128; ++start) {
                SCOPED_TRACE(testing::Message() << width << ": " << bits << " bits at " << start);
                Bytes bytes = original, expected = original;
                Stream s(bytes.data(), 16);
                const uint64_t model = modelRead(original, start, bits);
                ASSERT_EQ(readAs(s, width, bits, static_cast<int>(start)), model);
                s.seekBitOffset(start, Stream::ORIGIN_BEGIN);
                ASSERT_EQ(readAs(s, width, bits, -1), model);
                ASSERT_EQ(s.getBitPosition(), start + bits);
                s.seekBitOffset(0, Stream::ORIGIN_BEGIN);
                const uint64_t value = (uint64_t{rng()} << 32 | rng()) | uint64_t{1} << (width - 1);
                modelWrite(expected, start, bits, value);
                writeAs(s, width, value, bits, static_cast<int>(start));
                ASSERT_EQ(bytes, expected);
                ASSERT_TRUE(s.getBitPosition() == 0 && s.getBitStreamBitSize() == start + bits);
            }
        }
    }
}

// A refused request sets the error flag; reads then return 0 and writes and seeks do nothing,
// until clear.
TEST(BitStreamTest, RefusedRequestsSetStickyError) {
    const std::pair<const char*, void (*)(Stream&)> cases[] = {
        {"17 bits into 16", [](Stream& s) { s.writeBitToUint16(0, 17); }},
        {"offset -2", [](Stream& s) { s.readBitToUint8(1, -2); }},
        {"past the end", [](Stream& s) { s.writeBitToUint64(0, 29); }},
        {"null data", [](Stream& s) { s.writeBitData(nullptr, 1, 0); }},
        {"seek past the end", [](Stream& s) { s.seekBitOffset(29, Stream::ORIGIN_CURRENT); }},
        {"unknown origin", [](Stream& s) { s.seekBitOffset(0, 3); }},
    };
    for (const auto& [name, refuse] : cases) {
        SCOPED_TRACE(name);
        unsigned char bytes[5] = {0xFF, 0xFF, 0xFF, 0xFF, 0x5A};
        Stream s(bytes, 4);
        s.seekBitOffset(4, Stream::ORIGIN_BEGIN);
        refuse(s);
        EXPECT_TRUE(errorFlagSet(s));
        s.writeBitToUint32(0, 32, 0);
        s.seekBitOffset(8, Stream::ORIGIN_BEGIN);
        EXPECT_TRUE(s.getBitPosition() == 4 && s.getBitStreamBitSize() == 4);
        EXPECT_TRUE(bytes[0] == 0xFF && bytes[4] == 0x5A);
        s.clear(false);
        EXPECT_FALSE(errorFlagSet(s));
    }
}

TEST(BitStreamTest, StateFollowsSetClearSeekAndCurrentBit) {
    unsigned char a[3] = {0xFF, 0xFF, 0x5A};
    Stream s;
    EXPECT_TRUE(!s.setBitStream(a, 0) && s.setBitStream(a, 2));
    s.writeBitData(nullptr, 0);  // zero bits do nothing and raise no error
    s.writeBitToUint8(0xA1, 8);
    s.writeCurBit(2);
    s.seekBitOffset(3, Stream::ORIGIN_END);
    s.seekBitOffset(2, Stream::ORIGIN_CURRENT);
    EXPECT_TRUE(s.getBitPosition() == 14 && s.getBitStreamSize() == 2);
    s.readBitToUint8(9);  // sets the error flag, which the current bit ignores
    s.writeCurBit(0);
    EXPECT_EQ(a[1], 0xFD);
    EXPECT_FALSE(s.setBitStream(nullptr, 1));
    s.clear(false);
    EXPECT_EQ(s.getBitStreamBitSize(), 15u);
    EXPECT_EQ(s.readCurBit(), 1u);
    EXPECT_EQ(s.readBitToUint16(9), 0x87u);  // bits 1 to 9: 0100 0011 1
    s.clear(true);
    EXPECT_TRUE(s.getBitStreamBitSize() == 0 && (a[0] | a[1]) == 0 && a[2] == 0x5A);
}

// Whole bytes, then the rest left-aligned in one more byte whose low bits become 0; the bytes
// behind survive.
TEST(BitStreamTest, BulkTransfersMatchModel) {
    const std::pair<uint32_t, unsigned int> cases[] = {{8, 13}, {3, 64}, {7, 1}, {9, 100}};
    for (const auto& [start, bits] : cases) {
        SCOPED_TRACE(testing::Message() << bits << " bits at " << start);
        std::mt19937 rng(start * 131 + bits);
        const Bytes original = randomBytes(rng, 17), data = randomBytes(rng, 16);
        Bytes stream = original, expected = original, out(bits / 8 + 2, 0xEE), expectedOut = out;
        for (unsigned int i = 0; i < bits; ++i) {
            modelWrite(expectedOut, i, 1, modelRead(original, start + i, 1));
            modelWrite(expected, start + i, 1, modelRead(data, i, 1));
        }
        modelWrite(expectedOut, bits, (8 - bits % 8) % 8, 0);
        Stream s(stream.data(), 16);
        s.seekBitOffset(start, Stream::ORIGIN_BEGIN);
        s.readBitData(out.data(), bits);
        s.writeBitData(data.data(), bits, static_cast<int>(start));
        EXPECT_EQ(out, expectedOut);
        EXPECT_EQ(stream, expected);
    }
}

// At an aligned start the source bytes are moved, also between two streams over one buffer.
TEST(BitStreamTest, CopyMovesAlignedBytesAndKeepsTheUnalignedLastByteRule) {
    Bytes bytes = {0x92, 0x34, 0x56, 0x78, 0, 0, 0, 0};
    Stream source(bytes.data(), 4), target(bytes.data(), 8);
    source.seekBitOffset(20, Stream::ORIGIN_BEGIN);
    target.seekBitOffset(8, Stream::ORIGIN_BEGIN);
    target.copy(source);
    EXPECT_EQ(bytes, (Bytes{0x92, 0x92, 0x34, 0x56, 0, 0, 0, 0}));
    EXPECT_EQ(target.getBitPosition(), 28u);
    target.copy(source, 40);
    const Bytes copied = {0x92, 0x92, 0x34, 0x56, 0, 0x92, 0x92, 0x34};
    EXPECT_TRUE(bytes == copied && target.getBitStreamBitSize() == 60);
    target.copy(source, 45);
    EXPECT_TRUE(errorFlagSet(target) && bytes == copied);

    // Unaligned, all source bytes but the last go as 8-bit fields, then the last byte shifted
    // right by 7 - bitsize % 8 as a field of bitsize % 8 bits; whole bytes lose the last.
    // {source bits, bits written, target}: source 1100 0011 1011 0101 0110 1101, from bit 4.
    const std::tuple<uint32_t, uint32_t, Bytes> cases[] = {
        {16, 8, {0x0C, 0x30, 0, 0, 0x5A}},      // the last whole byte is dropped
        {17, 17, {0x0C, 0x3B, 0x58, 0, 0x5A}},  // 0x6D >> 6, low bit 1
        {3, 3, {0x08, 0, 0, 0, 0x5A}},          // the only byte: 0xC3 >> 4, low 3 bits 100
    };
    unsigned char src[3] = {0xC3, 0xB5, 0x6D};
    for (const auto& [sourceBits, written, expected] : cases) {
        SCOPED_TRACE(sourceBits);
        Bytes out = {0, 0, 0, 0, 0x5A};
        Stream from(src, 3), to(out.data(), 4);
        from.seekBitOffset(sourceBits, Stream::ORIGIN_BEGIN);
        to.seekBitOffset(4, Stream::ORIGIN_BEGIN);
        to.copy(from);
        EXPECT_EQ(out, expected);
        EXPECT_EQ(to.getBitStreamBitSize(), 4 + written);
    }
}

}  // namespace
