// Test support: the test programs define BinaryLogWrite, which replaces the library's weak no-op,
// so a test sees every error, warning and information line that the library logs.
#ifndef UTL_TESTS_LOG_CAPTURE_H
#define UTL_TESTS_LOG_CAPTURE_H

#include <cstdio>
#include <string>
#include <vector>

// Collects the binary-log lines written while it exists (one capture at a time).
class LogCapture {
  public:
    LogCapture() { reset(true); }
    ~LogCapture() { reset(false); }

    // The lines received so far, each without its CR LF.
    std::vector<std::string> lines() const;
    // Whether some line received so far contains `text`.
    bool contains(const std::string& text) const;
    // The channels of the calls received so far.
    std::vector<int> channels() const;

  private:
    // Forgets what was received and starts or stops collecting.
    static void reset(bool capturing);
};

// Sends descriptor `fd` (standard output by default) to a temporary file while it exists.
class OutputCapture {
  public:
    explicit OutputCapture(int fd = 1);
    ~OutputCapture();

    // Everything written to the descriptor so far.
    std::string text() const;

  private:
    int mFd;
    std::FILE* mFile;
    int mSaved;  // the descriptor as it was; -1 when it was closed
};

// What `body` writes to standard output.
template <class Body>
std::string captureStdout(Body body) {
    OutputCapture capture;
    body();
    return capture.text();
}

#endif  // UTL_TESTS_LOG_CAPTURE_H
