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
    LogCapture();
    ~LogCapture();

    // The lines received so far, each without its CR LF.
    std::vector<std::string> lines() const;
    // Whether some line received so far contains `text`.
    bool contains(const std::string& text) const;
    // The channels of the calls received so far.
    std::vector<int> channels() const;
};

// Collects what the printf sink writes: standard output goes to a temporary file meanwhile.
class StdoutCapture {
  public:
    StdoutCapture();
    ~StdoutCapture();

    // Everything written since construction; standard output is restored.
    std::string text();

  private:
    void restore();

    std::FILE* mFile;
    int mSaved;
};

// What `body` writes to standard output.
template <class Body>
std::string captureStdout(Body body) {
    StdoutCapture capture;
    body();
    return capture.text();
}

#endif  // UTL_TESTS_LOG_CAPTURE_H
