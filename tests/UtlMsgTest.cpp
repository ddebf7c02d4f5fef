#include "UtlMsg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "UtlMemory.h"

namespace {

using utl::ThreadRawMsg;
constexpr unsigned int NO_LENGTH = ThreadRawMsg::NO_LENGTH;

// "max size/write position/read position/result"
std::string stateOf(ThreadRawMsg& raw) {
    return std::to_string(raw.maxSize()) + "/" + std::to_string(raw.writePosition()) + "/" +
           std::to_string(raw.readPosition()) + "/" + std::to_string(raw.getResult());
}

// The bytes of the values one after the other; `ends` gets the offset at which each ends.
template <class... T>
std::vector<unsigned char> pack(std::vector<unsigned int>* ends, const T&... values) {
    std::vector<unsigned char> bytes;
    const auto append = [&](const auto& value) {
        const auto* p = reinterpret_cast<const unsigned char*>(&value);
        bytes.insert(bytes.end(), p, p + sizeof value);
        ends->push_back(static_cast<unsigned int>(bytes.size()));
    };
    (append(values), ...);
    return bytes;
}

// One field of every type. Every value is set and got even after a failure, so that the sticky
// result alone stops the pass.
struct AllTypesMsg : utl::Msg {
    explicit AllTypesMsg(bool filled) : utl::Msg(filled ? 0x1234 : 0) {
        if (filled) {
            flag = true, u8 = 0xF1, u16 = 0xF2F3, u32 = 0xF4F5F6F7, u64 = 0x0102030405060708;
            s8 = -2, s16 = -3, s32 = -4, s64 = -5, f = 1.5f, d = -2.25, ptr = this;
            std::strcpy(text, "ab"), std::wcscpy(wide, L"\u00e9z"), block[1] = 0xFF, block[2] = 7;
        }
    }
    void storeDataTo(utl::MsgDataBroker* b) const override {
        b->set(flag), b->set(u8), b->set(u16), b->set(u32), b->set(u64), b->set(s8);
        b->set(s16), b->set(s32), b->set(s64), b->set(f), b->set(d), b->set(ptr);
        b->set(text), b->set(wide), b->set(block, sizeof block);
    }
    void restoreDataFrom(utl::MsgDataBroker& b) override {
        b.get(&flag), b.get(&u8), b.get(&u16), b.get(&u32), b.get(&u64), b.get(&s8);
        b.get(&s16), b.get(&s32), b.get(&s64), b.get(&f), b.get(&d), b.get(&ptr);
        b.get(text, sizeof text), b.get(wide, 8), b.get(block, sizeof block);
    }

    bool flag = false;
    unsigned char u8 = 0, block[3] = {};
    unsigned short u16 = 0;
    unsigned int u32 = 0;
    unsigned long long u64 = 0;
    signed char s8 = 0;
    short s16 = 0;
    int s32 = 0;
    long long s64 = 0;
    float f = 0;
    double d = 0;
    void* ptr = nullptr;
    char text[8] = {};
    wchar_t wide[8] = {};
};

// The body is the values in host order without padding, the pointer in the build's width. In a
// smaller buffer the id is written all the same and the body stops at the last value that fitted:
// no later, smaller value slips in after a failed one. Restored values, stored again, give the
// same bytes.
TEST(MsgTest, StoreWritesPackedValuesUpToTheFirstThatDoesNotFitAndRestoreReadsThem) {
    const AllTypesMsg m(true);
    const uint32_t wide[] = {0xE9, 'z', 0};
    std::vector<unsigned int> ends;
    const std::vector<unsigned char> expected =
        pack(&ends, int32_t{0x1234}, true, m.u8, m.u16, m.u32, m.u64, m.s8, m.s16, m.s32, m.s64,
             m.f, m.d, m.ptr, "ab", wide, m.block);
    for (unsigned int maxSize = 0; maxSize <= expected.size(); ++maxSize) {
        SCOPED_TRACE(maxSize);
        ThreadRawMsg raw(maxSize);
        ASSERT_EQ(raw.maxSize(), std::max(maxSize, 4u));
        EXPECT_EQ(m.storeTo(&raw), maxSize == expected.size());
        EXPECT_EQ(raw.getResult(), maxSize == expected.size() ? 0 : -1);
        unsigned int fitted = 4;
        for (unsigned int end : ends) {
            fitted = end <= raw.maxSize() ? end : fitted;
        }
        ASSERT_EQ(raw.writePosition(), fitted);
        EXPECT_EQ(std::memcmp(raw.buffer(), expected.data(), fitted), 0);
    }
    EXPECT_FALSE(m.storeTo(nullptr));

    ThreadRawMsg raw(100), again(100);
    AllTypesMsg restored(false);
    ASSERT_TRUE(m.storeTo(&raw) && restored.restoreFrom(raw) && restored.storeTo(&again));
    EXPECT_EQ(restored.getMsgId(), 0x1234);
    EXPECT_EQ(raw.readPosition(), expected.size());
    EXPECT_EQ(std::memcmp(again.buffer(), expected.data(), expected.size()), 0);
}

// Every failing access makes the result -1, after which every set and get of the pass fails
// without moving a position, while the id header stays usable; a begin clears it.
TEST(MsgTest, FailedAccessSpoilsThePassUntilTheNextBegin) {
    int i = 0;
    long long ll = 0;
    bool b = false;
    const std::pair<const char*, std::function<bool(ThreadRawMsg&)>> cases[] = {
        {"set past the end", [](ThreadRawMsg& m) { return m.set(1LL); }},
        {"set null text", [](ThreadRawMsg& m) { return m.set(static_cast<const char*>(nullptr)); }},
        {"set null wide",
         [](ThreadRawMsg& m) { return m.set(static_cast<const wchar_t*>(nullptr)); }},
        {"set null block", [](ThreadRawMsg& m) { return m.set(nullptr, 0); }},
        {"get past the end", [&](ThreadRawMsg& m) { return m.get(&i) && m.get(&ll); }},
        {"get null int", [](ThreadRawMsg& m) { return m.get(static_cast<int*>(nullptr)); }},
        {"get null block",
         [](ThreadRawMsg& m) { return m.get(static_cast<unsigned char*>(nullptr), 0); }},
        {"get null text", [](ThreadRawMsg& m) { return m.get(static_cast<char*>(nullptr), 9); }},
    };
    for (const auto& [name, fail] : cases) {
        SCOPED_TRACE(name);
        ThreadRawMsg raw(12);  // id, the int 7 and 4 free bytes
        raw.setMsgId(99);
        ASSERT_TRUE(raw.beginInput() && raw.set(7) && raw.beginOutput());
        utl::copyMemory(raw.buffer() + 8, "\1\2\3\4", 4);
        EXPECT_FALSE(fail(raw));
        ASSERT_EQ(raw.getResult(), -1);
        const std::string state = stateOf(raw);
        unsigned char byte = 0;
        EXPECT_FALSE(raw.set(static_cast<unsigned char>(1)));
        EXPECT_FALSE(raw.get(&byte) || raw.get(&b) || raw.get(&i));
        EXPECT_TRUE(raw.setMsgId(98) && raw.getMsgId(&i));
        EXPECT_EQ(i, 98);
        EXPECT_EQ(stateOf(raw), state);
        ASSERT_TRUE(raw.beginOutput());
        EXPECT_TRUE(raw.get(&i) && raw.getResult() == 0 && i == 7);
    }
}

// Reads a string of capacity `capacity` from byte 4 on: it succeeds for a known length, and
// leaves the result clean either way.
template <class C>
void expectString(ThreadRawMsg& raw, unsigned int capacity, unsigned int length,
                  const std::vector<unsigned char>& body) {
    raw.beginOutput();
    std::vector<C> out(capacity);  // exactly the capacity, so that ASan sees overruns
    EXPECT_EQ(raw.get(out.data(), capacity), length != NO_LENGTH);
    EXPECT_EQ(raw.getResult(), 0);
    const unsigned int size = length != NO_LENGTH ? length * (sizeof(C) == 1 ? 1 : 4) : 0;
    EXPECT_EQ(raw.readPosition(), 4 + size);
    EXPECT_TRUE(size == 0 || std::memcmp(out.data(), body.data(), size) == 0);
}

// The length checks find a terminator only within the capacity and the message, the wide one in
// whole all-zero units; a getter whose check fails leaves the result and the read position alone.
TEST(MsgTest, StringLengthChecksAndStringGettersThatFailWithoutSpoiling) {
    const std::vector<unsigned char> hello = {'h', 'e', 'l', 'l', 'o', 0};
    std::vector<unsigned int> ends;
    const std::vector<unsigned char> wideHi =
        pack(&ends, uint32_t{'h'}, uint32_t{'i'}, uint32_t{0});
    struct Case {
        const char* name;
        std::vector<unsigned char> body;
        unsigned int capacity, narrow, wide;
    };
    const Case cases[] = {
        {"fits exactly", hello, 6, 6, NO_LENGTH},
        {"one char short", hello, 5, NO_LENGTH, NO_LENGTH},
        {"wide fits exactly", wideHi, 3, 2, 3},
        {"wide one short", wideHi, 2, 2, NO_LENGTH},
        {"zero byte is no zero unit", {0, 1, 0, 0, 0, 0, 0, 0}, 9, 1, 2},
        {"no terminator before the end", {'a', 'b'}, 9, NO_LENGTH, NO_LENGTH},
        {"partial zero unit", {0, 0, 0}, 9, 1, NO_LENGTH},
        {"nothing left", {}, 9, NO_LENGTH, NO_LENGTH},
        {"capacity 0", {0, 0, 0, 0}, 0, NO_LENGTH, NO_LENGTH},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ThreadRawMsg raw(4 + static_cast<unsigned int>(c.body.size()));
        utl::copyMemory(raw.buffer() + 4, c.body.data(), static_cast<unsigned int>(c.body.size()));
        raw.beginOutput();
        EXPECT_EQ(raw.checkOutputStrLength(c.capacity), c.narrow);
        EXPECT_EQ(raw.checkOutputWideStrLength(c.capacity), c.wide);

        expectString<char>(raw, c.capacity, c.narrow, c.body);
        expectString<wchar_t>(raw, c.capacity, c.wide, c.body);
    }
}

TEST(MsgTest, GetBoolIsTrueForAnyNonZeroByte) {
    ThreadRawMsg raw(8);
    utl::copyMemory(raw.buffer() + 4, "\x02\x00\x01\xFF", 4);
    raw.beginOutput();
    bool values[5] = {};
    EXPECT_TRUE(raw.get(&values[0]) && raw.get(&values[1]) && raw.get(&values[2]) &&
                raw.get(&values[3]));
    EXPECT_FALSE(raw.get(&values[4]));
    EXPECT_EQ(std::vector<bool>(values, values + 4), std::vector<bool>({true, false, true, true}));
    EXPECT_EQ(raw.getResult(), -1);
}

// A copy starts a fresh pass (so it reads the id first); an assigned message continues where its
// source stood. Both copy every byte of the buffer, also those beyond the write position.
TEST(MsgTest, CopyConstructionRestartsButAssignmentContinues) {
    ThreadRawMsg source(16);
    source.setMsgId(5);
    ASSERT_TRUE(source.beginInput() && source.set(11) && source.set(22));
    source.buffer()[15] = 0xAB;
    int value = 0;
    ASSERT_TRUE(source.beginOutput() && source.get(&value) && value == 11);
    source.get(static_cast<int*>(nullptr));  // result -1

    ThreadRawMsg copy(source), assigned(4);
    assigned = source;
    EXPECT_EQ(stateOf(copy), "16/0/0/0");
    EXPECT_EQ(stateOf(assigned), "16/12/8/-1");
    EXPECT_EQ(std::memcmp(copy.buffer(), source.buffer(), 16), 0);
    EXPECT_EQ(std::memcmp(assigned.buffer(), source.buffer(), 16), 0);
    EXPECT_TRUE(copy.get(&value));
    EXPECT_EQ(value, 5);

    ThreadRawMsg& alias = assigned;
    const unsigned char* kept = assigned.buffer();
    assigned = alias;
    EXPECT_EQ(assigned.buffer(), kept);
    EXPECT_TRUE(assigned.beginOutput() && assigned.get(&value) && assigned.get(&value));
    EXPECT_EQ(value, 22);
}

// Records the calls around the passes that storeTo and restoreFrom make.
class RecordingRawMsg : public ThreadRawMsg {
  public:
    RecordingRawMsg() : ThreadRawMsg(8) {}
    bool beginInput() override { return note(" beginInput", ThreadRawMsg::beginInput()); }
    bool beginOutput() override { return note(" beginOutput", ThreadRawMsg::beginOutput()); }
    bool setMsgId(int id) override { return note(" setMsgId", ThreadRawMsg::setMsgId(id)); }
    bool getMsgId(int* id) override { return note(" getMsgId", ThreadRawMsg::getMsgId(id)); }

    std::string log;

  private:
    bool note(const char* call, bool result) {
        log += call;
        return result;
    }
};

TEST(MsgTest, StoreSetsTheIdBeforeBeginningAndRestoreOverwritesTheId) {
    EXPECT_EQ(utl::TimerMsg::ID, -2147483646);
    utl::TimerMsg timer;
    EXPECT_EQ(timer.getTimerId(), -1);
    timer.setTimerId(9);
    RecordingRawMsg raw;
    ASSERT_TRUE(timer.storeTo(&raw));
    EXPECT_EQ(raw.log, " setMsgId beginInput");

    raw.log.clear();
    utl::TimerMsg restored;
    ASSERT_TRUE(restored.restoreFrom(raw));
    EXPECT_EQ(raw.log, " getMsgId beginOutput");
    EXPECT_EQ(restored.getTimerId(), 9);

    utl::SimpleMsg simple(42);
    ASSERT_TRUE(simple.restoreFrom(raw));
    EXPECT_EQ(simple.getMsgId(), utl::TimerMsg::ID);
    ThreadRawMsg idOnly(0);
    ASSERT_TRUE(simple.storeTo(&idOnly));
    EXPECT_FALSE(restored.restoreFrom(idOnly));  // a timer message needs its body
}

// Only a 32-bit process reliably fails to allocate a 4 GiB buffer.
TEST(MsgTest, MessageWithoutBufferFailsEveryAccess) {
    if (sizeof(void*) != 4) {
        GTEST_SKIP() << "a 4 GiB buffer may be granted on a 64-bit host";
    }
    ThreadRawMsg raw(~0u);
    ASSERT_EQ(raw.buffer(), nullptr);
    EXPECT_EQ(stateOf(raw), "0/0/0/-1");
    EXPECT_FALSE(raw.beginInput() || raw.beginOutput() || raw.setMsgId(1));
    EXPECT_FALSE(utl::SimpleMsg(1).storeTo(&raw));
    ThreadRawMsg copy(raw), assigned(8);
    assigned = raw;
    EXPECT_TRUE(copy.buffer() == nullptr && assigned.buffer() == nullptr);
    EXPECT_EQ(assigned.getResult(), -1);
}

}  // namespace
