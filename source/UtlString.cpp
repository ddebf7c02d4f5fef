#include "UtlString.h"

#include <cstring>

#include "UtlMemory.h"

namespace utl {

namespace {

constexpr unsigned int kFailure = ~0u;

unsigned char byteAt(const char* s, unsigned int i) {
    return static_cast<unsigned char>(s[i]);
}

bool isFollowingByte(unsigned char byte) {
    return (byte >> 6) == 2;
}

bool isByteOrderMark(const char* s) {
    return byteAt(s, 0) == 0xEF && byteAt(s, 1) == 0xBB && byteAt(s, 2) == 0xBF;
}

// The length that a first byte announces: 1 for ASCII, 2 to 4 for the multi-byte forms, 0 for a
// byte that can start no character.
unsigned int announcedLength(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if ((first >> 5) == 6) {
        return 2;
    }
    if ((first >> 4) == 14) {
        return 3;
    }
    if ((first >> 3) == 30) {
        return 4;
    }
    return 0;
}

// Whether the `length` bytes at `s` form a valid character: following bytes of the form 10xxxxxx
// (the terminator is not one, so a cut sequence fails without reading past it) and none of the
// overlong forms C0/C1, E0 80-9F and F0 80-8F.
bool isWellFormed(const char* s, unsigned int length) {
    for (unsigned int i = 1; i < length; ++i) {
        if (!isFollowingByte(byteAt(s, i))) {
            return false;
        }
    }
    const unsigned char first = byteAt(s, 0);
    const unsigned char second = byteAt(s, 1);
    switch (length) {
        case 2:
            return first >= 0xC2;
        case 3:
            return !(first == 0xE0 && second < 0xA0);
        case 4:
            return !(first == 0xF0 && second < 0x90);
        default:
            return true;
    }
}

// A byte where a character may start: ASCII or the first byte of a multi-byte form.
bool isCharBoundary(unsigned char byte) {
    return announcedLength(byte) != 0;
}

// The character at a non-empty `s`: its length, 0 for a valid first byte with a bad sequence,
// `kFailure` for a byte that can start no character.
unsigned int measureChar(const char* s, bool* bom) {
    const bool mark = isByteOrderMark(s);
    if (bom != nullptr) {
        *bom = mark;
    }
    if (mark) {
        return 3;
    }
    const unsigned int length = announcedLength(byteAt(s, 0));
    if (length == 0) {
        return kFailure;
    }
    return isWellFormed(s, length) ? length : 0;
}

}  // namespace

template <class T>
unsigned int strCharBytesBase(const T* s, bool* bom) {
    if (bom != nullptr) {
        *bom = false;
    }
    if (s == nullptr || *s == '\0') {
        return 0;
    }
    return measureChar(s, bom);
}

template <class T>
unsigned int t_charlen(const T* s, bool* bom) {
    const unsigned int length = strCharBytesBase(s, bom);
    if (length == 0 && s != nullptr && *s != '\0') {
        return kFailure;
    }
    return length;
}

namespace {

// The length of the longest run of whole characters at the start of `s` that ends at or before
// `limit` (which must not pass the terminator); `kFailure` for an invalid character on the way.
unsigned int wholeCharsWithin(const char* s, unsigned int limit) {
    unsigned int end = 0;
    while (end < limit) {
        const unsigned int length = t_charlen(s + end, nullptr);
        if (length == kFailure) {
            return kFailure;
        }
        if (end + length > limit) {
            break;
        }
        end += length;
    }
    return end;
}

}  // namespace

template <class T>
unsigned int getNearCharIndex(const T* s, unsigned int index, unsigned int mode) {
    if (s == nullptr) {
        return kFailure;
    }
    unsigned int position = 0;
    while (position < index) {
        if (s[position] == '\0') {
            return position;
        }
        const unsigned int length = t_charlen(s + position, nullptr);
        if (length == kFailure) {
            return kFailure;
        }
        if (position + length > index) {
            return mode == 1 ? position : position + length;
        }
        position += length;
    }
    return position;
}

template <class T>
unsigned int copyStrBase(T* dst, unsigned int size, const T* src, unsigned int count,
                         int truncate) {
    if (src == nullptr) {
        return kFailure;
    }
    const std::size_t srcLength = std::strlen(src);
    // An empty source still counts as something to copy (its terminator) unless count is 0.
    if (count == 0) {
        return 0;
    }
    unsigned int n = srcLength < count ? static_cast<unsigned int>(srcLength) : count;
    if (size == 0) {
        return n + 1;
    }
    if (dst == nullptr) {
        return kFailure;
    }
    if (size == 1) {
        if (n != 0 && truncate != 1) {
            return kFailure;
        }
        dst[0] = '\0';
        return 1;
    }
    if (truncate != 1) {
        if (size < n + 1) {
            return kFailure;
        }
    } else {
        n = wholeCharsWithin(src, n < size - 1 ? n : size - 1);
        if (n == kFailure) {
            return kFailure;
        }
    }
    if (n < srcLength && !isCharBoundary(byteAt(src, n))) {
        // The cut falls inside a character: drop the partial character.
        while (n > 0 && !isCharBoundary(byteAt(src, n))) {
            --n;
        }
        if (!isCharBoundary(byteAt(src, n))) {
            return kFailure;
        }
    }
    copyMemory(dst, src, n);
    dst[n] = '\0';
    return n + 1;
}

template <class T>
unsigned int appendStrBase(T* dst, unsigned int size, unsigned int length, const T* src,
                           unsigned int count, int truncate) {
    if (dst == nullptr || length >= size) {
        return kFailure;
    }
    const unsigned int written = copyStrBase(dst + length, size - length, src, count, truncate);
    if (written == kFailure) {
        return kFailure;
    }
    return written == 0 ? length : length + written - 1;
}

template unsigned int t_charlen<char>(const char*, bool*);
template unsigned int strCharBytesBase<char>(const char*, bool*);
template unsigned int getNearCharIndex<char>(const char*, unsigned int, unsigned int);
template unsigned int copyStrBase<char>(char*, unsigned int, const char*, unsigned int, int);
template unsigned int appendStrBase<char>(char*, unsigned int, unsigned int, const char*,
                                          unsigned int, int);

// static
StaticBuffer& StaticBuffer::get() {
    static StaticBuffer lTheBuffer;
    return lTheBuffer;
}

StaticBuffer::StaticBuffer() : mLock(), mAreas(), mDepth(0) {}

char* StaticBuffer::enter() {
    mLock.lock();
    const unsigned int area = mDepth < AREA_COUNT - 1 ? mDepth : AREA_COUNT - 1;
    ++mDepth;
    return mAreas[area];
}

void StaticBuffer::leave() {
    --mDepth;
    mLock.unlock();
}

bool WorkingBuffer<char>::assign(const char* s) {
    const char* text = s != nullptr ? s : "";
    const std::size_t length = std::strlen(text);
    if (length >= size()) {
        return false;
    }
    copyMemory(mArea, text, static_cast<unsigned int>(length + 1));
    return true;
}

}  // namespace utl
