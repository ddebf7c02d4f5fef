// Arbitrary bytes as a raw message, read back by a sequence of getters that the input chooses.
// Every output buffer lives on the heap with exactly the size handed to the getter, so that
// AddressSanitizer sees any overrun.
//
// Input: maximum size, body length, fill byte for the rest of the buffer, the body, then the
// getter sequence.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "UtlMemory.h"
#include "UtlMsg.h"

namespace {

using utl::ThreadRawMsg;
constexpr unsigned int NO_LENGTH = ThreadRawMsg::NO_LENGTH;

// Aborts, which libFuzzer reports as a crash, unless `condition` holds.
#define REQUIRE(condition) ((condition) ? void() : std::abort())

// Hands out the input bytes one at a time, then zeros.
struct Input {
    unsigned int next() { return pos < size ? data[pos++] : 0; }

    const std::uint8_t* data;
    std::size_t size, pos;
};

void requireSane(const ThreadRawMsg& raw) {
    REQUIRE(raw.writePosition() <= raw.maxSize() && raw.readPosition() <= raw.maxSize());
    REQUIRE(raw.maxSize() >= 4 || raw.buffer() == nullptr);
}

// What a getter did: success, from a clean pass, with `width` bytes read from the old read
// position into an output that `matches`, or failure without moving that spoils the pass.
void requireRead(ThreadRawMsg& raw, bool ok, unsigned int before, int resultBefore, bool matches,
                 unsigned int width) {
    requireSane(raw);
    if (ok) {
        REQUIRE(resultBefore == 0 && raw.getResult() == 0 && matches);
        REQUIRE(raw.readPosition() == before + width);
    } else {
        REQUIRE(raw.readPosition() == before && raw.getResult() == -1);
    }
}

// A bool is true for any non-zero byte; the other scalars are their bytes.
template <class T>
void getOne(ThreadRawMsg& raw) {
    const unsigned int before = raw.readPosition();
    const int resultBefore = raw.getResult();
    std::unique_ptr<T> value(new T);
    const bool ok = raw.get(value.get());
    bool matches = false;
    if constexpr (std::is_same<T, bool>::value) {
        matches = ok && *value == (raw.buffer()[before] != 0);
    } else {
        matches = ok && std::memcmp(value.get(), raw.buffer() + before, sizeof(T)) == 0;
    }
    requireRead(raw, ok, before, resultBefore, matches, sizeof(T));
}

// Reads the `which`th of the types T.
template <class... T>
void getScalar(ThreadRawMsg& raw, unsigned int which) {
    unsigned int i = 0;
    ((i++ == which ? getOne<T>(raw) : void()), ...);
}

// The string length at the read position found the slow way, in units of `unit` bytes.
unsigned int referenceLength(const ThreadRawMsg& raw, unsigned int capacity, unsigned int unit) {
    const unsigned int units = (raw.maxSize() - raw.readPosition()) / unit;
    for (unsigned int k = 0; k < capacity && k < units; ++k) {
        const unsigned char* p = raw.buffer() + raw.readPosition() + k * unit;
        if (std::all_of(p, p + unit, [](unsigned char b) { return b == 0; })) {
            return k + 1;
        }
    }
    return NO_LENGTH;
}

// A string getter fails without spoiling when the string does not fit; when it succeeds the
// copy is terminated within the capacity.
template <class C>
void getString(ThreadRawMsg& raw, Input& in) {
    constexpr unsigned int unit = sizeof(C) == 1 ? 1 : 4;
    const unsigned int capacity = in.next() % (unit == 1 ? 256 : 72);
    const unsigned int before = raw.readPosition();
    const int resultBefore = raw.getResult();
    const unsigned int length = sizeof(C) == 1 ? raw.checkOutputStrLength(capacity)
                                               : raw.checkOutputWideStrLength(capacity);
    REQUIRE(length == referenceLength(raw, capacity, unit));
    std::unique_ptr<C[]> out(new C[capacity]);
    const bool ok = raw.get(out.get(), capacity);
    if (length == NO_LENGTH || resultBefore != 0) {
        requireSane(raw);
        REQUIRE(!ok && raw.readPosition() == before && raw.getResult() == resultBefore);
        return;
    }
    REQUIRE(ok && length <= capacity && out[length - 1] == 0);
    REQUIRE(std::find(out.get(), out.get() + length - 1, C(0)) == out.get() + length - 1);
    requireRead(raw, ok, before, resultBefore,
                std::memcmp(out.get(), raw.buffer() + before, length * unit) == 0, length * unit);
}

void getBlock(ThreadRawMsg& raw, Input& in) {
    const unsigned int length = in.next();
    const unsigned int before = raw.readPosition();
    const int resultBefore = raw.getResult();
    std::unique_ptr<unsigned char[]> out(new unsigned char[length]);
    const bool ok = raw.get(out.get(), length);
    requireRead(raw, ok, before, resultBefore,
                ok && std::memcmp(out.get(), raw.buffer() + before, length) == 0, length);
}

using Operation = void (*)(ThreadRawMsg&, Input&);

void begin(ThreadRawMsg& raw, Input&) {
    REQUIRE(raw.beginOutput() && raw.readPosition() == 4 && raw.getResult() == 0);
}

// The id header reads whatever the result; a null output fails without spoiling.
void getId(ThreadRawMsg& raw, Input&) {
    int id = 0;
    const int result = raw.getResult();
    REQUIRE(raw.getMsgId(&id) && std::memcmp(&id, raw.buffer(), 4) == 0);
    REQUIRE(!raw.getMsgId(nullptr) && raw.getResult() == result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) {
        return 0;
    }
    Input in = {data, size, 0};
    const unsigned int maxSize = in.next();
    const unsigned int bodyLength = std::min<unsigned int>(in.next(), size - 3);
    const unsigned int fill = in.next();
    ThreadRawMsg raw(maxSize);
    REQUIRE(raw.maxSize() == (maxSize < 4 ? 4 : maxSize) && raw.getResult() == 0);
    utl::fillMemory(raw.buffer(), raw.maxSize(), static_cast<unsigned char>(fill));
    utl::copyMemory(raw.buffer(), data + 3, std::min(bodyLength, raw.maxSize()));
    in.pos += bodyLength;

    begin(raw, in);
    while (in.pos < in.size) {
        const unsigned int op = in.next() % 17;
        const Operation operations[] = {begin, getId, getBlock, getString<char>,
                                        getString<wchar_t>};
        if (op < 5) {
            operations[op](raw, in);
        } else {
            getScalar<bool, unsigned char, unsigned short, unsigned int, unsigned long long,
                      signed char, short, int, long long, float, double, void*>(raw, op - 5);
        }
    }
    return 0;
}
