// Messages between threads of utl and their serialised form.
//
// A message is an object of a class derived from `Msg`. It never crosses a thread boundary as an
// object: the sender stores it through the `MsgDataBroker` interface into a `ThreadRawMsg`, a flat
// byte buffer that travels through the receiving thread's queue, and the receiver restores its
// own `Msg` object from those bytes. Derive from `Msg` for every message with a body; use
// `SimpleMsg` for a message that is its id alone.
//
//   utl::ThreadRawMsg raw(64);  // the 4-byte id and up to 60 bytes of body
//   utl::TimerMsg sent, received;
//   sent.setTimerId(3);
//   if (sent.storeTo(&raw) && received.restoreFrom(raw)) { /* received.getTimerId() == 3 */ }
//
// Raw message format: bytes 0 to 3 hold the message id; the body follows at byte 4, each value
// in the order `storeDataTo` set it, copied as it lies in memory (host byte order), without tags,
// length prefixes or padding. Widths: bool and chars 1 byte, shorts 2, ints and float 4, long
// longs and double 8, `void*` the pointer width of the build (4 bytes on 32-bit ARM, 8 on 64-bit
// hosts), a narrow string its bytes with the terminating NUL, a wide string 4 bytes per
// character with the terminating zero, a raw block its bytes alone (the reader must know the
// length). The reader must therefore read exactly the types that were written, in their order.
// Raw messages never leave the process.
//
// Ids 0x80000000 to 0x80000800 are reserved by the library; applications use other ids.
//
// Nothing here throws or logs: every access reports success as a `bool` and a failure also sets
// the broker's sticky result, which `Msg::storeTo` and `Msg::restoreFrom` judge at the end.
#ifndef UTL_MSG_H
#define UTL_MSG_H

#include <cstdint>

namespace utl {

static_assert(sizeof(int) == 4 && sizeof(unsigned int) == 4, "message ids and sizes are 32 bits");
static_assert(sizeof(wchar_t) == 4, "wide strings travel as 32-bit units");

class MsgDataBroker;

// The base of every message: an id and the ability to write its body to and read it from a
// `MsgDataBroker`. Subclasses add fields and implement `storeDataTo` and `restoreDataFrom`, which
// must write and read the same types in the same order:
//
//   void storeDataTo(utl::MsgDataBroker* b) const override { b->set(mLevel); }
//   void restoreDataFrom(utl::MsgDataBroker& b) override { b.get(&mLevel); }
//
// A message object belongs to one thread at a time; it has no lock. Copyable.
class Msg {
  public:
    explicit Msg(int id) : mMsgId(id) {}
    virtual ~Msg() = default;

    Msg(const Msg&) = default;
    Msg& operator=(const Msg&) = default;

    // Writes the body with the broker's `set` operations. A failed `set` is remembered by the
    // broker (its sticky result), which `storeTo` judges at the end.
    virtual void storeDataTo(MsgDataBroker* broker) const = 0;
    // Reads the body with the broker's `get` operations, in the order `storeDataTo` wrote it.
    virtual void restoreDataFrom(MsgDataBroker& broker) = 0;

    // Serialises the message: the id (`setMsgId`, before `beginInput`, because the id is the
    // fixed header and `beginInput` only resets the body), then the body. True when the broker's
    // result is 0 afterwards; false for a null broker (nothing done) or a body that did not fit,
    // in which case the id has been written all the same.
    bool storeTo(MsgDataBroker* broker) const;
    // Rebuilds the message from the broker: the id is overwritten by the one in the buffer, then
    // the body is read. True when the broker's result is 0 afterwards.
    bool restoreFrom(MsgDataBroker& broker);

    int getMsgId() const { return mMsgId; }

  private:
    int32_t mMsgId;
};

// A message that is its id alone: it writes and reads no body.
class SimpleMsg : public Msg {
  public:
    explicit SimpleMsg(int id) : Msg(id) {}

    void storeDataTo(MsgDataBroker* broker) const override;
    void restoreDataFrom(MsgDataBroker& broker) override;
};

// The message a thread receives when one of its timers fires. Its body is the timer id, written
// with `set(int)`; -1 until one is set.
class TimerMsg : public Msg {
  public:
    // The reserved id of timer messages, 0x80000002.
    static constexpr int ID = static_cast<int>(0x80000002u);

    TimerMsg() : Msg(ID), mTimerId(-1) {}

    void storeDataTo(MsgDataBroker* broker) const override;
    void restoreDataFrom(MsgDataBroker& broker) override;

    int getTimerId() const { return mTimerId; }
    void setTimerId(int timerId) { mTimerId = timerId; }

  private:
    int32_t mTimerId;
};

// The serialisation interface through which messages write and read their ids and bodies: one
// typed `set` and one typed `get` per scalar type, narrow and wide strings and raw blocks.
// `ThreadRawMsg` is the library's implementation. The order of the virtual operations is part of
// the interface and is kept.
//
// Pick the overload by its exact type: `uint64_t` and `int64_t` are `unsigned long` and `long` on
// 64-bit hosts and match no overload there; use `unsigned long long` and `long long`.
//
// A broker is not thread-safe: one thread writes or reads it at a time.
class MsgDataBroker {
  public:
    static constexpr int RESULT_OK = 0;       // every access of the pass succeeded
    static constexpr int RESULT_FAILED = -1;  // an access of the pass failed

    virtual ~MsgDataBroker() = default;

    // Starts and ends a pass of `set`s (input) or `get`s (output). The base does nothing and
    // returns true.
    virtual bool beginInput() { return true; }
    virtual bool endInput() { return true; }
    virtual bool beginOutput() { return true; }
    virtual bool endOutput() { return true; }
    // RESULT_OK, or RESULT_FAILED once an access of the pass has failed. The base returns
    // RESULT_OK.
    virtual int getResult() { return RESULT_OK; }

    // Writes or reads the message id.
    virtual bool setMsgId(int id) = 0;
    virtual bool getMsgId(int* id) = 0;

    // Append one value to the body; false when it does not fit or the pass has already failed.
    virtual bool set(bool value) = 0;
    virtual bool set(unsigned char value) = 0;
    virtual bool set(unsigned short value) = 0;
    virtual bool set(unsigned int value) = 0;
    virtual bool set(unsigned long long value) = 0;
    virtual bool set(signed char value) = 0;
    virtual bool set(short value) = 0;
    virtual bool set(int value) = 0;
    virtual bool set(long long value) = 0;
    virtual bool set(float value) = 0;
    virtual bool set(double value) = 0;
    virtual bool set(void* value) = 0;
    virtual bool set(const char* text) = 0;
    virtual bool set(const wchar_t* text) = 0;
    virtual bool set(const unsigned char* data, unsigned int length) = 0;

    // Read one value of the body into the pointee; false when too few bytes remain or the pass
    // has already failed.
    virtual bool get(bool* value) = 0;
    virtual bool get(unsigned char* value) = 0;
    virtual bool get(unsigned short* value) = 0;
    virtual bool get(unsigned int* value) = 0;
    virtual bool get(unsigned long long* value) = 0;
    virtual bool get(signed char* value) = 0;
    virtual bool get(short* value) = 0;
    virtual bool get(int* value) = 0;
    virtual bool get(long long* value) = 0;
    virtual bool get(float* value) = 0;
    virtual bool get(double* value) = 0;
    virtual bool get(void** value) = 0;
    virtual bool get(char* text, unsigned int capacity) = 0;
    virtual bool get(wchar_t* text, unsigned int capacity) = 0;
    virtual bool get(unsigned char* data, unsigned int length) = 0;
};

// A message in its serialised form: a heap buffer of a fixed maximum size (at least the 4 bytes
// of the id), a write position, a read position and a sticky result. Only the bytes up to the
// write position are meaningful; the buffer is not initialised.
//
// A message is written by one `beginInput` ... `endInput` pass and read by any number of
// `beginOutput` ... `endOutput` passes. Each begin puts its position at byte 4, after the id, and
// clears the result; write and read positions are independent. `setMsgId` and `getMsgId` work on
// bytes 0 to 3 whatever the positions and the result.
//
//   result  | set(...), get(...)                     | get(char*), get(wchar_t*)
//   --------+----------------------------------------+-----------------------------------------
//   0       | true and advance; or, for a value that | a string longer than the capacity or
//           | does not fit or a null pointer: false  | without terminator: false, result stays
//           | and the result becomes -1              | 0; otherwise as the other getters
//   -1      | false, nothing changes                 | false, nothing changes
//
// Copying: the copy constructor copies the whole buffer but starts with both positions and the
// result at 0, so a copy must be begun before it is read; assignment also copies the positions
// and the result, so the target continues where the source stood.
//
// If the buffer cannot be allocated the message has maximum size 0, its result is -1 from the
// start and stays so (the begins return false), and every access, `setMsgId` included, fails.
//
// Not thread-safe: one thread writes or reads it at a time.
class ThreadRawMsg : public MsgDataBroker {
  public:
    // Returned by the string length checks when there is no complete string within the limit.
    static constexpr unsigned int NO_LENGTH = ~0u;

    // A buffer of `maxSize` bytes, raised to 4 so that the id always fits. Positions and result 0.
    explicit ThreadRawMsg(unsigned int maxSize);
    // The same maximum size and a copy of all its bytes; positions and result start at 0.
    ThreadRawMsg(const ThreadRawMsg& other);
    // Replaces the buffer by a copy of `other`'s, positions and result included. Self-assignment
    // does nothing.
    ThreadRawMsg& operator=(const ThreadRawMsg& other);
    ~ThreadRawMsg() override;

    // Clear the result and put the write (input) or read (output) position after the id. True,
    // except for a message without buffer.
    bool beginInput() override;
    bool endInput() override;
    bool beginOutput() override;
    bool endOutput() override;
    int getResult() override;

    // Writes the id to bytes 0 to 3; positions and result stay as they are. Always true, except
    // for a message without buffer.
    bool setMsgId(int id) override;
    // Reads bytes 0 to 3; false for a null `id` (the result stays as it is).
    bool getMsgId(int* id) override;

    // Each appends its value at the write position. False, and the result -1, when the value does
    // not fit the bytes left; false with nothing written when the result already is -1.
    bool set(bool value) override;  // one byte, 0 or 1
    bool set(unsigned char value) override;
    bool set(unsigned short value) override;
    bool set(unsigned int value) override;
    bool set(unsigned long long value) override;
    bool set(signed char value) override;
    bool set(short value) override;
    bool set(int value) override;
    bool set(long long value) override;
    bool set(float value) override;
    bool set(double value) override;
    // The pointer value itself, sizeof(void*) bytes: meaningful only within this process.
    bool set(void* value) override;
    // The bytes with the terminating NUL. A null `text` also fails and sets the result to -1.
    bool set(const char* text) override;
    // 4 bytes per character with the terminating zero. A null `text` also fails and sets the
    // result to -1.
    bool set(const wchar_t* text) override;
    // The `length` bytes alone. A null `data` also fails and sets the result to -1.
    bool set(const unsigned char* data, unsigned int length) override;

    // `value` must not be null. Stores true for any non-zero byte. False, and the result -1,
    // when no byte is left; false when the result already is -1.
    bool get(bool* value) override;
    // Each reads its value from the read position. False, and the result -1, for a null pointer
    // or too few bytes left; false with nothing read when the result already is -1.
    bool get(unsigned char* value) override;
    bool get(unsigned short* value) override;
    bool get(unsigned int* value) override;
    bool get(unsigned long long* value) override;
    bool get(signed char* value) override;
    bool get(short* value) override;
    bool get(int* value) override;
    bool get(long long* value) override;
    bool get(float* value) override;
    bool get(double* value) override;
    bool get(void** value) override;
    // Reads a string of at most `capacity` chars (or wide chars), terminator included, into
    // `text`. When the string is longer or has no terminator before the end of the message: false
    // with the result and the read position unchanged, so the caller may read on. A null `text`
    // (with a string that fits): false and the result -1.
    bool get(char* text, unsigned int capacity) override;
    bool get(wchar_t* text, unsigned int capacity) override;
    // Reads `length` bytes into `data`; the same failures as the scalar getters.
    bool get(unsigned char* data, unsigned int length) override;

    // The length in bytes, NUL included, of the narrow string at the read position if its NUL
    // lies within the first `capacity` bytes and within the message; NO_LENGTH otherwise (also
    // for capacity 0).
    unsigned int checkOutputStrLength(unsigned int capacity) const;
    // The length in wide characters, terminator included, of the wide string at the read
    // position if its zero unit lies within the first `capacity` whole 4-byte units left in the
    // message; NO_LENGTH otherwise.
    unsigned int checkOutputWideStrLength(unsigned int capacity) const;

    // The buffer of maxSize() bytes (null for a message without buffer).
    unsigned char* buffer() { return mBuffer; }
    const unsigned char* buffer() const { return mBuffer; }
    unsigned int maxSize() const { return mMaxSize; }
    unsigned int writePosition() const { return mWritePos; }
    unsigned int readPosition() const { return mReadPos; }

  private:
    // Makes a buffer of `maxSize` bytes, or none (maximum size 0, result -1) when it cannot be
    // had; positions 0.
    void allocate(unsigned int maxSize);
    bool put(const void* value, unsigned int width);
    bool take(void* value, unsigned int width);
    unsigned int bytesLeft(uint32_t position) const;

    unsigned char* mBuffer;
    uint32_t mMaxSize;
    uint32_t mWritePos;
    uint32_t mReadPos;
    int32_t mResult;
};

}  // namespace utl

#endif  // UTL_MSG_H
