// Elapsed-time counters of utl: milliseconds on the monotonic clock.
//
// A `TimeCounter` object measures from its own start(). The keyed form names a counter by an
// id instead, so that one place or thread may start it and another watch or stop it; up to 50
// ids run at a time, process-wide. Times are unsigned 32-bit millisecond ticks that wrap about
// every 49.7 days; differences stay right across one wrap. `~0u` is the failure value.
//
//   utl::TimeCounter counter;
//   counter.start();
//   // ... the work ...
//   uint32_t msec = counter.stop();            // ~0u when it was not started
//
//   utl::TimeCounter::start(42);               // from any thread
//   uint32_t taken = utl::TimeCounter::stop(42);
#ifndef UTL_TIME_COUNTER_H
#define UTL_TIME_COUNTER_H

#include <cstdint>

namespace utl {

// A stopwatch in milliseconds.
//
// The object form has no lock: an object belongs to one thread. The keyed (static) form may be
// called from any thread; its ids live in one process-wide table of 50 entries, guarded by its
// own lock and made at library load, which never grows: an id that is never stopped keeps its
// place for the life of the process. Every failure is logged as one error line under the
// library's log type and returned as false or ~0u.
//
//   object state | start()                   | watch()               | stop()
//   -------------+---------------------------+-----------------------+-------------------------
//   not started  | started (true)            | ~0u, logged           | ~0u, logged
//   started      | restarted from now (true) | msec since start()    | msec since start(),
//                |                           |                       | then not started
//
//   id state     | start(id)                 | watch(id)             | stop(id)
//   -------------+---------------------------+-----------------------+-------------------------
//   not running  | running (true); false and | ~0u, logged           | ~0u, logged
//                | logged when 50 run        |                       |
//   running      | restarted from now (true) | msec since start(id)  | msec since start(id),
//                |                           |                       | then not running
//
// A clock failure makes start() return false (and leaves a running object running, with its
// start time invalid, so that its next watch() reports the elapsed time from an invalid tick)
// and watch() or stop() return ~0u.
class TimeCounter {
  public:
    TimeCounter();
    virtual ~TimeCounter();

    // The monotonic clock in milliseconds, modulo 2^32; ~0u, logged, when the clock cannot be
    // read (a tick that happens to be 0xFFFFFFFF reads as a failure too).
    static uint32_t getTickTime();
    // Milliseconds from tick `begin` to tick `now`, right across one wrap of the tick.
    static uint32_t getElapsedTime(uint32_t begin, uint32_t now) { return now - begin; }

    // Starts, or restarts, this counter; false, logged, when the clock cannot be read.
    bool start();
    // Milliseconds since start(); ~0u, logged, when not started or the clock cannot be read.
    uint32_t watch() const;
    // As watch(), then not started.
    uint32_t stop();

    // Starts, or restarts, the counter `id`. False, logged, when 50 other ids are running or the
    // clock cannot be read; the id is then not running. Blocks only on the table's lock.
    static bool start(unsigned int id);
    // Milliseconds since start(id); ~0u, logged, when `id` is not running or a tick is invalid.
    static uint32_t watch(unsigned int id);
    // As watch(id), then `id` is not running (also when watch(id) failed).
    static uint32_t stop(unsigned int id);

  private:
    int32_t mHasStarted;  // 1 from a successful start() until stop().
    uint32_t mStartTime;  // The tick of the last start(); ~0u when not started.
};

}  // namespace utl

#endif  // UTL_TIME_COUNTER_H
