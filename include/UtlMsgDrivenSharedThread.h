// A message-loop thread shared by several listeners: broadcast and addressed messages and timers.
//
// `MsgDrivenSharedThread` is a `MsgDrivenThread` that is its own listener and hands each message
// on to the `ThreadMsgListener` objects attached to it: a broadcast message reaches every
// attached listener, an addressed one only its listener, and each timer belongs to one listener
// or is broadcast.
//
//   utl::MsgDrivenSharedThread shared(64, 16, 4, "shared", 4);  // 64-byte bodies, 16 queued,
//   shared.start();                                              // 4 listeners, 4 timers
//   shared.attachMsgListener(&display);
//   shared.attachMsgListener(&audio);
//   shared.postMsg(VolumeMsg(7));              // display and audio both receive it
//   shared.postMsg(&audio, VolumeMsg(8));      // audio alone
//   int timer = shared.setTimer(&display, 100, 0, 0, 1);  // every 100 ms, to display alone
//   shared.abortMsg(&display);                 // its timers and queued messages are gone
//   shared.detachMsgListener(&display);
#ifndef UTL_MSG_DRIVEN_SHARED_THREAD_H
#define UTL_MSG_DRIVEN_SHARED_THREAD_H

#include "UtlArray.h"
#include "UtlMsg.h"
#include "UtlMsgDrivenThread.h"
#include "UtlSync.h"

namespace utl {

// One message loop serving many listeners.
//
// The listener list is changed only by the loop thread: attach and detach from other threads
// travel as synchronous messages, so a broadcast needs no lock. Before the start, and after the
// thread has ended, they change the list directly; call them then only from the thread that
// starts or stops the loop. Every other operation may be called from any thread.
//
// Broadcast delivery runs from the last attached listener to the first. A listener may detach
// itself, or one already served, inside its `receiveMsg` without another listener being skipped
// or served twice; a listener attached during a broadcast first receives the next message.
//
// An addressed message carries the listener's pointer and is delivered to that pointer even when
// the listener was detached meanwhile: call `abortMsg` before detaching a listener that is about
// to be destroyed.
class MsgDrivenSharedThread : public MsgDrivenThread, public ThreadMsgListener {
  public:
    static constexpr int MSG_ID_ATTACH_LISTENER = static_cast<int>(0x80000021);
    static constexpr int MSG_ID_DETACH_LISTENER = static_cast<int>(0x80000022);
    static constexpr int MSG_ID_SPECIFIED_LISTENER = static_cast<int>(0x80000023);

    // Attaches (MSG_ID_ATTACH_LISTENER) or detaches (MSG_ID_DETACH_LISTENER) a listener; its
    // body is the listener pointer.
    class MsgListenerMsg : public Msg {
      public:
        explicit MsgListenerMsg(int id) : Msg(id), mListener(nullptr) {}
        void storeDataTo(MsgDataBroker* broker) const override;
        void restoreDataFrom(MsgDataBroker& broker) override;

        ThreadMsgListener* mListener;
    };

    // A message addressed to one listener: the listener pointer, then all `maxSize` bytes of the
    // inner message.
    class SpecifiedMsgListenerMsg : public MsgListenerMsg {
      public:
        // The inner message has `maxSize` bytes, id included, cleared at construction.
        explicit SpecifiedMsgListenerMsg(unsigned int maxSize);
        void storeDataTo(MsgDataBroker* broker) const override;
        void restoreDataFrom(MsgDataBroker& broker) override;

        ThreadRawMsg mRawMsg;
    };

    // Matches broadcast messages that `Judge` accepts: never the listener messages, a timer
    // expiry only of a broadcast timer. `Judge` has `bool judge(ThreadRawMsg&)`.
    template <class Judge>
    class JudgeMsgBroadcast {
      public:
        JudgeMsgBroadcast(MsgDrivenSharedThread* thread, const Judge& judge)
            : mThread(thread), mJudge(judge) {}
        virtual ~JudgeMsgBroadcast() = default;
        bool judge(ThreadRawMsg& msg);

      private:
        MsgDrivenSharedThread* mThread;
        Judge mJudge;
    };

    // Matches what reaches `listener` alone and `Judge` accepts: an expiry of a timer the
    // listener owns, or a message addressed to it (judged by its inner message). A null listener
    // matches nothing.
    template <class Judge>
    class JudgeMsgSpecifiedListener {
      public:
        JudgeMsgSpecifiedListener(MsgDrivenSharedThread* thread, ThreadMsgListener* listener,
                                  const Judge& judge)
            : mThread(thread), mListener(listener), mJudge(judge), mInner(thread->innerSize()) {}
        virtual ~JudgeMsgSpecifiedListener() = default;
        bool judge(ThreadRawMsg& msg);

      private:
        MsgDrivenSharedThread* mThread;
        ThreadMsgListener* mListener;
        Judge mJudge;
        ThreadRawMsg mInner;  // Scratch copy of an addressed message's inner message.
    };

    // Bodies of up to `maxMsgSize` bytes for every listener, `maxMsgCount` queued messages, up to
    // `maxListenerCount` listeners and `maxTimerCount` timers. The loop's own slots are larger by
    // the listener pointer and the inner id of an addressed message. A listener count above
    // 2147483647 (a negative number passed by mistake) gives no list: every attach fails.
    MsgDrivenSharedThread(unsigned int maxMsgSize, unsigned int maxMsgCount,
                          unsigned int maxListenerCount, const char* name,
                          unsigned int maxTimerCount);
    ~MsgDrivenSharedThread() override;

    // `MsgDrivenThread::start` with this object as the loop's listener; the same results.
    int start(int watchdog = 0, unsigned int aliveTime = 0,
              WatchdogTimerListener* watchdogListener = nullptr, int waitMode = 0,
              unsigned int waitTimeout = 0,
              const ThreadPriority& priority = ThreadPriority(ThreadPriority::NORMAL),
              unsigned int reserved = 0);
    // `MsgDrivenThread::stop`.
    int stop(int waitMode = 0, unsigned int timeout = 0);

    // Broadcast sends are `MsgDrivenThread::postMsg`, `sendMsgSync` and `sendMsgInterrupt`.
    using MsgDrivenThread::postMsg;
    using MsgDrivenThread::sendMsgInterrupt;
    using MsgDrivenThread::sendMsgSync;
    // Addressed sends, with the results of the broadcast forms; false also for a null listener
    // and for a message whose body does not fit. The forms with an id send a `SimpleMsg`.
    bool postMsg(ThreadMsgListener* listener, const Msg& msg);
    bool postMsg(ThreadMsgListener* listener, int msgId);
    bool sendMsgSync(ThreadMsgListener* listener, const Msg& msg);
    bool sendMsgSync(ThreadMsgListener* listener, int msgId);
    bool sendMsgInterrupt(ThreadMsgListener* listener, const Msg& msg);
    bool sendMsgInterrupt(ThreadMsgListener* listener, int msgId);

    // Adds `listener` to the list once (attaching it again changes nothing and gives true).
    // False for null or a full list, and when the request cannot reach the loop (logged).
    bool attachMsgListener(ThreadMsgListener* listener);
    // Removes `listener` from the list; true when the request was handled (also when the
    // listener was not attached), false when it cannot reach the loop (logged).
    bool detachMsgListener(ThreadMsgListener* listener);
    // Kills the timers `listener` owns and erases every queued message addressed to it; what was
    // queued for it when the call was made never reaches it afterwards (a message it is handling
    // at that moment completes). False for null, or when a kill or the erase failed (for
    // instance the loop is not running). Called from the listener itself it works at once.
    bool abortMsg(ThreadMsgListener* listener);

    // Searches among the messages addressed to `listener` and the expiries of its timers; the
    // wildcard MSG_ID_WILDCARD matches any. `peekMsg` gives the message as the listener receives
    // it (an addressed message without its wrapper), `getFirstMsgId` its id or MSG_ID_NONE.
    bool hasMsg(ThreadMsgListener* listener, int msgId);
    bool peekMsg(ThreadMsgListener* listener, int msgId, ThreadRawMsg* out);
    bool eraseMsg(ThreadMsgListener* listener, int msgId);
    int getFirstMsgId(ThreadMsgListener* listener);
    // The same among broadcast messages and the expiries of broadcast timers.
    bool hasMsg(int msgId);
    bool peekMsg(int msgId, ThreadRawMsg* out);
    bool eraseMsg(int msgId);
    int getFirstMsgId();

    // Broadcast timers: `MsgDrivenThread::registerTimer` and `setTimer`, delivered to every
    // attached listener. The timer id or -1.
    int registerTimer(unsigned int interval, unsigned int countLimit = 0, int runOn = 0);
    int setTimer(unsigned int interval, int noWait = 0, unsigned int countLimit = 0, int runOn = 0);
    // Timers owned by `listener` (which may be null: a broadcast timer), delivered to it alone.
    int registerTimer(ThreadMsgListener* listener, unsigned int interval,
                      unsigned int countLimit = 0, int runOn = 0);
    int setTimer(ThreadMsgListener* listener, unsigned int interval, int noWait = 0,
                 unsigned int countLimit = 0, int runOn = 0);
    // `MsgDrivenThread::killTimer`, which also forgets the timer's owner.
    bool killTimer(int timerId, int noWait = 0);

    // The loop's listener: hands each message on to the listeners (loop thread only).
    void receiveMsg(int threadId, ThreadRawMsg& msg) override;

  protected:
    // Forgets the owner of a timer that has ended.
    void onEraseTimer(int timerId) override;

  private:
    static constexpr int32_t NO_BROADCAST = static_cast<int32_t>(0x80000000);

    bool isCallerLoop() const;
    unsigned int innerSize() const { return mReceiveMsg.mRawMsg.maxSize(); }
    // The owner of `timerId` (null for a broadcast timer); false when the timer is unknown.
    bool findTimerOwner(int timerId, ThreadMsgListener** owner) const;
    bool enterTimerOwner(int timerId, ThreadMsgListener* listener);
    void forgetTimerOwner(int timerId);
    // Takes the last timer `listener` owns out of the owner map; -1 when there is none.
    int takeTimerOwnedBy(ThreadMsgListener* listener);

    // One kind of addressed sending: its wrapper, the lock that guards it, and the loop's
    // operation that sends it.
    struct AddressedKind {
        using Send = bool (MsgDrivenThread::*)(const Msg&);
        AddressedKind(unsigned int innerSize, Send send) : mWrapper(innerSize), mSend(send) {}
        SpecifiedMsgListenerMsg mWrapper;  // Guarded by mLock.
        SyncObject mLock;
        Send mSend;
    };

    // Sends `msg` to `listener` alone through `kind`; false for a null listener, a message that
    // does not fit, or a failed send.
    bool sendAddressed(AddressedKind& kind, ThreadMsgListener* listener, const Msg& msg);
    bool changeListeners(int msgId, ThreadMsgListener* listener);

    // Loop thread only.
    void onTimer(int threadId, ThreadRawMsg& msg);
    void onAttachMsgListener(ThreadRawMsg& msg);
    void onDetachMsgListener(ThreadRawMsg& msg);
    void onSpecifiedMsgListener(int threadId, ThreadRawMsg& msg);
    void forwardMsg(int threadId, ThreadRawMsg& msg);
    bool addMsgListener(ThreadMsgListener* listener);
    void eraseMsgListener(ThreadMsgListener* listener);
    // The listener's position in the list, or -1.
    int32_t listenerPosition(ThreadMsgListener* listener) const;

    Array<ThreadMsgListener*> mListeners;  // Loop thread only, once started.
    bool mAttachResult;
    int32_t mForwardIndex;  // Loop thread only.
    AddressedKind mPost;
    AddressedKind mSync;
    AddressedKind mInterrupt;
    SpecifiedMsgListenerMsg mReceiveMsg;        // Loop thread only.
    Map<int, ThreadMsgListener*> mTimerOwners;  // Guarded by mTimerOwnerLock.
    SyncObject mAttachLock;
    mutable SyncObject mTimerOwnerLock;
};

template <class Judge>
bool MsgDrivenSharedThread::JudgeMsgBroadcast<Judge>::judge(ThreadRawMsg& msg) {
    int msgId = MSG_ID_NONE;
    if (!msg.getMsgId(&msgId)) {
        return false;
    }
    switch (msgId) {
        case MSG_ID_ATTACH_LISTENER:
        case MSG_ID_DETACH_LISTENER:
        case MSG_ID_SPECIFIED_LISTENER:
            return false;
        case TimerMsg::ID: {
            TimerMsg timer;
            ThreadMsgListener* owner = nullptr;
            if (!timer.restoreFrom(msg) || !mThread->findTimerOwner(timer.getTimerId(), &owner) ||
                owner != nullptr) {
                return false;
            }
            return mJudge.judge(msg);
        }
        default:
            return mJudge.judge(msg);
    }
}

template <class Judge>
bool MsgDrivenSharedThread::JudgeMsgSpecifiedListener<Judge>::judge(ThreadRawMsg& msg) {
    int msgId = MSG_ID_NONE;
    if (mListener == nullptr || !msg.getMsgId(&msgId)) {
        return false;
    }
    if (msgId == TimerMsg::ID) {
        TimerMsg timer;
        ThreadMsgListener* owner = nullptr;
        return timer.restoreFrom(msg) && mThread->findTimerOwner(timer.getTimerId(), &owner) &&
               owner == mListener && mJudge.judge(msg);
    }
    if (msgId != MSG_ID_SPECIFIED_LISTENER) {
        return false;
    }
    msg.beginOutput();
    void* addressee = nullptr;
    const bool read = msg.get(&addressee) && msg.get(mInner.buffer(), mInner.maxSize());
    msg.endOutput();
    return read && addressee == mListener && mJudge.judge(mInner);
}

}  // namespace utl

#endif  // UTL_MSG_DRIVEN_SHARED_THREAD_H
