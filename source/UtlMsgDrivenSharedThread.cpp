#include "UtlMsgDrivenSharedThread.h"

#include <cstdint>
#include <cstring>

#include "UtlKeepAlive.h"
#include "UtlLibraryLog.h"

namespace utl {

namespace {

constexpr const char* kSource = "source/UtlMsgDrivenSharedThread";
constexpr unsigned int kIdSize = sizeof(int32_t);
// What an addressed message adds to a listener's message in the loop's slots.
constexpr unsigned int kWrapperSize = sizeof(void*) + kIdSize;

}  // namespace

// ---- Listener messages

void MsgDrivenSharedThread::MsgListenerMsg::storeDataTo(MsgDataBroker* broker) const {
    broker->set(static_cast<void*>(mListener));
}

void MsgDrivenSharedThread::MsgListenerMsg::restoreDataFrom(MsgDataBroker& broker) {
    void* listener = nullptr;
    broker.get(&listener);
    mListener = static_cast<ThreadMsgListener*>(listener);
}

MsgDrivenSharedThread::SpecifiedMsgListenerMsg::SpecifiedMsgListenerMsg(unsigned int maxSize)
    : MsgListenerMsg(MSG_ID_SPECIFIED_LISTENER), mRawMsg(maxSize) {
    // The whole inner buffer travels, so none of it is left indeterminate.
    if (mRawMsg.buffer() != nullptr) {
        std::memset(mRawMsg.buffer(), 0, mRawMsg.maxSize());
    }
}

void MsgDrivenSharedThread::SpecifiedMsgListenerMsg::storeDataTo(MsgDataBroker* broker) const {
    MsgListenerMsg::storeDataTo(broker);
    broker->set(mRawMsg.buffer(), mRawMsg.maxSize());
}

void MsgDrivenSharedThread::SpecifiedMsgListenerMsg::restoreDataFrom(MsgDataBroker& broker) {
    MsgListenerMsg::restoreDataFrom(broker);
    broker.get(mRawMsg.buffer(), mRawMsg.maxSize());
}

// ---- Construction and life cycle

MsgDrivenSharedThread::MsgDrivenSharedThread(unsigned int maxMsgSize, unsigned int maxMsgCount,
                                             unsigned int maxListenerCount, const char* name,
                                             unsigned int maxTimerCount)
    : MsgDrivenThread(maxMsgSize + kWrapperSize, maxMsgCount, name, maxTimerCount),
      mListeners(maxListenerCount <= static_cast<unsigned int>(INT32_MAX) ? maxListenerCount : 0,
                 0),
      mAttachResult(false),
      mForwardIndex(NO_BROADCAST),
      mPost(maxMsgSize + kIdSize, &MsgDrivenThread::postMsg),
      mSync(maxMsgSize + kIdSize, &MsgDrivenThread::sendMsgSync),
      mInterrupt(maxMsgSize + kIdSize, &MsgDrivenThread::sendMsgInterrupt),
      mReceiveMsg(maxMsgSize + kIdSize),
      mTimerOwners(maxTimerCount, 0) {}

// The loop calls back into this object until it ends, so it ends before the members go.
MsgDrivenSharedThread::~MsgDrivenSharedThread() {
    if (hasDone(0) && !isCallerLoop()) {
        MsgDrivenThread::stop(1, 0);
    }
}

int MsgDrivenSharedThread::start(int watchdog, unsigned int aliveTime,
                                 WatchdogTimerListener* watchdogListener, int waitMode,
                                 unsigned int waitTimeout, const ThreadPriority& priority,
                                 unsigned int reserved) {
    return MsgDrivenThread::start(this, watchdog, aliveTime, watchdogListener, waitMode,
                                  waitTimeout, priority, reserved);
}

int MsgDrivenSharedThread::stop(int waitMode, unsigned int timeout) {
    return MsgDrivenThread::stop(waitMode, timeout);
}

bool MsgDrivenSharedThread::isCallerLoop() const {
    return getId() != 0 && getId() == ThreadManager::getCallerId();
}

// ---- Addressed sending

// Under the lock of its kind, the message goes into that kind's wrapper, which is then sent by
// the loop's own operation of the same kind.
bool MsgDrivenSharedThread::sendAddressed(AddressedKind& kind, ThreadMsgListener* listener,
                                          const Msg& msg) {
    if (listener == nullptr) {
        return false;
    }
    SyncGuard guard(kind.mLock);
    kind.mWrapper.mListener = listener;
    return msg.storeTo(&kind.mWrapper.mRawMsg) && (this->*kind.mSend)(kind.mWrapper);
}

bool MsgDrivenSharedThread::postMsg(ThreadMsgListener* listener, const Msg& msg) {
    return sendAddressed(mPost, listener, msg);
}

bool MsgDrivenSharedThread::postMsg(ThreadMsgListener* listener, int msgId) {
    return postMsg(listener, SimpleMsg(msgId));
}

bool MsgDrivenSharedThread::sendMsgSync(ThreadMsgListener* listener, const Msg& msg) {
    return sendAddressed(mSync, listener, msg);
}

bool MsgDrivenSharedThread::sendMsgSync(ThreadMsgListener* listener, int msgId) {
    return sendMsgSync(listener, SimpleMsg(msgId));
}

bool MsgDrivenSharedThread::sendMsgInterrupt(ThreadMsgListener* listener, const Msg& msg) {
    return sendAddressed(mInterrupt, listener, msg);
}

bool MsgDrivenSharedThread::sendMsgInterrupt(ThreadMsgListener* listener, int msgId) {
    return sendMsgInterrupt(listener, SimpleMsg(msgId));
}

// ---- Attaching and detaching

bool MsgDrivenSharedThread::attachMsgListener(ThreadMsgListener* listener) {
    return changeListeners(MSG_ID_ATTACH_LISTENER, listener);
}

bool MsgDrivenSharedThread::detachMsgListener(ThreadMsgListener* listener) {
    return changeListeners(MSG_ID_DETACH_LISTENER, listener);
}

// The loop thread changes the list itself; so does any thread while no loop runs (before the
// start, or once a requested stop has ended the loop). Otherwise the change travels to the loop
// as a synchronous message.
bool MsgDrivenSharedThread::changeListeners(int msgId, ThreadMsgListener* listener) {
    const bool attach = msgId == MSG_ID_ATTACH_LISTENER;
    if (isCallerLoop()) {
        return attach ? addMsgListener(listener) : (eraseMsgListener(listener), true);
    }
    SyncGuard guard(mAttachLock);
    if (!hasDone(0) || (hasDone(2) && waitTo(3, 0) == 0)) {
        return attach ? addMsgListener(listener) : (eraseMsgListener(listener), true);
    }
    waitTo(1, 0);
    mAttachResult = false;
    MsgListenerMsg request(msgId);
    request.mListener = listener;
    if (!MsgDrivenThread::sendMsgSync(request)) {
        if (attach) {
            UTL_LOG(LEVEL_ERROR, "MsgDrivenSharedThread::attachMsgListener(): Can't send thread");
        } else {
            UTL_LOG(LEVEL_ERROR, "MsgDrivenSharedThread::detachMsgListener(): Can't send thread");
        }
        return false;
    }
    return attach ? mAttachResult : true;
}

bool MsgDrivenSharedThread::addMsgListener(ThreadMsgListener* listener) {
    if (listener == nullptr) {
        return false;
    }
    if (listenerPosition(listener) != -1) {
        return true;
    }
    return mListeners.insertAt(mListeners.getCount(), listener);
}

int32_t MsgDrivenSharedThread::listenerPosition(ThreadMsgListener* listener) const {
    for (unsigned int i = 0; i < mListeners.getCount(); ++i) {
        if (mListeners.getAt(i) == listener) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

// A broadcast under way goes on from the listener below the one it stands at: removing a
// listener below that position shifts the rest down by one, and the position with them.
void MsgDrivenSharedThread::eraseMsgListener(ThreadMsgListener* listener) {
    const int32_t position = listenerPosition(listener);
    if (position == -1) {
        return;
    }
    mListeners.removeAt(static_cast<unsigned int>(position));
    if (mForwardIndex != NO_BROADCAST && position < mForwardIndex) {
        --mForwardIndex;
    }
}

// ---- Aborting and searching

bool MsgDrivenSharedThread::abortMsg(ThreadMsgListener* listener) {
    if (listener == nullptr) {
        return false;
    }
    bool killed = true;
    // The kills do not wait for the loop: a killed timer's expiries are dropped from then on, and
    // the erase request is handled before the next queued message, so nothing queued for the
    // listener when abortMsg was called reaches it after the call. The owner map's lock is not
    // held during a kill, since the loop's searches take it.
    for (int timerId = takeTimerOwnedBy(listener); timerId != -1;
         timerId = takeTimerOwnedBy(listener)) {
        killed = MsgDrivenThread::killTimer(timerId, 1) && killed;
    }
    return eraseMsg(listener, MSG_ID_WILDCARD) && killed;
}

bool MsgDrivenSharedThread::hasMsg(ThreadMsgListener* listener, int msgId) {
    MsgJudgement<JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>(this, listener,
                                                          JudgeMsgSpecifiedMsgId(msgId))};
    return hasMsgInternal(&judgement);
}

// The found message is an expiry, given as it is, or an addressed message, given unwrapped.
bool MsgDrivenSharedThread::peekMsg(ThreadMsgListener* listener, int msgId, ThreadRawMsg* out) {
    if (out == nullptr) {
        return false;
    }
    MsgJudgement<JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>(this, listener,
                                                          JudgeMsgSpecifiedMsgId(msgId))};
    ThreadRawMsg found(0);
    int foundId = MSG_ID_NONE;
    if (!peekMsgInternal(&judgement, &found) || !found.getMsgId(&foundId)) {
        return false;
    }
    if (foundId != MSG_ID_SPECIFIED_LISTENER) {
        *out = found;
        return true;
    }
    SpecifiedMsgListenerMsg wrapper(innerSize());
    if (!wrapper.restoreFrom(found)) {
        return false;
    }
    *out = wrapper.mRawMsg;
    return true;
}

bool MsgDrivenSharedThread::eraseMsg(ThreadMsgListener* listener, int msgId) {
    MsgJudgement<JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgSpecifiedListener<JudgeMsgSpecifiedMsgId>(this, listener,
                                                          JudgeMsgSpecifiedMsgId(msgId))};
    return eraseMsgInternal(&judgement);
}

int MsgDrivenSharedThread::getFirstMsgId(ThreadMsgListener* listener) {
    ThreadRawMsg first(0);
    int msgId = MSG_ID_NONE;
    if (!peekMsg(listener, MSG_ID_WILDCARD, &first) || !first.getMsgId(&msgId)) {
        return MSG_ID_NONE;
    }
    return msgId;
}

bool MsgDrivenSharedThread::hasMsg(int msgId) {
    MsgJudgement<JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>(this, JudgeMsgSpecifiedMsgId(msgId))};
    return hasMsgInternal(&judgement);
}

bool MsgDrivenSharedThread::peekMsg(int msgId, ThreadRawMsg* out) {
    MsgJudgement<JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>(this, JudgeMsgSpecifiedMsgId(msgId))};
    return peekMsgInternal(&judgement, out);
}

bool MsgDrivenSharedThread::eraseMsg(int msgId) {
    MsgJudgement<JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>> judgement{
        JudgeMsgBroadcast<JudgeMsgSpecifiedMsgId>(this, JudgeMsgSpecifiedMsgId(msgId))};
    return eraseMsgInternal(&judgement);
}

int MsgDrivenSharedThread::getFirstMsgId() {
    ThreadRawMsg first(kIdSize);
    int msgId = MSG_ID_NONE;
    if (!peekMsg(MSG_ID_WILDCARD, &first) || !first.getMsgId(&msgId)) {
        return MSG_ID_NONE;
    }
    return msgId;
}

// ---- Timers

int MsgDrivenSharedThread::registerTimer(unsigned int interval, unsigned int countLimit,
                                         int runOn) {
    return registerTimer(nullptr, interval, countLimit, runOn);
}

int MsgDrivenSharedThread::setTimer(unsigned int interval, int noWait, unsigned int countLimit,
                                    int runOn) {
    return setTimer(nullptr, interval, noWait, countLimit, runOn);
}

int MsgDrivenSharedThread::registerTimer(ThreadMsgListener* listener, unsigned int interval,
                                         unsigned int countLimit, int runOn) {
    const int timerId = MsgDrivenThread::registerTimer(interval, countLimit, runOn);
    if (timerId != -1 && !enterTimerOwner(timerId, listener)) {
        MsgDrivenThread::killTimer(timerId, 0);
        return -1;
    }
    return timerId;
}

int MsgDrivenSharedThread::setTimer(ThreadMsgListener* listener, unsigned int interval, int noWait,
                                    unsigned int countLimit, int runOn) {
    const int timerId = registerTimer(listener, interval, countLimit, runOn);
    if (timerId == -1) {
        return -1;
    }
    if (!MsgDrivenThread::startTimer(timerId, noWait)) {
        MsgDrivenThread::killTimer(timerId, 0);
        {
            detail::BlockingCall call(kSource, "setTimer", __LINE__);
            SyncGuard guard(mTimerOwnerLock);
            mTimerOwners.erase(timerId);
        }
        return -1;
    }
    return timerId;
}

bool MsgDrivenSharedThread::killTimer(int timerId, int noWait) {
    const bool killed = MsgDrivenThread::killTimer(timerId, noWait);
    if (killed) {
        forgetTimerOwner(timerId);
    }
    return killed;
}

void MsgDrivenSharedThread::onEraseTimer(int timerId) {
    forgetTimerOwner(timerId);
}

bool MsgDrivenSharedThread::findTimerOwner(int timerId, ThreadMsgListener** owner) const {
    SyncGuard guard(mTimerOwnerLock);
    const Map<int, ThreadMsgListener*>::Entry* entry = mTimerOwners.find(timerId);
    if (entry == nullptr) {
        return false;
    }
    *owner = entry->mValue;
    return true;
}

// A timer killed through the base class leaves its owner behind; a new timer that gets the same
// id replaces it.
bool MsgDrivenSharedThread::enterTimerOwner(int timerId, ThreadMsgListener* listener) {
    SyncGuard guard(mTimerOwnerLock);
    if (Map<int, ThreadMsgListener*>::Entry* entry = mTimerOwners.find(timerId)) {
        entry->mValue = listener;
        return true;
    }
    return mTimerOwners.insert(timerId, listener);
}

void MsgDrivenSharedThread::forgetTimerOwner(int timerId) {
    SyncGuard guard(mTimerOwnerLock);
    mTimerOwners.erase(timerId);
}

int MsgDrivenSharedThread::takeTimerOwnedBy(ThreadMsgListener* listener) {
    SyncGuard guard(mTimerOwnerLock);
    for (unsigned int i = mTimerOwners.getCount(); i > 0; --i) {
        const Map<int, ThreadMsgListener*>::Entry& entry = mTimerOwners.getAt(i - 1);
        if (entry.mValue == listener) {
            const int timerId = entry.mKey;
            mTimerOwners.removeAt(i - 1);
            return timerId;
        }
    }
    return -1;
}

// ---- Delivery (loop thread)

void MsgDrivenSharedThread::receiveMsg(int threadId, ThreadRawMsg& msg) {
    int msgId = MSG_ID_NONE;
    if (!msg.getMsgId(&msgId)) {
        UTL_LOG(LEVEL_ERROR, "Unknown MsgId Received (%s)", getName());
        return;
    }
    switch (msgId) {
        case TimerMsg::ID: {
            detail::BlockingCall call(kSource, "receiveMsg", __LINE__);
            onTimer(threadId, msg);
            break;
        }
        case MSG_ID_ATTACH_LISTENER: {
            detail::BlockingCall call(kSource, "receiveMsg", __LINE__);
            onAttachMsgListener(msg);
            break;
        }
        case MSG_ID_DETACH_LISTENER: {
            detail::BlockingCall call(kSource, "receiveMsg", __LINE__);
            onDetachMsgListener(msg);
            break;
        }
        case MSG_ID_SPECIFIED_LISTENER: {
            detail::BlockingCall call(kSource, "receiveMsg", __LINE__);
            onSpecifiedMsgListener(threadId, msg);
            break;
        }
        default:
            forwardMsg(threadId, msg);
            break;
    }
}

void MsgDrivenSharedThread::onTimer(int threadId, ThreadRawMsg& msg) {
    TimerMsg timer;
    ThreadMsgListener* owner = nullptr;
    if (!timer.restoreFrom(msg) || !findTimerOwner(timer.getTimerId(), &owner)) {
        return;
    }
    if (owner != nullptr) {
        owner->receiveMsg(threadId, msg);
    } else {
        forwardMsg(threadId, msg);
    }
}

void MsgDrivenSharedThread::onAttachMsgListener(ThreadRawMsg& msg) {
    MsgListenerMsg request(MSG_ID_ATTACH_LISTENER);
    request.restoreFrom(msg);
    mAttachResult = addMsgListener(request.mListener);
}

void MsgDrivenSharedThread::onDetachMsgListener(ThreadRawMsg& msg) {
    MsgListenerMsg request(MSG_ID_DETACH_LISTENER);
    request.restoreFrom(msg);
    eraseMsgListener(request.mListener);
}

void MsgDrivenSharedThread::onSpecifiedMsgListener(int threadId, ThreadRawMsg& msg) {
    mReceiveMsg.restoreFrom(msg);
    if (mReceiveMsg.mListener != nullptr) {
        mReceiveMsg.mListener->receiveMsg(threadId, mReceiveMsg.mRawMsg);
    }
}

// From the last listener to the first, so that a listener may detach itself (or one already
// served) during its call; `eraseMsgListener` keeps the position in step.
void MsgDrivenSharedThread::forwardMsg(int threadId, ThreadRawMsg& msg) {
    for (mForwardIndex = static_cast<int32_t>(mListeners.getCount()) - 1; mForwardIndex >= 0;
         --mForwardIndex) {
        if (ThreadMsgListener* listener =
                mListeners.getAt(static_cast<unsigned int>(mForwardIndex))) {
            listener->receiveMsg(threadId, msg);
        }
    }
    mForwardIndex = NO_BROADCAST;
}

}  // namespace utl
