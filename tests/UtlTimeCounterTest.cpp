#include "UtlTimeCounter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "LogCapture.h"

namespace {

using utl::TimeCounter;
constexpr uint32_t kFailed = ~0u;

TEST(TimeCounterTest, TickIsTheMonotonicClockInMillisecondsAndWraps) {
    timespec now = {};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    const uint32_t expected =
        static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
    EXPECT_LT(TimeCounter::getElapsedTime(expected, TimeCounter::getTickTime()), 1000u);
    EXPECT_EQ(TimeCounter::getElapsedTime(0xFFFFFF00u, 0x00000100u), 512u);
}

TEST(TimeCounterTest, ObjectMeasuresFromStartAndStopEndsIt) {
    LogCapture capture;
    TimeCounter counter;
    EXPECT_EQ(counter.watch(), kFailed);
    EXPECT_TRUE(capture.contains(
        "<UTIL> ERR: TimeCounter::watch()/stop() Failed. HasStarted:[Off], TickTime:["));
    ASSERT_TRUE(counter.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(6));
    const uint32_t watched = counter.watch(), stopped = counter.stop();
    EXPECT_TRUE(watched >= 5 && stopped >= watched && stopped < 5000) << watched << ", " << stopped;
    EXPECT_EQ(counter.stop(), kFailed);
    EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(TimeCounterTest, KeyedCounterRunsFromStartUntilStop) {
    LogCapture capture;
    ASSERT_TRUE(TimeCounter::start(7));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(TimeCounter::start(7));  // restarts: from now, still one entry for 7
    const uint32_t watched = TimeCounter::watch(7), stopped = TimeCounter::stop(7);
    EXPECT_TRUE(watched < 50 && stopped >= watched && stopped < 5000) << watched << ", " << stopped;
    EXPECT_EQ(TimeCounter::watch(7), kFailed);
    EXPECT_EQ(capture.lines().size(), 1u);
    EXPECT_TRUE(capture.contains("TimeCounter::Failed. Key Not Applicable. CounterId:[7]"));
}

TEST(TimeCounterTest, FiftyIdsRunAtOnceAndTheFiftyFirstIsRefused) {
    LogCapture capture;
    constexpr unsigned int kFirst = 1000;
    for (unsigned int id = kFirst; id < kFirst + 50; ++id) {
        ASSERT_TRUE(TimeCounter::start(id)) << id;
    }
    EXPECT_FALSE(TimeCounter::start(kFirst + 50));
    EXPECT_TRUE(capture.contains("TimeCounter::start(ID) Failed. InsertMap Error. CounterId:[" +
                                 std::to_string(kFirst + 50) + "]"));
    EXPECT_TRUE(TimeCounter::start(kFirst + 10));  // a running id still restarts
    for (unsigned int id = kFirst; id < kFirst + 50; ++id) {
        EXPECT_NE(TimeCounter::stop(id), kFailed) << id;
    }
    EXPECT_TRUE(TimeCounter::start(kFirst + 50));
    EXPECT_NE(TimeCounter::stop(kFirst + 50), kFailed);
}

}  // namespace
