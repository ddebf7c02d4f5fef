#include "UtlQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "UtlArray.h"

namespace {

// Counts how elements are made and assigned, so tests see what storage and refusals touch.
struct Counted {
    static inline int constructions = 0, assignments = 0;

    Counted(int v = -1) : value(v) { ++constructions; }
    Counted(const Counted& other) : value(other.value) { ++constructions; }
    Counted& operator=(const Counted& other) {
        value = other.value;
        ++assignments;
        return *this;
    }

    int value;
};

// A queue of capacity 0 constructs no element, and a refused push, pushBlock or peekBlock
// assigns none.
TEST(QueueTest, RefusedTransfersConstructAndAssignNothing) {
    const Counted block[2] = {4, 5};
    Counted::constructions = Counted::assignments = 0;
    utl::Queue<Counted> none(0);
    EXPECT_EQ(Counted::constructions, 0);
    EXPECT_FALSE(none.push(block[0]) || none.pushBlock(block, 1));
    utl::Queue<Counted> queue(4);
    // 5, 4, 5 in slots 1 to 3: one slot is left, at the start of the block.
    ASSERT_TRUE(queue.pushBlock(block, 2) && queue.pop() && queue.pushBlock(block, 2));
    EXPECT_FALSE(queue.pushBlock(block, 2) || queue.pushBlock(nullptr, 1));
    EXPECT_TRUE(queue.push(block[0]));
    EXPECT_FALSE(queue.push(block[1]));
    // Peeks past the end, also where offset + n overflows, or into no array copy nothing.
    Counted out[2];
    EXPECT_FALSE(queue.peekBlock(out, 3, 2) || queue.peekBlock(out, 2, UINT_MAX) ||
                 queue.peekBlock(nullptr, 0, 1));
    EXPECT_EQ(Counted::assignments, 5);  // one per accepted element
    EXPECT_TRUE(queue.peekBlock(out, 2, 2) && out[0].value == 5 && out[1].value == 4);
}

// Erasing the front shifts the rest down and leaves the head in its slot; reset moves it to slot 0.
TEST(QueueTest, EraseAtFrontKeepsTheHeadInPlace) {
    const int values[] = {0, 1, 2, 3, 4, 5, 6};
    utl::Queue<int> queue(5);
    ASSERT_TRUE(queue.pushBlock(values, 4));
    const int* first = &queue.at(0);
    ASSERT_TRUE(queue.pop() && queue.pop() && queue.pop());
    ASSERT_TRUE(queue.pushBlock(values + 4, 3));  // 3, 4, 5, 6 in slots 3, 4, 0, 1
    EXPECT_TRUE(queue.eraseAt(0) && &queue.at(0) == first + 3 && queue.peek() == 4);
    queue.reset();
    queue.push(7);
    EXPECT_EQ(&queue.peek(), first);
}

// Every operation at random (seeded) on a small queue, compared with a deque after each step;
// the pops carry the head around the buffer hundreds of times between the rare resets.
TEST(QueueTest, MatchesDequeModelThroughManyWrapArounds) {
    constexpr unsigned int capacity = 7;
    utl::Queue<unsigned char> queue(capacity);
    std::deque<unsigned char> model;
    std::mt19937 random(12345);
    unsigned char next = 0, out = 0, block[capacity + 1];
    for (int step = 0; step < 20000; ++step) {
        SCOPED_TRACE(step);
        const unsigned int size = static_cast<unsigned int>(model.size()), roll = random() % 128;
        const unsigned int k = random() % (size + 1), n = random() % (capacity + 2);
        if (roll < 40) {
            ASSERT_EQ(queue.push(next), size < capacity);
            model.insert(model.end(), size < capacity ? 1 : 0, next++);
        } else if (roll < 80) {
            ASSERT_EQ(queue.pop(n % 2 == 0 ? &out : nullptr), size > 0);
            ASSERT_TRUE(size == 0 || n % 2 != 0 || out == model.front());
            model.erase(model.begin(), model.begin() + std::min(size, 1u));
        } else if (roll < 105) {
            const unsigned int erased = k < size ? std::min(n, size - k) : 0;
            ASSERT_EQ(queue.eraseRun(k, n), erased);
            model.erase(model.begin() + k, model.begin() + k + erased);
        } else if (roll < 115) {
            ASSERT_EQ(queue.removeLast(n), n > 0 && n <= size);
            model.resize(n > 0 && n <= size ? size - n : size);
        } else if (roll == 115) {
            queue.reset();
            model.clear();
        } else if (roll < 119) {
            ASSERT_EQ(queue.popBlock(block, n), n <= size);
            ASSERT_TRUE(n > size || std::equal(block, block + n, model.begin()));
            model.erase(model.begin(), model.begin() + (n <= size ? n : 0));
        } else if (roll < 122) {
            ASSERT_EQ(queue.peekBlock(block, k, n), n <= size - k);
            ASSERT_TRUE(n > size - k || std::equal(block, block + n, model.begin() + k));
        } else {
            std::generate(block, block + n, [&next] { return next++; });
            ASSERT_EQ(queue.pushBlock(block, n), n <= capacity - size);
            model.insert(model.end(), block, block + (n <= capacity - size ? n : 0));
        }
        ASSERT_EQ(queue.getCount(), model.size());
        for (unsigned int i = 0; i < model.size(); ++i) {
            ASSERT_EQ(queue.at(i), model[i]) << "at " << i;
        }
    }
}

}  // namespace

namespace {

// Elements that leave a container are released at once: a counted pointer held in a vacated slot
// would otherwise keep its object (an open file, say) alive until the slot is overwritten.
TEST(QueueVacatedSlotTest, ElementsLeavingAreReleasedAtOnce) {
    const auto alive = [](const std::vector<std::shared_ptr<int>>& held) {
        int count = 0;
        for (const auto& p : held) {
            count += p.use_count() > 1 ? 1 : 0;
        }
        return count;
    };
    std::vector<std::shared_ptr<int>> held;
    for (int i = 0; i < 6; ++i) {
        held.push_back(std::make_shared<int>(i));
    }
    utl::Queue<std::shared_ptr<int>> queue(8);
    for (const auto& p : held) {
        ASSERT_TRUE(queue.push(p));
    }
    ASSERT_TRUE(queue.pop());
    EXPECT_EQ(alive(held), 5);
    std::shared_ptr<int> out[2];
    ASSERT_TRUE(queue.popBlock(out, 2));
    out[0].reset();
    out[1].reset();
    EXPECT_EQ(alive(held), 3);
    ASSERT_TRUE(queue.eraseAt(0));
    EXPECT_EQ(alive(held), 2);
    ASSERT_TRUE(queue.removeLast(1));
    EXPECT_EQ(alive(held), 1);
    queue.reset();
    EXPECT_EQ(alive(held), 0);

    utl::Array<std::shared_ptr<int>> array(4, 0);
    ASSERT_TRUE(array.insertAt(0, held[0]));
    ASSERT_TRUE(array.removeAt(0));
    EXPECT_EQ(alive(held), 0);
}

}  // namespace
