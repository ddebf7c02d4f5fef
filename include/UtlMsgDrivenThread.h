// Message-loop threads of utl: posted, synchronous and interrupt messages, and loop timers.
//
// A `MsgDrivenThread` is a `Thread` whose body is a message loop. Any thread may hand it
// messages (`Msg` objects, UtlMsg.h); each is serialised into a fixed-size slot of the thread's
// data queue and announced by an 8-byte token in the thread's pipe. The loop thread alone reads
// the pipe and hands each message, as a `ThreadRawMsg`, to the `ThreadMsgListener` given at
// `start`, with no lock held. Timers of the thread arrive in the same stream as `TimerMsg`.
//
//   class Receiver : public utl::ThreadMsgListener {
//       void receiveMsg(int, utl::ThreadRawMsg& raw) override { MyMsg m; m.restoreFrom(raw); }
//   };
//   utl::MsgDrivenThread thread(64, 16, "worker", 4);  // 64-byte bodies, 16 queued, 4 timers
//   thread.start(&receiver);
//   thread.postMsg(MyMsg(42));                          // fire and forget
//   thread.sendMsgSync(MyMsg(43));                      // returns once the listener is done
//   int timer = thread.setTimer(100, 0, 0, 1);          // every 100 ms
//   thread.stop(1, 1000);
#ifndef UTL_MSG_DRIVEN_THREAD_H
#define UTL_MSG_DRIVEN_THREAD_H

#include <time.h>

#include <atomic>
#include <cstdint>

#include "UtlArray.h"
#include "UtlLog.h"
#include "UtlMsg.h"
#include "UtlQueue.h"
#include "UtlSmartPointer.h"
#include "UtlSync.h"
#include "UtlThreadManager.h"

namespace utl {

namespace detail {

struct TimerSignalRecord;

// The read end of a loop's pipe, used by the loop thread alone. One read takes every token the
// pipe holds, up to TOKEN_BATCH: each write is one whole 8-byte token {id, parameter} (below
// PIPE_BUF, so never split), so a read returns whole tokens, and a read that leaves room in the
// buffer has emptied the pipe. The tokens are then handed out one by one in the order read.
//
// A thread idle in its read is taken out of watching meanwhile, so that the watchdog never takes
// it for hung; whether it is registered is looked up again after each read, and the bracket
// before the next read uses that answer.
class LoopPipeReader {
  public:
    static constexpr unsigned int TOKEN_BATCH = 64;

    // `kind` names the loop in the lines of a failed read ("MsgDrivenThread"), `source` the
    // source file in its liveness reports.
    LoopPipeReader(const char* kind, const char* source);

    // The next token of the pipe `fd` of thread `threadId` named `threadName`, reading when none
    // is left; `pipeEmpty`, when given, tells whether the pipe held no more at the last read and
    // none is left. A read interrupted by a signal is logged (information) and made again; any
    // other failed read is logged (error) and gives false.
    bool next(int fd, int threadId, const char* threadName, int32_t* id, int32_t* param,
              bool* pipeEmpty = nullptr);
    // Reports the loop thread alive at (source, "execute", line, sub) while it is watched.
    void keepAlive(unsigned int line, unsigned int sub) const;

  private:
    bool fill(int fd, int threadId, const char* threadName);

    const char* mKind;
    const char* mSource;
    bool mWatched;  // Registered with the watchdog at the last read.
    int32_t mTokens[2 * TOKEN_BATCH];
    uint32_t mNext;  // The next token to hand out.
    uint32_t mEnd;   // The tokens of the last read.
};

}  // namespace detail

// The receiver of a message thread's messages.
class ThreadMsgListener {
  public:
    virtual ~ThreadMsgListener() = default;
    // Called in the loop thread `threadId` for each message, with no lock of the thread held:
    // the listener may post, send to other threads, and search or erase its own thread's queue.
    // `msg` is valid until the call returns; restore a `Msg` from it.
    virtual void receiveMsg(int threadId, ThreadRawMsg& msg) = 0;
};

// One timer of a message thread (and of the shared timer thread). Owned by the timer tables of
// its thread and guarded by that thread's queue lock.
struct TimerInfo {
    TimerInfo();
    virtual ~TimerInfo() = default;
    TimerInfo(const TimerInfo&) = default;
    TimerInfo& operator=(const TimerInfo&) = default;

    void* mReserved;                           // Free for the owner (the shared timer's listener).
    timer_t mTimer;                            // The POSIX timer while armed.
    int32_t mSysTimerNumber;                   // Number of the current arming; -1 while not armed.
    detail::TimerSignalRecord* mSignalRecord;  // What the expiry signal carries to the handler.
    int32_t mInterval;                         // Milliseconds.
    uint32_t mCountLimit;                      // Expiries after which the timer ends; 0: none.
    uint32_t mExpiryCount;                     // Since the last start.
    int32_t mRunOn;                            // Non-zero: the POSIX timer keeps running.
    CountingPointer<Event> mRunning;           // On while the timer runs.
    uint32_t mPending;                         // Expiries queued and not yet delivered.
    uint8_t mIntervalChanged;                  // Shared timer: re-arm at the next expiry.
};

// A thread that runs a message loop.
//
// Requests from other threads: `postMsg` queues a message and returns; `sendMsgSync` queues it
// and blocks until the listener has handled it; `sendMsgInterrupt` puts it before everything
// queued and blocks likewise; `hasMsg`/`peekMsg`/`eraseMsg` search the queue in the loop thread
// and block for the answer. The loop thread itself may post to itself and search its own queue
// directly, but cannot send synchronously to itself. Every operation may be called from any
// thread; posters from other threads are serialised by the token lock, synchronous and
// interrupt senders and searchers by one lock of their kind each.
//
//   state            | start(l, ...)    | post/send/search/timers | stop(mode, t)
//   -----------------+------------------+-------------------------+----------------------------
//   constructed      | starts; 0 or -1  | false / -1              | -1
//   running          | -1               | accepted                | stop requested: 0, or with
//                    |                  |                         | mode 1 the wait's result
//   stop requested,  | -1               | false / -1              | -1 once the thread ended
//   ended            |                  |                         |
//
// A stop is seen by the loop after the message it is handling: messages still queued are never
// delivered, and senders and searchers still waiting are released with false (an erase request
// with true). Start is possible once only. The destructor stops a running loop and waits for its
// end, so the object may be destroyed by any thread other than its own loop thread.
//
// Timers are POSIX timers on the monotonic clock; their expiry signal (SIGRTMIN + 2) only writes
// a token into the pipe, and the loop delivers a `TimerMsg` with the timer's id. A timer that
// expires while the loop is busy keeps at most one expiry queued (two when run-on). Killing a
// timer from another thread hands its record from the timer map over to the stop entries, where
// its id stays reserved until the loop has deleted the POSIX timer; expiries of a killed timer
// that are still queued are dropped. The running event of each timer is shared by reference
// count, so a requester can wait for it while the loop frees the record.
//
// The pipe's write end does not block: a loop stuck in its listener never freezes the thread
// that takes a timer signal, and a full pipe makes the post fail (logged).
class MsgDrivenThread : public Thread {
  public:
    // Library ids, 0x80000000 to 0x80000800; applications use other ids.
    static constexpr int MSG_ID_NONE = static_cast<int>(0x80000000);
    static constexpr int MSG_ID_WILDCARD = static_cast<int>(0x80000001);
    static constexpr int MSG_ID_TIMER = static_cast<int>(0x80000002);
    static constexpr int MSG_ID_WAKE_UP = static_cast<int>(0x80000004);
    static constexpr int MSG_ID_SYNC = static_cast<int>(0x80000005);
    static constexpr int MSG_ID_START_TIMER = static_cast<int>(0x80000006);
    static constexpr int MSG_ID_STOP_TIMER = static_cast<int>(0x80000007);
    static constexpr int MSG_ID_TIMEOUT = static_cast<int>(0x80000008);
    static constexpr int MSG_ID_STOP = static_cast<int>(0x80000009);
    static constexpr int MSG_ID_TIMER_SIGNAL = static_cast<int>(0x80000013);
    static constexpr int MSG_ID_CONTROL_LAST = static_cast<int>(0x80000800);

    // A control message, and the token in the pipe (the same 8 bytes, id first).
    struct ThreadCtlMsg {
        ThreadCtlMsg() : mMsgId(MSG_ID_NONE), mParam(-1) {}
        ThreadCtlMsg(int id, int param) : mMsgId(id), mParam(param) {}
        virtual ~ThreadCtlMsg() = default;
        ThreadCtlMsg(const ThreadCtlMsg&) = default;
        ThreadCtlMsg& operator=(const ThreadCtlMsg&) = default;

        int32_t mMsgId;
        int32_t mParam;
    };

    // Decides whether a queued message is the one searched for. Runs in the loop thread under
    // the queue lock: it must not block, log, or send to this thread.
    class MsgJudgementInterface {
      public:
        virtual ~MsgJudgementInterface() = default;
        virtual bool judge(ThreadRawMsg& msg) = 0;
    };

    // A judgement that delegates to a judge object with `bool judge(ThreadRawMsg&)`.
    template <class Judge>
    class MsgJudgement : public MsgJudgementInterface {
      public:
        explicit MsgJudgement(const Judge& judge) : mJudge(judge) {}
        bool judge(ThreadRawMsg& msg) override { return mJudge.judge(msg); }

      private:
        Judge mJudge;
    };

    // Matches messages with one id; the wildcard MSG_ID_WILDCARD matches every message.
    class JudgeMsgSpecifiedMsgId {
      public:
        explicit JudgeMsgSpecifiedMsgId(int msgId) : mMsgId(msgId) {}
        virtual ~JudgeMsgSpecifiedMsgId() = default;
        bool judge(ThreadRawMsg& msg) const;

      private:
        int32_t mMsgId;
    };

    // Bodies of up to `maxMsgSize` bytes (without the 4-byte id), up to `maxMsgCount` of them
    // queued, up to `maxTimerCount` timers. A failed pipe is logged; every later send then fails.
    MsgDrivenThread(unsigned int maxMsgSize, unsigned int maxMsgCount, const char* name,
                    unsigned int maxTimerCount);
    ~MsgDrivenThread() override;

    // Starts the loop with `listener` and the `Thread::start` arguments. -1 from the loop thread
    // itself, for a null listener, or when the thread was started before (also after a stop).
    int start(ThreadMsgListener* listener, int watchdog = 0, unsigned int aliveTime = 0,
              WatchdogTimerListener* watchdogListener = nullptr, int waitMode = 0,
              unsigned int waitTimeout = 0,
              const ThreadPriority& priority = ThreadPriority(ThreadPriority::NORMAL),
              unsigned int reserved = 0);
    // `Thread::stop`; -1 from the loop thread itself.
    int stop(int waitMode = 0, unsigned int timeout = 0);
    // Queues the stop message; called by `Thread::stop`.
    void requestStop() override;

    // Queues `msg` for the listener. False when the thread is not running, a stop was requested,
    // the body does not fit, or the queue is full (each logged but the first two).
    bool postMsg(const Msg& msg);
    bool postMsg(int msgId);
    // The body of `postMsg` without the running check and the sender lock.
    bool sendMsgAsync(const Msg& msg);
    // Blocks until the listener has handled `msg`; true when it did. False at once from the loop
    // thread itself, when not running, or when the message cannot be queued; false after the
    // wait when the message was erased or the loop ended first.
    bool sendMsgSync(const Msg& msg);
    bool sendMsgSync(int msgId);
    // As sendMsgSync, but the message is handled before everything queued.
    bool sendMsgInterrupt(const Msg& msg);
    bool sendMsgInterrupt(int msgId);
    // Queues the control message {msgId, param} and writes its token. False (logged) when the
    // control queue is full or the pipe write fails (the entry then stays queued), and when the
    // loop has ended.
    bool postThreadCtlMsg(int msgId, int param);

    // Whether a message with `msgId` (or any, for the wildcard) is queued. Block until the loop
    // has searched; false when not running.
    bool hasMsg(int msgId);
    // Copies the first queued message with `msgId` into `out`; false when none or not running.
    bool peekMsg(int msgId, ThreadRawMsg* out);
    // Erases every queued message with `msgId`; a synchronous sender of an erased message
    // returns false. False when not running or the queue is inconsistent (logged).
    bool eraseMsg(int msgId);
    // The id of the first queued message, or MSG_ID_NONE.
    int getFirstMsgId();
    // The same with any judgement.
    bool hasMsgInternal(MsgJudgementInterface* judgement);
    bool peekMsgInternal(MsgJudgementInterface* judgement, ThreadRawMsg* out);
    bool eraseMsgInternal(MsgJudgementInterface* judgement);

    // Registers a stopped timer of `interval` ms that ends by itself after `countLimit` expiries
    // (0: never); `runOn` non-zero keeps the POSIX timer running instead of re-arming it after
    // each delivered expiry. The new timer id (1 ... 2147483647, round-robin), or -1 when not
    // running, stop requested, no memory or the timer table is full.
    int registerTimer(unsigned int interval, unsigned int countLimit = 0, int runOn = 0);
    // registerTimer and startTimer in one call; with `noWait` 0 blocks until the loop has armed
    // the timer. The timer id, or -1 (a registered timer that cannot start is taken back).
    int setTimer(unsigned int interval, int noWait = 0, unsigned int countLimit = 0, int runOn = 0);
    // Starts timer `timerId` (its expiry count from 0); with `noWait` 0 blocks until the loop
    // has armed it. False when not running, stop requested, the id is unknown, or the start
    // message cannot be queued.
    bool startTimer(int timerId, int noWait = 0);
    // Ends timer `timerId` and frees its id; with `noWait` 0 blocks until the loop has deleted
    // the POSIX timer. False when not running or the id is unknown.
    bool killTimer(int timerId, int noWait = 0);
    // Deletes every POSIX timer and turns every running event off; the loop calls it at its end.
    void eraseAllTimer();
    // How many more timers may be registered.
    unsigned int remTimerIdCount() const;

  protected:
    // The loop; its result -1 when the pipe cannot be read, else 0.
    unsigned int execute() override;
    // Called in the loop thread when a timer has ended by reaching its count limit, or when its
    // last expiry was erased. Does nothing here.
    virtual void onEraseTimer(int timerId);

    // Searches and erases, in the loop thread under the queue lock.
    bool executeFindMsg(MsgJudgementInterface* judgement, ThreadRawMsg* out);
    bool executeEraseMsg(MsgJudgementInterface* judgement);
    // Erases control entry `ctlIndex` and `length` bytes at `dataOffset` of the data queue.
    bool earseMsgQueue(unsigned int ctlIndex, unsigned int dataOffset, unsigned int length);
    // Removes the first control entry with `msgId`.
    bool eraseMsgFromCtlQueue(int msgId);

    unsigned int getMaxMsgCount() const { return mMaxMsgCount; }

  private:
    enum LoopState : int { NOT_STARTED = 0, RUNNING = 1, ENDED = 2 };
    enum ReceiveKind { RECEIVE_INTERRUPT, RECEIVE_SYNC, RECEIVE_POSTED };
    enum EraseWalk { ERASE_DONE, ERASE_FAILED, ERASE_TIMER_ENDED };

    bool isCallerLoop() const;
    bool isLoopRunning() const;
    bool acceptsRequests() const;

    // Sending (any thread).
    bool sendMsgAsync(const Msg& msg, bool recheck);
    bool storeForSend(const Msg& msg, int* msgId, detail::DeferredLog& log)
        UTL_REQUIRES(mQueueLock);
    bool pushDataSlot(int msgId, detail::DeferredLog& log) UTL_REQUIRES(mQueueLock);
    bool postLocked(int msgId, int param, detail::DeferredLog& log) UTL_REQUIRES(mQueueLock);
    // The two halves of postLocked: the entry (under the queue lock) and its token (under the
    // token lock alone); and taking the last entry back when it is {msgId, param}.
    bool queueEntry(int msgId, int param, detail::DeferredLog& log) UTL_REQUIRES(mQueueLock);
    bool writeToken(int msgId, int param, detail::DeferredLog& log);
    bool takeBackLastEntry(int msgId, int param) UTL_REQUIRES(mQueueLock);
    bool sendAndWait(const Msg& msg, ReceiveKind kind);
    bool requestSearch(MsgJudgementInterface* judgement, ThreadRawMsg* out, bool erase);
    // Stores the judgement (and output) of a search or erase request for the loop.
    void handOver(bool erase, MsgJudgementInterface* judgement, ThreadRawMsg* out);

    // The loop (loop thread only).
    void reportSignalWriteFailure();
    bool peekFront(ThreadCtlMsg* front);
    bool selectFront(const ThreadCtlMsg& token, ThreadCtlMsg* front);
    void handleInterrupt();
    void finishRequest(Event& done);
    int dispatch(const ThreadCtlMsg& front);
    bool removeFront();
    int executeReceiveMsg(ReceiveKind kind, int msgId);
    void popSlot(Queue<unsigned char>& queue, unsigned int length);
    void deliver();
    void closeLoop();
    bool copySlot(unsigned int offset) UTL_REQUIRES(mQueueLock);
    bool copySlotForErase(unsigned int offset, int ctlId) UTL_REQUIRES(mQueueLock);
    static bool storeTimerMsg(int timerId, ThreadRawMsg* raw);
    EraseWalk eraseWalk(MsgJudgementInterface* judgement, int* endedTimer) UTL_REQUIRES(mQueueLock);

    // Timers; everything below runs under the queue lock.
    TimerInfo* findTimer(int timerId) UTL_REQUIRES(mQueueLock);
    TimerInfo* findTimerStopEntry(int timerId) UTL_REQUIRES(mQueueLock);
    int toUserTimerId(int sysTimerNumber);
    bool startTimerByTimerInfo(TimerInfo* info) UTL_REQUIRES(mQueueLock);
    bool eraseTimerByTimerInfo(TimerInfo* info, int timerId, detail::DeferredLog& log)
        UTL_REQUIRES(mQueueLock);
    int executeStartTimer(int timerId);
    void finishTimerStart(int timerId);
    int executeStopTimer(int timerId, detail::DeferredLog& log);
    void executeTimeoutSignal(int timerId);
    int executeTimeout(int timerId);
    int TimeoutPostHandling(int timerId);
    int getNextSysTimerNumber() UTL_REQUIRES(mQueueLock);
    bool removeTimer(int timerId) UTL_REQUIRES(mQueueLock);
    void releaseAllTimers();

    ThreadMsgListener* mListener;  // Set once by start, under mSenderLock.
    uint32_t mMaxMsgCount;
    Queue<ThreadCtlMsg> mCtlQueue UTL_GUARDED_BY(mQueueLock);
    Queue<unsigned char> mDataQueue UTL_GUARDED_BY(mQueueLock);
    bool mDataQueueOverflow UTL_GUARDED_BY(mQueueLock);
    Queue<unsigned char> mInterruptQueue UTL_GUARDED_BY(mQueueLock);
    ThreadRawMsg mSendBuffer UTL_GUARDED_BY(mQueueLock);
    ThreadRawMsg mReceiveBuffer;  // Written by the loop thread only.
    ThreadRawMsg mWorkBuffer UTL_GUARDED_BY(mQueueLock);
    ThreadRawMsg* mPeekOutput;  // Guarded by mQueueLock; filled by the loop.
    // A requester turns its event on and waits until the loop turns it off.
    Event mInterruptEvent;
    Event mSyncEvent;
    Event mEraseEvent;
    Event mFindEvent;
    Event mTimerStartEvent;
    // Preset by the requester, written by the loop while the request's event is on.
    bool mSyncResult;
    bool mInterruptResult;
    bool mEraseResult;
    bool mFindResult;
    Map<int, TimerInfo> mTimers UTL_GUARDED_BY(mQueueLock);
    Map<int, TimerInfo> mStopEntries UTL_GUARDED_BY(mQueueLock);
    int32_t mNextUserTimerId UTL_GUARDED_BY(mQueueLock);
    int32_t mNextSysTimerNumber UTL_GUARDED_BY(mQueueLock);
    int32_t mAwaitedTimerStart UTL_GUARDED_BY(mQueueLock);
    MsgJudgementInterface* mEraseJudgement;  // Guarded by mQueueLock; used by the loop.
    MsgJudgementInterface* mFindJudgement;   // Guarded by mQueueLock; used by the loop.
    int mReadFd;
    int mWriteFd;
    std::atomic<int> mLoopState;
    bool mClosed;  // Guarded by mQueueLock: the loop has ended and released its waiters.
    detail::LoopPipeReader mPipe;  // Loop thread only.
    // Interrupt, erase and find requests under way: while 0, the loop skips their events.
    std::atomic<int32_t> mRequestsPending;
    detail::DeferredLog mLoopLog;  // Loop thread only: lines decided under the queue lock.
    SyncObject mSenderLock;
    // Taken before mQueueLock by everything that queues an entry, and held until its token is
    // written: posts and sends write their tokens after releasing mQueueLock, in entry order.
    SyncObject mTokenLock;
    mutable SyncObject mQueueLock;
    SyncObject mSyncLock;
    SyncObject mInterruptLock;
    SyncObject mEraseLock;
    SyncObject mFindLock;
};

}  // namespace utl

#endif  // UTL_MSG_DRIVEN_THREAD_H
