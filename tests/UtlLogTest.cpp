#include "UtlLog.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"

namespace {

const std::string kStamp = "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

// Restores the built-in filter levels that a test changes.
struct LogLevelsTest : testing::Test {
    ~LogLevelsTest() override {
        setFilterLevel(-1, 4);
        setFilterLevel(-2, 4);
    }
};

TEST_F(LogLevelsTest, LevelsDecideFilterPrefixAndSinks) {
    struct Case {
        int type, level;
        const char* printed;  // the expected line after the stamp, or null when dropped
        bool binary;
    };
    const Case cases[] = {
        {-2, 4, "<UTIL> DTL: m\r\n", false}, {-2, 5, nullptr, false},
        {77, 3, "INF: m\r\n", true},         {77, 0, nullptr, false},
        {-2, 1, "<UTIL> ERR: m\r\n", true},  {-2, 9, nullptr, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " level " << c.level);
        LogCapture binary;
        StdoutCapture out;
        applog(c.type, c.level, "%s", "m");
        const std::string text = out.text();
        if (c.printed == nullptr) {
            EXPECT_EQ(text, "");
        } else {
            EXPECT_TRUE(std::regex_match(text, std::regex(kStamp + c.printed))) << text;
            const time_t now = std::time(nullptr);
            char expected[64] = {};
            ctime_r(&now, expected);
            EXPECT_EQ(text.substr(0, 6), std::string(expected + 4, 6)) << "month and day";
        }
        EXPECT_EQ(binary.lines().size(), c.binary ? 1u : 0u);
    }

    // Levels above 5, negative ones included, are debug messages: printf only, at filter 5.
    setFilterLevel(-2, 5);
    for (int level : {9, -1}) {
        LogCapture binary;
        StdoutCapture out;
        applog(-2, level, "x");
        EXPECT_TRUE(std::regex_match(out.text(), std::regex(kStamp + "<UTIL> DBG: x\r\n")));
        EXPECT_TRUE(binary.lines().empty());
    }
}

TEST_F(LogLevelsTest, LongLinesAreCutWithAnEllipsis) {
    const std::string message(300, 'x');
    StdoutCapture quiet;
    LogCapture binary;
    applog(-2, 1, "%s", message.c_str());
    rawlog(-2, 1, "%s", message.c_str());
    rawlog(-2, 1, "%s", "100%%");
    ASSERT_EQ(binary.lines().size(), 3u);
    const std::string stamped = binary.lines()[0];
    EXPECT_EQ(stamped.size(), 253u);
    EXPECT_EQ(stamped.substr(250), "...");
    EXPECT_EQ(binary.lines()[1], std::string(252, 'x') + "...");
    EXPECT_EQ(binary.lines()[2], "100%%");

    quiet.text();
    StdoutCapture out;
    rawlog(-2, 1, "%s", "100%%");
    EXPECT_EQ(out.text(), "100%") << "the printf sink interprets the text once more";
}

TEST_F(LogLevelsTest, TypesAreRegisteredOverwrittenAndFiltered) {
    const std::string tag31(31, 't');
    EXPECT_TRUE(registerLogType(5, tag31.c_str(), 3));
    EXPECT_FALSE(registerLogType(5, (tag31 + "t").c_str(), 1));
    EXPECT_FALSE(registerLogType(5, nullptr, 1));
    EXPECT_EQ(getFilterLevel(5), 3);
    EXPECT_TRUE(registerLogType(5, "[five] ", 9));
    EXPECT_EQ(getFilterLevel(5), 5);

    EXPECT_EQ(getFilterLevel(12345), 6);
    setFilterLevel(12345, 1);
    EXPECT_EQ(getFilterLevel(12345), 6) << "no entry is made";
    EXPECT_EQ(getFilterLevel(-1), 4) << "the fallback is not touched";

    setAllFilterLevel(-3);
    EXPECT_EQ(getFilterLevel(-1), 5);
    EXPECT_EQ(getFilterLevel(-2), 5);
    EXPECT_EQ(getFilterLevel(5), 5);
    setFilterLevel(5, 2);

    StdoutCapture quiet;
    LogCapture binary;
    applog(5, 2, "kept");
    applog(5, 3, "dropped");
    applog(5, 2, nullptr);
    quiet.text();
    ASSERT_EQ(binary.lines().size(), 1u);
    EXPECT_TRUE(std::regex_match(binary.lines()[0], std::regex(kStamp + "\\[five\\] WRN: kept")));
    EXPECT_EQ(binary.channels(), std::vector<int>{3});

    EXPECT_TRUE(setLogTag(tag31.c_str()));
    EXPECT_FALSE(setLogTag((tag31 + "t").c_str()));
    EXPECT_FALSE(setLogTag(nullptr));
}

// Many threads log, register types and change levels at once: every line arrives whole.
TEST_F(LogLevelsTest, ConcurrentLoggingKeepsLinesWhole) {
    constexpr int kThreads = 6;
    constexpr int kMessages = 300;
    StdoutCapture quiet;
    LogCapture binary;
    std::atomic<bool> go(false);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &go] {
            while (!go) {
            }
            for (int i = 0; i < kMessages; ++i) {
                registerLogType(1000 + t * 50 + i % 50, "[c] ", 3);
                setFilterLevel(1000 + i, 2);
                applog(-2, 1, "thread %d message %d", t, i);
            }
        });
    }
    go = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = binary.lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kMessages));
    const std::regex whole(kStamp + "<UTIL> ERR: thread [0-9] message [0-9]+");
    for (const std::string& line : lines) {
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
    }
}

// Runs `body` in a child process with a private mount namespace in which a datagram socket
// stands at /dev/log; the child exits 0 on success, 77 when it cannot arrange the receiver.
int runWithSyslogReceiver(bool (*body)(int socket)) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
            _exit(77);
        }
        const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "/dev/log");
        if (receiver < 0 || bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address)) {
            _exit(77);
        }
        _exit(body(receiver) ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

std::string receive(int socket) {
    timeval timeout = {5, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    char buffer[512] = {};
    const ssize_t length = recv(socket, buffer, sizeof buffer - 1, 0);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

bool startsEndsWith(const std::string& text, const std::string& start, const std::string& end) {
    return text.size() >= start.size() + end.size() && text.compare(0, start.size(), start) == 0 &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(LogSyslogTest, SyslogReceivesLevelsOneToThreeWithoutStamp) {
    const int result = runWithSyslogReceiver([](int socket) {
        applog(77, 3, "to syslog %d", 42);
        const std::string info = receive(socket);
        applog(-2, 4, "detail is not sent");
        applog(-2, 1, "error");
        const std::string error = receive(socket);
        // syslog puts "<priority>" (facility user, 8), its own time stamp and the program name
        // before the text, which starts at the tag and has no line end.
        return startsEndsWith(info, "<14>", ": INF: to syslog 42") &&
               startsEndsWith(error, "<11>", ": <UTIL> ERR: error");
    });
    if (result == 77) {
        GTEST_SKIP() << "no syslog receiver: a private mount namespace needs root";
    }
    EXPECT_EQ(result, 0);
}

}  // namespace
