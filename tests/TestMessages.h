// Messages shared by the message-loop tests and benchmarks.
#ifndef UTL_TESTS_TEST_MESSAGES_H
#define UTL_TESTS_TEST_MESSAGES_H

#include <cstdint>

#include "UtlMsg.h"

// A message with one 32-bit value after its id.
class ValueMsg : public utl::Msg {
  public:
    explicit ValueMsg(int id, int32_t value = 0) : utl::Msg(id), mValue(value) {}
    void storeDataTo(utl::MsgDataBroker* broker) const override { broker->set(mValue); }
    void restoreDataFrom(utl::MsgDataBroker& broker) override { broker.get(&mValue); }
    int32_t mValue;
};

// A message with a 16-byte body: four 32-bit values, the first one given.
class QuadMsg : public utl::Msg {
  public:
    explicit QuadMsg(int id, int32_t first = 0) : utl::Msg(id), mValues{first, 1, 2, 3} {}
    void storeDataTo(utl::MsgDataBroker* broker) const override {
        for (int32_t value : mValues) {
            broker->set(value);
        }
    }
    void restoreDataFrom(utl::MsgDataBroker& broker) override {
        for (int32_t& value : mValues) {
            broker.get(&value);
        }
    }
    int32_t mValues[4];
};

#endif  // UTL_TESTS_TEST_MESSAGES_H
