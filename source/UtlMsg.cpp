#include "UtlMsg.h"

#include <cassert>
#include <cstddef>
#include <cstring>
#include <cwchar>

#include "UtlMemory.h"

namespace utl {

namespace {

// The id at offset 0; every body starts after it.
constexpr uint32_t ID_SIZE = 4;
constexpr uint32_t WIDE_UNIT = 4;

static_assert(sizeof(int32_t) == ID_SIZE, "the id header is one 32-bit value");
static_assert(sizeof(wchar_t) == WIDE_UNIT, "wide characters are copied as they lie in memory");
static_assert(sizeof(bool) == 1, "a bool travels as the one byte it is stored in");
static_assert(sizeof(short) == 2 && sizeof(long long) == 8, "the widths of the wire format");
static_assert(sizeof(float) == 4 && sizeof(double) == 8, "the widths of the wire format");

}  // namespace

bool Msg::storeTo(MsgDataBroker* broker) const {
    if (broker == nullptr) {
        return false;
    }
    // The individual results do not matter: any failure leaves the broker's sticky result set.
    broker->setMsgId(mMsgId);
    broker->beginInput();
    storeDataTo(broker);
    broker->endInput();
    return broker->getResult() == MsgDataBroker::RESULT_OK;
}

bool Msg::restoreFrom(MsgDataBroker& broker) {
    broker.getMsgId(&mMsgId);
    broker.beginOutput();
    restoreDataFrom(broker);
    broker.endOutput();
    return broker.getResult() == MsgDataBroker::RESULT_OK;
}

void SimpleMsg::storeDataTo(MsgDataBroker* /*broker*/) const {}

void SimpleMsg::restoreDataFrom(MsgDataBroker& /*broker*/) {}

void TimerMsg::storeDataTo(MsgDataBroker* broker) const {
    broker->set(mTimerId);
}

void TimerMsg::restoreDataFrom(MsgDataBroker& broker) {
    broker.get(&mTimerId);
}

ThreadRawMsg::ThreadRawMsg(unsigned int maxSize) {
    allocate(maxSize < ID_SIZE ? ID_SIZE : maxSize);
}

// The copy starts afresh on purpose: positions and result are not taken over, unlike in
// assignment, so a copied message must be begun before it is read.
ThreadRawMsg::ThreadRawMsg(const ThreadRawMsg& other) : MsgDataBroker(other) {
    allocate(other.mMaxSize);
    copyMemory(mBuffer, other.mBuffer, mMaxSize);
}

ThreadRawMsg& ThreadRawMsg::operator=(const ThreadRawMsg& other) {
    if (this == &other) {
        return *this;
    }
    // Freed before the new block is requested, so that equal sizes can reuse the memory.
    delete[] mBuffer;
    allocate(other.mMaxSize);
    if (mBuffer != nullptr) {
        copyMemory(mBuffer, other.mBuffer, mMaxSize);
        mWritePos = other.mWritePos;
        mReadPos = other.mReadPos;
        mResult = other.mResult;
    }
    return *this;
}

ThreadRawMsg::~ThreadRawMsg() {
    delete[] mBuffer;
}

bool ThreadRawMsg::beginInput() {
    if (mBuffer == nullptr) {
        return false;
    }
    mResult = RESULT_OK;
    mWritePos = ID_SIZE;
    return true;
}

bool ThreadRawMsg::endInput() {
    return true;
}

bool ThreadRawMsg::beginOutput() {
    if (mBuffer == nullptr) {
        return false;
    }
    mResult = RESULT_OK;
    mReadPos = ID_SIZE;
    return true;
}

bool ThreadRawMsg::endOutput() {
    return true;
}

int ThreadRawMsg::getResult() {
    return mResult;
}

// The header is written outside the passes: it neither looks at nor touches the result.
bool ThreadRawMsg::setMsgId(int id) {
    if (mBuffer == nullptr) {
        return false;
    }
    copyMemory(mBuffer, &id, ID_SIZE);
    return true;
}

bool ThreadRawMsg::getMsgId(int* id) {
    if (id == nullptr || mBuffer == nullptr) {
        return false;
    }
    copyMemory(id, mBuffer, ID_SIZE);
    return true;
}

bool ThreadRawMsg::set(bool value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(unsigned char value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(unsigned short value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(unsigned int value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(unsigned long long value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(signed char value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(short value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(int value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(long long value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(float value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(double value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(void* value) {
    return put(&value, sizeof value);
}

bool ThreadRawMsg::set(const char* text) {
    if (text == nullptr) {
        mResult = RESULT_FAILED;
        return false;
    }
    // Measured in size_t first: a string longer than 4 GiB must fail, not wrap.
    const std::size_t size = std::strlen(text) + 1;
    if (size > bytesLeft(mWritePos)) {
        mResult = RESULT_FAILED;
        return false;
    }
    return put(text, static_cast<unsigned int>(size));
}

// A null string is checked before it is measured, so that it fails like a null narrow string
// instead of crashing in wcslen.
bool ThreadRawMsg::set(const wchar_t* text) {
    if (text == nullptr) {
        mResult = RESULT_FAILED;
        return false;
    }
    const std::size_t units = std::wcslen(text) + 1;
    if (units > bytesLeft(mWritePos) / WIDE_UNIT) {
        mResult = RESULT_FAILED;
        return false;
    }
    return put(text, static_cast<unsigned int>(units) * WIDE_UNIT);
}

bool ThreadRawMsg::set(const unsigned char* data, unsigned int length) {
    return put(data, length);
}

// No null check of `value` before the byte is read: a null pointer is the caller's fault, not a
// failure of the message.
bool ThreadRawMsg::get(bool* value) {
    unsigned char byte = 0;
    if (!take(&byte, 1)) {
        return false;
    }
    assert(value != nullptr);
    *value = byte != 0;
    return true;
}

bool ThreadRawMsg::get(unsigned char* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(unsigned short* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(unsigned int* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(unsigned long long* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(signed char* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(short* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(int* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(long long* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(float* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(double* value) {
    return take(value, sizeof *value);
}

bool ThreadRawMsg::get(void** value) {
    return take(value, sizeof *value);
}

// A string that does not fit the caller's buffer fails this read only and leaves the result
// clean, so that the caller can retry with a larger buffer or skip the field.
bool ThreadRawMsg::get(char* text, unsigned int capacity) {
    const unsigned int size = checkOutputStrLength(capacity);
    if (size == NO_LENGTH) {
        return false;
    }
    return take(text, size);
}

bool ThreadRawMsg::get(wchar_t* text, unsigned int capacity) {
    const unsigned int units = checkOutputWideStrLength(capacity);
    if (units == NO_LENGTH) {
        return false;
    }
    // units * 4 bytes lie within the message, so the product cannot wrap.
    return take(text, units * WIDE_UNIT);
}

bool ThreadRawMsg::get(unsigned char* data, unsigned int length) {
    return take(data, length);
}

unsigned int ThreadRawMsg::checkOutputStrLength(unsigned int capacity) const {
    const unsigned int left = bytesLeft(mReadPos);
    if (capacity == 0 || left == 0) {
        return NO_LENGTH;
    }
    const unsigned char* start = mBuffer + mReadPos;
    const void* end = std::memchr(start, 0, capacity < left ? capacity : left);
    if (end == nullptr) {
        return NO_LENGTH;
    }
    return static_cast<unsigned int>(static_cast<const unsigned char*>(end) - start) + 1;
}

unsigned int ThreadRawMsg::checkOutputWideStrLength(unsigned int capacity) const {
    const unsigned int whole = bytesLeft(mReadPos) / WIDE_UNIT;
    const unsigned int limit = capacity < whole ? capacity : whole;
    for (unsigned int k = 0; k < limit; ++k) {
        const unsigned char* unit = mBuffer + mReadPos + k * WIDE_UNIT;
        if ((unit[0] | unit[1] | unit[2] | unit[3]) == 0) {
            return k + 1;
        }
    }
    return NO_LENGTH;
}

void ThreadRawMsg::allocate(unsigned int maxSize) {
    mBuffer = detail::allocateElements<unsigned char>(maxSize);
    mMaxSize = mBuffer != nullptr ? maxSize : 0;
    mWritePos = 0;
    mReadPos = 0;
    mResult = mBuffer != nullptr ? RESULT_OK : RESULT_FAILED;
}

bool ThreadRawMsg::put(const void* value, unsigned int width) {
    if (mResult == RESULT_FAILED) {
        return false;
    }
    if (value == nullptr || width > bytesLeft(mWritePos)) {
        mResult = RESULT_FAILED;
        return false;
    }
    copyMemory(mBuffer + mWritePos, value, width);
    mWritePos += width;
    return true;
}

bool ThreadRawMsg::take(void* value, unsigned int width) {
    if (mResult == RESULT_FAILED) {
        return false;
    }
    if (value == nullptr || width > bytesLeft(mReadPos)) {
        mResult = RESULT_FAILED;
        return false;
    }
    copyMemory(value, mBuffer + mReadPos, width);
    mReadPos += width;
    return true;
}

// Positions never pass the maximum size; the guard keeps a broken invariant from turning into a
// huge unsigned difference.
unsigned int ThreadRawMsg::bytesLeft(uint32_t position) const {
    return position < mMaxSize ? mMaxSize - position : 0;
}

}  // namespace utl
