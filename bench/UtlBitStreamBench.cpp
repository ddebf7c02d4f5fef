// Sequential field reads and writes through BitStream beside a hand-written shift-and-mask coder
// doing the same transfers on the same kind of buffer.
#include "UtlBitStream.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kBufferBytes = 64 * 1024;
// The baseline reads eight bytes, or nine for 64-bit fields, wherever a field starts; the slack
// keeps it inside its buffer. Both coders restart before the last 16 bytes.
constexpr uint32_t kSlack = 16;
constexpr uint32_t kRestartBit = (kBufferBytes - kSlack) * 8;

std::vector<unsigned char> randomBuffer() {
    std::vector<unsigned char> bytes(kBufferBytes + kSlack);
    std::mt19937 rng(42);
    for (unsigned char& b : bytes) {
        b = static_cast<unsigned char>(rng());
    }
    return bytes;
}

constexpr uint64_t lowMask(unsigned int bits) {
    return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
}

uint64_t loadBigEndian(const unsigned char* p) {
    uint64_t window = 0;
    for (int i = 0; i < 8; ++i) {
        window = (window << 8) | p[i];
    }
    return window;
}

void storeBigEndian(unsigned char* p, uint64_t window) {
    for (int i = 7; i >= 0; --i) {
        p[i] = static_cast<unsigned char>(window);
        window >>= 8;
    }
}

// The baseline: the width is a compile-time constant, there are no checks, and eight bytes are
// loaded (and stored) whatever the field spans.
template <unsigned int Bits>
uint64_t shiftMaskRead(const unsigned char* buffer, uint32_t position) {
    const unsigned char* p = buffer + position / 8;
    const unsigned int shift = position % 8;
    uint64_t window = loadBigEndian(p) << shift;
    if (Bits + shift > 64) {
        window |= p[8] >> (8 - shift);
    }
    return window >> (64 - Bits);
}

template <unsigned int Bits>
void shiftMaskWrite(unsigned char* buffer, uint32_t position, uint64_t value) {
    unsigned char* p = buffer + position / 8;
    const unsigned int shift = position % 8;
    const uint64_t field = value & lowMask(Bits);
    uint64_t window = loadBigEndian(p);
    if (shift + Bits <= 64) {
        const unsigned int down = 64 - shift - Bits;
        window = (window & ~(lowMask(Bits) << down)) | (field << down);
    } else {
        const unsigned int spill = shift + Bits - 64;
        window = (window & ~(~uint64_t{0} >> shift)) | (field >> spill);
        p[8] = static_cast<unsigned char>((p[8] & (0xFFu >> spill)) | (field << (8 - spill)));
    }
    storeBigEndian(p, window);
}

// The BitStream operation of the narrowest type that holds Bits.
template <unsigned int Bits>
uint64_t readAtPosition(utl::BitStream& stream) {
    if constexpr (Bits <= 8) {
        return stream.readBitToUint8(Bits);
    } else if constexpr (Bits <= 16) {
        return stream.readBitToUint16(Bits);
    } else if constexpr (Bits <= 32) {
        return stream.readBitToUint32(Bits);
    } else {
        return stream.readBitToUint64(Bits);
    }
}

template <unsigned int Bits>
void writeAtPosition(utl::BitStream& stream, uint64_t value) {
    if constexpr (Bits <= 8) {
        stream.writeBitToUint8(static_cast<unsigned char>(value), Bits);
    } else if constexpr (Bits <= 16) {
        stream.writeBitToUint16(static_cast<unsigned short>(value), Bits);
    } else if constexpr (Bits <= 32) {
        stream.writeBitToUint32(static_cast<unsigned int>(value), Bits);
    } else {
        stream.writeBitToUint64(value, Bits);
    }
}

template <unsigned int Bits>
void bitStreamRead(benchmark::State& state) {
    std::vector<unsigned char> bytes = randomBuffer();
    utl::BitStream stream(bytes.data(), kBufferBytes);
    for (auto _ : state) {
        if (stream.getBitPosition() > kRestartBit) {
            stream.seekBitOffset(0, utl::BitStream::ORIGIN_BEGIN);
        }
        benchmark::DoNotOptimize(readAtPosition<Bits>(stream));
    }
    state.SetItemsProcessed(state.iterations());
}

template <unsigned int Bits>
void shiftMaskReadBench(benchmark::State& state) {
    std::vector<unsigned char> bytes = randomBuffer();
    uint32_t position = 0;
    for (auto _ : state) {
        if (position > kRestartBit) {
            position = 0;
        }
        benchmark::DoNotOptimize(shiftMaskRead<Bits>(bytes.data(), position));
        position += Bits;
    }
    state.SetItemsProcessed(state.iterations());
}

template <unsigned int Bits>
void bitStreamWrite(benchmark::State& state) {
    std::vector<unsigned char> bytes = randomBuffer();
    utl::BitStream stream(bytes.data(), kBufferBytes);
    uint64_t value = 0x0123456789ABCDEFull;
    for (auto _ : state) {
        if (stream.getBitPosition() > kRestartBit) {
            stream.seekBitOffset(0, utl::BitStream::ORIGIN_BEGIN);
        }
        writeAtPosition<Bits>(stream, value);
        value += 0x9E3779B97F4A7C15ull;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

template <unsigned int Bits>
void shiftMaskWriteBench(benchmark::State& state) {
    std::vector<unsigned char> bytes = randomBuffer();
    uint32_t position = 0;
    uint64_t value = 0x0123456789ABCDEFull;
    for (auto _ : state) {
        if (position > kRestartBit) {
            position = 0;
        }
        shiftMaskWrite<Bits>(bytes.data(), position, value);
        position += Bits;
        value += 0x9E3779B97F4A7C15ull;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_BitStreamRead8(benchmark::State& state) {
    bitStreamRead<8>(state);
}
void BM_ShiftMaskRead8(benchmark::State& state) {
    shiftMaskReadBench<8>(state);
}
void BM_BitStreamRead13(benchmark::State& state) {
    bitStreamRead<13>(state);
}
void BM_ShiftMaskRead13(benchmark::State& state) {
    shiftMaskReadBench<13>(state);
}
void BM_BitStreamRead32(benchmark::State& state) {
    bitStreamRead<32>(state);
}
void BM_ShiftMaskRead32(benchmark::State& state) {
    shiftMaskReadBench<32>(state);
}
void BM_BitStreamRead64(benchmark::State& state) {
    bitStreamRead<64>(state);
}
void BM_ShiftMaskRead64(benchmark::State& state) {
    shiftMaskReadBench<64>(state);
}
void BM_BitStreamWrite8(benchmark::State& state) {
    bitStreamWrite<8>(state);
}
void BM_ShiftMaskWrite8(benchmark::State& state) {
    shiftMaskWriteBench<8>(state);
}
void BM_BitStreamWrite13(benchmark::State& state) {
    bitStreamWrite<13>(state);
}
void BM_ShiftMaskWrite13(benchmark::State& state) {
    shiftMaskWriteBench<13>(state);
}
void BM_BitStreamWrite32(benchmark::State& state) {
    bitStreamWrite<32>(state);
}
void BM_ShiftMaskWrite32(benchmark::State& state) {
    shiftMaskWriteBench<32>(state);
}
void BM_BitStreamWrite64(benchmark::State& state) {
    bitStreamWrite<64>(state);
}
void BM_ShiftMaskWrite64(benchmark::State& state) {
    shiftMaskWriteBench<64>(state);
}

}  // namespace

BENCHMARK(BM_BitStreamRead8);
BENCHMARK(BM_ShiftMaskRead8);
BENCHMARK(BM_BitStreamRead13);
BENCHMARK(BM_ShiftMaskRead13);
BENCHMARK(BM_BitStreamRead32);
BENCHMARK(BM_ShiftMaskRead32);
BENCHMARK(BM_BitStreamRead64);
BENCHMARK(BM_ShiftMaskRead64);
BENCHMARK(BM_BitStreamWrite8);
BENCHMARK(BM_ShiftMaskWrite8);
BENCHMARK(BM_BitStreamWrite13);
BENCHMARK(BM_ShiftMaskWrite13);
BENCHMARK(BM_BitStreamWrite32);
BENCHMARK(BM_ShiftMaskWrite32);
BENCHMARK(BM_BitStreamWrite64);
BENCHMARK(BM_ShiftMaskWrite64);
