#include "UtlArray.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

namespace {

// An element that counts how it is made and assigned, so tests can see that storage is made once
// and that failed operations touch nothing.
struct Counted {
    static int constructions;
    static int assignments;

    Counted() : value(-1) { ++constructions; }
    Counted(int v) : value(v) { ++constructions; }
    Counted(const Counted& other) : value(other.value) { ++constructions; }
    Counted& operator=(const Counted& other) {
        value = other.value;
        ++assignments;
        return *this;
    }
    virtual ~Counted() = default;

    int value;
};

int Counted::constructions = 0;
int Counted::assignments = 0;

using CountedArray = utl::Array<Counted>;

void resetCounters() {
    Counted::constructions = 0;
    Counted::assignments = 0;
}

std::vector<int> valuesOf(const CountedArray& array) {
    std::vector<int> values;
    for (unsigned int i = 0; i < array.getCount(); ++i) {
        values.push_back(array.getAt(i).value);
    }
    return values;
}

void fill(CountedArray& array, const std::vector<int>& values) {
    for (int v : values) {
        ASSERT_TRUE(array.insertAt(array.getCount(), Counted(v)));
    }
}

// A type so large that no allocator can serve four billion of them on any host, and whose byte
// count wraps on a 32-bit one.
struct Huge {
    unsigned char bytes[1u << 20];
};

TEST(ArrayTest, ConstructionMakesEveryRequestedSlot) {
    resetCounters();
    {
        CountedArray array(5, 0);
        EXPECT_EQ(array.getMax(), 5u);
        EXPECT_EQ(array.getCount(), 0u);
        EXPECT_EQ(Counted::constructions, 5);
        CountedArray empty(0, 0);
        EXPECT_EQ(empty.getData(), nullptr);
        EXPECT_EQ(Counted::constructions, 5);
    }
}

TEST(ArrayTest, InsertAtShiftsByAssignmentAndAppendsAtCount) {
    CountedArray array(4, 0);
    fill(array, {1, 3});
    EXPECT_TRUE(array.insertAt(1, Counted(2)));
    EXPECT_TRUE(array.insertAt(0, Counted(0)));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{0, 1, 2, 3}));
    resetCounters();
    EXPECT_FALSE(array.insertAt(5, Counted(9)));
    EXPECT_FALSE(array.insertAt(4, Counted(9)));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_EQ(valuesOf(array), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(array.getMax(), 4u);
}

TEST(ArrayTest, InsertPastCountFailsEvenWithRoom) {
    CountedArray array(4, 1);
    fill(array, {1});
    EXPECT_FALSE(array.insertAt(2, Counted(2)));
    EXPECT_EQ(array.getCount(), 1u);
}

TEST(ArrayTest, AutoExtendGrowsByExactlyOneSlotPerInsertion) {
    CountedArray array(0, 1);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(array.insertAt(0, Counted(i)));
        EXPECT_EQ(array.getMax(), array.getCount());
    }
    EXPECT_EQ(valuesOf(array), (std::vector<int>{5, 4, 3, 2, 1, 0}));
}

TEST(ArrayTest, InsertingOwnElementInsertsItsValueBeforeTheShift) {
    for (int autoExtend : {0, 1}) {
        SCOPED_TRACE(autoExtend);
        CountedArray array(autoExtend == 1 ? 3 : 4, autoExtend);
        fill(array, {10, 20, 30});
        ASSERT_TRUE(array.insertAt(0, array.getAt(2)));
        EXPECT_EQ(valuesOf(array), (std::vector<int>{30, 10, 20, 30}));
    }
}

TEST(ArrayTest, SetAtAndRemoveAtRespectTheCount) {
    CountedArray array(5, 0);
    fill(array, {1, 2, 3, 4});
    EXPECT_TRUE(array.setAt(0, array.getAt(3)));
    EXPECT_FALSE(array.setAt(4, Counted(9)));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{4, 2, 3, 4}));

    EXPECT_TRUE(array.removeAt(1));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{4, 3, 4}));
    EXPECT_EQ(array.getAt(3).value, 4) << "the vacated slot keeps its stale value";
    EXPECT_FALSE(array.removeAt(3));
    EXPECT_TRUE(array.removeAt(2));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{4, 3}));
}

TEST(ArrayTest, ResizeMaxKeepsTruncatesOrEmpties) {
    CountedArray array(5, 0);
    fill(array, {1, 2, 3, 4});

    resetCounters();
    EXPECT_TRUE(array.resizeMax(5));
    EXPECT_EQ(Counted::constructions + Counted::assignments, 0) << "same size changes nothing";

    EXPECT_TRUE(array.resizeMax(8));
    EXPECT_EQ(array.getMax(), 8u);
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 2, 3, 4}));

    EXPECT_TRUE(array.resizeMax(2));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 2}));

    EXPECT_TRUE(array.resizeMax(0));
    EXPECT_EQ(array.getCount(), 0u);
    EXPECT_EQ(array.getMax(), 0u);
    EXPECT_EQ(array.getData(), nullptr);
}

TEST(ArrayTest, CopyTakesAtMostNAndRefusesWhatDoesNotFit) {
    CountedArray source(5, 0);
    fill(source, {1, 2, 3, 4, 5});

    CountedArray fixed(3, 0);
    fill(fixed, {7});
    resetCounters();
    EXPECT_FALSE(fixed.copy(source, ~0u));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_EQ(valuesOf(fixed), (std::vector<int>{7}));
    EXPECT_TRUE(fixed.copy(source, 3));
    EXPECT_EQ(valuesOf(fixed), (std::vector<int>{1, 2, 3}));

    CountedArray growing(1, 1);
    EXPECT_TRUE(growing.copy(source, ~0u));
    EXPECT_EQ(growing.getMax(), 5u);
    EXPECT_EQ(valuesOf(growing), (std::vector<int>{1, 2, 3, 4, 5}));

    CountedArray empty(0, 0);
    EXPECT_TRUE(growing.copy(empty, ~0u));
    EXPECT_EQ(growing.getCount(), 0u);
}

TEST(ArrayTest, CopyOntoItselfOnlyTruncates) {
    CountedArray array(5, 0);
    fill(array, {1, 2, 3, 4, 5});
    resetCounters();
    EXPECT_TRUE(array.copy(array, 3));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(array.copy(array, ~0u));
    EXPECT_EQ(array.getCount(), 3u);
    EXPECT_EQ(Counted::assignments, 0);
}

TEST(ArrayTest, AllocationFailureLeavesTheArrayUsable) {
    utl::Array<Huge> huge(0x10000000u, 0);
    EXPECT_EQ(huge.getMax(), 0u);
    EXPECT_EQ(huge.getData(), nullptr);

    utl::Array<Huge> array(2, 1);
    array.getData()[0].bytes[7] = 5;
    ASSERT_TRUE(array.insertAt(0, array.getAt(0)));
    EXPECT_FALSE(array.resizeMax(0x10000000u));
    EXPECT_EQ(array.getMax(), 2u);
    ASSERT_EQ(array.getCount(), 1u);
    EXPECT_EQ(array.getAt(0).bytes[7], 5);
}

TEST(SearchTest, PositionIsTheLowerBound) {
    const int keys[] = {10, 20, 20, 30};
    const struct {
        int key;
        unsigned int position;
    } cases[] = {{20, 1}, {25, 3}, {5, 0}, {35, 4}, {10, 0}, {30, 3}, {15, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(utl::searchPosition(c.key, keys, 4, std::less<int>()), c.position);
    }
    EXPECT_EQ(utl::searchPosition(20, static_cast<const int*>(nullptr), 4, std::less<int>()), ~0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0, std::less<int>()), 0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0x80000000u, std::less<int>()), ~0u);
}

TEST(SearchTest, PositionMatchesLowerBoundOnRandomSortedArrays) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<int> keys(1 + random() % 40);
        for (int& k : keys) {
            k = static_cast<int>(random() % 30) - 15;
        }
        std::sort(keys.begin(), keys.end());
        for (int key = -17; key <= 17; ++key) {
            const auto expected = std::lower_bound(keys.begin(), keys.end(), key) - keys.begin();
            const unsigned int count = static_cast<unsigned int>(keys.size());
            ASSERT_EQ(utl::searchPosition(key, keys.data() + 0, count, std::less<int>()),
                      static_cast<unsigned int>(expected))
                << "round " << round << " key " << key;
        }
    }
}

TEST(SearchTest, BinaryFindsTheFirstEqualItemOrNothing) {
    const int keys[] = {10, 20, 20, 30};
    EXPECT_EQ(utl::searchBinary(20, keys, 4, std::less<int>()), &keys[1]);
    EXPECT_EQ(utl::searchBinary(25, keys, 4, std::less<int>()), nullptr);
    EXPECT_EQ(utl::searchBinary(35, keys, 4, std::less<int>()), nullptr);
    EXPECT_EQ(utl::searchBinary(10, keys, 0, std::less<int>()), nullptr);
    EXPECT_EQ(utl::searchBinary(10, keys, 0x80000001u, std::less<int>()), nullptr);
}

template <class K>
std::vector<K> keysOf(const utl::Map<K, int>& map) {
    std::vector<K> keys;
    for (unsigned int i = 0; i < map.getCount(); ++i) {
        keys.push_back(map.getAt(i).mKey);
    }
    return keys;
}

TEST(MapTest, InsertKeepsOneEntryPerKeyInAscendingOrder) {
    utl::Map<int, int> map(10, 0);
    for (int key : {5, -3, 9, 0, 5, -3}) {
        ASSERT_TRUE(map.insert(key, key * 10 + static_cast<int>(map.getCount())));
    }
    EXPECT_EQ(keysOf(map), (std::vector<int>{-3, 0, 5, 9}));
    ASSERT_NE(map.find(5), nullptr);
    EXPECT_EQ(map.find(5)->mValue, 54) << "the second insert overwrote the first value";
    EXPECT_EQ(map.find(4), nullptr);
    EXPECT_EQ(map.findPosition(4), 2u);
}

TEST(MapTest, UnsignedKeysUseUnsignedOrder) {
    utl::Map<unsigned int, int> map(4, 0);
    map.insert(0x80000000u, 1);
    map.insert(1u, 2);
    EXPECT_EQ(keysOf(map), (std::vector<unsigned int>{1u, 0x80000000u}));
}

TEST(MapTest, FullFixedMapRefusesNewKeysButOverwritesOldOnes) {
    utl::Map<int, int> map(50, 0);
    for (int key = 0; key < 50; ++key) {
        ASSERT_TRUE(map.insert(key * 2, key));
    }
    EXPECT_FALSE(map.insert(51, 0));
    EXPECT_FALSE(map.insert(-1, 0));
    EXPECT_EQ(map.getCount(), 50u);
    EXPECT_TRUE(map.insert(40, 999));
    EXPECT_EQ(map.find(40)->mValue, 999);
}

TEST(MapTest, AutoExtendingMapGrowsWithEachNewKey) {
    utl::Map<int, int> map(0, 1);
    for (int key = 10; key > 0; --key) {
        ASSERT_TRUE(map.insert(key, key));
    }
    EXPECT_EQ(map.getCount(), 10u);
    EXPECT_EQ(map.getMax(), 10u);
}

TEST(MapTest, EraseRemovesOnlyAPresentKey) {
    utl::Map<int, int> map(5, 0);
    for (int key : {1, 2, 3}) {
        map.insert(key, key);
    }
    EXPECT_FALSE(map.erase(4));
    EXPECT_FALSE(map.erase(0));
    EXPECT_TRUE(map.erase(2));
    EXPECT_FALSE(map.erase(2));
    EXPECT_EQ(keysOf(map), (std::vector<int>{1, 3}));
    EXPECT_TRUE(map.erase(3));
    EXPECT_TRUE(map.erase(1));
    EXPECT_EQ(map.getCount(), 0u);
    EXPECT_EQ(map.find(1), nullptr);
}

TEST(SerializeTest, PacksLittleEndianAtAnyAlignment) {
    unsigned char bytes[7] = {};
    EXPECT_TRUE(utl::serialize(static_cast<unsigned short>(0x1234), bytes + 1));
    EXPECT_TRUE(utl::serialize(0x12345678u, bytes + 3));
    const unsigned char expected[7] = {0, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12};
    EXPECT_TRUE(std::equal(bytes, bytes + 7, expected));

    unsigned short half = 0;
    unsigned int word = 0;
    EXPECT_TRUE(utl::unserialize(bytes + 1, &half));
    EXPECT_TRUE(utl::unserialize(bytes + 3, &word));
    EXPECT_EQ(half, 0x1234);
    EXPECT_EQ(word, 0x12345678u);

    EXPECT_FALSE(utl::serialize(0x1u, nullptr));
    EXPECT_FALSE(utl::serialize(static_cast<unsigned short>(1), nullptr));
    EXPECT_FALSE(utl::unserialize(nullptr, &word));
    EXPECT_FALSE(utl::unserialize(bytes, static_cast<unsigned int*>(nullptr)));
    EXPECT_FALSE(utl::unserialize(bytes, static_cast<unsigned short*>(nullptr)));
    EXPECT_EQ(word, 0x12345678u);
}

}  // namespace
