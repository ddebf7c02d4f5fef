#include "UtlString.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "UtlCharAttrib.h"
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

// `n` if it is the end of `s` (of `length` bytes) or a character boundary, else the nearest
// boundary before it; `kFailure` when there is none.
unsigned int boundaryAtOrBefore(const char* s, unsigned int n, unsigned int length) {
    if (n == length) {
        return n;
    }
    while (n > 0 && !isCharBoundary(byteAt(s, n))) {
        --n;
    }
    return isCharBoundary(byteAt(s, n)) ? n : kFailure;
}

unsigned int textLength(const char* s) {
    return static_cast<unsigned int>(std::strlen(s));
}

// The bytes to step over for a character of `length` (as `t_charlen` gives it): invalid
// sequences are stepped over one byte at a time.
unsigned int stepOver(unsigned int length) {
    return length == kFailure ? 1 : length;
}

// One character as a text of its own.
struct CharText {
    CharText(const char* s, unsigned int length) { copyMemory(bytes, s, length); }
    char bytes[5] = {};
};

// Whether the character of `length` bytes at `ch` is one of the characters of `set`.
bool setHoldsChar(const char* set, const char* ch, unsigned int length) {
    return t_strstr(set, CharText(ch, length).bytes) != kFailure;
}

// Writes a text piece by piece into a buffer of `size` bytes, each piece appended with the
// truncation switch. Once a piece had to be cut, later pieces are dropped: otherwise a short
// piece could still fit after a cut one, and the result would not be a prefix of the whole.
class PieceWriter {
  public:
    PieceWriter(char* dst, unsigned int size, int truncate)
        : mDst(dst), mSize(size), mTruncate(truncate), mLength(0), mCut(false) {}

    // Appends the first `count` bytes of `piece` (`count` ending at a character boundary);
    // false when the append fails.
    bool append(const char* piece, unsigned int count) {
        if (mCut) {
            return true;
        }
        const unsigned int length = appendStrBase(mDst, mSize, mLength, piece, count, mTruncate);
        if (length == kFailure) {
            return false;
        }
        mCut = length - mLength < count;
        mLength = length;
        return true;
    }

    // Terminates the text (an append of 0 bytes writes nothing) and returns its length + 1.
    // Only after a successful append, which has proved `dst` and `size` usable.
    unsigned int finish() {
        mDst[mLength] = '\0';
        return mLength + 1;
    }

  private:
    char* mDst;
    unsigned int mSize;
    int mTruncate;
    unsigned int mLength;
    bool mCut;
};

// Converts `s` (null: the empty text) through `pair` in direction 1 into `area`.
bool convertInto(WorkingBuffer<char>& area, const char* s, const PairAttrib* pair) {
    return area.isUsable() &&
           convertAttrib(area.get(), area.size(), s != nullptr ? s : "", pair, 1, 0) != kFailure;
}

// The value of `c` as a digit of bases up to 36, or 36 for a character that is no digit.
int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'Z') {
        return c - 'A' + 10;
    }
    return 36;
}

// The start of the last occurrence of `sub` in `s` at or before byte `pos`. Both texts are
// reversed into work areas (which also limits them to the area size), where that occurrence is
// the first one at or after `skip`.
unsigned int lastOccurrence(const char* s, const char* sub, unsigned int pos) {
    if (s == nullptr || sub == nullptr || *sub == '\0') {
        return kFailure;
    }
    WorkingBuffer<char> reversedText;
    WorkingBuffer<char> reversedSub;
    if (!reversedText.isUsable() || !reversedSub.isUsable() ||
        t_strrev(reversedText.get(), reversedText.size(), s, 0) == kFailure ||
        t_strrev(reversedSub.get(), reversedSub.size(), sub, 0) == kFailure) {
        return kFailure;
    }
    const unsigned int length = textLength(s);
    const unsigned int subLength = textLength(sub);
    if (subLength > length) {
        return kFailure;
    }
    // An occurrence at q starts at length - q - subLength in the reversed text. A `skip` inside a
    // character is harmless: the search steps over following bytes, and a match starts with a
    // first byte.
    const unsigned int last = length - subLength;
    const unsigned int skip = pos < last ? last - pos : 0;
    const unsigned int at = t_strstr(reversedText.get() + skip, reversedSub.get());
    return at == kFailure ? kFailure : last - skip - at;
}

// The occurrences of `from` in `s` that `replaceStr` replaces; 0 for an empty `from`.
unsigned int countOccurrences(const char* s, const char* from) {
    const unsigned int fromLength = textLength(from);
    unsigned int count = 0;
    for (unsigned int at; fromLength != 0 && (at = t_strstr(s, from)) != kFailure;
         s += at + fromLength) {
        ++count;
    }
    return count;
}

// Calls `op` with `s`, or with a copy of it in a work area when `s` points into `buffer` of `size`
// bytes, which the operation may overwrite or free while it reads `s`. False when that copy has
// the area size or more.
template <class Op>
bool withTextApart(const char* s, const char* buffer, unsigned int size, Op op) {
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(s) - reinterpret_cast<std::uintptr_t>(buffer);
    if (s == nullptr || offset >= size) {
        return op(s);
    }
    WorkingBuffer<char> apart;
    return apart.assign(s) && op(apart.get());
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
    // A cut inside a character drops the partial character.
    n = boundaryAtOrBefore(src, n, static_cast<unsigned int>(srcLength));
    if (n == kFailure) {
        return kFailure;
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

template <class T>
unsigned int t_strncpy(T* dst, unsigned int size, const T* src, unsigned int count) {
    const T* text = src != nullptr ? src : "";
    const unsigned int length = textLength(text);
    const unsigned int n = length < count ? length : count;
    if (dst == nullptr || size <= n) {
        return kFailure;
    }
    if (n == 0) {
        // copyStrBase writes nothing for a count of 0, but this copy always yields a text.
        dst[0] = '\0';
        return 1;
    }
    return copyStrBase(dst, size, text, n, 0);
}

template <>
unsigned int formatStr<char>(char* dst, unsigned int size, const char* format, ...) {
    if (dst == nullptr || format == nullptr || size == 0) {
        return kFailure;
    }
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(dst, size, format, args);
    va_end(args);
    if (written < 0 || static_cast<unsigned int>(written) >= size) {
        return kFailure;
    }
    return textLength(dst) + 1;
}

template <class T>
unsigned int truncateStr(T* s, unsigned int length) {
    const unsigned int end = getNearCharIndex(s, length, 1);
    if (end == kFailure) {
        return kFailure;
    }
    s[end] = '\0';
    return end + 1;
}

template <class T>
unsigned int reverseStrBase(T* dst, unsigned int size, const T* src, int truncate) {
    if (src == nullptr) {
        return kFailure;
    }
    if (size == 0) {
        return textLength(src) + 1;
    }
    return t_strrev(dst, size, src, truncate);
}

template <class T>
unsigned int t_strrev(T* dst, unsigned int size, const T* src, int truncate) {
    if (dst == nullptr || src == nullptr || size == 0) {
        return kFailure;
    }
    const unsigned int length = textLength(src);
    if (truncate != 1 && length + 1 > size) {
        return kFailure;
    }
    const unsigned int room = length < size - 1 ? length : size - 1;
    // Only characters that fit whole are written; the first of them (from the start of `src`)
    // ends the written part, so a cut never leaves a gap or half a character before the end.
    unsigned int end = 0;
    for (unsigned int at = 0; at < length;) {
        const unsigned int charLength = t_charlen(src + at, nullptr);
        if (charLength == kFailure) {
            return kFailure;
        }
        const unsigned int target = length - at - charLength;
        if (target + charLength <= room) {
            copyMemory(dst + target, src + at, charLength);
            end = end > target + charLength ? end : target + charLength;
        }
        at += charLength;
    }
    dst[end] = '\0';
    return end + 1;
}

template <class T>
unsigned int insertStr(T* dst, unsigned int size, unsigned int pos, const T* src,
                       unsigned int count, int truncate) {
    if (dst == nullptr || src == nullptr) {
        return kFailure;
    }
    WorkingBuffer<T> work;
    if (!work.assign(dst)) {
        return kFailure;
    }
    const T* text = work.get();
    const unsigned int length = textLength(text);
    const unsigned int srcLength = textLength(src);
    const unsigned int inserted =
        boundaryAtOrBefore(src, count < srcLength ? count : srcLength, srcLength);
    // A `pos` inside a character is refused rather than splitting it.
    if (pos > length || boundaryAtOrBefore(text, pos, length) != pos || inserted == kFailure) {
        return kFailure;
    }
    PieceWriter writer(dst, size, truncate);
    if (!writer.append(text, pos) || !writer.append(src, inserted) ||
        !writer.append(text + pos, length - pos)) {
        return kFailure;
    }
    return writer.finish();
}

template <class T>
unsigned int eraseStrSpan(T* s, unsigned int pos, unsigned int count) {
    if (s == nullptr) {
        return kFailure;
    }
    WorkingBuffer<T> work;
    const unsigned int length = textLength(s);
    if (!work.assign(s) || pos > length) {
        return kFailure;
    }
    const unsigned int removed = count < length - pos ? count : length - pos;
    // The tail comes back from the copy, so the ranges never overlap.
    copyMemory(s + pos, work.get() + pos + removed, length - pos - removed + 1);
    return length - removed + 1;
}

template <class T>
unsigned int replaceStr(T* dst, unsigned int size, const T* src, const T* from, const T* to,
                        int truncate) {
    if (src == nullptr || from == nullptr || to == nullptr) {
        return kFailure;
    }
    const unsigned int fromLength = textLength(from);
    if (fromLength == 0) {
        return copyStrBase(dst, size, src, textLength(src), truncate);
    }
    const unsigned int toLength = textLength(to);
    PieceWriter writer(dst, size, truncate);
    const T* rest = src;
    for (unsigned int at = t_strstr(rest, from); at != kFailure; at = t_strstr(rest, from)) {
        if (!writer.append(rest, at) || !writer.append(to, toLength)) {
            return kFailure;
        }
        // Intentional: replacing with the empty text cuts the text at the first occurrence
        // rather than removing every occurrence.
        if (toLength == 0) {
            return writer.finish();
        }
        rest += at + fromLength;
    }
    return writer.append(rest, textLength(rest)) ? writer.finish() : kFailure;
}

template <class T>
unsigned int replaceStr(T* s, unsigned int size, const T* from, const T* to, int truncate) {
    if (s == nullptr) {
        return kFailure;
    }
    WorkingBuffer<T> work;
    return work.assign(s) ? replaceStr(s, size, work.get(), from, to, truncate) : kFailure;
}

template <class T>
unsigned int trimStrRight(T* s, const T* set) {
    if (s == nullptr) {
        return kFailure;
    }
    WorkingBuffer<T> work;
    if (!work.assign(s)) {
        return kFailure;
    }
    // The walk runs on the copy in the work area only so that `s` obeys the same size limit as
    // every other editing function.
    const T* text = work.get();
    unsigned int end = 0;  // The end of the last character that stays.
    for (unsigned int at = 0; text[at] != '\0';) {
        const unsigned int length = t_charlen(text + at, nullptr);
        const bool stays = length == kFailure || !setHoldsChar(set, text + at, length);
        at += stepOver(length);
        end = stays ? at : end;
    }
    s[end] = '\0';
    return end + 1;
}

template <class T>
unsigned int t_strstr(const T* s, const T* sub) {
    if (sub == nullptr) {
        return kFailure;
    }
    const unsigned int subLength = textLength(sub);
    if (subLength == 0) {
        return s != nullptr ? textLength(s) : 0;
    }
    if (s == nullptr) {
        return kFailure;
    }
    for (unsigned int at = 0; s[at] != '\0'; at += stepOver(t_charlen(s + at, nullptr))) {
        if (std::strncmp(s + at, sub, subLength) == 0) {
            return at;
        }
    }
    return kFailure;
}

template <class T>
unsigned int t_strspn(const T* s, const T* set) {
    if (s == nullptr || set == nullptr) {
        return 0;
    }
    unsigned int at = 0;
    while (s[at] != '\0') {
        const unsigned int length = t_charlen(s + at, nullptr);
        if (length == kFailure || !setHoldsChar(set, s + at, length)) {
            break;
        }
        at += length;
    }
    return at;
}

template <class T>
unsigned int t_strcspn(const T* s, const T* set) {
    if (s == nullptr) {
        return 0;
    }
    unsigned int first = textLength(s);
    if (set == nullptr) {
        return first;
    }
    for (unsigned int at = 0; set[at] != '\0';) {
        const unsigned int length = t_charlen(set + at, nullptr);
        if (length != kFailure) {
            const unsigned int found = t_strstr(s, CharText(set + at, length).bytes);
            first = found < first ? found : first;
        }
        at += stepOver(length);
    }
    return first;
}

template <class T>
unsigned int findReverseStr(const T* s, const T* sub, unsigned int pos, unsigned int* found) {
    const unsigned int at = lastOccurrence(s, sub, pos);
    if (found != nullptr) {
        *found = at;
    }
    return at;
}

template <class T>
unsigned int findReverseChar(const T* s, const T* ch, unsigned int pos, unsigned int* found) {
    bool bom = false;
    const unsigned int length = t_charlen(ch, &bom);
    const bool usable = length != 0 && length != kFailure && !bom;
    // An unusable character becomes the empty text, which findReverseStr refuses.
    return findReverseStr(s, CharText(ch, usable ? length : 0).bytes, pos, found);
}

template <class T>
int compareStrNoCase(const T* a, const T* b, unsigned int n) {
    WorkingBuffer<T> lowerA;
    if (!convertInto(lowerA, a, LOWER_UPPER_PAIR)) {
        return COMPARE_FAILED;
    }
    WorkingBuffer<T> lowerB;
    if (!convertInto(lowerB, b, LOWER_UPPER_PAIR)) {
        return COMPARE_FAILED;
    }
    return std::strncmp(lowerA.get(), lowerB.get(), n);
}

template <class I, class T>
bool strToInt(I* out, const T* s, int base) {
    static_assert(std::is_unsigned<I>::value && sizeof(I) < sizeof(std::uintmax_t),
                  "the value is gathered in a wider unsigned type");
    if (out == nullptr || s == nullptr || base < 0 || base == 1 || base > 36) {
        return false;
    }
    WorkingBuffer<T> halfWidth;
    if (!convertInto(halfWidth, s, HANKAKU_ZENKAKU_PAIR)) {
        return false;
    }
    const T* text = halfWidth.get();
    if (*text == '+') {
        ++text;
    }
    if (base == 0) {
        const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        base = hex ? 16 : text[0] == '0' ? 8 : 10;
        text += hex ? 2 : 0;
    }
    // "-" is no digit, so a negative number fails for want of one.
    std::uintmax_t value = 0;
    unsigned int digits = 0;
    for (int digit; (digit = digitValue(text[digits])) < base; ++digits) {
        value = value * static_cast<unsigned int>(base) + static_cast<unsigned int>(digit);
        if (value > std::numeric_limits<I>::max()) {
            return false;
        }
    }
    if (digits == 0) {
        return false;
    }
    *out = static_cast<I>(value);
    return true;
}

template unsigned int t_charlen<char>(const char*, bool*);
template unsigned int strCharBytesBase<char>(const char*, bool*);
template unsigned int getNearCharIndex<char>(const char*, unsigned int, unsigned int);
template unsigned int copyStrBase<char>(char*, unsigned int, const char*, unsigned int, int);
template unsigned int appendStrBase<char>(char*, unsigned int, unsigned int, const char*,
                                          unsigned int, int);
template unsigned int t_strncpy<char>(char*, unsigned int, const char*, unsigned int);
template unsigned int truncateStr<char>(char*, unsigned int);
template unsigned int reverseStrBase<char>(char*, unsigned int, const char*, int);
template unsigned int t_strrev<char>(char*, unsigned int, const char*, int);
template unsigned int insertStr<char>(char*, unsigned int, unsigned int, const char*, unsigned int,
                                      int);
template unsigned int eraseStrSpan<char>(char*, unsigned int, unsigned int);
template unsigned int replaceStr<char>(char*, unsigned int, const char*, const char*, const char*,
                                       int);
template unsigned int replaceStr<char>(char*, unsigned int, const char*, const char*, int);
template unsigned int trimStrRight<char>(char*, const char*);
template unsigned int t_strstr<char>(const char*, const char*);
template unsigned int t_strspn<char>(const char*, const char*);
template unsigned int t_strcspn<char>(const char*, const char*);
template unsigned int findReverseStr<char>(const char*, const char*, unsigned int, unsigned int*);
template unsigned int findReverseChar<char>(const char*, const char*, unsigned int, unsigned int*);
template int compareStrNoCase<char>(const char*, const char*, unsigned int);
template bool strToInt<unsigned short, char>(unsigned short*, const char*, int);

// static
StaticBuffer& StaticBuffer::get() {
    static StaticBuffer lTheBuffer;
    return lTheBuffer;
}

StaticBuffer::StaticBuffer() : mLock(), mAreas(), mExtraAreas(nullptr), mDepth(0) {}

StaticBuffer::~StaticBuffer() {
    while (mExtraAreas != nullptr) {
        ExtraArea* const next = mExtraAreas->mNext;
        delete mExtraAreas;
        mExtraAreas = next;
    }
}

char* StaticBuffer::enter() {
    mLock.lock();
    const unsigned int depth = mDepth++;
    return depth < AREA_COUNT ? mAreas[depth] : extraArea(depth);
}

void StaticBuffer::leave() {
    --mDepth;
    mLock.unlock();
}

char* StaticBuffer::extraArea(unsigned int depth) {
    ExtraArea** link = &mExtraAreas;
    for (unsigned int level = AREA_COUNT; level < depth && *link != nullptr; ++level) {
        link = &(*link)->mNext;
    }
    if (*link == nullptr) {
        // Levels are entered one after the other, so the list reaches `depth` - 1 here.
        *link = new (std::nothrow) ExtraArea();
    }
    return *link != nullptr ? (*link)->mBytes : nullptr;
}

bool WorkingBuffer<char>::assign(const char* s) {
    const char* text = s != nullptr ? s : "";
    const std::size_t length = std::strlen(text);
    if (!isUsable() || length >= size()) {
        return false;
    }
    copyMemory(mArea, text, static_cast<unsigned int>(length + 1));
    return true;
}

// Strings of size 1 point at `mEmptyChar`, which is never written (see `writable`), so any number
// of them on any threads may share it.
// static
const char BasicString<char>::mEmptyChar = '\0';
// static
const wchar_t BasicString<char>::mEmptyWChar = L'\0';
// static
const DualType<const char*, const wchar_t*> BasicString<char>::EMPTY_STR(&mEmptyChar, &mEmptyWChar);

BasicString<char>::BasicString(unsigned int size, int autoExtend)
    : mBuffer(const_cast<char*>(&mEmptyChar)), mMax(1), mAutoExtend(autoExtend), mIsStatic(true) {
    resizeMax(size);
}

BasicString<char>::BasicString(const char* s, unsigned int size, int autoExtend)
    : BasicString(s != nullptr && textLength(s) >= size ? textLength(s) + 1 : size, autoExtend) {
    copy(s, ~0u, 0);
}

BasicString<char>::BasicString(const BasicString& other) : BasicString(1u, other.mAutoExtend) {
    if (resizeMax(other.mMax)) {
        copy(other.mBuffer, ~0u, 0);
    }
}

BasicString<char>& BasicString<char>::operator=(const BasicString& other) {
    BasicString copied(other);
    if (copied.mMax == other.mMax) {
        std::swap(mBuffer, copied.mBuffer);
        std::swap(mMax, copied.mMax);
        std::swap(mAutoExtend, copied.mAutoExtend);
        std::swap(mIsStatic, copied.mIsStatic);
    }
    return *this;
}

BasicString<char>::~BasicString() {
    if (!mIsStatic) {
        delete[] mBuffer;
    }
}

bool BasicString<char>::copy(const char* s, unsigned int count, int truncate) {
    return withTextApart(s, mBuffer, mMax, [&](const char* text) {
        if (text == nullptr) {
            return false;
        }
        const unsigned int length = textLength(text);
        char spare;
        return growFor((length < count ? length : count) + 1) &&
               copyStrBase(writable(&spare), mMax, text, count, truncate) != kFailure;
    });
}

BasicString<char>& BasicString<char>::operator=(const char* s) {
    copy(s, ~0u, 0);
    return *this;
}

BasicString<char>& BasicString<char>::operator+=(const char* s) {
    withTextApart(s, mBuffer, mMax, [this](const char* text) {
        if (text == nullptr) {
            return false;
        }
        const unsigned int length = getLength();
        char spare;
        return growFor(length + textLength(text) + 1) &&
               appendStrBase(writable(&spare), mMax, length, text, ~0u, 0) != kFailure;
    });
    return *this;
}

bool BasicString<char>::replace(const char* from, const char* to, int truncate) {
    return withTextApart(from, mBuffer, mMax, [&](const char* apartFrom) {
        return withTextApart(to, mBuffer, mMax, [&](const char* apartTo) {
            if (apartFrom == nullptr || apartTo == nullptr) {
                return false;
            }
            WorkingBuffer<char> text;
            if (!text.assign(mBuffer)) {
                return false;
            }
            // The occurrences lie inside the text, so the subtraction cannot wrap.
            const unsigned int occurrences = countOccurrences(text.get(), apartFrom);
            const unsigned int needed = textLength(text.get()) + 1 -
                                        occurrences * textLength(apartFrom) +
                                        occurrences * textLength(apartTo);
            char spare;
            if (!growFor(needed)) {
                return false;
            }
            if (replaceStr(writable(&spare), mMax, text.get(), apartFrom, apartTo, truncate) !=
                kFailure) {
                return true;
            }
            // A refused replacement may have rewritten part of the buffer; the old text fits.
            copyStrBase(writable(&spare), mMax, text.get(), ~0u, 0);
            return false;
        });
    });
}

bool BasicString<char>::resizeMax(unsigned int size) {
    if (size == mMax) {
        return true;
    }
    if (size <= 1) {
        replaceBuffer(nullptr, 1);
        return true;
    }
    char* buffer = new (std::nothrow) char[size]();
    if (buffer == nullptr) {
        return false;
    }
    if (copyStrBase(buffer, size, mBuffer, ~0u, 1) == kFailure) {
        delete[] buffer;
        return false;
    }
    replaceBuffer(buffer, size);
    return true;
}

unsigned int BasicString<char>::getLength() const {
    return textLength(mBuffer);
}

bool BasicString<char>::growFor(unsigned int size) {
    return mAutoExtend != 1 || size <= mMax || resizeMax(size);
}

void BasicString<char>::replaceBuffer(char* buffer, unsigned int size) {
    if (!mIsStatic) {
        delete[] mBuffer;
    }
    mIsStatic = buffer == nullptr;
    mBuffer = mIsStatic ? const_cast<char*>(&mEmptyChar) : buffer;
    mMax = mIsStatic ? 1 : size;
}

BasicString<char> operator+(const char* s, const BasicString<char>& string) {
    const char* text = s != nullptr ? s : "";
    BasicString<char> joined(text, textLength(text) + string.getLength() + 1, string.mAutoExtend);
    joined += string.c_str();
    return joined;
}

}  // namespace utl
