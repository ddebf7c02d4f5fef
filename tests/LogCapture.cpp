#include "LogCapture.h"

#include <unistd.h>

#include <algorithm>
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

// static
void LogCapture::reset(bool capturing) {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    r.capturing = capturing;
    r.lines.clear();
    r.channels.clear();
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(received().lock);
    return received().lines;
}

bool LogCapture::contains(const std::string& text) const {
    const std::vector<std::string> all = lines();
    return std::any_of(all.begin(), all.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
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
