#include "LogCapture.h"

#include <unistd.h>

#include <mutex>

namespace {

struct Received {
    std::mutex lock;
    bool capturing = false;
    std::vector<std::string> lines;
    std::vector<int> channels;
};

Received& received() {
    static Received instance;
    return instance;
}

void setCapturing(bool on) {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    r.capturing = on;
    r.lines.clear();
    r.channels.clear();
}

}  // namespace

void BinaryLogWrite(int channel, const char* data, unsigned int length) {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    if (r.capturing) {
        std::string line(data, length);
        line.erase(line.find_last_not_of("\r\n") + 1);
        r.lines.push_back(line);
        r.channels.push_back(channel);
    }
}

LogCapture::LogCapture() {
    setCapturing(true);
}

LogCapture::~LogCapture() {
    setCapturing(false);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(received().lock);
    return received().lines;
}

bool LogCapture::contains(const std::string& text) const {
    for (const std::string& line : lines()) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<int> LogCapture::channels() const {
    std::lock_guard<std::mutex> guard(received().lock);
    return received().channels;
}

OutputCapture::OutputCapture(int fd) : mFd(fd), mFile(std::tmpfile()), mSaved(dup(fd)) {
    std::fflush(stdout);
    dup2(fileno(mFile), fd);
}

OutputCapture::~OutputCapture() {
    std::fflush(stdout);
    if (mSaved >= 0) {
        dup2(mSaved, mFd);
        close(mSaved);
    } else {
        close(mFd);
    }
    std::fclose(mFile);
}

std::string OutputCapture::text() const {
    std::fflush(stdout);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = pread(fileno(mFile), buffer, sizeof buffer, text.size())) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}
