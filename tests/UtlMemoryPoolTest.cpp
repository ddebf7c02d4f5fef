#include "UtlMemoryPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"

namespace {

using Lines = std::vector<std::string>;

// The captured lines with their stamp and tag cut off up to the level ("ERR: ").
Lines errors(const LogCapture& capture) {
    Lines texts = capture.lines();
    for (std::string& line : texts) {
        line.erase(0, line.find("ERR: ") + 5);
    }
    return texts;
}

TEST(MemoryPoolTest, BlocksAreTakenFirstFitAndEveryMisuseIsLoggedWithoutEffect) {
    LogCapture capture;
    {
        utl::MemoryPool pool(16, 4, "p");
        char* region = static_cast<char*>(pool.create());
        ASSERT_NE(region, nullptr);
        for (std::ptrdiff_t i = 1; i < 4; ++i) {
            EXPECT_EQ(pool.create(), region + 16 * i);
        }
        EXPECT_EQ(pool.create(), nullptr);
        region[16] = 'x';
        pool.release(region + 8);  // would free block 0 without the alignment check
        pool.release(region + 64);
        pool.release(reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(region) - 16));
        pool.release(nullptr);
        EXPECT_EQ(pool.create(), nullptr) << "a refused release freed a block";
        pool.release(region + 16);
        pool.release(region + 16);
        ASSERT_EQ(pool.create(), region + 16);
        EXPECT_EQ(region[16], 'x') << "blocks are not cleared";
        EXPECT_EQ(pool.create(), nullptr);
        pool.release(region + 32);
        pool.release(region);
    }
    const Lines expected = {
        "utl::MemoryPool::release(): alignment error!! (p)",
        "utl::MemoryPool::release(): Memory is management outside (over)!! (p)",
        "utl::MemoryPool::release(): Memory is management outside (under)!! (p)",
        "utl::MemoryPool::release(): Memory is not active!! (p)",
        "utl::MemoryPool::~MemoryPool(): Memory leak!! (p) Slot=1",
        "utl::MemoryPool::~MemoryPool(): Memory leak!! (p) Slot=3",
    };
    EXPECT_EQ(errors(capture), expected);
}

TEST(MemoryPoolTest, FailedConstructionLogsOneLineAndLeavesThePoolInert) {
    LogCapture capture;
    {
        utl::MemoryPool noCount(0, 0, "p");
        utl::MemoryPool noSize(0, 4, nullptr);
        // 2^47 + 2^16 bytes: more than any allocator gives on a 64-bit host, and only 64 KiB on
        // the 32-bit target if the product were let wrap.
        utl::MemoryPool tooBig(0x80000001u, 0x10000u, "big");
        for (utl::MemoryPool* pool : {&noCount, &noSize, &tooBig}) {
            char outside = 0;
            EXPECT_EQ(pool->create(), nullptr);
            pool->release(&outside);
        }
    }
    const Lines expected = {
        "utl::MemoryPool::MemoryPool(): Number of memory is 0!! (p)",
        "utl::MemoryPool::MemoryPool(): Memory size is 0!! ()",
        "utl::MemoryPool::MemoryPool(): Out of memory for 65536 blocks of 2147483649 bytes!! (big)",
    };
    EXPECT_EQ(errors(capture), expected);
}

// Eight threads share three blocks; each holder fills its block with its own marker and checks
// it before the release. A block handed to two holders at once shows as an overwritten marker
// (and as a data race under TSan); a lost block makes the threads give up after a minute.
TEST(MemoryPoolTest, ConcurrentHoldersNeverShareABlock) {
    constexpr uint32_t kHolds = 2000;
    constexpr std::ptrdiff_t kWords = 8;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::atomic<uint32_t> overwritten{0};
    {
        utl::MemoryPool pool(kWords * sizeof(uint32_t), 3, "shared");
        std::vector<std::thread> threads;
        for (uint32_t t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (uint32_t hold = 0;
                     hold < kHolds && std::chrono::steady_clock::now() < giveUp;) {
                    uint32_t* words = static_cast<uint32_t*>(pool.create());
                    if (words == nullptr) {
                        std::this_thread::yield();
                        continue;
                    }
                    const uint32_t marker = t << 24 | ++hold;
                    std::fill(words, words + kWords, marker);
                    std::this_thread::yield();
                    overwritten += std::count(words, words + kWords, marker) != kWords;
                    pool.release(words);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now(), giveUp) << "a block was lost";
    EXPECT_EQ(overwritten.load(), 0u);
}

}  // namespace
