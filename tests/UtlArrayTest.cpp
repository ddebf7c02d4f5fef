#include "UtlArray.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

namespace {

// Counts constructions and assignments, so tests see that storage is made once and that failed
// operations touch nothing.
struct Counted {
    static int constructions;
    static int assignments;

    Counted(int v = -1) : value(v) { ++constructions; }
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
    Counted::constructions = Counted::assignments = 0;
}

std::vector<int> valuesOf(const CountedArray& array) {
    std::vector<int> values;
    for (unsigned int i = 0; i < array.getCount(); ++i) {
        values.push_back(array.getAt(i).value);
    }
    return values;
}

void append(CountedArray& array, std::initializer_list<int> values) {
    for (int v : values) {
        ASSERT_TRUE(array.insertAt(array.getCount(), Counted(v)));
    }
}

// So large that no host can allocate 2^28 of them, and their byte count wraps on a 32-bit one.
struct Huge {
    unsigned char bytes[1u << 20];
};

TEST(ArrayTest, FixedArrayRefusesInsertsWithoutTouchingElements) {
    resetCounters();
    CountedArray array(4, 0);
    EXPECT_EQ(Counted::constructions, 4);
    append(array, {1, 3});
    EXPECT_TRUE(array.insertAt(1, Counted(2)));
    EXPECT_TRUE(array.insertAt(0, Counted(0)));
    EXPECT_FALSE(array.insertAt(1, Counted(2))) << "full";
    resetCounters();
    EXPECT_FALSE(array.insertAt(4, Counted(9)));
    EXPECT_FALSE(array.insertAt(6, Counted(9)));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_EQ(valuesOf(array), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(array.getMax(), 4u);
    EXPECT_EQ(CountedArray(0, 0).getData(), nullptr);
}

TEST(ArrayTest, AutoExtendGrowsByExactlyOneSlotPerInsertion) {
    CountedArray array(0, 1);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(array.insertAt(0, Counted(i)));
        EXPECT_EQ(array.getMax(), array.getCount());
    }
    EXPECT_EQ(valuesOf(array), (std::vector<int>{4, 3, 2, 1, 0}));
    EXPECT_FALSE(array.insertAt(6, Counted(9)));
    EXPECT_EQ(array.getMax(), 5u);
}

TEST(ArrayTest, OwnElementIsInsertedOrSetWithItsValueBeforeTheShift) {
    for (int autoExtend : {0, 1}) {
        SCOPED_TRACE(autoExtend);
        CountedArray array(autoExtend == 1 ? 3 : 4, autoExtend);
        append(array, {10, 20, 30});
        ASSERT_TRUE(array.insertAt(0, array.getAt(2)));
        EXPECT_TRUE(array.setAt(1, array.getAt(3)));
        EXPECT_EQ(valuesOf(array), (std::vector<int>{30, 30, 20, 30}));
    }
}

TEST(ArrayTest, RemoveAtShiftsDownAndLeavesTheVacatedSlotStale) {
    CountedArray array(5, 0);
    append(array, {1, 2, 3, 4});
    EXPECT_FALSE(array.setAt(4, Counted(9)));
    EXPECT_FALSE(array.removeAt(4));
    EXPECT_TRUE(array.removeAt(1));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 3, 4}));
    EXPECT_EQ(array.getAt(3).value, 4);
}

TEST(ArrayTest, ResizeMaxKeepsTruncatesOrEmpties) {
    CountedArray array(5, 0);
    append(array, {1, 2, 3, 4});
    resetCounters();
    EXPECT_TRUE(array.resizeMax(5));
    EXPECT_EQ(Counted::constructions + Counted::assignments, 0) << "same size changes nothing";
    EXPECT_TRUE(array.resizeMax(8));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_TRUE(array.resizeMax(2));
    EXPECT_EQ(valuesOf(array), (std::vector<int>{1, 2}));
    EXPECT_TRUE(array.resizeMax(0));
    EXPECT_EQ(array.getCount() + array.getMax(), 0u);
    EXPECT_EQ(array.getData(), nullptr);
}

TEST(ArrayTest, CopyTakesAtMostNAndRefusesWhatDoesNotFit) {
    CountedArray source(5, 0);
    append(source, {1, 2, 3, 4, 5});
    CountedArray fixed(3, 0);
    append(fixed, {7});
    resetCounters();
    EXPECT_FALSE(fixed.copy(source, ~0u));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_EQ(valuesOf(fixed), (std::vector<int>{7}));
    EXPECT_TRUE(fixed.copy(source, 3));
    EXPECT_EQ(valuesOf(fixed), (std::vector<int>{1, 2, 3}));

    CountedArray growing(1, 1);
    EXPECT_TRUE(growing.copy(source, ~0u));
    EXPECT_EQ(growing.getMax(), 5u);
    EXPECT_EQ(valuesOf(growing), valuesOf(source));

    resetCounters();
    EXPECT_TRUE(source.copy(source, 3));
    EXPECT_EQ(valuesOf(source), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(Counted::assignments, 0) << "a self-copy only truncates";
}

TEST(ArrayTest, AllocationFailureLeavesTheArrayUsable) {
    utl::Array<Huge> huge(0x10000000u, 0);
    EXPECT_EQ(huge.getMax(), 0u);

    utl::Array<Huge> array(2, 1);
    array.getData()[0].bytes[7] = 5;
    ASSERT_TRUE(array.insertAt(0, array.getAt(0)));
    EXPECT_FALSE(array.resizeMax(0x10000000u));
    EXPECT_EQ(array.getMax(), 2u);
    ASSERT_EQ(array.getCount(), 1u);
    EXPECT_EQ(array.getAt(0).bytes[7], 5);
}

TEST(SearchTest, PositionIsTheFirstEqualOrTheInsertionPoint) {
    const int keys[] = {10, 20, 20, 30};
    const std::less<int> less;
    for (auto [key, position] : {std::pair{20, 1u}, {25, 3u}, {5, 0u}, {35, 4u}, {30, 3u}}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(utl::searchPosition(key, keys, 4, less), position);
    }
    EXPECT_EQ(utl::searchPosition(20, static_cast<const int*>(nullptr), 4, less), ~0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0, less), 0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0x80000000u, less), ~0u);

    EXPECT_EQ(utl::searchBinary(20, keys, 4, less), &keys[1]);
    EXPECT_EQ(utl::searchBinary(25, keys, 4, less), nullptr);
    EXPECT_EQ(utl::searchBinary(35, keys, 4, less), nullptr);
    EXPECT_EQ(utl::searchBinary(10, keys, 0, less), nullptr);
    EXPECT_EQ(utl::searchBinary(10, keys, 0x80000001u, less), nullptr);
}

TEST(SearchTest, PositionMatchesLowerBoundOnRandomSortedArrays) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<int> keys(1 + random() % 40);
        for (int& k : keys) {
            k = static_cast<int>(random() % 30) - 15;
        }
        std::sort(keys.begin(), keys.end());
        const auto count = static_cast<unsigned int>(keys.size());
        for (int key = -17; key <= 17; ++key) {
            const auto expected = std::lower_bound(keys.begin(), keys.end(), key) - keys.begin();
            ASSERT_EQ(utl::searchPosition(key, keys.data(), count, std::less<int>()),
                      static_cast<unsigned int>(expected))
                << "round " << round << " key " << key;
        }
    }
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
    EXPECT_EQ(map.find(5)->mValue, 54) << "the second insert overwrote the first value";
    EXPECT_EQ(map.find(4), nullptr);
    EXPECT_EQ(map.findPosition(4), 2u);

    utl::Map<unsigned int, int> unsignedKeys(4, 0);
    unsignedKeys.insert(0x80000000u, 1);
    unsignedKeys.insert(1u, 2);
    EXPECT_EQ(keysOf(unsignedKeys), (std::vector<unsigned int>{1u, 0x80000000u}));
}

TEST(MapTest, FullFixedMapRefusesNewKeysButOverwritesOldOnes) {
    utl::Map<int, int> map(50, 0);
    for (int key = 0; key < 50; ++key) {
        ASSERT_TRUE(map.insert(key * 2, key));
    }
    EXPECT_FALSE(map.insert(51, 0));
    EXPECT_FALSE(map.insert(-1, 0));
    EXPECT_TRUE(map.insert(40, 999));
    EXPECT_EQ(map.getCount(), 50u);
    EXPECT_EQ(map.find(40)->mValue, 999);
}

TEST(MapTest, MapWithoutInitialCapacityGrowsAndShrinks) {
    utl::Map<int, int> map(0, 1);
    for (int key : {3, 1, 2}) {
        ASSERT_TRUE(map.insert(key, key));
    }
    EXPECT_EQ(map.getMax(), 3u);
    EXPECT_FALSE(map.erase(4));
    EXPECT_TRUE(map.erase(2));
    EXPECT_FALSE(map.erase(2));
    EXPECT_EQ(keysOf(map), (std::vector<int>{1, 3}));
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
    EXPECT_FALSE(utl::unserialize(bytes, static_cast<unsigned short*>(nullptr)));
}

}  // namespace
