// The real-time signals that carry POSIX timer expiries into the pipes of the library's loops,
// and the timer bookkeeping that the message thread and the shared timer thread share (not
// installed).
#ifndef UTL_TIMER_SIGNAL_H
#define UTL_TIMER_SIGNAL_H

#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "UtlArray.h"
#include "UtlMsgDrivenThread.h"
#include "UtlSync.h"

namespace utl {
namespace detail {

// What an expiry signal carries to the handler, by pointer in its signal value: the pipe to
// write to and the number of the timer's current arming. The kernel's own timer id is not used
// to tell timers apart because an emulated system may report a different one in the signal.
// Records come from a process-wide pool and are never freed, so a handler that runs late never
// reads freed memory; a record whose timer was deleted holds {-1, 0}.
struct TimerSignalRecord {
    std::atomic<int32_t> mFd{-1};
    std::atomic<int32_t> mNumber{0};
    TimerSignalRecord* mNextFree = nullptr;  // Guarded by the pool's lock.
};

static_assert(std::atomic<int32_t>::is_always_lock_free, "the signal handler reads atomics");

// One timer signal (SIGRTMIN + offset) and its handler. The handler saves and restores errno,
// takes no lock and never blocks: it writes the token {0x80000013, arming number} to the record's
// pipe, whose write end does not block. A write that fails is noted, and logged later by a thread
// that may log (`takeWriteFailure`).
class TimerSignal {
  public:
    // A token write that the handler could not make.
    struct WriteFailure {
        int32_t mResult;
        int32_t mErrno;
        int32_t mNumber;
        int32_t mFd;
    };

    explicit TimerSignal(int offsetFromRtMin);
    TimerSignal(const TimerSignal&) = delete;
    TimerSignal& operator=(const TimerSignal&) = delete;

    // How arming a timer ended; on a failure errno is that of the failed call.
    enum ArmResult { ARMED, CREATE_FAILED, SETTIME_FAILED };

    int number() const { return mSignal; }
    // Installs the handler unless it is installed; false with errno set when sigaction fails
    // (the next call tries again). `installedNow`, when given, tells whether this call did it.
    bool install(bool* installedNow = nullptr);
    // The latest failed write not yet reported; false when there is none. Each failure is
    // handed to one caller; when several happen between two calls, the latest is reported.
    bool takeWriteFailure(WriteFailure* out);

    // Creates a POSIX timer on the monotonic clock that raises this signal with `record`;
    // false with errno set.
    bool createTimer(TimerSignalRecord* record, timer_t* timer) const;
    // Arms `timer` relative to now with first expiry and period `intervalMsec`.
    static bool armTimer(timer_t timer, int32_t intervalMsec);

    // Creates and arms the POSIX timer of `info` with its interval, its expiries carried as
    // {`fd`, `number`} by its signal record; `number` becomes its system timer number. On a
    // failure nothing stays created and the record carries nothing.
    ArmResult arm(TimerInfo* info, int fd, int32_t number) const;
    // Deletes the POSIX timer of `info`, empties its signal record and clears handle, system
    // timer number (-1) and pending count. True at once when it is not armed; false with errno
    // set, and nothing changed, when timer_delete fails.
    static bool disarm(TimerInfo* info);

    static TimerSignalRecord* acquireRecord();
    static void releaseRecord(TimerSignalRecord* record);

  private:
    static void handle(int signal, siginfo_t* info, void* context);

    const int mSignal;
    SyncObject mInstallLock;
    bool mInstalled;  // Guarded by mInstallLock.
    std::atomic<uint32_t> mFailures;
    std::atomic<uint32_t> mReported;
    std::atomic<int32_t> mFailedResult;
    std::atomic<int32_t> mFailedErrno;
    std::atomic<int32_t> mFailedNumber;
    std::atomic<int32_t> mFailedFd;
};

// SIGRTMIN + 1: the timers of shared timer threads.
TimerSignal& sharedTimerSignal();
// SIGRTMIN + 2: the timers of message threads.
TimerSignal& loopTimerSignal();

// Timer bookkeeping of a thread, under the lock that guards its timer maps. Ids and numbers in
// use are those of every map given.
using TimerMaps = std::initializer_list<const Map<int, TimerInfo>*>;

// A stopped timer of `interval` ms for `owner` (kept in the record's first word) with a new
// running event; its running event is null when no memory was left. Made outside the table lock.
TimerInfo makeTimerInfo(void* owner, unsigned int interval, unsigned int countLimit, int runOn);
// Enters `info` (from makeTimerInfo) into `timers` with a signal record under the id
// `*nextUserId`, which then moves on past every id held in `held`. The timer id, or -1 when
// `info` has no running event, `timers` is full or no signal record can be had.
int enterTimer(Map<int, TimerInfo>& timers, TimerInfo& info, int32_t* nextUserId, TimerMaps held);
// The user timer id after `id`: ids run 1 ... INT32_MAX round-robin, wrapping to 1, skipping
// every id held in `maps`.
int32_t nextUserTimerId(int32_t id, TimerMaps maps);
// The system timer number after `last`: from INT32_MAX again 1, skipping numbers held in `maps`
// but never beyond INT32_MAX; from INT32_MAX - 1 it is INT32_MAX at once.
int32_t nextSysTimerNumber(int32_t last, TimerMaps maps);
// The user id of the timer in `timers` whose current arming is `sysTimerNumber`; -1 when none
// (and for -1).
int userTimerIdOf(const Map<int, TimerInfo>& timers, int32_t sysTimerNumber);
}  // namespace detail
}  // namespace utl

#endif  // UTL_TIMER_SIGNAL_H
