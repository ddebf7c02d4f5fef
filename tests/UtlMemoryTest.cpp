#include "UtlMemory.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(MemoryTest, HelpersMatchTheCFunctions) {
    unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    utl::moveMemory(bytes + 2, bytes, 5);
    const unsigned char moved[8] = {1, 2, 1, 2, 3, 4, 5, 8};
    EXPECT_EQ(std::memcmp(bytes, moved, 8), 0) << "overlapping move keeps the source order";

    unsigned char copy[8];
    utl::copyMemory(copy, bytes, 8);
    EXPECT_TRUE(utl::compareMemory(copy, moved, 8));

    utl::fillMemory(copy + 1, 3, 0xAB);
    utl::zeroMemory(copy + 6, 2);
    const unsigned char filled[8] = {1, 0xAB, 0xAB, 0xAB, 3, 4, 0, 0};
    EXPECT_TRUE(utl::compareMemory(copy, filled, 8));
    EXPECT_FALSE(utl::compareMemory(copy, moved, 8));
    EXPECT_TRUE(utl::compareMemory(copy, moved, 1));
    EXPECT_TRUE(utl::compareMemory(copy, moved, 0));
}

TEST(MemoryTest, NullPointersAreNoOpsOrFalse) {
    unsigned char bytes[4] = {9, 9, 9, 9};
    utl::copyMemory(nullptr, bytes, 4);
    utl::copyMemory(bytes, nullptr, 4);
    utl::moveMemory(nullptr, bytes, 4);
    utl::moveMemory(bytes, nullptr, 4);
    utl::fillMemory(nullptr, 4, 1);
    utl::zeroMemory(nullptr, 4);
    const unsigned char untouched[4] = {9, 9, 9, 9};
    EXPECT_EQ(std::memcmp(bytes, untouched, 4), 0);
    EXPECT_FALSE(utl::compareMemory(nullptr, bytes, 0));
    EXPECT_FALSE(utl::compareMemory(bytes, nullptr, 0));
}

}  // namespace
