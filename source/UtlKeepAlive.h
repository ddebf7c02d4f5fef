// Liveness reports around the library's own blocking calls (not installed).
#ifndef UTL_KEEP_ALIVE_H
#define UTL_KEEP_ALIVE_H

#include <atomic>

namespace utl {

class ThreadManager;

namespace detail {

// The process-wide thread manager while it exists; null before it is made and after it is
// destroyed.
extern std::atomic<ThreadManager*> gThreadManager;

void reportAlive(ThreadManager* manager, const char* file, const char* function, unsigned int line,
                 unsigned int sub);

// Reports the calling thread alive at (file, function, line, sub) to the process-wide thread
// manager's watchdog; without a manager it costs one load, so hot paths may report freely.
inline void keepAlive(const char* file, const char* function, unsigned int line, unsigned int sub) {
    if (ThreadManager* manager = gThreadManager.load(std::memory_order_acquire)) {
        reportAlive(manager, file, function, line, sub);
    }
}

// Brackets a blocking call: reports sub-step 1 when made and sub-step 2 when destroyed, so that
// the watchdog tells a long system call from a hung thread.
class BlockingCall {
  public:
    BlockingCall(const char* file, const char* function, unsigned int line)
        : mFile(file), mFunction(function), mLine(line) {
        keepAlive(mFile, mFunction, mLine, 1);
    }
    ~BlockingCall() { keepAlive(mFile, mFunction, mLine, 2); }

    BlockingCall(const BlockingCall&) = delete;
    BlockingCall& operator=(const BlockingCall&) = delete;

  private:
    const char* mFile;
    const char* mFunction;
    unsigned int mLine;
};

}  // namespace detail
}  // namespace utl

#endif  // UTL_KEEP_ALIVE_H
