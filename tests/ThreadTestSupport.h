// Test support for threads and message loops: bounded waits and a recording listener.
#ifndef UTL_TESTS_THREAD_TEST_SUPPORT_H
#define UTL_TESTS_THREAD_TEST_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestMessages.h"
#include "UtlMsg.h"
#include "UtlMsgDrivenThread.h"
#include "UtlThreadManager.h"

// Every wait of the threaded tests is bounded by this, so that a fault fails a test instead of
// hanging it; generous for sanitizers and emulation.
constexpr std::chrono::seconds kTestTimeout(60);

// Waits until `done()` holds, polling; false when it still does not after `timeout`.
inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = kTestTimeout) {
    const auto giveUp = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The descriptors the process has open.
inline std::set<int> openDescriptors() {
    std::set<int> fds;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(dir)) {
            fds.insert(std::atoi(entry->d_name));
        }
        closedir(dir);
    }
    return fds;
}

// The write end of the pipe that a loop or timer thread made in its constructor: the one new
// write-only descriptor since `before`; -1 when there is none.
inline int newPipeWriteEnd(const std::set<int>& before) {
    for (int fd : openDescriptors()) {
        if (before.count(fd) == 0 && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) {
            return fd;
        }
    }
    return -1;
}

// A thread that runs one blocking call, and can tell when it has gone to sleep in it.
class Sender {
  public:
    template <class Body>
    explicit Sender(Body body)
        : mThread([this, body] {
              mTid = utl::ThreadManager::getCallerId();
              body();
              mDone = true;
          }) {}
    ~Sender() { join(); }

    // Waits until the thread has slept in the kernel (blocked in its call) through 20 looks a
    // millisecond apart, or has finished; false when neither happens in time. The repeated look
    // passes over short sleeps on the way, such as an allocator's lock under a sanitizer.
    bool awaitBlocked() {
        int asleep = 0;
        return waitUntil([this, &asleep] {
            if (mDone) {
                return true;
            }
            std::ifstream file("/proc/self/task/" + std::to_string(mTid.load()) + "/stat");
            std::string stat;
            const bool sleeping =
                mTid != 0 && std::getline(file, stat) && stat.find(") S ") != std::string::npos;
            asleep = sleeping ? asleep + 1 : 0;
            return asleep >= 20;
        });
    }
    void join() {
        if (mThread.joinable()) {
            mThread.join();
        }
    }

  private:
    std::atomic<int> mTid{0};
    std::atomic<bool> mDone{false};
    std::thread mThread;
};

// A one-shot gate: threads wait until it is opened.
class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> guard(mMutex);
        mOpen = true;
        mCondition.notify_all();
    }
    // False when the gate did not open in time.
    bool wait(std::chrono::milliseconds timeout = kTestTimeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCondition.wait_for(lock, timeout, [this] { return mOpen; });
    }

  private:
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mOpen = false;
};

// What a listener received: the id and, for ValueMsg and TimerMsg, the value or timer id.
struct Received {
    int mId;
    int32_t mValue;
    int mThreadId;
};

// Records every message; `onReceive` (optional) runs in the loop after recording.
class RecordingListener : public utl::ThreadMsgListener {
  public:
    void receiveMsg(int threadId, utl::ThreadRawMsg& raw) override {
        Received r = {utl::MsgDrivenThread::MSG_ID_NONE, 0, threadId};
        raw.getMsgId(&r.mId);
        if (r.mId == utl::TimerMsg::ID) {
            utl::TimerMsg timer;
            timer.restoreFrom(raw);
            r.mValue = timer.getTimerId();
        } else {
            ValueMsg value(0);
            if (value.restoreFrom(raw)) {
                r.mValue = value.mValue;
            }
        }
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mReceived.push_back(r);
        }
        if (onReceive) {
            onReceive(r);
        }
    }

    std::vector<Received> received() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mReceived;
    }
    size_t count() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mReceived.size();
    }
    std::vector<int> ids() const {
        std::vector<int> ids;
        for (const Received& r : received()) {
            ids.push_back(r.mId);
        }
        return ids;
    }

    std::function<void(const Received&)> onReceive;

  private:
    mutable std::mutex mMutex;
    std::vector<Received> mReceived;
};

#endif  // UTL_TESTS_THREAD_TEST_SUPPORT_H
