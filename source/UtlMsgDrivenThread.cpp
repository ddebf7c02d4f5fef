#include "UtlMsgDrivenThread.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "UtlLibraryLog.h"
#include "UtlThreadWatchdog.h"
#include "UtlTimerSignal.h"

namespace utl {

// ---- Message loop

namespace {

constexpr const char* kSource = "source/UtlMsgDrivenThread";
constexpr unsigned int kIdSize = 4;
constexpr unsigned int kExtraCtlEntries = 256;
constexpr int kNoTimer = -1;

using Token = MsgDrivenThread::ThreadCtlMsg;
static_assert(sizeof(int32_t) * 2 == 8, "a token is 8 bytes");

// Whether a control entry owns a slot of the data queue.
bool hasData(int msgId) {
    switch (msgId) {
        case MsgDrivenThread::MSG_ID_NONE:
        case MsgDrivenThread::MSG_ID_WILDCARD:
        case MsgDrivenThread::MSG_ID_WAKE_UP:
        case MsgDrivenThread::MSG_ID_SYNC:
        case MsgDrivenThread::MSG_ID_START_TIMER:
        case MsgDrivenThread::MSG_ID_STOP_TIMER:
        case MsgDrivenThread::MSG_ID_TIMEOUT:
        case MsgDrivenThread::MSG_ID_STOP:
        case MsgDrivenThread::MSG_ID_TIMER_SIGNAL:
            return false;
        default:
            return true;
    }
}

// Sizes are computed in 64 bits and saturate, so that absurd arguments give a queue that cannot
// be allocated (and refuses everything) instead of a small one.
unsigned int saturatedProduct(uint64_t a, uint64_t b) {
    const uint64_t product = a * b;
    return product > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(product);
}

unsigned int slotSize(unsigned int maxMsgSize) {
    return saturatedProduct(uint64_t(maxMsgSize) + kIdSize, 1);
}

// Waits without limit until `event` is off (an unlimited Event wait may end on a spurious wake).
void awaitOff(const Event& event) {
    while (event.isOn()) {
        event.waitToOff(0);
    }
}

}  // namespace

bool MsgDrivenThread::JudgeMsgSpecifiedMsgId::judge(ThreadRawMsg& msg) const {
    if (mMsgId == MSG_ID_WILDCARD) {
        return true;
    }
    int msgId = MSG_ID_NONE;
    return msg.getMsgId(&msgId) && msgId == mMsgId;
}

TimerInfo::TimerInfo()
    : mReserved(nullptr),
      mTimer(),
      mSysTimerNumber(-1),
      mSignalRecord(nullptr),
      mInterval(0),
      mCountLimit(0),
      mExpiryCount(0),
      mRunOn(0),
      mRunning(),
      mPending(0),
      mIntervalChanged(0) {}

MsgDrivenThread::MsgDrivenThread(unsigned int maxMsgSize, unsigned int maxMsgCount,
                                 const char* name, unsigned int maxTimerCount)
    : Thread(name, nullptr),
      mListener(nullptr),
      mMaxMsgCount(maxMsgCount),
      mCtlQueue(saturatedProduct(uint64_t(maxMsgCount) + kExtraCtlEntries, 1)),
      mDataQueue(saturatedProduct(slotSize(maxMsgSize), maxMsgCount)),
      mDataQueueOverflow(false),
      mInterruptQueue(slotSize(maxMsgSize)),
      mSendBuffer(slotSize(maxMsgSize)),
      mReceiveBuffer(slotSize(maxMsgSize)),
      mWorkBuffer(slotSize(maxMsgSize)),
      mPeekOutput(nullptr),
      mInterruptEvent(0, Event::TWO_WAY),
      mSyncEvent(0, Event::TWO_WAY),
      mEraseEvent(0, Event::TWO_WAY),
      mFindEvent(0, Event::TWO_WAY),
      mTimerStartEvent(0, Event::TWO_WAY),
      mSyncResult(false),
      mInterruptResult(false),
      mEraseResult(false),
      mFindResult(false),
      mTimers(maxTimerCount, 0),
      mStopEntries(maxTimerCount, 0),
      mNextUserTimerId(1),
      mNextSysTimerNumber(1),
      mAwaitedTimerStart(kNoTimer),
      mEraseJudgement(nullptr),
      mFindJudgement(nullptr),
      mReadFd(-1),
      mWriteFd(-1),
      mLoopState(NOT_STARTED),
      mClosed(false),
      mPipe("MsgDrivenThread", kSource),
      mRequestsPending(0) {
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0) {
        UTL_LOG(LEVEL_ERROR, "MsgDrivenThread(%s) pipe errno:%d", getName(), errno);
    } else {
        mReadFd = fds[0];
        mWriteFd = fds[1];
        // A full pipe must make a write fail rather than block: the timer signal handler writes
        // here on whatever thread the signal hits.
        fcntl(mWriteFd, F_SETFL, fcntl(mWriteFd, F_GETFL) | O_NONBLOCK);
    }
    if (!detail::loopTimerSignal().install()) {
        UTL_LOG(LEVEL_ERROR, "MsgDrivenThread sigaction  errno:%d", errno);
    }
}

MsgDrivenThread::~MsgDrivenThread() {
    if (hasDone(0) && !isCallerLoop()) {
        stop(1, 0);
    }
    releaseAllTimers();
    if (mReadFd >= 0) {
        close(mReadFd);
        close(mWriteFd);
    }
}

bool MsgDrivenThread::isCallerLoop() const {
    return getId() == ThreadManager::getCallerId();
}

bool MsgDrivenThread::acceptsRequests() const {
    return mLoopState.load(std::memory_order_acquire) == RUNNING && !hasRequestedStop();
}

bool MsgDrivenThread::isLoopRunning() const {
    return mLoopState.load(std::memory_order_acquire) == RUNNING;
}

int MsgDrivenThread::start(ThreadMsgListener* listener, int watchdog, unsigned int aliveTime,
                           WatchdogTimerListener* watchdogListener, int waitMode,
                           unsigned int waitTimeout, const ThreadPriority& priority,
                           unsigned int reserved) {
    if (isCallerLoop()) {
        return -1;
    }
    SyncGuard guard(mSenderLock);
    if (listener == nullptr || mListener != nullptr) {
        return -1;
    }
    mListener = listener;
    // Running from here on, so that requests made as soon as start() returns are queued.
    mLoopState.store(RUNNING, std::memory_order_release);
    const int result = Thread::start(watchdog, aliveTime, watchdogListener, waitMode, waitTimeout,
                                     priority, reserved);
    if (getId() == 0) {
        mLoopState.store(ENDED, std::memory_order_release);
    }
    return result;
}

int MsgDrivenThread::stop(int waitMode, unsigned int timeout) {
    if (isCallerLoop()) {
        return -1;
    }
    SyncGuard guard(mSenderLock);
    return Thread::stop(waitMode, timeout);
}

void MsgDrivenThread::requestStop() {
    postThreadCtlMsg(MSG_ID_STOP, -1);
}

// ---- Sending

bool MsgDrivenThread::postMsg(const Msg& msg) {
    if (!acceptsRequests()) {
        return false;
    }
    return sendMsgAsync(msg, !isCallerLoop());
}

bool MsgDrivenThread::postMsg(int msgId) {
    return postMsg(SimpleMsg(msgId));
}

// The token is written after the queue lock is released, so that the loop it wakes finds the
// lock free; the token lock keeps the tokens in the order of their entries meanwhile.
bool MsgDrivenThread::sendMsgAsync(const Msg& msg) {
    return sendMsgAsync(msg, false);
}

// With `recheck`, a post from another thread looks at the stop again under the token lock, which
// the stop message needs too: the post either comes before the stop message or sees the stop.
bool MsgDrivenThread::sendMsgAsync(const Msg& msg, bool recheck) {
    detail::DeferredLog log;
    SyncGuard tokenGuard(mTokenLock);
    if (recheck && !acceptsRequests()) {
        return false;
    }
    int msgId = MSG_ID_NONE;
    {
        SyncGuard guard(mQueueLock);
        if (!storeForSend(msg, &msgId, log) || !pushDataSlot(msgId, log)) {
            return false;
        }
        if (!queueEntry(msgId, -1, log)) {
            mDataQueue.removeLast(mSendBuffer.maxSize());
            return false;
        }
    }
    if (writeToken(msgId, -1, log)) {
        return true;
    }
    // Nothing was queued after this entry (the token lock is held). If it is gone, the loop has
    // taken the message on an earlier token carrying the same id, and it is delivered.
    SyncGuard guard(mQueueLock);
    if (!takeBackLastEntry(msgId, -1)) {
        return true;
    }
    mDataQueue.removeLast(mSendBuffer.maxSize());
    return false;
}

bool MsgDrivenThread::sendMsgSync(const Msg& msg) {
    return sendAndWait(msg, RECEIVE_SYNC);
}

bool MsgDrivenThread::sendMsgSync(int msgId) {
    return sendMsgSync(SimpleMsg(msgId));
}

bool MsgDrivenThread::sendMsgInterrupt(const Msg& msg) {
    return sendAndWait(msg, RECEIVE_INTERRUPT);
}

bool MsgDrivenThread::sendMsgInterrupt(int msgId) {
    return sendMsgInterrupt(SimpleMsg(msgId));
}

// Synchronous and interrupt sends: the body is queued, the kind's event turned on and the entry
// queued in one hold of the queue lock, so the loop never sees the event without its entry. The
// token follows once the queue lock is free, as in sendMsgAsync.
bool MsgDrivenThread::sendAndWait(const Msg& msg, ReceiveKind kind) {
    if (!acceptsRequests() || isCallerLoop()) {
        return false;
    }
    const bool sync = kind == RECEIVE_SYNC;
    const int tokenId = sync ? MSG_ID_SYNC : MSG_ID_WAKE_UP;
    SyncGuard kindGuard(sync ? mSyncLock : mInterruptLock);
    Event& done = sync ? mSyncEvent : mInterruptEvent;
    bool& result = sync ? mSyncResult : mInterruptResult;
    result = false;
    {
        detail::DeferredLog log;
        SyncGuard tokenGuard(mTokenLock);
        {
            SyncGuard guard(mQueueLock);
            int msgId = MSG_ID_NONE;
            if (!storeForSend(msg, &msgId, log)) {
                return false;
            }
            if (sync) {
                if (!pushDataSlot(msgId, log)) {
                    return false;
                }
            } else {
                mInterruptQueue.reset();
                if (!mInterruptQueue.pushBlock(mSendBuffer.buffer(), mSendBuffer.maxSize())) {
                    return false;
                }
            }
            if (!sync) {
                mRequestsPending.fetch_add(1, std::memory_order_relaxed);
            }
            done.setOn();
            if (!queueEntry(tokenId, -1, log)) {
                done.setOff();
                if (!sync) {
                    mRequestsPending.fetch_sub(1, std::memory_order_relaxed);
                }
                if (sync) {
                    mDataQueue.removeLast(mSendBuffer.maxSize());
                } else {
                    mInterruptQueue.reset();
                }
                return false;
            }
        }
        if (!writeToken(tokenId, -1, log)) {
            // Taken back unless the loop has already taken the message (the synchronous entry,
            // the only one of its kind, is gone; the interrupt queue is emptied), in which case
            // the send completes normally.
            SyncGuard guard(mQueueLock);
            if (sync ? takeBackLastEntry(MSG_ID_SYNC, -1) : !mInterruptQueue.isEmpty()) {
                if (sync) {
                    mDataQueue.removeLast(mSendBuffer.maxSize());
                } else {
                    mInterruptQueue.reset();
                    eraseMsgFromCtlQueue(MSG_ID_WAKE_UP);
                }
                done.setOff();
                if (!sync) {
                    mRequestsPending.fetch_sub(1, std::memory_order_relaxed);
                }
                return false;
            }
        }
    }
    awaitOff(done);
    if (!sync) {
        mRequestsPending.fetch_sub(1, std::memory_order_relaxed);
    }
    return result;
}

bool MsgDrivenThread::storeForSend(const Msg& msg, int* msgId, detail::DeferredLog& log) {
    const bool stored = msg.storeTo(&mSendBuffer);
    *msgId = msg.getMsgId();
    if (!stored) {
        log.add(detail::LEVEL_ERROR,
                "MsgDrivenThread(%s) Overflow MsgSize  MaxSize(include MsgId):%d MsgId:0x%08x",
                getName(), static_cast<int>(mSendBuffer.maxSize()),
                static_cast<unsigned int>(*msgId));
    }
    return stored;
}

// A slot is always the whole send buffer, whatever the message used. A run of refusals logs one
// error and then detail lines, until the loop takes a message off the data queue.
bool MsgDrivenThread::pushDataSlot(int msgId, detail::DeferredLog& log) {
    const unsigned int slot = mSendBuffer.maxSize();
    if (mDataQueue.getCount() + uint64_t(slot) > mDataQueue.getCapacity()) {
        log.add(mDataQueueOverflow ? detail::LEVEL_DETAIL : detail::LEVEL_ERROR,
                "MsgDrivenThread(%s) Overflow MsgDataQueue  MaxCount:%d MsgId:0x%08x", getName(),
                static_cast<int>(mMaxMsgCount), static_cast<unsigned int>(msgId));
        mDataQueueOverflow = true;
        return false;
    }
    return mDataQueue.pushBlock(mSendBuffer.buffer(), slot);
}

bool MsgDrivenThread::postThreadCtlMsg(int msgId, int param) {
    detail::DeferredLog log;
    SyncGuard tokenGuard(mTokenLock);
    SyncGuard guard(mQueueLock);
    return postLocked(msgId, param, log);
}

// Entry and token go together under the queue lock, so tokens are in the order of the entries.
// A token that cannot be written takes its entry back with it: an entry without a token would
// sit at the front of the queue until some later token happened to carry its id.
bool MsgDrivenThread::postLocked(int msgId, int param, detail::DeferredLog& log) {
    if (!queueEntry(msgId, param, log)) {
        return false;
    }
    if (!writeToken(msgId, param, log)) {
        mCtlQueue.removeLast(1);
        return false;
    }
    return true;
}

bool MsgDrivenThread::queueEntry(int msgId, int param, detail::DeferredLog& log) {
    if (mClosed) {
        return false;
    }
    if (mCtlQueue.getCount() + uint64_t(1) > mCtlQueue.getCapacity()) {
        log.add(detail::LEVEL_ERROR,
                "MsgDrivenThread(%s) Overflow ThreadCtlMsgQueue  MaxCount:%d MsgId:0x%08x",
                getName(), static_cast<int>(mCtlQueue.getCapacity()),
                static_cast<unsigned int>(msgId));
        return false;
    }
    return mCtlQueue.push(ThreadCtlMsg(msgId, param));
}

bool MsgDrivenThread::writeToken(int msgId, int param, detail::DeferredLog& log) {
    const int32_t token[2] = {msgId, param};
    const ssize_t written = write(mWriteFd, token, sizeof token);
    if (written != static_cast<ssize_t>(sizeof token)) {
        log.add(detail::LEVEL_ERROR,
                "MsgDrivenThread(%s)::postThreadCtlMsg() Error. write Ret:%u errno:%d", getName(),
                static_cast<unsigned int>(written), errno);
        return false;
    }
    return true;
}

bool MsgDrivenThread::takeBackLastEntry(int msgId, int param) {
    if (mCtlQueue.isEmpty()) {
        return false;
    }
    const ThreadCtlMsg& last = mCtlQueue.at(mCtlQueue.getCount() - 1);
    return last.mMsgId == msgId && last.mParam == param && mCtlQueue.removeLast(1);
}

// ---- Searching and erasing

bool MsgDrivenThread::hasMsg(int msgId) {
    MsgJudgement<JudgeMsgSpecifiedMsgId> judgement{JudgeMsgSpecifiedMsgId(msgId)};
    return hasMsgInternal(&judgement);
}

bool MsgDrivenThread::peekMsg(int msgId, ThreadRawMsg* out) {
    MsgJudgement<JudgeMsgSpecifiedMsgId> judgement{JudgeMsgSpecifiedMsgId(msgId)};
    return peekMsgInternal(&judgement, out);
}

bool MsgDrivenThread::eraseMsg(int msgId) {
    MsgJudgement<JudgeMsgSpecifiedMsgId> judgement{JudgeMsgSpecifiedMsgId(msgId)};
    return eraseMsgInternal(&judgement);
}

int MsgDrivenThread::getFirstMsgId() {
    ThreadRawMsg first(kIdSize);
    int msgId = MSG_ID_NONE;
    if (!peekMsg(MSG_ID_WILDCARD, &first) || !first.getMsgId(&msgId)) {
        return MSG_ID_NONE;
    }
    return msgId;
}

bool MsgDrivenThread::hasMsgInternal(MsgJudgementInterface* judgement) {
    return requestSearch(judgement, nullptr, false);
}

bool MsgDrivenThread::peekMsgInternal(MsgJudgementInterface* judgement, ThreadRawMsg* out) {
    return out != nullptr && requestSearch(judgement, out, false);
}

bool MsgDrivenThread::eraseMsgInternal(MsgJudgementInterface* judgement) {
    return requestSearch(judgement, nullptr, true);
}

// The loop thread searches its own queue at once; other threads hand the judgement to the loop
// and wait. The erase result is preset to true: an erase that the loop abandons at its end
// reports success.
bool MsgDrivenThread::requestSearch(MsgJudgementInterface* judgement, ThreadRawMsg* out,
                                    bool erase) {
    if (!isLoopRunning() || judgement == nullptr) {
        return false;
    }
    if (isCallerLoop()) {
        const bool result = erase ? executeEraseMsg(judgement) : executeFindMsg(judgement, out);
        mLoopLog.flush();
        return result;
    }
    SyncGuard kindGuard(erase ? mEraseLock : mFindLock);
    Event& done = erase ? mEraseEvent : mFindEvent;
    bool& result = erase ? mEraseResult : mFindResult;
    bool posted = false;
    {
        detail::DeferredLog log;
        SyncGuard tokenGuard(mTokenLock);
        SyncGuard guard(mQueueLock);
        handOver(erase, judgement, out);
        result = erase;
        mRequestsPending.fetch_add(1, std::memory_order_relaxed);
        done.setOn();
        posted = postLocked(MSG_ID_WAKE_UP, -1, log);
        if (!posted) {
            done.setOff();
        }
    }
    if (posted) {
        awaitOff(done);
    }
    mRequestsPending.fetch_sub(1, std::memory_order_relaxed);
    SyncGuard guard(mQueueLock);
    // Only this request's own pointers: a request of the other kind may still be under way.
    handOver(erase, nullptr, nullptr);
    return posted && result;
}

void MsgDrivenThread::handOver(bool erase, MsgJudgementInterface* judgement, ThreadRawMsg* out) {
    if (erase) {
        mEraseJudgement = judgement;
    } else {
        mFindJudgement = judgement;
        mPeekOutput = out;
    }
}

// Copies the slot at byte `offset` of the data queue (or what is left of it) into the work
// buffer; false when nothing is there.
bool MsgDrivenThread::copySlot(unsigned int offset) {
    const unsigned int count = mDataQueue.getCount();
    if (offset >= count) {
        return false;
    }
    unsigned int length = count - offset;
    if (length > mWorkBuffer.maxSize()) {
        length = mWorkBuffer.maxSize();
    }
    return mDataQueue.peekBlock(mWorkBuffer.buffer(), offset, length);
}

bool MsgDrivenThread::storeTimerMsg(int timerId, ThreadRawMsg* raw) {
    TimerMsg timer;
    timer.setTimerId(timerId);
    return timer.storeTo(raw);
}

bool MsgDrivenThread::executeFindMsg(MsgJudgementInterface* judgement, ThreadRawMsg* out) {
    SyncGuard guard(mQueueLock);
    if (judgement == nullptr || mCtlQueue.isEmpty()) {
        return false;
    }
    const unsigned int slot = mSendBuffer.maxSize();
    unsigned int offset = 0;
    for (unsigned int i = 0; i < mCtlQueue.getCount(); ++i) {
        const ThreadCtlMsg entry = mCtlQueue.at(i);
        bool candidate = false;
        if (entry.mMsgId == MSG_ID_TIMEOUT) {
            candidate = storeTimerMsg(entry.mParam, &mWorkBuffer);
            if (!candidate) {
                mLoopLog.add(detail::LEVEL_ERROR,
                             "MsgDrivenThread::executeFindMsg(): Can't store message. Line=%d",
                             __LINE__);
            }
        } else if (entry.mMsgId == MSG_ID_SYNC || hasData(entry.mMsgId)) {
            candidate = copySlot(offset);
            offset += slot;
            if (!candidate) {
                mLoopLog.add(detail::LEVEL_ERROR,
                             "MsgDrivenThread::executeFindMsg(): Peek Data Queue fail. Line=%d "
                             "MsgId=%d",
                             __LINE__, entry.mMsgId);
            }
        }
        if (candidate && judgement->judge(mWorkBuffer)) {
            if (out != nullptr) {
                *out = mWorkBuffer;
            }
            return true;
        }
    }
    return false;
}

// Erasing a timer expiry counts it as delivered; when that ends a timer with a count limit, the
// walk stops to call onEraseTimer outside the queue lock (the hook may take locks of its own)
// and then starts over, since the timer's other expiries have left the queue meanwhile.
bool MsgDrivenThread::executeEraseMsg(MsgJudgementInterface* judgement) {
    if (judgement == nullptr) {
        return false;
    }
    for (;;) {
        int endedTimer = kNoTimer;
        EraseWalk walk = ERASE_DONE;
        {
            // The token lock too: a sender between queuing its entry and writing its token may
            // take the entry back, and must find it where it left it.
            SyncGuard tokenGuard(mTokenLock);
            SyncGuard guard(mQueueLock);
            walk = eraseWalk(judgement, &endedTimer);
        }
        if (walk != ERASE_TIMER_ENDED) {
            return walk == ERASE_DONE;
        }
        mLoopLog.flush();
        onEraseTimer(endedTimer);
    }
}

MsgDrivenThread::EraseWalk MsgDrivenThread::eraseWalk(MsgJudgementInterface* judgement,
                                                      int* endedTimer) {
    const unsigned int slot = mSendBuffer.maxSize();
    unsigned int offset = 0;
    for (unsigned int i = 0; i < mCtlQueue.getCount();) {
        const ThreadCtlMsg entry = mCtlQueue.at(i);
        if (entry.mMsgId == MSG_ID_TIMEOUT) {
            if (!storeTimerMsg(entry.mParam, &mWorkBuffer)) {
                mLoopLog.add(detail::LEVEL_ERROR,
                             "MsgDrivenThread::executeEraseMsg(): Can't store message. Line=%d",
                             __LINE__);
                return ERASE_FAILED;
            }
            if (!judgement->judge(mWorkBuffer)) {
                ++i;
                continue;
            }
            if (!mCtlQueue.eraseAt(i)) {
                mLoopLog.add(detail::LEVEL_ERROR,
                             "MsgDrivenThread::executeEraseMsg(): Erase Ctl Queue fail. Line=%d",
                             __LINE__);
                return ERASE_FAILED;
            }
            if (TimeoutPostHandling(entry.mParam) == 3) {
                *endedTimer = entry.mParam;
                return ERASE_TIMER_ENDED;
            }
        } else if (entry.mMsgId == MSG_ID_SYNC || hasData(entry.mMsgId)) {
            const bool sync = entry.mMsgId == MSG_ID_SYNC;
            if (!copySlotForErase(offset, entry.mMsgId)) {
                return ERASE_FAILED;
            }
            if (!judgement->judge(mWorkBuffer)) {
                ++i;
                offset += slot;
                continue;
            }
            if (!earseMsgQueue(i, offset, slot)) {
                if (sync) {
                    mLoopLog.add(detail::LEVEL_ERROR,
                                 "MsgDrivenThread::executeEraseMsg(): Erase Queue fail. Line=%d",
                                 __LINE__);
                } else {
                    mLoopLog.add(
                        detail::LEVEL_ERROR,
                        "MsgDrivenThread::executeEraseMsg(): erase Data Queue fail. Line=%d",
                        __LINE__);
                }
                return ERASE_FAILED;
            }
            if (sync) {
                // The synchronous sender is released with its preset result, false.
                mSyncEvent.setOff();
            }
        } else {
            ++i;
        }
    }
    return ERASE_DONE;
}

// Copies the slot at `offset` for the erase walk; for a posted message also checks that the slot
// carries the id of its control entry. False, logged, when either fails.
bool MsgDrivenThread::copySlotForErase(unsigned int offset, int ctlId) {
    if (ctlId == MSG_ID_SYNC) {
        if (!copySlot(offset)) {
            mLoopLog.add(detail::LEVEL_ERROR,
                         "MsgDrivenThread::executeEraseMsg(): Peek Data Queue fail. Line=%d",
                         __LINE__);
            return false;
        }
        return true;
    }
    if (!copySlot(offset)) {
        mLoopLog.add(detail::LEVEL_ERROR,
                     "MsgDrivenThread::executeEraseMsg(): Peek Data Queue fail. Line=%d MsgId=%d",
                     __LINE__, ctlId);
        return false;
    }
    int dataId = MSG_ID_NONE;
    if (!mWorkBuffer.getMsgId(&dataId)) {
        mLoopLog.add(detail::LEVEL_ERROR,
                     "MsgDrivenThread::executeEraseMsg(): Can't get message ID. Line=%d MsgId=%d",
                     __LINE__, ctlId);
        return false;
    }
    if (dataId != ctlId) {
        mLoopLog.add(detail::LEVEL_ERROR,
                     "MsgDrivenThread::executeEraseMsg(): Data Queue is different from Ctl Queue "
                     ". Line=%d MsgId(Ctl)=%d MsgId(Data)=%d ",
                     __LINE__, ctlId, dataId);
        return false;
    }
    return true;
}

bool MsgDrivenThread::earseMsgQueue(unsigned int ctlIndex, unsigned int dataOffset,
                                    unsigned int length) {
    SyncGuard guard(mQueueLock);
    const unsigned int dataCount = mDataQueue.getCount();
    if (dataOffset >= dataCount || ctlIndex >= mCtlQueue.getCount()) {
        return false;
    }
    mCtlQueue.eraseAt(ctlIndex);
    mDataQueue.eraseRun(dataOffset,
                        length < dataCount - dataOffset ? length : dataCount - dataOffset);
    return true;
}

bool MsgDrivenThread::eraseMsgFromCtlQueue(int msgId) {
    SyncGuard guard(mQueueLock);
    for (unsigned int i = 0; i < mCtlQueue.getCount(); ++i) {
        if (mCtlQueue.at(i).mMsgId == msgId) {
            return mCtlQueue.eraseAt(i);
        }
    }
    return false;
}

// ---- Reading a loop's pipe

namespace detail {

LoopPipeReader::LoopPipeReader(const char* kind, const char* source)
    : mKind(kind), mSource(source), mWatched(false), mTokens(), mNext(0), mEnd(0) {}

bool LoopPipeReader::next(int fd, int threadId, const char* threadName, int32_t* id, int32_t* param,
                          bool* pipeEmpty) {
    if (mNext == mEnd && !fill(fd, threadId, threadName)) {
        return false;
    }
    *id = mTokens[2 * mNext];
    *param = mTokens[2 * mNext + 1];
    ++mNext;
    if (pipeEmpty != nullptr) {
        *pipeEmpty = mNext == mEnd && mEnd < TOKEN_BATCH;
    }
    return true;
}

void LoopPipeReader::keepAlive(unsigned int line, unsigned int sub) const {
    if (mWatched) {
        ThreadManager::get()->keepAliveWatchdog(StatementInfo(mSource, "execute", line, sub));
    }
}

bool LoopPipeReader::fill(int fd, int threadId, const char* threadName) {
    constexpr ssize_t kTokenSize = 2 * sizeof(int32_t);
    ThreadManager* manager = ThreadManager::get();
    for (;;) {
        keepAlive(__LINE__, 1);
        if (mWatched) {
            manager->stopWatchdog(threadId);
        }
        const ssize_t got = read(fd, mTokens, sizeof mTokens);
        const int readErrno = errno;
        mWatched = manager->isRegisteredWatchdog(threadId);
        if (mWatched) {
            manager->startWatchdog(threadId);
        }
        keepAlive(__LINE__, 2);
        if (got > 0 && got % kTokenSize == 0) {
            mNext = 0;
            mEnd = static_cast<uint32_t>(got / kTokenSize);
            return true;
        }
        if (got >= 0 || readErrno != EINTR) {
            UTL_LOG(LEVEL_ERROR, "%s(%s) Error. read Ret:%u errno:%d !!Break msg loop!!", mKind,
                    threadName, static_cast<unsigned int>(got), readErrno);
            return false;
        }
        UTL_LOG(LEVEL_INFO, "%s(%s) Error. read Ret:%u errno:%d=EINTR Retry read", mKind,
                threadName, static_cast<unsigned int>(got), readErrno);
    }
}

}  // namespace detail

// ---- The loop

unsigned int MsgDrivenThread::execute() {
    int loopResult = 0;
    for (;;) {
        ThreadCtlMsg token;
        if (!mPipe.next(mReadFd, getId(), getName(), &token.mMsgId, &token.mParam)) {
            loopResult = -1;
            break;
        }
        reportSignalWriteFailure();
        if (token.mMsgId == MSG_ID_TIMER_SIGNAL) {
            executeTimeoutSignal(toUserTimerId(token.mParam));
            mLoopLog.flush();
            continue;
        }
        ThreadCtlMsg front;
        const bool dispatchable = selectFront(token, &front);
        mLoopLog.flush();
        if (!dispatchable) {
            continue;
        }
        const int result = dispatch(front);
        mLoopLog.flush();
        mPipe.keepAlive(__LINE__, 2);
        if (result != 0) {
            UTL_LOG(LEVEL_ERROR, "!!!!!!!! MsgDrivenThread(%s) Error. MsgId:0x%08x !!!!!!!!",
                    getName(), static_cast<unsigned int>(front.mMsgId));
        }
        if (hasRequestedStop()) {
            break;
        }
    }
    closeLoop();
    return static_cast<unsigned int>(loopResult);
}

void MsgDrivenThread::reportSignalWriteFailure() {
    detail::TimerSignal::WriteFailure failure = {};
    if (detail::loopTimerSignal().takeWriteFailure(&failure)) {
        UTL_LOG(LEVEL_ERROR,
                "MsgDrivenThread::TimeoutSignalHandler() Error. write Ret:%u errno:%d "
                "SysTimerNum=%d PIPE=%d",
                static_cast<unsigned int>(failure.mResult), failure.mErrno, failure.mNumber,
                failure.mFd);
    }
}

bool MsgDrivenThread::peekFront(ThreadCtlMsg* front) {
    SyncGuard guard(mQueueLock);
    if (mCtlQueue.isEmpty()) {
        return false;
    }
    *front = mCtlQueue.peek();
    return true;
}

// Pending interrupt, erase and find requests go first, whatever the token. Then the front entry
// is dispatched only when the token is its own (or carries its id): a token whose entry was
// already handled or erased is passed over.
bool MsgDrivenThread::selectFront(const ThreadCtlMsg& token, ThreadCtlMsg* front) {
    if (!peekFront(front)) {
        return false;
    }
    // The count is raised under the queue lock before a request's event is turned on, and
    // peekFront has taken that lock: a request whose event is on is never missed here.
    if (mRequestsPending.load(std::memory_order_relaxed) == 0) {
        return front->mMsgId != MSG_ID_WAKE_UP && token.mMsgId == front->mMsgId;
    }
    if (mInterruptEvent.isOn()) {
        handleInterrupt();
        // The interrupt's listener may have erased the front entry: look again.
        if (!peekFront(front)) {
            return false;
        }
    }
    if (mEraseEvent.isOn()) {
        mEraseResult = executeEraseMsg(mEraseJudgement);
        finishRequest(mEraseEvent);
        if (!peekFront(front)) {
            return false;
        }
    }
    if (mFindEvent.isOn()) {
        mFindResult = executeFindMsg(mFindJudgement, mPeekOutput);
        finishRequest(mFindEvent);
    }
    return front->mMsgId != MSG_ID_WAKE_UP && token.mMsgId == front->mMsgId;
}

void MsgDrivenThread::handleInterrupt() {
    if (executeReceiveMsg(RECEIVE_INTERRUPT, MSG_ID_NONE) == 0) {
        mInterruptResult = true;
    }
    finishRequest(mInterruptEvent);
}

// Takes the request's wake-up entry out of the queue and releases the requester.
void MsgDrivenThread::finishRequest(Event& done) {
    SyncGuard guard(mQueueLock);
    eraseMsgFromCtlQueue(MSG_ID_WAKE_UP);
    done.setOff();
}

int MsgDrivenThread::dispatch(const ThreadCtlMsg& front) {
    switch (front.mMsgId) {
        case MSG_ID_SYNC: {
            const int result = executeReceiveMsg(RECEIVE_SYNC, MSG_ID_SYNC);
            if (result == 0) {
                mSyncResult = true;
            }
            mSyncEvent.setOff();
            return result;
        }
        case MSG_ID_START_TIMER: {
            const int started = executeStartTimer(front.mParam);
            const bool removed = removeFront();
            finishTimerStart(front.mParam);
            return started != 0 && removed ? 0 : -1;
        }
        case MSG_ID_STOP_TIMER: {
            const int result = executeStopTimer(front.mParam, mLoopLog);
            return removeFront() ? result : -1;
        }
        case MSG_ID_TIMEOUT:
            return executeTimeout(front.mParam);
        case MSG_ID_STOP:
            return removeFront() ? 0 : -1;
        default:
            return executeReceiveMsg(RECEIVE_POSTED, front.mMsgId);
    }
}

bool MsgDrivenThread::removeFront() {
    SyncGuard guard(mQueueLock);
    return mCtlQueue.pop();
}

// Delivery from a byte queue: the message is taken into the receive buffer under the queue lock
// and handed to the listener after the lock is released. A posted message whose slot carries
// another id than its control entry means the queues disagree: such slots are dropped (logged)
// until the ids match again.
int MsgDrivenThread::executeReceiveMsg(ReceiveKind kind, int msgId) {
    for (;;) {
        int dataId = MSG_ID_NONE;
        {
            SyncGuard guard(mQueueLock);
            if (kind == RECEIVE_INTERRUPT) {
                if (mInterruptQueue.isEmpty()) {
                    return -1;
                }
                const unsigned int count = mInterruptQueue.getCount();
                popSlot(mInterruptQueue,
                        count < mReceiveBuffer.maxSize() ? count : mReceiveBuffer.maxSize());
                break;
            }
            if (mCtlQueue.isEmpty() || mDataQueue.isEmpty()) {
                return -1;
            }
            popSlot(mDataQueue, mReceiveBuffer.maxSize());
            mDataQueueOverflow = false;
            if (kind == RECEIVE_SYNC) {
                mCtlQueue.pop();
                break;
            }
            if (!mReceiveBuffer.getMsgId(&dataId)) {
                return -1;
            }
            if (dataId == msgId) {
                mCtlQueue.pop();
                break;
            }
        }
        UTL_LOG(LEVEL_ERROR,
                "!!!!!!!! MsgDrivenThread(%s) MismatchedMsg... DataQueueMsgId:0x%08x "
                "CtlMsgId:0x%08x Erased Data !!!!!!!!",
                getName(), static_cast<unsigned int>(dataId), static_cast<unsigned int>(msgId));
    }
    deliver();
    return 0;
}

void MsgDrivenThread::popSlot(Queue<unsigned char>& queue, unsigned int length) {
    queue.popBlock(mReceiveBuffer.buffer(), length < queue.getCount() ? length : queue.getCount());
}

void MsgDrivenThread::deliver() {
    mLoopLog.flush();
    if (mListener != nullptr) {
        mListener->receiveMsg(getId(), mReceiveBuffer);
    }
}

// Waiters are released under the queue lock after it is closed: a requester that queued its
// entry before the close is released here, and one that comes later is refused by postLocked.
void MsgDrivenThread::closeLoop() {
    eraseAllTimer();
    mLoopLog.flush();
    SyncGuard guard(mQueueLock);
    mClosed = true;
    mInterruptEvent.setOff();
    mSyncEvent.setOff();
    mEraseEvent.setOff();
    mFindEvent.setOff();
    mTimerStartEvent.setOff();
    mLoopState.store(ENDED, std::memory_order_release);
}

// ---- Timers

TimerInfo* MsgDrivenThread::findTimer(int timerId) {
    Map<int, TimerInfo>::Entry* found = mTimers.find(timerId);
    return found != nullptr ? &found->mValue : nullptr;
}

TimerInfo* MsgDrivenThread::findTimerStopEntry(int timerId) {
    Map<int, TimerInfo>::Entry* found = mStopEntries.find(timerId);
    return found != nullptr ? &found->mValue : nullptr;
}

int MsgDrivenThread::toUserTimerId(int sysTimerNumber) {
    SyncGuard guard(mQueueLock);
    return detail::userTimerIdOf(mTimers, sysTimerNumber);
}

int MsgDrivenThread::registerTimer(unsigned int interval, unsigned int countLimit, int runOn) {
    if (!acceptsRequests()) {
        return kNoTimer;
    }
    TimerInfo info = detail::makeTimerInfo(nullptr, interval, countLimit, runOn);
    SyncGuard guard(mQueueLock);
    return detail::enterTimer(mTimers, info, &mNextUserTimerId, {&mTimers, &mStopEntries});
}

int MsgDrivenThread::setTimer(unsigned int interval, int noWait, unsigned int countLimit,
                              int runOn) {
    const int timerId = registerTimer(interval, countLimit, runOn);
    if (timerId == kNoTimer) {
        return kNoTimer;
    }
    if (!startTimer(timerId, noWait)) {
        SyncGuard guard(mQueueLock);
        removeTimer(timerId);
        return kNoTimer;
    }
    return timerId;
}

// From another thread the start travels as a control message; the caller, alone under the
// sender lock, waits until the loop has handled that start (armed or failed).
bool MsgDrivenThread::startTimer(int timerId, int noWait) {
    if (!acceptsRequests()) {
        return false;
    }
    if (isCallerLoop()) {
        const int started = executeStartTimer(timerId);
        mLoopLog.flush();
        return started == 1 || started == 3;
    }
    SyncGuard senderGuard(mSenderLock);
    CountingPointer<Event> running;
    {
        detail::DeferredLog log;
        SyncGuard tokenGuard(mTokenLock);
        SyncGuard guard(mQueueLock);
        TimerInfo* info = findTimer(timerId);
        if (info == nullptr) {
            return false;
        }
        running = info->mRunning;
        if (noWait == 0) {
            mAwaitedTimerStart = timerId;
            mTimerStartEvent.setOn();
        }
        if (!postLocked(MSG_ID_START_TIMER, timerId, log)) {
            mAwaitedTimerStart = kNoTimer;
            mTimerStartEvent.setOff();
            return false;
        }
    }
    if (noWait != 0) {
        return true;
    }
    awaitOff(mTimerStartEvent);
    return running->isOn();
}

void MsgDrivenThread::finishTimerStart(int timerId) {
    SyncGuard guard(mQueueLock);
    if (timerId == mAwaitedTimerStart) {
        mAwaitedTimerStart = kNoTimer;
        mTimerStartEvent.setOff();
    }
}

// From another thread the timer is handed from the timer map over to the stop entries: its
// expiry signals find no timer any more, its id stays reserved, and the loop deletes the POSIX
// timer and turns the running event off when it handles the stop message.
bool MsgDrivenThread::killTimer(int timerId, int noWait) {
    if (!isLoopRunning()) {
        return false;
    }
    if (isCallerLoop()) {
        {
            SyncGuard guard(mQueueLock);
            TimerInfo* info = findTimer(timerId);
            if (info == nullptr) {
                return false;
            }
            eraseTimerByTimerInfo(info, timerId, mLoopLog);
            info->mRunning->setOff();
            removeTimer(timerId);
        }
        mLoopLog.flush();
        return true;
    }
    SyncGuard senderGuard(mSenderLock);
    CountingPointer<Event> running;
    {
        detail::DeferredLog log;
        SyncGuard tokenGuard(mTokenLock);
        SyncGuard guard(mQueueLock);
        TimerInfo* info = findTimer(timerId);
        if (info == nullptr || !mStopEntries.insert(timerId, *info)) {
            return false;
        }
        running = info->mRunning;
        mTimers.erase(timerId);
        if (!postLocked(MSG_ID_STOP_TIMER, timerId, log)) {
            mTimers.insert(timerId, *findTimerStopEntry(timerId));
            mStopEntries.erase(timerId);
            return false;
        }
    }
    if (noWait == 0) {
        awaitOff(*running);
    }
    return true;
}

void MsgDrivenThread::eraseAllTimer() {
    detail::DeferredLog log;
    SyncGuard guard(mQueueLock);
    for (unsigned int i = 0; i < mTimers.getCount(); ++i) {
        Map<int, TimerInfo>::Entry& entry = mTimers.getAt(i);
        eraseTimerByTimerInfo(&entry.mValue, entry.mKey, log);
        entry.mValue.mRunning->setOff();
    }
    while (mStopEntries.getCount() > 0) {
        executeStopTimer(mStopEntries.getAt(0).mKey, log);
    }
}

unsigned int MsgDrivenThread::remTimerIdCount() const {
    SyncGuard guard(mQueueLock);
    return mTimers.getMax() - mTimers.getCount();
}

void MsgDrivenThread::onEraseTimer(int) {}

// Removes timer `timerId` from the timer map, with its signal record; the POSIX timer must have
// been deleted. Under the queue lock.
bool MsgDrivenThread::removeTimer(int timerId) {
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return false;
    }
    detail::TimerSignal::releaseRecord(info->mSignalRecord);
    return mTimers.erase(timerId);
}

void MsgDrivenThread::releaseAllTimers() {
    detail::DeferredLog log;
    SyncGuard guard(mQueueLock);
    while (mTimers.getCount() > 0) {
        const int timerId = mTimers.getAt(0).mKey;
        eraseTimerByTimerInfo(findTimer(timerId), timerId, log);
        removeTimer(timerId);
    }
}

bool MsgDrivenThread::startTimerByTimerInfo(TimerInfo* info) {
    const int32_t number = getNextSysTimerNumber();
    switch (detail::loopTimerSignal().arm(info, mWriteFd, number)) {
        case detail::TimerSignal::ARMED:
            return true;
        case detail::TimerSignal::CREATE_FAILED:
            mLoopLog.add(detail::LEVEL_ERROR,
                         "MsgDrivenThread(%s) timer_create SysTimerId:0x%08x errno:%d\n", getName(),
                         static_cast<unsigned int>(number), errno);
            return false;
        case detail::TimerSignal::SETTIME_FAILED:
            mLoopLog.add(detail::LEVEL_ERROR,
                         "MsgDrivenThread(%s) timer_settime SysTimerId:0x%08x errno:%d\n",
                         getName(), static_cast<unsigned int>(number), errno);
            return false;
    }
    return false;
}

// Deletes the POSIX timer and takes the timer's queued expiries out of the control queue.
bool MsgDrivenThread::eraseTimerByTimerInfo(TimerInfo* info, int timerId,
                                            detail::DeferredLog& log) {
    if (info == nullptr) {
        return false;
    }
    if (info->mSysTimerNumber == -1) {
        return true;
    }
    if (!detail::TimerSignal::disarm(info)) {
        log.add(detail::LEVEL_ERROR, "MsgDrivenThread(%s) timer_delete SysTimerNum:0x%08x errno:%d",
                getName(), static_cast<unsigned int>(info->mSysTimerNumber), errno);
        return false;
    }
    for (unsigned int i = 0; i < mCtlQueue.getCount();) {
        const ThreadCtlMsg& entry = mCtlQueue.at(i);
        if (entry.mMsgId == MSG_ID_TIMEOUT && entry.mParam == timerId) {
            mCtlQueue.eraseAt(i);
        } else {
            ++i;
        }
    }
    return true;
}

// A signal becomes a queued expiry only while the timer runs and fewer expiries wait than it
// may keep: one, or two for a run-on timer, so a busy loop is never flooded.
void MsgDrivenThread::executeTimeoutSignal(int timerId) {
    SyncGuard tokenGuard(mTokenLock);
    SyncGuard guard(mQueueLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr || info->mPending >= 2 || (info->mPending == 1 && info->mRunOn == 0) ||
        !info->mRunning->isOn()) {
        return;
    }
    if (postLocked(MSG_ID_TIMEOUT, timerId, mLoopLog)) {
        ++info->mPending;
    }
}

// An expiry of a timer that was killed while it waited in the queue is dropped.
int MsgDrivenThread::executeTimeout(int timerId) {
    {
        SyncGuard guard(mQueueLock);
        if (!mCtlQueue.pop()) {
            return -1;
        }
        if (findTimer(timerId) == nullptr) {
            return 0;
        }
    }
    if (!storeTimerMsg(timerId, &mReceiveBuffer)) {
        return -1;
    }
    deliver();
    switch (TimeoutPostHandling(timerId)) {
        case 0:
            return -1;
        case 3:
            mLoopLog.flush();
            onEraseTimer(timerId);
            return 0;
        default:
            return 0;
    }
}

// After an expiry was delivered (or erased): 1 no such timer, 2 the timer goes on, 0 it could
// not be re-armed, 3 it reached its count limit and was removed.
int MsgDrivenThread::TimeoutPostHandling(int timerId) {
    SyncGuard guard(mQueueLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return 1;
    }
    if (info->mPending != 0) {
        --info->mPending;
    }
    ++info->mExpiryCount;
    if (info->mCountLimit == 0 || info->mExpiryCount < info->mCountLimit) {
        if (info->mRunOn != 0) {
            return 2;
        }
        return eraseTimerByTimerInfo(info, timerId, mLoopLog) && startTimerByTimerInfo(info) ? 2
                                                                                             : 0;
    }
    eraseTimerByTimerInfo(info, timerId, mLoopLog);
    info->mRunning->setOff();
    removeTimer(timerId);
    return 3;
}

// 0 failed, 1 started, 2 no such timer, 3 already running.
int MsgDrivenThread::executeStartTimer(int timerId) {
    SyncGuard guard(mQueueLock);
    TimerInfo* info = findTimer(timerId);
    if (info == nullptr) {
        return 2;
    }
    if (info->mRunning->isOn()) {
        return 3;
    }
    info->mExpiryCount = 0;
    if (!startTimerByTimerInfo(info)) {
        return 0;
    }
    info->mRunning->setOn();
    return 1;
}

int MsgDrivenThread::executeStopTimer(int timerId, detail::DeferredLog& log) {
    SyncGuard guard(mQueueLock);
    TimerInfo* info = findTimerStopEntry(timerId);
    if (info == nullptr) {
        return 0;
    }
    const int result = eraseTimerByTimerInfo(info, timerId, log) ? 0 : -1;
    detail::TimerSignal::releaseRecord(info->mSignalRecord);
    CountingPointer<Event> running = info->mRunning;
    mStopEntries.erase(timerId);
    running->setOff();
    return result;
}

int MsgDrivenThread::getNextSysTimerNumber() {
    mNextSysTimerNumber =
        detail::nextSysTimerNumber(mNextSysTimerNumber, {&mTimers, &mStopEntries});
    return mNextSysTimerNumber;
}

}  // namespace utl
