// A short tour of utl: a sorted map of fixed capacity, a bit stream packing header fields, text
// conversion, logging, an event that one thread waits on with a timeout, a message thread that
// receives a posted, a synchronous and a timer message, the watchdog catching a stuck thread, a
// shared message thread serving two listeners, a Timer, an HTTP date read back, a memory pool,
// files: a UTF-16 text file written and read back line by line, a directory listing and a log
// copied into a file, and a one-second sine written as a WAVE file and its format read back.
#include <Utl.h>

#include <stdlib.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

namespace {

void showFixedCapacityMap() {
    std::printf("-- Map: three keys fit, the fourth is refused\n");
    utl::Map<int, int> squares(3, 0);
    for (int key : {30, 10, 20, 40}) {
        const bool stored = squares.insert(key, key * key);
        std::printf("insert(%d) -> %s\n", key, stored ? "stored" : "refused (full)");
    }
    squares.insert(10, -1);
    for (unsigned int i = 0; i < squares.getCount(); ++i) {
        const utl::Pair<int, int>& entry = squares.getAt(i);
        std::printf("  key %d value %d\n", entry.mKey, entry.mValue);
    }
}

void showBitStream() {
    std::printf("-- BitStream: a 3-bit version, a 13-bit length and a 16-bit checksum\n");
    unsigned char buffer[4] = {};
    utl::BitStream writer(buffer, sizeof buffer);
    writer.writeBitToUint8(5, 3, -1);
    writer.writeBitToUint16(1234, 13, -1);
    writer.writeBitToUint16(0xBEEF, 16, -1);
    std::printf("bytes %02X %02X %02X %02X, %u bits written\n", buffer[0], buffer[1], buffer[2],
                buffer[3], writer.getBitStreamBitSize());

    utl::BitStream reader(buffer, sizeof buffer);
    const unsigned int version = reader.readBitToUint8(3, -1);
    const unsigned int length = reader.readBitToUint16(13, -1);
    const unsigned int checksum = reader.readBitToUint16(16, -1);
    std::printf("version %u, length %u, checksum %04X\n", version, length, checksum);
}

void showTextConversion() {
    std::printf("-- Text: Shift_JIS to UTF-8, and the full-width digits made half-width\n");
    char utf8[32];
    utl::convertStrFromSjisToUtf8(utf8, sizeof utf8, "\x82\xA0\x82\xA2 \x82\x50\x82\x51");
    char narrow[32];
    utl::convertAttrib(narrow, sizeof narrow, utf8, utl::HANKAKU_ZENKAKU_PAIR, 1, 0);
    std::printf("%s -> %s\n", utf8, narrow);
}

void showLogging() {
    std::printf("-- Logging: a registered type at information level\n");
    registerLogType(100, "[tour] ", 3);
    applog(100, 3, "information passes, %d of them", 1);
    applog(100, 4, "detail is filtered out");
    std::fflush(stdout);
}

void showTimedEvent() {
    std::printf("-- Event: a wait that times out, then one that another thread ends\n");
    utl::Event ready(0, utl::Event::TWO_WAY);
    const int first = ready.waitToOn(50);
    std::thread worker([&ready] { ready.setOn(); });
    const int second = ready.waitToOn(5000);
    worker.join();
    std::printf("first wait %s, second wait %s\n",
                first == utl::Event::WAIT_TIMEOUT ? "timed out" : "did not time out",
                second == utl::Event::WAIT_OK ? "woken" : "failed");
}

// A message with a text body.
class Greeting : public utl::Msg {
  public:
    static constexpr int ID = 1;
    explicit Greeting(const char* text = "") : utl::Msg(ID) {
        utl::copyStrBase(mText, sizeof mText, text, ~0u, 1);
    }
    void storeDataTo(utl::MsgDataBroker* broker) const override { broker->set(mText); }
    void restoreDataFrom(utl::MsgDataBroker& broker) override { broker.get(mText, sizeof mText); }
    char mText[32];
};

// Prints what arrives, after its name; a message with id 2 keeps the loop busy for a second, long
// enough for the watchdog to take the thread for stuck.
class Printer : public utl::ThreadMsgListener {
  public:
    explicit Printer(const char* name = "") : mName(name) {}
    void receiveMsg(int, utl::ThreadRawMsg& raw) override {
        int id = 0;
        raw.getMsgId(&id);
        if (id == Greeting::ID) {
            Greeting greeting;
            greeting.restoreFrom(raw);
            std::printf("  %sreceived \"%s\"\n", mName, greeting.mText);
        } else if (id == utl::TimerMsg::ID) {
            utl::TimerMsg timer;
            timer.restoreFrom(raw);
            std::printf("  %stimer %d expired\n", mName, timer.getTimerId());
            timerFired.setOn();
        } else if (id == 2) {
            std::printf("  busy for a second...\n");
            std::fflush(stdout);
            utl::Thread::sleep(1000);
        }
    }
    utl::Event timerFired{0, utl::Event::ONE_WAY};

  private:
    const char* mName;
};

// Reports the timeouts of the watched thread.
class StuckReporter : public utl::WatchdogTimerListener {
  public:
    void onTime(int id, const utl::WatchdogInfoMap&) override {
        std::printf("  watchdog: thread %d did not report within its alive time\n", id);
        std::fflush(stdout);
    }
};

void showMessageThread() {
    std::printf(
        "-- MsgDrivenThread: a posted, a synchronous and a timer message; then the "
        "watchdog\n");
    Printer printer;
    StuckReporter reporter;
    utl::ThreadManager::get()->setWatchdogWatchInterval(50);
    utl::MsgDrivenThread thread(64, 8, "tour", 2);
    // Watched, with an alive time of 300 ms; wait until the loop runs.
    thread.start(&printer, 1, 300, &reporter, 1, 0);
    thread.postMsg(Greeting("posted"));
    const bool handled = thread.sendMsgSync(Greeting("sent synchronously"));
    std::printf("  sendMsgSync returned %s\n", handled ? "true" : "false");
    const int timerId = thread.setTimer(100, 0, 1, 0);  // once, in 100 ms
    std::printf("  timer %d set\n", timerId);
    printer.timerFired.waitToOn(5000);
    // Idle in its read the thread is never taken for stuck; busy in its listener it is. The
    // library logs the timeout, and the thread's return to life at its next report.
    thread.sendMsgSync(2);
    thread.stop(1, 5000);
}

void showSharedThread() {
    std::printf("-- MsgDrivenSharedThread: one loop, two listeners\n");
    Printer display("display: ");
    Printer audio("audio: ");
    utl::MsgDrivenSharedThread shared(64, 8, 2, "shared", 2);
    shared.attachMsgListener(&display);
    shared.attachMsgListener(&audio);
    shared.start(0, 0, nullptr, 1, 0);
    shared.sendMsgSync(Greeting("to everyone"));
    shared.sendMsgSync(&display, Greeting("to display alone"));
    shared.setTimer(&audio, 50, 0, 1, 0);  // once, to audio alone
    audio.timerFired.waitToOn(5000);
    shared.stop(1, 5000);
}

// Counts the expiries of a Timer.
class Ticker : public utl::TimerListener {
  public:
    void onTime(int) override {
        std::printf("  tick %d\n", ++mTicks);
        if (mTicks == 3) {
            done.setOn();
        }
    }
    utl::Event done{0, utl::Event::ONE_WAY};

  private:
    int mTicks = 0;  // Timer thread only.
};

void showTimer() {
    std::printf("-- Timer: three expiries 20 ms apart, in the timer's own thread\n");
    Ticker ticker;
    utl::Timer timer(&ticker, 20, 0, 0, nullptr, 3, 0, "tour timer");
    timer.start(0);
    ticker.done.waitToOn(5000);
    // The count limit stops the timer once the third onTime has returned.
    for (int waited = 0; waited < 100 && timer.isRunning(); ++waited) {
        utl::Thread::sleep(10);
    }
    std::printf("  %s\n", timer.isRunning() ? "still running" : "stopped by its count limit");
}

void showHttpDate() {
    std::printf("-- Time: an HTTP date written and read back\n");
    const utl::Time launch(1969, 7, 20, 20, 17, 40, 0, 0, 0);
    char text[40];
    launch.getHttpDate(text, sizeof text);
    utl::Time parsed;
    const bool read = parsed.setHttpDate(text);
    std::printf("  %s -> %s, %s\n", text, read ? "read back" : "not read",
                parsed == launch ? "the same time" : "a different time");
    utl::Time now;
    if (utl::getSystemTime(&now)) {
        std::printf("  days since then: %u\n", now.getElapsedDays(launch));
    }
}

void showMemoryPool() {
    std::printf(
        "-- MemoryPool: two blocks of 32 bytes, a third refused, a block given back twice\n");
    utl::MemoryPool pool(32, 2, "tour pool");
    void* first = pool.create();
    void* second = pool.create();
    std::printf("  first %s, second %s, third %s\n", first ? "taken" : "null",
                second ? "taken" : "null", pool.create() ? "taken" : "null (all in use)");
    pool.release(first);
    pool.release(first);  // logged: the block is not in use
    std::fflush(stdout);
    pool.release(second);
}

void showFiles() {
    std::printf("-- File: UTF-16 text written and read back by line, a listing, a log file\n");
    char base[] = "/tmp/utl-tour.XXXXXX";
    if (mkdtemp(base) == nullptr) {
        return;
    }
    const std::string dir = base;
    const std::string poem = dir + "/poem.txt";
    utl::File out(poem.c_str(), utl::File::TEXT_UTF16LE);
    if (out.open(utl::File::OPEN_TRUNCATE, utl::File::ACCESS_WRITE)) {
        utl::File::AutoClose closer(out);
        out.writeLine("\xE5\x8F\xA4\xE6\xB1\xA0\xE3\x82\x84");  // furuike ya
        out.writeLine("frog jumps in");
    }
    std::printf("  %lld bytes of UTF-16LE\n", utl::File::size(poem.c_str()));
    utl::File in(poem.c_str(), utl::File::TEXT_UTF16LE);
    if (in.open(utl::File::OPEN_EXISTING, utl::File::ACCESS_READ)) {
        char line[64];
        while (in.readLine(line, sizeof line, nullptr) > 0) {
            std::printf("  line: %s\n", line);
        }
        in.close();
    }
    utl::File log((dir + "/tour.log").c_str(), utl::File::TEXT_UTF8);
    if (log.open(utl::File::OPEN_TRUNCATE, utl::File::ACCESS_WRITE)) {
        applog(100, 3, &log, "this line also goes into %s", "tour.log");
        log.close();
    }
    utl::Array<utl::BasicString<char>> entries(0, 1);
    const int count = utl::File::children(dir.c_str(), &entries, 0, nullptr, 0);
    std::printf("  %d files in the directory:\n", count);
    for (unsigned int i = 0; i < entries.getCount(); ++i) {
        std::printf("    %s, %lld bytes\n", entries.getAt(i).c_str(),
                    utl::File::size(entries.getAt(i).c_str()));
    }
    utl::File::erase(dir.c_str(), 1);
}

void showWaveFile() {
    std::printf("-- WaveFile: one second of a 440 Hz sine, written and its format read back\n");
    char base[] = "/tmp/utl-tour.XXXXXX";
    if (mkdtemp(base) == nullptr) {
        return;
    }
    const std::string name = std::string(base) + "/a440.wav";
    constexpr unsigned int kRate = 8000;
    {
        utl::WaveFile out(name.c_str());
        if (out.open(1, 1) == 0 && out.setFmtChunkData(kRate, 1, 16, 1) && out.openSubChunk(0, 1)) {
            for (unsigned int i = 0; i < kRate; ++i) {
                const double phase = 2 * 3.141592653589793 * 440 * i / kRate;
                const int16_t sample = static_cast<int16_t>(12000 * std::sin(phase));
                const unsigned char bytes[2] = {static_cast<unsigned char>(sample & 0xFF),
                                                static_cast<unsigned char>((sample >> 8) & 0xFF)};
                out.write(bytes, sizeof bytes);
            }
            out.closeSubChunk();
        }
        out.close();
    }
    utl::WaveFile in(name.c_str());
    if (in.open(0, 0) == 0) {
        std::printf("  %u Hz, %u channel(s), %u bits, %lld bytes of samples\n",
                    in.getSamplingRate(), in.getChannel(), in.getBitsWidth(),
                    in.getChunkDataSize(1));
        in.close();
    }
    utl::File::erase(base, 1);
}

}  // namespace

int main() {
    showFixedCapacityMap();
    showBitStream();
    showTextConversion();
    showLogging();
    showTimedEvent();
    showMessageThread();
    showSharedThread();
    showTimer();
    showHttpDate();
    showMemoryPool();
    showFiles();
    showWaveFile();
    return 0;
}
