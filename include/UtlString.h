// UTF-8 text of utl: character measuring, copying into fixed buffers, and the shared work buffer.
//
// Texts are zero-terminated UTF-8 (a leading byte-order mark is recognised). The functions are
// made for fixed caller buffers: each takes the buffer and its size in bytes (terminator
// included), returns the bytes it wrote including the terminator or `~0u` on failure, answers a
// size of 0 with the size it would need, and never splits a multi-byte character. The trailing
// `truncate` switch decides what happens when a result does not fit: 1 cuts it at the last whole
// character, any other value makes the call fail.
//
//   char name[8];
//   utl::copyStrBase(name, sizeof name, "abc\xE3\x81\x82\xE3\x81\x84", ~0u, 1);  // 7: "abc" + one
//   kana utl::copyStrBase(name, sizeof name, "abcdefghij", ~0u, 0);                   // ~0u: too
//   long
//
// The free functions keep no state and may be used from any thread on distinct data.
#ifndef UTL_STRING_H
#define UTL_STRING_H

#include "UtlSync.h"

namespace utl {

// The same text held in a narrow (UTF-8) and a wide form.
template <class N, class W>
class DualType {
  public:
    DualType() : mNarrow(), mWide() {}
    DualType(N narrow, W wide) : mNarrow(narrow), mWide(wide) {}
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

// The process-wide scratch space of the text functions: three areas of AREA_SIZE bytes under one
// recursive lock. A user holds the lock while it uses an area; nested users on the same thread
// get the next area, and the third and deeper levels share the last one. Use it through
// `WorkingBuffer`, which does the locking.
class StaticBuffer {
  public:
    static constexpr unsigned int AREA_SIZE = 10240;
    static constexpr unsigned int AREA_COUNT = 3;

    // The one buffer, made on first use.
    static StaticBuffer& get();

    // Locks the buffer and returns the area for the present nesting depth; `leave` undoes it.
    char* enter();
    void leave();

    virtual ~StaticBuffer() = default;

  private:
    StaticBuffer();

    SyncObject mLock;
    char mAreas[AREA_COUNT][AREA_SIZE];  // Guarded by mLock.
    unsigned int mDepth;                 // Guarded by mLock.
};

template <class T>
class WorkingBuffer;

// One area of the work buffer, held (and the buffer locked) for the life of the object. Blocks
// while another thread holds the buffer.
template <>
class WorkingBuffer<char> {
  public:
    WorkingBuffer() : mArea(StaticBuffer::get().enter()) {}
    virtual ~WorkingBuffer() { StaticBuffer::get().leave(); }

    WorkingBuffer(const WorkingBuffer&) = delete;
    WorkingBuffer& operator=(const WorkingBuffer&) = delete;

    char* get() const { return mArea; }
    static constexpr unsigned int size() { return StaticBuffer::AREA_SIZE; }

    // Copies the text `s` (null counts as empty) into the area; false, leaving the area as it
    // was, when it has AREA_SIZE bytes or more.
    bool assign(const char* s);

  private:
    char* mArea;
};

}  // namespace utl

#endif  // UTL_STRING_H
