// The real-time signals that carry POSIX timer expiries into the pipes of the library's loops
// (not installed). Shared by the message thread's timers and the shared timer thread.
#ifndef UTL_TIMER_SIGNAL_H
#define UTL_TIMER_SIGNAL_H

#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdint>

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

    int number() const { return mSignal; }
    // Installs the handler unless it is installed; false with errno set when sigaction fails
    // (the next call tries again).
    bool install();
    // The latest failed write not yet reported; false when there is none. Each failure is
    // handed to one caller; when several happen between two calls, the latest is reported.
    bool takeWriteFailure(WriteFailure* out);

    // Creates a POSIX timer on the monotonic clock that raises this signal with `record`;
    // false with errno set.
    bool createTimer(TimerSignalRecord* record, timer_t* timer) const;
    // Arms `timer` relative to now with first expiry and period `intervalMsec`.
    static bool armTimer(timer_t timer, int32_t intervalMsec);

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

// SIGRTMIN + 2: the timers of message threads.
TimerSignal& loopTimerSignal();

}  // namespace detail
}  // namespace utl

#endif  // UTL_TIMER_SIGNAL_H
