#include "UtlTimeCounter.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"

namespace {

constexpr uint32_t kFailed = ~0u;

// Spins on the tick until `msec` milliseconds have passed since `begin`.
void spinFor(uint32_t begin, uint32_t msec) {
    while (utl::TimeCounter::getElapsedTime(begin, utl::TimeCounter::getTickTime()) < msec) {
    }
}

std::string keyNotApplicable(unsigned int id) {
    return "TimeCounter::Failed. Key Not Applicable. CounterId:[" + std::to_string(id) + "]";
}

TEST(TimeCounterTest, TickIsTheMonotonicClockInMilliseconds) {
    timespec now = {};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    const uint32_t expected =
        static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
    EXPECT_LT(utl::TimeCounter::getElapsedTime(expected, utl::TimeCounter::getTickTime()), 1000u);
}

TEST(TimeCounterTest, ElapsedTimeIsRightAcrossTheWrap) {
    EXPECT_EQ(utl::TimeCounter::getElapsedTime(0xFFFFFF00u, 0x00000100u), 512u);
    EXPECT_EQ(utl::TimeCounter::getElapsedTime(0x00000100u, 0x00000100u), 0u);
}

TEST(TimeCounterTest, ObjectMeasuresFromStartAndStopEndsIt) {
    LogCapture capture;
    utl::TimeCounter counter;
    EXPECT_EQ(counter.watch(), kFailed);
    EXPECT_TRUE(capture.contains(
        "<UTIL> ERR: TimeCounter::watch()/stop() Failed. HasStarted:[Off], TickTime:["));

    ASSERT_TRUE(counter.start());
    spinFor(utl::TimeCounter::getTickTime(), 5);
    const uint32_t watched = counter.watch();
    EXPECT_GE(watched, 5u);
    EXPECT_LT(watched, 5000u);
    const uint32_t stopped = counter.stop();
    EXPECT_GE(stopped, watched);
    EXPECT_LT(stopped, 5000u);

    const std::size_t before = capture.lines().size();
    EXPECT_EQ(counter.stop(), kFailed);
    EXPECT_EQ(counter.watch(), kFailed);
    EXPECT_EQ(capture.lines().size(), before + 2);
}

TEST(TimeCounterTest, KeyedCounterRunsFromStartUntilStop) {
    LogCapture capture;
    ASSERT_TRUE(utl::TimeCounter::start(7));
    spinFor(utl::TimeCounter::getTickTime(), 5);
    ASSERT_TRUE(utl::TimeCounter::start(7));  // restarts: still one entry for 7
    const uint32_t watched = utl::TimeCounter::watch(7);
    EXPECT_LT(watched, 5000u);
    const uint32_t stopped = utl::TimeCounter::stop(7);
    EXPECT_GE(stopped, watched);
    EXPECT_LT(stopped, 5000u);
    EXPECT_TRUE(capture.lines().empty());

    EXPECT_EQ(utl::TimeCounter::watch(7), kFailed);
    EXPECT_TRUE(capture.contains(keyNotApplicable(7)));
    EXPECT_EQ(utl::TimeCounter::watch(99), kFailed);
    EXPECT_EQ(utl::TimeCounter::stop(99), kFailed);
    EXPECT_EQ(capture.lines().size(), 3u);
    EXPECT_TRUE(capture.contains(keyNotApplicable(99)));
}

TEST(TimeCounterTest, FiftyIdsRunAtOnceAndTheFiftyFirstIsRefused) {
    LogCapture capture;
    constexpr unsigned int kFirst = 1000;
    for (unsigned int id = kFirst; id < kFirst + 50; ++id) {
        ASSERT_TRUE(utl::TimeCounter::start(id)) << id;
    }
    EXPECT_FALSE(utl::TimeCounter::start(kFirst + 50));
    EXPECT_TRUE(capture.contains("TimeCounter::start(ID) Failed. InsertMap Error. CounterId:[" +
                                 std::to_string(kFirst + 50) + "]"));
    EXPECT_EQ(utl::TimeCounter::watch(kFirst + 50), kFailed);
    EXPECT_TRUE(utl::TimeCounter::start(kFirst + 10));  // a running id still restarts

    for (unsigned int id = kFirst; id < kFirst + 50; ++id) {
        EXPECT_NE(utl::TimeCounter::stop(id), kFailed) << id;
    }
    EXPECT_TRUE(utl::TimeCounter::start(kFirst + 50));
    EXPECT_NE(utl::TimeCounter::stop(kFirst + 50), kFailed);
}

TEST(TimeCounterTest, ThreadsUseTheirOwnIdsSideBySide) {
    constexpr unsigned int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (unsigned int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            const unsigned int id = 2000 + t;
            for (int i = 0; i < 200; ++i) {
                if (!utl::TimeCounter::start(id) || utl::TimeCounter::watch(id) == kFailed ||
                    utl::TimeCounter::stop(id) == kFailed) {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int f : failures) {
        EXPECT_EQ(f, 0);
    }
}

}  // namespace
