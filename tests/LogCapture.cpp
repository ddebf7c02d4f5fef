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

std::string withoutLineEnd(const char* data, unsigned int length) {
    std::string line(data, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

}  // namespace

void BinaryLogWrite(int channel, const char* data, unsigned int length) {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    if (r.capturing) {
        r.lines.push_back(withoutLineEnd(data, length));
        r.channels.push_back(channel);
    }
}

LogCapture::LogCapture() {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    r.capturing = true;
    r.lines.clear();
    r.channels.clear();
}

LogCapture::~LogCapture() {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    r.capturing = false;
}

std::vector<std::string> LogCapture::lines() const {
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    return r.lines;
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
    Received& r = received();
    std::lock_guard<std::mutex> guard(r.lock);
    return r.channels;
}

StdoutCapture::StdoutCapture() : mFile(std::tmpfile()), mSaved(-1) {
    if (mFile != nullptr) {
        std::fflush(stdout);
        mSaved = dup(STDOUT_FILENO);
        dup2(fileno(mFile), STDOUT_FILENO);
    }
}

StdoutCapture::~StdoutCapture() {
    restore();
    if (mFile != nullptr) {
        std::fclose(mFile);
    }
}

std::string StdoutCapture::text() {
    restore();
    std::string text;
    if (mFile != nullptr) {
        std::rewind(mFile);
        for (int c; (c = std::fgetc(mFile)) != EOF;) {
            text.push_back(static_cast<char>(c));
        }
    }
    return text;
}

void StdoutCapture::restore() {
    if (mSaved >= 0) {
        std::fflush(stdout);
        dup2(mSaved, STDOUT_FILENO);
        close(mSaved);
        mSaved = -1;
    }
}
