// Arbitrary bytes as a raw message, read back by a sequence of getters that the input chooses,
// then restored into a message with narrow and wide strings. Every output buffer lives on the
// heap with exactly the size handed to the getter, so that AddressSanitizer sees any overrun.
//
// Input: maximum size, mode (bit 0: write the body with set() instead of into buffer()), body
// length, fill byte for the rest of the buffer, the body, then the getter sequence.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "UtlMemory.h"
#include "UtlMsg.h"

namespace {

using utl::ThreadRawMsg;
constexpr unsigned int NO_LENGTH = ThreadRawMsg::NO_LENGTH;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// Hands out the input bytes one at a time, then zeros.
struct Input {
    unsigned int next() { return pos < size ? data[pos++] : 0; }

    const std::uint8_t* data;
    std::size_t size, pos;
};

void requireSane(const ThreadRawMsg& raw) {
    require(raw.writePosition() <= raw.maxSize() && raw.readPosition() <= raw.maxSize());
    require(raw.maxSize() >= 4 || raw.buffer() == nullptr);
}

// What a getter did: success, from a clean pass, with `width` bytes read from the old read
// position into an output that `matches`, or failure without moving that spoils the pass.
void requireRead(ThreadRawMsg& raw, bool ok, unsigned int before, int resultBefore, bool matches,
                 unsigned int width) {
    requireSane(raw);
    if (ok) {
        require(resultBefore == 0 && raw.getResult() == 0 && matches);
        require(raw.readPosition() == before + width);
    } else {
        require(raw.readPosition() == before && raw.getResult() == -1);
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
    require(length == referenceLength(raw, capacity, unit));
    std::unique_ptr<C[]> out(new C[capacity]);
    const bool ok = raw.get(out.get(), capacity);
    if (length == NO_LENGTH || resultBefore != 0) {
        requireSane(raw);
        require(!ok && raw.readPosition() == before && raw.getResult() == resultBefore);
        return;
    }
    require(ok && length <= capacity && out[length - 1] == 0);
    require(std::find(out.get(), out.get() + length - 1, C(0)) == out.get() + length - 1);
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

// A null output fails and spoils the pass without moving (a string that does not fit fails first).
void getNull(ThreadRawMsg& raw, Input& in) {
    const unsigned int which = in.next();
    const unsigned int before = raw.readPosition();
    const int resultBefore = raw.getResult();
    const bool fits = raw.checkOutputStrLength(16) != NO_LENGTH;
    const bool ok = which % 3 == 0   ? raw.get(static_cast<int*>(nullptr))
                    : which % 3 == 1 ? raw.get(static_cast<unsigned char*>(nullptr), which)
                                     : raw.get(static_cast<char*>(nullptr), 16);
    require(!ok && raw.readPosition() == before);
    require(raw.getResult() == (which % 3 == 2 && !fits ? resultBefore : -1));
}

using Operation = void (*)(ThreadRawMsg&, Input&);

void begin(ThreadRawMsg& raw, Input&) {
    require(raw.beginOutput() && raw.readPosition() == 4 && raw.getResult() == 0);
}

// The id header reads whatever the result; a null output fails without spoiling.
void getId(ThreadRawMsg& raw, Input&) {
    int id = 0;
    const int result = raw.getResult();
    require(raw.getMsgId(&id) && std::memcmp(&id, raw.buffer(), 4) == 0);
    require(!raw.getMsgId(nullptr) && raw.getResult() == result);
}

// A message with strings between scalars; its strings live on the heap in buffers of the input's
// capacities. `complete` says whether the last restore read every field.
class FuzzMsg : public utl::Msg {
  public:
    FuzzMsg(unsigned int textCapacity, unsigned int wideCapacity)
        : utl::Msg(0),
          mTextCapacity(textCapacity),
          mWideCapacity(wideCapacity),
          mText(new char[textCapacity]),
          mWide(new wchar_t[wideCapacity]) {}

    void storeDataTo(utl::MsgDataBroker* b) const override {
        b->set(mCount), b->set(mText.get()), b->set(mFlag), b->set(mWide.get());
        b->set(mBlock, sizeof mBlock), b->set(mValue);
    }
    void restoreDataFrom(utl::MsgDataBroker& b) override {
        mComplete = b.get(&mCount) && b.get(mText.get(), mTextCapacity) && b.get(&mFlag) &&
                    b.get(mWide.get(), mWideCapacity) && b.get(mBlock, sizeof mBlock) &&
                    b.get(&mValue);
    }

    // Offset of the bool after a complete restore: id, count and the narrow string before it.
    unsigned int flagOffset() const {
        return 4 + sizeof mCount + static_cast<unsigned int>(std::strlen(mText.get())) + 1;
    }
    bool complete() const { return mComplete; }

  private:
    unsigned int mTextCapacity, mWideCapacity;
    std::unique_ptr<char[]> mText;
    std::unique_ptr<wchar_t[]> mWide;
    unsigned short mCount = 0;
    bool mFlag = false;
    unsigned char mBlock[5] = {};
    double mValue = 0;
    bool mComplete = false;
};

// Restores the message; a complete restore stored again gives back the bytes it read, with the
// bool byte as 0 or 1.
void restoreAndStoreAgain(ThreadRawMsg& raw, unsigned int textCapacity, unsigned int wideCapacity) {
    FuzzMsg msg(textCapacity, wideCapacity);
    const bool restored = msg.restoreFrom(raw);
    requireSane(raw);
    require(restored == (raw.getResult() == 0));
    if (!msg.complete()) {
        return;
    }
    require(restored);
    int id = 0;
    require(raw.getMsgId(&id) && id == msg.getMsgId());
    std::vector<unsigned char> expected(raw.buffer(), raw.buffer() + raw.readPosition());
    expected[msg.flagOffset()] = expected[msg.flagOffset()] != 0 ? 1 : 0;
    ThreadRawMsg again(raw.maxSize());
    require(msg.storeTo(&again) && again.writePosition() == raw.readPosition());
    require(std::memcmp(again.buffer(), expected.data(), expected.size()) == 0);
}

// The copy constructor restarts; assignment carries positions and result along.
void checkCopies(ThreadRawMsg& raw) {
    ThreadRawMsg copy(raw);
    require(copy.maxSize() == raw.maxSize() && copy.readPosition() == 0);
    require(copy.writePosition() == 0 && copy.getResult() == (raw.buffer() ? 0 : -1));
    require(utl::compareMemory(copy.buffer(), raw.buffer(), raw.maxSize()));
    ThreadRawMsg assigned(7);
    assigned = raw;
    require(assigned.maxSize() == raw.maxSize() && assigned.getResult() == raw.getResult());
    require(assigned.readPosition() == raw.readPosition());
    require(assigned.writePosition() == raw.writePosition());
    require(utl::compareMemory(assigned.buffer(), raw.buffer(), raw.maxSize()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) {
        return 0;
    }
    Input in = {data, size, 0};
    const unsigned int maxSize = in.next(), mode = in.next();
    const unsigned int bodyLength = std::min<unsigned int>(in.next(), size - 4);
    const unsigned int fill = in.next();
    const std::uint8_t* body = data + 4;
    in.pos += bodyLength;

    ThreadRawMsg raw(maxSize);
    require(raw.maxSize() == (maxSize < 4 ? 4 : maxSize) && raw.getResult() == 0);
    utl::fillMemory(raw.buffer(), raw.maxSize(), static_cast<unsigned char>(fill));
    if ((mode & 1) != 0) {
        const int id = static_cast<int>(mode * 0x01010101u);
        require(raw.setMsgId(id) && raw.beginInput() && raw.writePosition() == 4);
        const bool ok = raw.set(body, bodyLength);
        require(ok == (bodyLength <= raw.maxSize() - 4) && raw.getResult() == (ok ? 0 : -1));
        require(raw.writePosition() == 4 + (ok ? bodyLength : 0));
        require(!ok || std::memcmp(raw.buffer() + 4, body, bodyLength) == 0);
        int back = 0;
        require(raw.getMsgId(&back) && back == id);
    } else {
        utl::copyMemory(raw.buffer(), body, std::min(bodyLength, raw.maxSize()));
    }
    requireSane(raw);

    begin(raw, in);
    while (in.pos < in.size) {
        const unsigned int op = in.next() % 18;
        const Operation operations[] = {begin,   getId,           getBlock,
                                        getNull, getString<char>, getString<wchar_t>};
        if (op < 6) {
            operations[op](raw, in);
        } else {
            getScalar<bool, unsigned char, unsigned short, unsigned int, unsigned long long,
                      signed char, short, int, long long, float, double, void*>(raw, op - 6);
        }
    }
    checkCopies(raw);
    restoreAndStoreAgain(raw, 1 + mode / 8, 1 + fill % 32);
    return 0;
}
