#include "UtlArray.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

namespace {

// Counts assignments; its value is called `mKey` like a map entry's key, for `itemsOf`.
struct Counted {
    Counted(int key = -1) : mKey(key) {}
    Counted(const Counted& other) = default;
    Counted& operator=(const Counted& other) {
        ++assignments;
        mKey = other.mKey;
        return *this;
    }

    int mKey;
    static inline int assignments = 0;
};

using CountedArray = utl::Array<Counted>;
using Values = std::vector<long long>;

// The values of an array's elements, or the keys of a map's entries, in order.
template <class C>
Values itemsOf(const C& container) {
    Values items;
    for (unsigned int i = 0; i < container.getCount(); ++i) {
        items.push_back(container.getAt(i).mKey);
    }
    return items;
}

void append(CountedArray& array, std::initializer_list<int> values) {
    for (int v : values) {
        ASSERT_TRUE(array.insertAt(array.getCount(), Counted(v)));
    }
}

TEST(ArrayTest, FixedArrayRefusesWithoutAssigning) {
    CountedArray array(4, 0);
    append(array, {0, 1, 2, 3});
    Counted::assignments = 0;
    EXPECT_FALSE(array.insertAt(1, Counted(9)) || array.setAt(4, Counted(9)) || array.removeAt(4));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_TRUE(array.removeAt(1));
    EXPECT_EQ(itemsOf(array), (Values{0, 2, 3}));
    EXPECT_EQ(array.getData()[3].mKey, -1) << "the vacated slot lets go of its element";
}

TEST(ArrayTest, AutoExtendGrowsByExactlyOneSlotPerInsertion) {
    CountedArray array(0, 1);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(array.insertAt(0, Counted(i)));
        EXPECT_EQ(array.getMax(), array.getCount());
    }
    EXPECT_EQ(itemsOf(array), (Values{4, 3, 2, 1, 0}));
    EXPECT_FALSE(array.insertAt(6, Counted(9))) << "beyond the count";
    EXPECT_EQ(array.getMax(), 5u);
}

// The shift moves the element away before the value is stored.
TEST(ArrayTest, OwnElementIsInsertedWithItsValueBeforeTheShift) {
    CountedArray array(4, 0);
    append(array, {10, 20, 30});
    ASSERT_TRUE(array.insertAt(0, array.getAt(2)));
    EXPECT_EQ(itemsOf(array), (Values{30, 10, 20, 30}));
}

TEST(ArrayTest, CopyAndResizeMaxKeepTruncateOrRefuse) {
    CountedArray array(5, 0);
    append(array, {1, 2, 3, 4});
    CountedArray fixed(3, 0);
    append(fixed, {7});
    EXPECT_FALSE(fixed.copy(array, ~0u));
    EXPECT_EQ(itemsOf(fixed), (Values{7}));
    EXPECT_TRUE(fixed.copy(array, 3));
    EXPECT_EQ(itemsOf(fixed), (Values{1, 2, 3}));
    CountedArray growing(1, 1);
    EXPECT_TRUE(growing.copy(array, ~0u) && growing.getMax() == 4);
    EXPECT_EQ(itemsOf(growing), itemsOf(array));

    EXPECT_TRUE(array.copy(array, 3) && array.resizeMax(2));
    EXPECT_EQ(itemsOf(array), (Values{1, 2}));
    EXPECT_TRUE(array.resizeMax(0) && array.getCount() + array.getMax() == 0);
}

// So large that no host can allocate 2^28 of them, and their byte count wraps on a 32-bit one.
struct Huge {
    unsigned char bytes[1u << 20];
};

TEST(ArrayTest, AllocationFailureLeavesTheArrayUsable) {
    EXPECT_EQ(utl::Array<Huge>(0x10000000u, 0).getMax(), 0u);
    utl::Array<Huge> array(2, 1);
    array.getData()[0].bytes[7] = 5;
    ASSERT_TRUE(array.insertAt(0, array.getAt(0)));
    EXPECT_FALSE(array.resizeMax(0x10000000u));
    EXPECT_TRUE(array.getMax() == 2 && array.getCount() == 1 && array.getAt(0).bytes[7] == 5);
}

TEST(SearchTest, PositionIsTheLowerBoundAndBinaryFindsTheFirstEqual) {
    const int keys[] = {10, 20, 20, 30};
    const std::less<int> less;
    EXPECT_EQ(utl::searchPosition(20, static_cast<const int*>(nullptr), 4, less), ~0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0, less), 0u);
    EXPECT_EQ(utl::searchPosition(20, keys, 0x80000000u, less), ~0u);
    EXPECT_EQ(utl::searchBinary(20, keys, 4, less), &keys[1]);
    EXPECT_TRUE(!utl::searchBinary(25, keys, 4, less) && !utl::searchBinary(35, keys, 4, less));

    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        std::vector<int> sorted(1 + random() % 40);
        std::generate(sorted.begin(), sorted.end(),
                      [&] { return static_cast<int>(random() % 30) - 15; });
        std::sort(sorted.begin(), sorted.end());
        for (int key = -17; key <= 17; ++key) {
            ASSERT_EQ(utl::searchPosition(key, sorted.data(), sorted.size(), less),
                      std::lower_bound(sorted.begin(), sorted.end(), key) - sorted.begin())
                << "round " << round << " key " << key;
        }
    }
}

TEST(MapTest, InsertKeepsOneEntryPerKeyInAscendingOrderAndAFullMapRefusesNewKeys) {
    utl::Map<int, int> map(0, 1);
    for (int key : {5, -3, 9, 0, 5, -3}) {
        ASSERT_TRUE(map.insert(key, key * 10 + static_cast<int>(map.getCount())));
    }
    EXPECT_EQ(itemsOf(map), (Values{-3, 0, 5, 9}));
    EXPECT_EQ(map.find(5)->mValue, 54) << "the second insert overwrote the first value";
    EXPECT_TRUE(map.erase(0) && !map.erase(0));
    EXPECT_EQ(itemsOf(map), (Values{-3, 5, 9}));

    utl::Map<unsigned int, int> unsignedKeys(3, 0);
    ASSERT_TRUE(unsignedKeys.insert(0x80000000u, 1) && unsignedKeys.insert(1u, 1) &&
                unsignedKeys.insert(5u, 1));
    EXPECT_EQ(itemsOf(unsignedKeys), (Values{1, 5, 0x80000000u}));
    EXPECT_FALSE(unsignedKeys.insert(3u, 0));
    EXPECT_TRUE(unsignedKeys.insert(5u, 999) && unsignedKeys.find(5u)->mValue == 999);
}

TEST(SerializeTest, PacksLittleEndianAtAnyAlignment) {
    unsigned char bytes[7] = {};
    unsigned short half = 0;
    unsigned int word = 0;
    ASSERT_TRUE(utl::serialize(static_cast<unsigned short>(0x1234), bytes + 1) &&
                utl::serialize(0x12345678u, bytes + 3));
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 7),
              (std::vector<unsigned char>{0, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12}));
    EXPECT_TRUE(utl::unserialize(bytes + 1, &half) && utl::unserialize(bytes + 3, &word));
    EXPECT_TRUE(half == 0x1234 && word == 0x12345678u);
    EXPECT_FALSE(utl::serialize(0x1u, nullptr) || utl::unserialize(nullptr, &word));
}

}  // namespace
