#include "UtlMsg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <tuple>
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

// One field of every type; every value is set and got even after a failure, so that the sticky
// result alone must stop the pass.
struct AllTypesMsg : utl::Msg {
    explicit AllTypesMsg(int id) : utl::Msg(id) {}
    void storeDataTo(utl::MsgDataBroker* b) const override {
        std::apply([b](const auto&... value) { (b->set(value), ...); }, scalars);
        b->set(text), b->set(wide), b->set(block, sizeof block);
    }
    void restoreDataFrom(utl::MsgDataBroker& b) override {
        std::apply([&b](auto&... value) { (b.get(&value), ...); }, scalars);
        b.get(text, sizeof text), b.get(wide, 8), b.get(block, sizeof block);
    }

    std::tuple<bool, unsigned char, unsigned short, unsigned int, unsigned long long, signed char,
               short, int, long long, float, double, void*>
        scalars;
    char text[8] = {};
    wchar_t wide[8] = {};
    unsigned char block[3] = {};
};

// Values in host order without padding, the pointer in the build's width. A smaller buffer still
// gets the id and stops at the last value that fitted: no later, smaller value slips in after it.
TEST(MsgTest, StoreWritesPackedValuesUpToTheFirstThatDoesNotFitAndRestoreReadsThem) {
    AllTypesMsg m(0x1234);
    m.scalars = {true, 0xF1, 0xF2F3, 0xF4F5F6F7, 0x0102030405060708, -2, -3, -4,
                 -5,   1.5f, -2.25,  &m};
    std::strcpy(m.text, "ab"), std::wcscpy(m.wide, L"\u00e9z"), m.block[1] = 0xFF;
    const uint32_t wide[] = {0xE9, 'z', 0};
    std::vector<unsigned int> ends;
    const std::vector<unsigned char> expected = std::apply(
        [&](const auto&... value) {
            return pack(&ends, int32_t{0x1234}, value..., "ab", wide, m.block);
        },
        m.scalars);
    for (unsigned int maxSize = 0; maxSize <= expected.size(); ++maxSize) {
        SCOPED_TRACE(maxSize);
        ThreadRawMsg raw(maxSize);
        ASSERT_EQ(raw.maxSize(), std::max(maxSize, 4u));
        const bool fits = maxSize == expected.size();
        EXPECT_TRUE(m.storeTo(&raw) == fits && raw.getResult() == (fits ? 0 : -1));
        // The end of the last value that fits; the id (ends[0] = 4) always does.
        const unsigned int fitted =
            *std::prev(std::upper_bound(ends.begin(), ends.end(), raw.maxSize()));
        ASSERT_EQ(raw.writePosition(), fitted);
        EXPECT_EQ(std::memcmp(raw.buffer(), expected.data(), fitted), 0);
    }
    EXPECT_FALSE(m.storeTo(nullptr));

    // Restored values, stored again, give the same bytes.
    ThreadRawMsg raw(100), again(100);
    AllTypesMsg restored(0);
    ASSERT_TRUE(m.storeTo(&raw) && restored.restoreFrom(raw) && restored.storeTo(&again));
    EXPECT_TRUE(restored.getMsgId() == 0x1234 && raw.readPosition() == expected.size());
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
        {"get past the end", [&](ThreadRawMsg& m) { return m.get(&i) && m.get(&ll); }},
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
        EXPECT_TRUE(raw.setMsgId(98) && raw.getMsgId(&i) && i == 98);
        EXPECT_EQ(stateOf(raw), state);
        ASSERT_TRUE(raw.beginOutput());
        EXPECT_TRUE(raw.get(&i) && raw.getResult() == 0 && i == 7);
    }
}

// The length checks find a terminator only within the capacity and the message, the wide one in
// whole all-zero units; a getter whose check fails leaves the result alone.
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
        {"capacity 0", {0, 0, 0, 0}, 0, NO_LENGTH, NO_LENGTH},
    };
    for (const auto& [name, body, capacity, narrow, wide] : cases) {
        SCOPED_TRACE(name);
        const auto size = static_cast<unsigned int>(body.size());
        ThreadRawMsg raw(4 + size);
        utl::copyMemory(raw.buffer() + 4, body.data(), size);
        raw.beginOutput();
        EXPECT_EQ(raw.checkOutputStrLength(capacity), narrow);
        EXPECT_EQ(raw.checkOutputWideStrLength(capacity), wide);
        std::vector<char> text(capacity);  // exactly the capacity, so that ASan sees overruns
        std::vector<wchar_t> wideText(capacity);
        EXPECT_EQ(raw.get(text.data(), capacity), narrow != NO_LENGTH);
        raw.beginOutput();
        EXPECT_EQ(raw.get(wideText.data(), capacity), wide != NO_LENGTH);
        EXPECT_EQ(raw.getResult(), 0);
    }
}

// A copy starts a fresh pass; an assigned message continues where its source stood. Both copy
// every byte of the buffer, also those beyond the write position.
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
    EXPECT_EQ(stateOf(copy) + " " + stateOf(assigned), "16/0/0/0 16/12/8/-1");
    EXPECT_TRUE(std::memcmp(copy.buffer(), source.buffer(), 16) == 0 &&
                std::memcmp(assigned.buffer(), source.buffer(), 16) == 0);

    ThreadRawMsg& alias = assigned;
    const unsigned char* kept = assigned.buffer();
    assigned = alias;  // self-assignment keeps the buffer
    EXPECT_EQ(assigned.buffer(), kept);
}

// Records the calls that begin the pass of storeTo.
class RecordingRawMsg : public ThreadRawMsg {
  public:
    RecordingRawMsg() : ThreadRawMsg(8) {}
    bool beginInput() override { return note(" beginInput", ThreadRawMsg::beginInput()); }
    bool setMsgId(int id) override { return note(" setMsgId", ThreadRawMsg::setMsgId(id)); }

    std::string log;

  private:
    bool note(const char* call, bool result) {
        log += call;
        return result;
    }
};

TEST(MsgTest, StoreSetsTheIdBeforeBeginningAndRestoreNeedsTheBody) {
    utl::TimerMsg timer;
    timer.setTimerId(9);
    RecordingRawMsg raw;
    ASSERT_TRUE(timer.storeTo(&raw));
    EXPECT_EQ(raw.log, " setMsgId beginInput");

    utl::TimerMsg restored;
    EXPECT_TRUE(restored.restoreFrom(raw) && restored.getTimerId() == 9);

    ThreadRawMsg idOnly(0);
    ASSERT_TRUE(utl::SimpleMsg(1).storeTo(&idOnly));
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
