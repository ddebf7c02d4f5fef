#include "UtlMemory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "UtlThreadManager.h"

namespace utl {

// Reads the totals and the table of the heap-accounting object.
class MemoryTestAccess {
  public:
    static Memory::ProcessHeapInfo totals(const Memory& m) { return m.mProcessHeapInfo; }
    static uint32_t count(const Memory& m) { return m.mDetailHeapCount; }
    static const Memory::DetailHeapInfo& slot(const Memory& m) { return m.mDetailHeapInfo[0]; }
};

}  // namespace utl

namespace {

using utl::Memory;
using Access = utl::MemoryTestAccess;
constexpr int ALLOC = Memory::KIND_ALLOCATION;
constexpr int RELEASE = Memory::KIND_RELEASE;

TEST(MemoryTest, HelpersMatchTheCFunctionsAndIgnoreNullPointers) {
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    utl::moveMemory(bytes + 2, bytes, 5);  // overlapping, in order: 1 2 1 2 3 4 5 8
    utl::copyMemory(bytes, bytes + 4, 2);
    utl::fillMemory(bytes + 2, 3, 0xAB);
    utl::zeroMemory(bytes + 6, 2);
    utl::copyMemory(nullptr, bytes, 4);
    utl::copyMemory(bytes, nullptr, 4);
    utl::moveMemory(bytes, nullptr, 4);
    utl::fillMemory(nullptr, 4, 1);
    utl::zeroMemory(nullptr, 4);
    const unsigned char expected[8] = {3, 4, 0xAB, 0xAB, 0xAB, 4, 0, 0};
    EXPECT_TRUE(utl::compareMemory(bytes, expected, 8) && utl::compareMemory(bytes, "", 0));
    EXPECT_FALSE(utl::compareMemory(bytes, expected + 1, 1) ||
                 utl::compareMemory(nullptr, bytes, 0) || utl::compareMemory(bytes, nullptr, 0));
}

void* at(uintptr_t address) {
    return reinterpret_cast<void*>(address);
}

// "use bytes/use count/max bytes/max count"
std::string totals(const Memory& memory) {
    const Memory::ProcessHeapInfo t = Access::totals(memory);
    return std::to_string(t.mUseBytes) + "/" + std::to_string(t.mUseCount) + "/" +
           std::to_string(t.mMaxBytes) + "/" + std::to_string(t.mMaxCount);
}

std::string callerId() {
    char text[16];
    std::snprintf(text, sizeof text, "%10d", utl::ThreadManager::getCallerId());
    return text;
}

// Every test starts from a fresh object and leaves none behind; the messages go to descriptor 0.
class HeapAccountingTest : public ::testing::Test {
  protected:
    void SetUp() override { renew(); }
    void TearDown() override { Memory::destroy(); }
    void renew() {
        Memory::destroy();
        memory = Memory::get();
        ASSERT_NE(nullptr, memory);
    }

    Memory* memory = nullptr;
};

// Threads race to make the object after a destroy: they all get the one fresh object.
TEST_F(HeapAccountingTest, OneObjectForAllThreadsAndAFreshOneAfterDestroy) {
    memory->updateManagement(ALLOC, at(0x1000), 10, 0, 1);
    memory->registerThreadName(7, "seven");
    Memory::destroy();
    std::vector<Memory*> seen(4);
    std::vector<std::thread> threads;
    for (Memory*& slot : seen) {
        threads.emplace_back([&slot] { slot = Memory::get(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    memory = Memory::get();
    EXPECT_EQ(seen, std::vector<Memory*>(4, memory));
    EXPECT_EQ(0u, Access::count(*memory));
    EXPECT_EQ("0/0/0/0", totals(*memory));
    EXPECT_STREQ("", memory->getThreadName(7));
}

// The table holds one record here: a second allocation is refused with the "over" message; a
// release clears the slot and lowers the totals while the peaks stay.
TEST_F(HeapAccountingTest, AllocationsAreRecordedUntilTheTableIsFullAndReleasesClearThem) {
    OutputCapture fd0(0);
    memory->updateManagement(ALLOC, at(0x1234), 100, 7, 41);
    const Memory::DetailHeapInfo& slot = Access::slot(*memory);
    EXPECT_TRUE(slot.mSerial == 1 && slot.mAddress == 0x1234 && slot.mUseBytes == 100 &&
                slot.mThreadId == utl::ThreadManager::getCallerId() && slot.mFileId == 7 &&
                slot.mLine == 41);
    memory->updateManagement(ALLOC, at(0x5678), 200, 3, 42);
    EXPECT_EQ(
        "!!!! DetailHeapInfo management over on allocation\n"
        "MaxCount:1, Address:0x00005678, UseBytes:       200, ThreadId:" +
            callerId() + ", Line:      42, File:, \n",
        fd0.text());
    EXPECT_TRUE(Access::count(*memory) == 1 && slot.mAddress == 0x1234);
    EXPECT_EQ("100/1/100/1", totals(*memory));

    memory->updateManagement(RELEASE, at(0x1234), 0, 0, 2);
    EXPECT_TRUE(Access::count(*memory) == 0 && slot.mSerial == 0 && slot.mAddress == 0 &&
                slot.mUseBytes == 0 && slot.mThreadId == 0 && slot.mFileId == 0 && slot.mLine == 0);
    EXPECT_EQ("0/0/100/1", totals(*memory));
    memory->updateManagement(ALLOC, at(0x2000), 40, 0, 3);
    EXPECT_EQ("40/1/100/1", totals(*memory));
    memory->updateManagement(-5, at(0x2000), 0, 0, 4);  // any kind but 0 releases
    memory->updateManagement(ALLOC, at(0x3000), 300, 0, 5);
    EXPECT_EQ("300/1/300/1", totals(*memory));
}

TEST_F(HeapAccountingTest, ReleaseOfAnUnrecordedAddressPrintsTheFramedMessage) {
    const std::string frame = std::string(67, '!') + "\n";
    const std::string framed = frame +
                               "!!!! DetailHeapInfo release address is not in under management\n"
                               "Address:0x0000abcd, ThreadId:" +
                               callerId() + ", Line:      42, File:, \n" + frame;
    const struct {
        uintptr_t held;  // 0: nothing recorded
        uintptr_t released;
        std::string expected;
    } cases[] = {{0, 0xabcd, framed}, {0xabce, 0xabcd, framed}, {0xabce, 0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "held " << c.held << ", released " << c.released);
        renew();
        if (c.held != 0) {
            memory->updateManagement(ALLOC, at(c.held), 8, 0, 1);
        }
        OutputCapture fd0(0);
        memory->updateManagement(RELEASE, at(c.released), 0, 0, 42);
        EXPECT_EQ(c.expected, fd0.text());
        EXPECT_EQ(c.held != 0 ? "8/1/8/1" : "0/0/0/0", totals(*memory));
    }
}

TEST_F(HeapAccountingTest, ThreadNameTableKeepsTheFirstValidRegistration) {
    LogCapture log;
    const std::string name127(127, 'n');
    memory->registerThreadName(0, "zero");
    memory->registerThreadName(5, nullptr);
    memory->registerThreadName(5, (name127 + "x").c_str());
    EXPECT_STREQ("", memory->getThreadName(5)) << "a name that does not fit is refused, not cut";
    EXPECT_TRUE(log.contains("Memory::registerThreadName() Failed"));

    memory->registerThreadName(5, name127.c_str());
    memory->registerThreadName(6, "six");
    memory->registerThreadName(5, "renamed");
    EXPECT_EQ(name127, memory->getThreadName(5));
    EXPECT_STREQ("", memory->getThreadName(6));
    EXPECT_STREQ("", memory->getThreadName(0));
}

// Descriptor -1 writes nothing; the format is printf's.
TEST_F(HeapAccountingTest, PrintMessageWritesOnlyTextsShorterThanItsBuffer) {
    const std::string fits(1023, 'a');
    OutputCapture fd0(0);
    memory->printMessage(1, 0, "%s", (fits + "b").c_str());
    memory->printMessage(1, -1, "%s", "text");
    memory->printMessage(1, 0, "%s", fits.c_str());
    memory->printMessage(1, 0, "%s=%d%%\n", "load", 42);
    EXPECT_EQ(fits + "load=42%\n", fd0.text());
}

}  // namespace
