#include "UtlMemory.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

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
    static uint64_t nextSerial(const Memory& m) { return m.mNextSerial; }
    static uint64_t markedSerial(const Memory& m) { return m.mMarkedSerial; }
};

}  // namespace utl

namespace {

using utl::Memory;
using Access = utl::MemoryTestAccess;
constexpr int ALLOC = Memory::KIND_ALLOCATION;
constexpr int RELEASE = Memory::KIND_RELEASE;

TEST(MemoryTest, HelpersMatchTheCFunctionsAndIgnoreNullPointers) {
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    utl::moveMemory(bytes + 2, bytes, 5);
    const unsigned char moved[8] = {1, 2, 1, 2, 3, 4, 5, 8};
    EXPECT_TRUE(utl::compareMemory(bytes, moved, 8)) << "an overlapping move keeps the order";

    utl::copyMemory(bytes, moved + 4, 2);
    utl::fillMemory(bytes + 2, 3, 0xAB);
    utl::zeroMemory(bytes + 6, 2);
    utl::copyMemory(nullptr, bytes, 4);
    utl::copyMemory(bytes, nullptr, 4);
    utl::moveMemory(bytes, nullptr, 4);
    utl::fillMemory(nullptr, 4, 1);
    utl::zeroMemory(nullptr, 4);
    const unsigned char filled[8] = {3, 4, 0xAB, 0xAB, 0xAB, 4, 0, 0};
    EXPECT_TRUE(utl::compareMemory(bytes, filled, 8));
    EXPECT_FALSE(utl::compareMemory(bytes, moved, 8));
    EXPECT_TRUE(utl::compareMemory(bytes, moved, 0));
    EXPECT_FALSE(utl::compareMemory(nullptr, bytes, 0));
    EXPECT_FALSE(utl::compareMemory(bytes, nullptr, 0));
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

TEST_F(HeapAccountingTest, OneObjectForAllThreadsAndAFreshOneAfterDestroy) {
    Memory* seen[4] = {};
    std::vector<std::thread> threads;
    for (Memory*& slot : seen) {
        threads.emplace_back([&slot] { slot = Memory::get(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<Memory*>(seen, seen + 4), std::vector<Memory*>(4, memory));

    memory->updateManagement(ALLOC, at(0x1000), 10, 0, 1);
    memory->registerThreadName(7, "seven");
    memory->mark();
    renew();
    EXPECT_EQ(0u, Access::count(*memory));
    EXPECT_EQ("0/0/0/0", totals(*memory));
    EXPECT_EQ(1u, Access::nextSerial(*memory));
    EXPECT_EQ(0u, Access::markedSerial(*memory));
    EXPECT_STREQ("", memory->getThreadName(7));
}

TEST_F(HeapAccountingTest, AllocationIsRecordedAndASecondOneRefusedWithTheOverMessage) {
    OutputCapture fd0(0);
    memory->updateManagement(ALLOC, at(0x1234), 100, 7, 41);
    const Memory::DetailHeapInfo& record = Access::slot(*memory);
    EXPECT_TRUE(record.mSerial == 1 && record.mAddress == 0x1234 && record.mUseBytes == 100 &&
                record.mThreadId == utl::ThreadManager::getCallerId() && record.mFileId == 7 &&
                record.mLine == 41);
    EXPECT_EQ("", fd0.text());

    memory->updateManagement(ALLOC, at(0x5678), 200, 3, 42);
    EXPECT_EQ(
        "!!!! DetailHeapInfo management over on allocation\n"
        "MaxCount:1, Address:0x00005678, UseBytes:       200, ThreadId:" +
            callerId() + ", Line:      42, File:, \n",
        fd0.text());
    EXPECT_EQ(1u, Access::count(*memory));
    EXPECT_EQ(0x1234u, record.mAddress);
    EXPECT_EQ("100/1/100/1", totals(*memory));
    memory->mark();
    EXPECT_EQ(2u, Access::markedSerial(*memory)) << "a refused allocation takes no serial";
}

TEST_F(HeapAccountingTest, ReleaseRemovesTheRecordAndLowersTotalsWhilePeaksStay) {
    OutputCapture fd0(0);
    memory->updateManagement(ALLOC, at(0x1234), 100, 5, 1);
    memory->updateManagement(RELEASE, at(0x1234), 0, 0, 2);
    EXPECT_EQ(0u, Access::count(*memory));
    const Memory::DetailHeapInfo& slot = Access::slot(*memory);
    EXPECT_TRUE(slot.mSerial == 0 && slot.mAddress == 0 && slot.mUseBytes == 0 &&
                slot.mThreadId == 0 && slot.mFileId == 0 && slot.mLine == 0)
        << "the vacated slot is cleared";
    EXPECT_EQ("0/0/100/1", totals(*memory));

    memory->updateManagement(ALLOC, at(0x2000), 40, 0, 3);
    EXPECT_EQ("40/1/100/1", totals(*memory));
    memory->updateManagement(-5, at(0x2000), 0, 0, 4);  // any kind but 0 releases
    memory->updateManagement(ALLOC, at(0x3000), 300, 0, 5);
    EXPECT_EQ("300/1/300/1", totals(*memory));
    EXPECT_EQ(3u, slot.mSerial);
    EXPECT_EQ("", fd0.text());
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
    memory->registerThreadName(5, "");
    memory->registerThreadName(5, (name127 + "x").c_str());
    EXPECT_STREQ("", memory->getThreadName(5)) << "a name that does not fit is refused, not cut";
    EXPECT_TRUE(log.contains("Memory::registerThreadName() Failed"));

    memory->registerThreadName(5, name127.c_str());
    memory->registerThreadName(6, "six");
    memory->registerThreadName(5, (name127 + "x").c_str());
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

TEST_F(HeapAccountingTest, ReportsAreDisabled) {
    char directory[] = "/tmp/utl-memory-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string path = std::string(directory) + "/sub/report.txt";
    memory->updateManagement(ALLOC, at(0x1234), 100, 0, 1);
    OutputCapture fd0(0);

    EXPECT_FALSE(Memory::enabledHeapManagement());
    EXPECT_TRUE(memory->printUsedHeap(1, path.c_str()) &&
                memory->printUsedHeapDetail(1, path.c_str()) &&
                memory->printMarkedHeapDetail(1, path.c_str()));
    memory->printGlobalMemoryStatus(path.c_str());
    EXPECT_EQ(0, rmdir(directory)) << "nothing was made in it";
    Memory::ProcessHeapInfo info = {11, 22, 33, 44};
    EXPECT_TRUE(memory->getUsedHeapOfProcess(&info) && info.mUseBytes == 11 &&
                info.mMaxCount == 44);
    EXPECT_EQ(-1, memory->getFileId(path.c_str()));
    EXPECT_STREQ("", memory->getFileName(0));
    EXPECT_FALSE(memory->resetUsedHeap());
    EXPECT_EQ("100/1/100/1", totals(*memory));
    EXPECT_EQ("", fd0.text());
}

}  // namespace
