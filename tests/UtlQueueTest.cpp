#include "UtlQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <new>
#include <random>
#include <vector>

namespace {

// An element that counts how it is made and assigned, so tests can see that storage is made once
// and that refused operations touch nothing.
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

void resetCounters() {
    Counted::constructions = 0;
    Counted::assignments = 0;
}

// An element whose array allocations are counted and always fail.
struct Starved {
    static int requests;

    static void* operator new[](std::size_t, const std::nothrow_t&) noexcept {
        ++requests;
        return nullptr;
    }
    static void operator delete[](void* p) noexcept { ::operator delete[](p); }
    int value = 0;
};

int Starved::requests = 0;

using Ring = utl::RingArray<Counted>;

std::vector<int> valuesOf(const Ring& ring) {
    std::vector<int> values;
    for (unsigned int i = 0; i < ring.getCount(); ++i) {
        values.push_back(ring.at(i).value);
    }
    return values;
}

// Pushes and pops `steps` elements so that the head ends at physical index steps % capacity,
// then pushes `values`. Returns the address of physical index 0.
const Counted* arrange(Ring& ring, unsigned int steps, const std::vector<int>& values) {
    EXPECT_TRUE(ring.push(Counted(0)));
    const Counted* base = &ring.at(0);
    ring.reset();
    for (unsigned int i = 0; i < steps; ++i) {
        EXPECT_TRUE(ring.push(Counted(0)));
        EXPECT_TRUE(ring.pop());
    }
    for (int v : values) {
        EXPECT_TRUE(ring.push(Counted(v)));
    }
    return base;
}

TEST(RingArrayTest, RingOfCapacityZeroConstructsNothingAndRefusesEveryPush) {
    Counted one(1);
    resetCounters();
    Ring ring(0);
    EXPECT_EQ(Counted::constructions, 0);
    EXPECT_TRUE(ring.isEmpty());
    EXPECT_FALSE(ring.push(one));
    EXPECT_FALSE(ring.pushBlock(&one, 1));
    EXPECT_TRUE(ring.pushBlock(nullptr, 0));
    EXPECT_FALSE(ring.pop());
    EXPECT_EQ(ring.getCount(), 0u);
    EXPECT_EQ(Counted::assignments, 0);
}

// Capacities that the signed head cannot index never reach the allocator; a failed allocation
// leaves capacity 0 like they do.
TEST(RingArrayTest, UnusableCapacityLeavesARingOfCapacityZero) {
    for (unsigned int capacity : {0x80000000u, 0xFFFFFFFFu, 8u}) {
        SCOPED_TRACE(capacity);
        Starved::requests = 0;
        utl::RingArray<Starved> ring(capacity);
        EXPECT_EQ(Starved::requests, capacity == 8u ? 1 : 0);
        EXPECT_EQ(ring.getCapacity(), 0u);
        EXPECT_FALSE(ring.push(Starved()));
    }
}

TEST(RingArrayTest, RefusedPushesAssignNothing) {
    Ring ring(4);
    arrange(ring, 2, {1, 2, 3});
    Counted block[2] = {Counted(4), Counted(5)};
    resetCounters();
    EXPECT_FALSE(ring.pushBlock(block, 2));
    EXPECT_FALSE(ring.pushBlock(nullptr, 1));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_TRUE(ring.pushBlock(block, 1));
    EXPECT_TRUE(ring.isFull());
    EXPECT_FALSE(ring.push(block[1]));
    EXPECT_EQ(Counted::assignments, 1);
    EXPECT_EQ(valuesOf(ring), (std::vector<int>{1, 2, 3, 4}));
}

TEST(RingArrayTest, LogicalPositionsWrapPastTheLastSlot) {
    Ring ring(4);
    const Counted* base = arrange(ring, 3, {20, 21, 22, 23});
    const std::vector<std::ptrdiff_t> physical = {3, 0, 1, 2};
    for (unsigned int i = 0; i < physical.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(&ring.at(i) - base, physical[i]);
        EXPECT_EQ(ring.at(i).value, static_cast<int>(20 + i));
    }
}

TEST(RingArrayTest, EraseAtFrontShiftsLaterElementsAndKeepsHead) {
    Ring ring(5);
    arrange(ring, 3, {1, 2, 3, 4});
    const Counted* front = &ring.at(0);
    resetCounters();
    EXPECT_TRUE(ring.eraseAt(0));
    EXPECT_EQ(Counted::assignments, 3);
    EXPECT_EQ(&ring.at(0), front);
    EXPECT_TRUE(ring.push(Counted(5)));
    EXPECT_EQ(valuesOf(ring), (std::vector<int>{2, 3, 4, 5}));
}

TEST(RingArrayTest, EraseAtLastOnlyDropsItAndPastTheEndIsRefused) {
    Ring ring(4);
    arrange(ring, 3, {1, 2, 3});
    resetCounters();
    EXPECT_FALSE(ring.eraseAt(3));
    EXPECT_TRUE(ring.eraseAt(2));
    EXPECT_EQ(Counted::assignments, 0);
    EXPECT_EQ(valuesOf(ring), (std::vector<int>{1, 2}));
}

TEST(RingArrayTest, EraseRunIsCutToTheEndAndKeepsHead) {
    struct Case {
        unsigned int k, n, removed;
        int assignments;
        std::vector<int> left;
    };
    const std::vector<Case> cases = {
        {1, 2, 2, 3, {1, 4, 5, 6}},       {0, 1, 1, 5, {2, 3, 4, 5, 6}},
        {4, 10, 2, 0, {1, 2, 3, 4}},      {0, 6, 6, 0, {}},
        {6, 1, 0, 0, {1, 2, 3, 4, 5, 6}}, {2, 0, 0, 0, {1, 2, 3, 4, 5, 6}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "k " << c.k << " n " << c.n);
        Ring ring(8);
        const Counted* base = arrange(ring, 5, {1, 2, 3, 4, 5, 6});
        resetCounters();
        EXPECT_EQ(ring.eraseRun(c.k, c.n), c.removed);
        EXPECT_EQ(Counted::assignments, c.assignments);
        EXPECT_EQ(valuesOf(ring), c.left);
        ASSERT_TRUE(ring.push(Counted(9)));
        EXPECT_EQ(&ring.at(0) - base, 5);
    }
}

TEST(RingArrayTest, RemoveLastTakesBackOnlyPushedElements) {
    Ring ring(4);
    arrange(ring, 3, {1, 2, 3});
    EXPECT_FALSE(ring.removeLast(0));
    EXPECT_FALSE(ring.removeLast(4));
    EXPECT_TRUE(ring.removeLast(2));
    EXPECT_TRUE(ring.push(Counted(9)));
    EXPECT_EQ(valuesOf(ring), (std::vector<int>{1, 9}));
}

TEST(RingArrayTest, ResetAfterWrapAroundRestartsAtTheFirstSlot) {
    Ring ring(3);
    const Counted* base = arrange(ring, 5, {1, 2});
    ring.reset();
    EXPECT_TRUE(ring.isEmpty());
    EXPECT_FALSE(ring.pop());
    EXPECT_TRUE(ring.push(Counted(7)));
    EXPECT_EQ(&ring.peek(), base);
    EXPECT_EQ(ring.peek().value, 7);
}

// Mixes every operation at random (seeded) on a small queue and compares it to a deque after
// each step; the many pops carry the head around the buffer hundreds of times.
TEST(QueueTest, MatchesDequeModelThroughManyWrapArounds) {
    constexpr unsigned int capacity = 7;
    utl::Queue<unsigned char> queue(capacity);
    std::deque<unsigned char> model;
    std::mt19937 random(12345);
    auto below = [&random](unsigned int bound) { return random() % bound; };
    unsigned char next = 0;
    unsigned int pops = 0;
    for (int step = 0; step < 20000; ++step) {
        SCOPED_TRACE(step);
        const unsigned int size = static_cast<unsigned int>(model.size());
        switch (below(8)) {
            case 0:
            case 1:
                EXPECT_EQ(queue.push(next), size < capacity);
                if (size < capacity) {
                    model.push_back(next);
                }
                ++next;
                break;
            case 2:
            case 3: {
                const bool withOut = below(2) == 0;
                unsigned char out = 0;
                const bool popped = withOut ? queue.pop(&out) : queue.pop();
                ASSERT_EQ(popped, size > 0);
                if (popped) {
                    if (withOut) {
                        EXPECT_EQ(out, model.front());
                    }
                    model.pop_front();
                    ++pops;
                }
                break;
            }
            case 4: {
                const unsigned int k = below(size + 1);
                EXPECT_EQ(queue.eraseAt(k), k < size);
                if (k < size) {
                    model.erase(model.begin() + k);
                }
                break;
            }
            case 5: {
                const unsigned int k = below(size + 1);
                const unsigned int n = below(capacity + 1);
                const unsigned int removed = k < size ? std::min(n, size - k) : 0;
                EXPECT_EQ(queue.eraseRun(k, n), removed);
                model.erase(model.begin() + k, model.begin() + k + removed);
                break;
            }
            case 6: {
                const unsigned int n = below(size + 2);
                EXPECT_EQ(queue.removeLast(n), n > 0 && n <= size);
                if (n > 0 && n <= size) {
                    model.resize(size - n);
                }
                break;
            }
            default: {
                unsigned char block[capacity + 1];
                const unsigned int n = below(capacity + 2);
                for (unsigned int i = 0; i < n; ++i) {
                    block[i] = next++;
                }
                EXPECT_EQ(queue.pushBlock(block, n), n <= capacity - size);
                if (n <= capacity - size) {
                    model.insert(model.end(), block, block + n);
                }
                break;
            }
        }
        ASSERT_EQ(queue.getCount(), model.size());
        for (unsigned int i = 0; i < model.size(); ++i) {
            ASSERT_EQ(queue.at(i), model[i]) << "at " << i;
        }
        if (!model.empty()) {
            EXPECT_EQ(queue.peek(), model.front());
        }
    }
    EXPECT_GT(pops, 100 * capacity);
}

}  // namespace
