// Dynamic array, key/value pair and sorted map of utl, with their binary searches and the
// little-endian byte packing of 16- and 32-bit values.
//
// `Array` holds a block of fully constructed elements whose capacity is fixed unless the array
// was made auto-extending; an auto-extending array grows to exactly the size an operation needs.
// `Map` keeps one entry per key in ascending key order on top of an `Array` and finds keys by
// binary search. Every operation reports success as a `bool` and leaves the container as it was
// when it fails; nothing throws and nothing logs.
//
//   utl::Map<int, int> ages(50, 0);          // room for 50 keys, never grows
//   ages.insert(7, 70);                       // true
//   ages.insert(7, 71);                       // true: overwrites, still one entry
//   const utl::Pair<int, int>* p = ages.find(7);
//   int age = p != nullptr ? p->mValue : -1;  // 71
#ifndef UTL_ARRAY_H
#define UTL_ARRAY_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "UtlMemory.h"

namespace utl {

static_assert(sizeof(unsigned int) == 4, "utl counts and positions are 32 bits wide");

// A block of `getMax()` live elements of which the first `getCount()` are in use.
//
// All slots are default-constructed when the block is made; insertion and removal move values by
// assignment. The capacity is fixed unless `autoExtend` is 1, in which case `insertAt` and `copy`
// reallocate to exactly the size they need (one slot more per insertion beyond the capacity).
// `Arg` is the parameter type of the operations taking an element.
//
// Not thread-safe: the owner guards a shared array with its own lock. Not copyable; use `copy`.
template <class T, class Arg = const T&>
class Array {
  public:
    // An empty array with `max` default-constructed slots (none and no block for 0). If the
    // block cannot be had, the array starts with capacity 0.
    Array(unsigned int max, int autoExtend);
    virtual ~Array() { delete[] mData; }

    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;

    // Reallocates to `newMax` slots and keeps the first min(count, newMax) elements, so shrinking
    // below the count truncates; 0 frees the block. False, with the array unchanged, when the
    // new block cannot be had.
    bool resizeMax(unsigned int newMax);

    // Makes this array a copy of the first `n` elements of `src` (`~0u` for all). Copying an
    // array onto itself only truncates to `n`. False, with nothing changed, when the elements do
    // not fit a fixed-capacity array.
    bool copy(const Array& src, unsigned int n);

    // Inserts `value` before position `index` (0..count; count appends). `value` may be an
    // element of this array. False, with nothing changed, for index > count or a full
    // fixed-capacity array.
    bool insertAt(unsigned int index, Arg value);

    // Assigns `value` (which may be an element of this array) to position `index`; false for
    // index >= count.
    bool setAt(unsigned int index, Arg value);

    // Removes the element at `index` by moving the later ones down; the vacated last slot is
    // reset to a default-constructed value. False for index >= count.
    bool removeAt(unsigned int index);

    unsigned int getCount() const { return mCount; }
    unsigned int getMax() const { return mMax; }
    // The element at `index`; valid only for index < getCount().
    T& getAt(unsigned int index) { return mData[index]; }
    const T& getAt(unsigned int index) const { return mData[index]; }
    // The element block (null when the capacity is 0).
    T* getData() { return mData; }
    const T* getData() const { return mData; }

  private:
    bool isElement(const T& value) const {
        std::less<const T*> before;
        return mData != nullptr && !before(&value, mData) && before(&value, mData + mMax);
    }

    T* mData;
    uint32_t mCount;
    uint32_t mMax;
    int32_t mAutoExtend;
};

// A key and its value.
template <class K, class V>
class Pair {
  public:
    Pair() : mKey(), mValue() {}
    Pair(const K& key, const V& value) : mKey(key), mValue(value) {}
    Pair(const Pair&) = default;
    Pair& operator=(const Pair&) = default;
    virtual ~Pair() = default;

    K mKey;
    V mValue;
};

// Answers whether the key of a pair is less than a given key, with K's own `<`.
template <class K, class V>
struct CompareLessPairKey {
    bool operator()(const Pair<K, V>& item, const K& key) const { return item.mKey < key; }
};

namespace detail {

// The key an item is searched by: the item itself, or the key of a pair.
template <class T>
const T& keyOf(const T& item) {
    return item;
}

template <class K, class V>
const K& keyOf(const Pair<K, V>& item) {
    return item.mKey;
}

}  // namespace detail

// Lower-bound binary search over `count` items sorted by key. `cmp(item, key)` answers "item
// less than key". Returns the position of the first item with this key, or where the key would
// be inserted to keep the order (`count` when all keys are smaller); 0 for count 0; `~0u` for
// null items or a count with its top bit set (negative as a signed count).
template <class K, class T, class Cmp>
inline unsigned int searchPosition(const K& key, const T* items, unsigned int count, Cmp cmp) {
    if (items == nullptr || count > static_cast<unsigned int>(INT32_MAX)) {
        return ~0u;
    }
    if (count == 0) {
        return 0;
    }
    // A lower bound by halving a window whose first element is the answer or lies below the
    // key; on sorted items that is the first equal key. The step is a select, not a branch, so
    // that it compiles to a conditional move: on random keys a mispredicted branch costs several
    // times a whole step over the short arrays this library keeps.
    std::size_t first = 0;
    std::size_t length = count;
    while (length > 1) {
        const std::size_t half = length / 2;
        const std::size_t next = first + half;
        first = cmp(items[next - 1], key) ? next : first;
        length -= half;
    }
    return static_cast<unsigned int>(first + (cmp(items[first], key) ? 1 : 0));
}

// The first item whose key equals `key`, or null (also for count 0 and the errors of
// `searchPosition`).
template <class K, class T, class Cmp>
inline const T* searchBinary(const K& key, const T* items, unsigned int count, Cmp cmp) {
    if (count == 0) {
        return nullptr;
    }
    const unsigned int pos = searchPosition(key, items, count, cmp);
    if (pos >= count || !(detail::keyOf(items[pos]) == key)) {
        return nullptr;
    }
    return &items[pos];
}

// A sorted associative array holding each key at most once, in ascending key order.
//
// Built on an `Array` of pairs made with the same capacity and growth mode; a full fixed map
// refuses new keys but still overwrites existing ones. Not thread-safe; not copyable.
template <class K, class V, class KArg = const K&, class VArg = const V&,
          class Cmp = CompareLessPairKey<K, V>>
class Map {
  public:
    using Entry = Pair<K, V>;

    Map(unsigned int max, int autoExtend) : mArray(max, autoExtend), mCompare() {}
    virtual ~Map() = default;

    Map(const Map&) = delete;
    Map& operator=(const Map&) = delete;

    // Sets the value for `key`: overwrites the value of an existing entry, else inserts a new
    // one in order. False when the key is new and a fixed-capacity map is full.
    bool insert(KArg key, VArg value) {
        const unsigned int pos = findPosition(key);
        if (pos == ~0u) {
            return false;
        }
        if (pos < getCount() && mArray.getAt(pos).mKey == key) {
            mArray.getAt(pos).mValue = value;
            return true;
        }
        return mArray.insertAt(pos, Entry(key, value));
    }

    // The entry for `key`, or null.
    Entry* find(KArg key) { return const_cast<Entry*>(static_cast<const Map*>(this)->find(key)); }
    const Entry* find(KArg key) const {
        return searchBinary(key, mArray.getData(), getCount(), mCompare);
    }

    // Where `key` is or would be inserted (see `searchPosition`); the caller checks
    // pos < getCount() and the key at pos. An empty map answers 0 even before it has a block,
    // so that a map made with capacity 0 can grow.
    unsigned int findPosition(KArg key) const {
        return getCount() == 0 ? 0 : searchPosition(key, mArray.getData(), getCount(), mCompare);
    }

    // Removes the entry for `key`; false when there is none.
    bool erase(KArg key) {
        const unsigned int pos = findPosition(key);
        return pos < getCount() && mArray.getAt(pos).mKey == key && mArray.removeAt(pos);
    }

    // Removes the entry at position `index`; false for index >= getCount().
    bool removeAt(unsigned int index) { return mArray.removeAt(index); }

    unsigned int getCount() const { return mArray.getCount(); }
    unsigned int getMax() const { return mArray.getMax(); }
    // The entry at `index` in ascending key order; valid only for index < getCount().
    Entry& getAt(unsigned int index) { return mArray.getAt(index); }
    const Entry& getAt(unsigned int index) const { return mArray.getAt(index); }

  private:
    Array<Entry, const Entry&> mArray;
    Cmp mCompare;
};

// Writes `value` into out[0..1], least significant byte first; false for a null `out`.
bool serialize(unsigned short value, unsigned char* out);
// Writes `value` into out[0..3], least significant byte first; false for a null `out`.
bool serialize(unsigned int value, unsigned char* out);
// Reads a 16-bit value stored least significant byte first; `in` needs no alignment. False for
// a null argument.
bool unserialize(const unsigned char* in, unsigned short* value);
// Reads a 32-bit value stored least significant byte first; `in` needs no alignment. False for
// a null argument.
bool unserialize(const unsigned char* in, unsigned int* value);

template <class T, class Arg>
Array<T, Arg>::Array(unsigned int max, int autoExtend)
    : mData(detail::allocateElements<T>(max)),
      mCount(0),
      mMax(mData != nullptr ? max : 0),
      mAutoExtend(autoExtend) {}

template <class T, class Arg>
bool Array<T, Arg>::resizeMax(unsigned int newMax) {
    if (newMax == mMax) {
        return true;
    }
    T* block = nullptr;
    if (newMax != 0) {
        // The new block is made before the old one goes, so a failure leaves the array intact.
        block = detail::allocateElements<T>(newMax);
        if (block == nullptr) {
            return false;
        }
    }
    const uint32_t kept = mCount < newMax ? mCount : newMax;
    for (uint32_t i = 0; i < kept; ++i) {
        block[i] = mData[i];
    }
    delete[] mData;
    mData = block;
    mMax = newMax;
    mCount = kept;
    return true;
}

template <class T, class Arg>
bool Array<T, Arg>::copy(const Array& src, unsigned int n) {
    if (&src == this) {
        if (mCount > n) {
            mCount = n;
        }
        return true;
    }
    const uint32_t wanted = n < src.mCount ? n : src.mCount;
    if (mAutoExtend == 1 && mMax < wanted && !resizeMax(wanted)) {
        return false;
    }
    if (wanted > mMax) {
        return false;
    }
    for (uint32_t i = 0; i < wanted; ++i) {
        mData[i] = src.mData[i];
    }
    mCount = wanted;
    return true;
}

template <class T, class Arg>
bool Array<T, Arg>::insertAt(unsigned int index, Arg value) {
    // The value may live in this array and be moved by the shift below.
    const T local(value);
    if (index > mCount) {
        return false;
    }
    if (mAutoExtend == 1 && mMax == mCount && !resizeMax(mCount + 1)) {
        return false;
    }
    if (mCount == mMax) {
        return false;
    }
    for (uint32_t i = mCount; i > index; --i) {
        mData[i] = mData[i - 1];
    }
    mData[index] = local;
    ++mCount;
    return true;
}

template <class T, class Arg>
bool Array<T, Arg>::setAt(unsigned int index, Arg value) {
    if (index >= mCount) {
        return false;
    }
    if (isElement(value)) {
        const T local(value);
        mData[index] = local;
    } else {
        mData[index] = value;
    }
    return true;
}

template <class T, class Arg>
bool Array<T, Arg>::removeAt(unsigned int index) {
    if (index >= mCount) {
        return false;
    }
    for (uint32_t i = index + 1; i < mCount; ++i) {
        mData[i - 1] = mData[i];
    }
    // The vacated slot lets go of what it held now, not when it is next reused: an element
    // that holds a shared resource must not keep it alive from outside the array.
    --mCount;
    mData[mCount] = T();
    return true;
}

extern template class Array<int>;
extern template class Map<int, int>;
extern template class Map<unsigned int, unsigned int>;
extern template class Map<int, unsigned long long>;

}  // namespace utl

#endif  // UTL_ARRAY_H
