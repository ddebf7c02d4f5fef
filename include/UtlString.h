// UTF-8 text of utl: measuring, copying, editing and searching zero-terminated texts in fixed
// buffers, the shared work buffer, and the owning string `BasicString<char>`.
//
// Texts are zero-terminated UTF-8 (a leading byte-order mark is recognised). The functions are
// made for fixed caller buffers: each takes the buffer and its size in bytes (terminator
// included), returns the bytes it wrote including the terminator (or a byte position) and `~0u`
// on failure, and never splits a multi-byte character. The trailing `truncate` switch of the
// copying functions decides what happens when a result does not fit: 1 cuts it after the last
// whole character, any other value makes the call fail. On failure a destination may hold a
// partial result unless a function says otherwise.
//
//   char name[8];
//   utl::copyStrBase(name, sizeof name, "abc\xE3\x81\x82\xE3\x81\x84", ~0u, 1);  // 7: abc + 1 kana
//   utl::replaceStr(name, sizeof name, "a-b", "-", "+", 0);                        // 4: "a+b"
//   utl::BasicString<char> path("/tmp", 0, 1);  // grows as needed
//   path += "/log";                             // path.c_str() is "/tmp/log"
//
// The free functions keep no state and may be used from any thread on distinct data; those that
// need scratch space serialise on the shared work buffer, which also limits their input to
// texts shorter than 10240 bytes.
#ifndef UTL_STRING_H
#define UTL_STRING_H

#include <climits>
#include <cstdint>

#include "UtlSync.h"

namespace utl {

// The same text held in a narrow (UTF-8) and a wide form.
template <class N, class W>
class DualType {
  public:
    constexpr DualType() : mNarrow(), mWide() {}
    constexpr DualType(N narrow, W wide) : mNarrow(narrow), mWide(wide) {}
    virtual ~DualType() = default;

    N mNarrow;
    W mWide;
};

// Bytes of the UTF-8 character at `s`: 1 to 4, or 3 for a byte-order mark (EF BB BF), which
// also sets `*bom` (otherwise `*bom` becomes false; `bom` may be null). 0 for a null or empty
// text; `~0u` for an invalid or cut sequence (overlong forms, bad following bytes, a stray
// following byte, F8-FF).
template <class T>
unsigned int t_charlen(const T* s, bool* bom);

// As `t_charlen`, except that a byte that can start no character (80-BF, F8-FF) gives `~0u`
// while a valid first byte with a bad or cut sequence gives 0.
template <class T>
unsigned int strCharBytesBase(const T* s, bool* bom);

// `index` if it is a character boundary of `s` (0 always is); inside a character the start of
// that character when `mode` is 1, else the start of the next one; the length of `s` when
// `index` lies beyond its end. `~0u` for a null text or an invalid sequence before `index`.
template <class T>
unsigned int getNearCharIndex(const T* s, unsigned int index, unsigned int mode);

// Copies at most `count` bytes of `src` (`~0u`: all of it) into `dst` of `size` bytes and
// terminates it, never splitting a character. Returns the bytes written with the terminator;
// 0, writing nothing, when nothing is to be copied (count 0); the size needed when `size` is 0;
// `~0u` for a null `src` or `dst`, for a text that does not fit without `truncate` 1, or for an
// invalid sequence met while truncating.
template <class T>
unsigned int copyStrBase(T* dst, unsigned int size, const T* src, unsigned int count, int truncate);

// Appends at most `count` bytes of `src` to the text of `length` bytes that `dst` (of `size`
// bytes) holds, with the rules of `copyStrBase`. Returns the new length (without terminator),
// or `~0u`.
template <class T>
unsigned int appendStrBase(T* dst, unsigned int size, unsigned int length, const T* src,
                           unsigned int count, int truncate);

// Copies min(strlen(src), `count`) bytes of `src` (null: the empty text), stepping back to the
// start of a character that the cut would split. `~0u` for a null `dst` or when `size` is not
// larger than min(strlen(src), `count`).
template <class T>
unsigned int t_strncpy(T* dst, unsigned int size, const T* src, unsigned int count);

// printf-style formatting into `dst`. Returns strlen(dst) + 1; `~0u` for a null `dst` or
// `format`, a `size` of 0, an encoding error, or output that does not fit (never truncated).
template <class T>
unsigned int formatStr(T* dst, unsigned int size, const T* format, ...);
template <>
unsigned int formatStr<char>(char* dst, unsigned int size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Cuts `s` in place to at most `length` bytes, at the start of the character the cut would
// split. Returns the new length + 1; `~0u` for a null `s` or an invalid sequence before the cut.
template <class T>
unsigned int truncateStr(T* s, unsigned int length);

// `t_strrev`, except that a `size` of 0 returns the size needed, strlen(src) + 1.
template <class T>
unsigned int reverseStrBase(T* dst, unsigned int size, const T* src, int truncate);

// Writes the characters of `src` in reverse order into `dst` (which must not overlap it), the
// bytes of each character kept in order. With `truncate` 1 the result is the longest run of whole
// characters of the reversed text that fits. Returns its length + 1; `~0u` for null arguments, a
// `size` of 0, an invalid sequence, or a text that does not fit without truncation.
template <class T>
unsigned int t_strrev(T* dst, unsigned int size, const T* src, int truncate);

// Inserts at most `count` bytes of `src` (cut at a character boundary) before byte `pos` of the
// text in `dst`; `src` must not overlap `dst`. With `truncate` 1 a result that does not fit is
// cut after the last whole character. Returns the resulting length + 1; `~0u` for null
// arguments, `pos` > strlen(dst), a text of 10240 bytes or more in `dst`, or a result that does
// not fit without truncation.
template <class T>
unsigned int insertStr(T* dst, unsigned int size, unsigned int pos, const T* src,
                       unsigned int count, int truncate);

// Removes `count` bytes at byte `pos` of `s` in place (all from `pos` when fewer remain).
// Returns the new length + 1; `~0u` for a null `s`, `pos` > strlen(s), or a text of 10240 bytes
// or more.
template <class T>
unsigned int eraseStrSpan(T* s, unsigned int pos, unsigned int count);

// Writes `src` into `dst` with each occurrence of `from` (at a character boundary, left to right,
// not overlapping) replaced by `to`. An empty `to` keeps only the text before the first
// occurrence. With `truncate` 1 a result that does not fit is cut after the last whole character
// (later pieces are dropped, so it is a prefix of the whole result). Returns the length written
// + 1; `~0u` for null arguments, a `size` of 0, an invalid sequence met while truncating, or a
// result that does not fit without truncation. An empty `from` makes it
// `copyStrBase(dst, size, src, strlen(src), truncate)`.
template <class T>
unsigned int replaceStr(T* dst, unsigned int size, const T* src, const T* from, const T* to,
                        int truncate);

// The same replacement in place on `s` (of `size` bytes), which is first copied into a work
// area; `from` and `to` must not point into `s`. Also `~0u` for a text of 10240 bytes or more.
template <class T>
unsigned int replaceStr(T* s, unsigned int size, const T* from, const T* to, int truncate);

// Removes from the end of `s` every character that is one of the characters of `set` (null:
// none); invalid bytes stay. Returns the new length + 1; `~0u` for a null `s` or a text of 10240
// bytes or more.
template <class T>
unsigned int trimStrRight(T* s, const T* set);

// Byte position of the first occurrence of `sub` in `s` that starts at a character boundary
// (invalid bytes are stepped over one at a time). An empty `sub` gives strlen(s) (0 for a null
// `s`); `~0u` for a null `sub`, a null or empty `s`, or no occurrence.
template <class T>
unsigned int t_strstr(const T* s, const T* sub);

// Length in bytes of the leading run of `s` made only of characters of `set`; the run ends at an
// invalid sequence. 0 for a null `s` or `set`.
template <class T>
unsigned int t_strspn(const T* s, const T* set);

// The smallest position in `s` of any character of `set` (invalid bytes of `set` are ignored);
// strlen(s) when none occurs or `set` is null or empty, 0 for a null `s`.
template <class T>
unsigned int t_strcspn(const T* s, const T* set);

// Byte position of the last occurrence of `sub` in `s` that starts at or before byte `pos`
// (`~0u`: anywhere). `~0u` when there is none, for a null `s`, a null or empty `sub`, an invalid
// sequence in either text, or a text of 10240 bytes or more. `*found` (if `found` is not null)
// receives the result too.
template <class T>
unsigned int findReverseStr(const T* s, const T* sub, unsigned int pos, unsigned int* found);

// `findReverseStr` for the one character at `ch`; `~0u` (also in `*found`) when `ch` is null or
// empty, or starts with a byte-order mark or an invalid sequence.
template <class T>
unsigned int findReverseChar(const T* s, const T* ch, unsigned int pos, unsigned int* found);

// The result of `compareStrNoCase` when it cannot compare.
constexpr int COMPARE_FAILED = INT_MIN;

// `strncmp` over `n` bytes of `a` and `b` after their upper-case letters (half-width and
// full-width) were turned into lower-case ones; null counts as the empty text. COMPARE_FAILED
// when a text has 10240 bytes or more.
template <class T>
int compareStrNoCase(const T* a, const T* b, unsigned int n);

// Parses an unsigned number from `s` (full-width digits and signs accepted) into `*out`: an
// optional "+", then digits of `base` (2 to 36, letters of either case) up to the first other
// character. `base` 0 takes 16 after "0x" or "0X", 8 after a leading "0", else 10; leading
// spaces are not skipped. False, with `*out` unchanged, for a null argument, a bad `base`, a
// "-", no digit, a value above the type's maximum, or a text of 10240 bytes or more.
template <class I, class T>
bool strToInt(I* out, const T* s, int base);

// The process-wide scratch space of the text functions: areas of AREA_SIZE bytes under one
// recursive lock. A user holds the lock while it uses an area; nested users on the same thread
// get the next area, so no function ever works in an area that an outer level still uses. The
// first AREA_COUNT areas are part of the buffer; deeper levels get areas of their own, allocated
// on first use and kept for reuse. There is no depth limit other than memory: when no area can be
// allocated for a level, `enter` gives null and the function that wanted it fails with its
// failure result. Use it through `WorkingBuffer`, which does the locking.
class StaticBuffer {
  public:
    static constexpr unsigned int AREA_SIZE = 10240;
    static constexpr unsigned int AREA_COUNT = 3;

    // The one buffer, made on first use.
    static StaticBuffer& get();

    // Locks the buffer and returns the area for the present nesting depth (null when a level
    // beyond AREA_COUNT finds no memory for its area); `leave` undoes it in either case.
    char* enter() UTL_ACQUIRE(mLock);
    void leave() UTL_RELEASE(mLock);

    virtual ~StaticBuffer();

  private:
    // An area of a level beyond AREA_COUNT, in a list ordered by depth.
    struct ExtraArea {
        ExtraArea* mNext;
        char mBytes[AREA_SIZE];
    };

    StaticBuffer();
    // The area of level `depth` >= AREA_COUNT, allocated when first reached; null without memory.
    char* extraArea(unsigned int depth) UTL_REQUIRES(mLock);

    SyncObject mLock;
    char mAreas[AREA_COUNT][AREA_SIZE] UTL_GUARDED_BY(mLock);
    ExtraArea* mExtraAreas UTL_GUARDED_BY(mLock);
    unsigned int mDepth UTL_GUARDED_BY(mLock);
};

template <class T>
class WorkingBuffer;

// One area of the work buffer, held (and the buffer locked) for the life of the object. Blocks
// while another thread holds the buffer.
template <>
class WorkingBuffer<char> {
  public:
    // The buffer's lock is held from construction to destruction, which the thread-safety
    // analysis cannot follow across the object's life.
    WorkingBuffer() UTL_NO_THREAD_SAFETY_ANALYSIS : mArea(StaticBuffer::get().enter()) {}
    virtual ~WorkingBuffer() UTL_NO_THREAD_SAFETY_ANALYSIS { StaticBuffer::get().leave(); }

    WorkingBuffer(const WorkingBuffer&) = delete;
    WorkingBuffer& operator=(const WorkingBuffer&) = delete;

    // The area; null when a deep nesting level found no memory for one (`isUsable` false).
    char* get() const { return mArea; }
    bool isUsable() const { return mArea != nullptr; }
    static constexpr unsigned int size() { return StaticBuffer::AREA_SIZE; }

    // Copies the text `s` (null counts as empty) into the area; false, leaving the area as it
    // was, when it has AREA_SIZE bytes or more or there is no area.
    bool assign(const char* s);

  private:
    char* mArea;
};

template <class T>
class BasicString;

// An owning, always terminated UTF-8 string with a buffer of `getMax()` bytes.
//
// A fixed string (`autoExtend` other than 1) keeps its buffer size; text that does not fit is
// refused or cut as each operation says. An auto-extending string (`autoExtend` 1) grows its
// buffer to exactly the size an operation needs and never shrinks on its own. A string of size 1
// shares one static empty text and allocates nothing. When no memory is left for a new buffer,
// construction gives the empty text in that shared buffer and other operations fail unchanged.
// Texts passed in may point into the string itself.
//
// Not thread-safe: one thread at a time per object. Copies are deep: a copy owns a buffer of the
// same size and growth mode.
template <>
class BasicString<char> {
  public:
    // The shared empty text, narrow and wide, that strings of size 1 point at.
    static const DualType<const char*, const wchar_t*> EMPTY_STR;

    // The empty text, auto-extending, allocating nothing yet (the element of a string array).
    BasicString() : BasicString(1, 1) {}
    // The empty text in a zeroed buffer of `size` bytes (1 if 0).
    BasicString(unsigned int size, int autoExtend);
    // `s` (null: the empty text) in a buffer of max(strlen(s) + 1, `size`) bytes (at least 1).
    BasicString(const char* s, unsigned int size, int autoExtend);
    BasicString(const BasicString& other);
    // Keeps the old contents when no memory is left for the copy.
    BasicString& operator=(const BasicString& other);
    virtual ~BasicString();

    // Stores at most `count` bytes of `s` (cut at a character boundary), growing first when
    // auto-extending. With `truncate` 1 a text that does not fit is cut after the last whole
    // character, otherwise refused. A `count` of 0 stores nothing. False, with the text
    // unchanged, for a null `s`, a refused text, or no memory to grow.
    bool copy(const char* s, unsigned int count, int truncate);
    // copy(s, ~0u, 0): too long a text for a fixed string (or null) leaves the text unchanged.
    BasicString& operator=(const char* s);
    // Appends `s`, growing when auto-extending; too long a text for a fixed string (or null)
    // leaves the text unchanged.
    BasicString& operator+=(const char* s);

    // Replaces the occurrences of `from` by `to` with the rules of `replaceStr`, growing first
    // when auto-extending. False, with the text unchanged, for null arguments, no memory, a
    // text of 10240 bytes or more, or a failure of `replaceStr`.
    bool replace(const char* from, const char* to, int truncate);

    // Gives the string a buffer of `size` bytes holding its text cut to at most `size` - 1 bytes
    // at a character boundary; 0 and 1 switch to the shared empty text. False, with nothing
    // changed, when no memory is left or the text holds an invalid sequence within the cut.
    bool resizeMax(unsigned int size);

    const char* c_str() const { return mBuffer; }
    // strlen of the text.
    unsigned int getLength() const;
    // The buffer size in bytes, terminator included.
    unsigned int getMax() const { return mMax; }

    friend BasicString operator+(const char* s, const BasicString& string);

  private:
    // Grows an auto-extending string to `size` bytes if it is smaller; false when that fails.
    bool growFor(unsigned int size);
    // The buffer to write into: `spare` stands in for the shared empty text, which must never be
    // written.
    char* writable(char* spare) const { return mIsStatic ? spare : mBuffer; }
    // Frees the present buffer unless shared and takes `buffer` of `size` bytes instead; null
    // selects the shared empty text.
    void replaceBuffer(char* buffer, unsigned int size);

    static const char mEmptyChar;
    static const wchar_t mEmptyWChar;

    char* mBuffer;
    std::uint32_t mMax;
    std::int32_t mAutoExtend;
    bool mIsStatic;
};

// A new string holding `s` (null: the empty text) followed by the text of `string`, in a buffer
// of exactly that size and with the growth mode of `string`; the empty text if no memory is left.
BasicString<char> operator+(const char* s, const BasicString<char>& string);

}  // namespace utl

#endif  // UTL_STRING_H
