#include "UtlMemory.h"

#include <gtest/gtest.h>

namespace {

TEST(MemoryTest, HelpersMatchTheCFunctionsAndIgnoreNullPointers) {
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    utl::moveMemory(bytes + 2, bytes, 5);
    const unsigned char moved[8] = {1, 2, 1, 2, 3, 4, 5, 8};
    EXPECT_TRUE(utl::compareMemory(bytes, moved, 8)) << "an overlapping move keeps the order";

    utl::copyMemory(bytes, moved + 4, 2);
    utl::fillMemory(bytes + 2, 3, 0xAB);
    utl::zeroMemory(bytes + 6, 2);
    const unsigned char filled[8] = {3, 4, 0xAB, 0xAB, 0xAB, 4, 0, 0};
    EXPECT_TRUE(utl::compareMemory(bytes, filled, 8));
    EXPECT_FALSE(utl::compareMemory(bytes, moved, 8));
    EXPECT_TRUE(utl::compareMemory(bytes, moved, 0));

    utl::copyMemory(nullptr, bytes, 4);
    utl::copyMemory(bytes, nullptr, 4);
    utl::moveMemory(bytes, nullptr, 4);
    utl::fillMemory(nullptr, 4, 1);
    utl::zeroMemory(nullptr, 4);
    EXPECT_TRUE(utl::compareMemory(bytes, filled, 8));
    EXPECT_FALSE(utl::compareMemory(nullptr, bytes, 0));
    EXPECT_FALSE(utl::compareMemory(bytes, nullptr, 0));
}

}  // namespace
