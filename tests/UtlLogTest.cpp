#include "UtlLog.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "FileTestSupport.h"
#include "LogCapture.h"
#include "UtlFile.h"

namespace {

const std::string kStamp = "[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

// Whether `line` is today's stamp followed by `rest` (a regular expression).
bool isStamped(const std::string& line, const std::string& rest) {
    const time_t now = std::time(nullptr);
    char today[32] = {};
    ctime_r(&now, today);
    return std::regex_match(line, std::regex(kStamp + rest)) &&
           line.compare(0, 6, today + 4, 6) == 0;
}

// Restores the built-in filter levels that a test changes.
struct LogLevelsTest : testing::Test {
    ~LogLevelsTest() override {
        setFilterLevel(-1, 4);
        setFilterLevel(-2, 4);
    }
};

// Levels above 5, negative ones included, are debug messages: printf only, at filter 5.
TEST_F(LogLevelsTest, LevelsDecideFilterPrefixAndSinks) {
    const struct {
        int type, level, filter;
        const char* printed;  // the expected line after the stamp, or null when dropped
        bool binary;
    } cases[] = {
        {-2, 4, 4, "<UTIL> DTL: m\r\n", false}, {-2, 5, 4, nullptr, false},
        {77, 3, 4, "INF: m\r\n", true},         {77, 0, 4, nullptr, false},
        {-2, 9, 5, "<UTIL> DBG: m\r\n", false}, {-2, -1, 5, "<UTIL> DBG: m\r\n", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " level " << c.level);
        setFilterLevel(-2, c.filter);
        LogCapture binary;
        OutputCapture out;
        applog(c.type, c.level, "%s", "m");
        EXPECT_TRUE(c.printed ? isStamped(out.text(), c.printed) : out.text().empty())
            << out.text();
        EXPECT_EQ(binary.lines().size(), c.binary ? 1u : 0u);
    }
}

TEST_F(LogLevelsTest, LongLinesAreCutWithAnEllipsisAndPrintfInterpretsTheTextOnceMore) {
    const std::string message(300, 'x');
    OutputCapture out;
    LogCapture binary;
    applog(-2, 1, "%s", message.c_str());
    rawlog(-2, 1, "%s", message.c_str());
    const std::size_t printed = out.text().size();
    rawlog(-2, 1, "%s", "100%%");
    EXPECT_EQ(out.text().substr(printed), "100%");
    const std::vector<std::string> lines = binary.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].size() == 253 && lines[0].substr(250) == "...") << lines[0];
    EXPECT_EQ(lines[1], std::string(252, 'x') + "...");
    EXPECT_EQ(lines[2], "100%%");
}

// Caller data with conversions in it is shown as it stands: only "%%" becomes "%".
TEST_F(LogLevelsTest, PercentSequencesFromArgumentsNeverReadArguments) {
    const struct {
        const char* argument;
        const char* shown;
    } cases[] = {
        {"%s%s%s%s%s%s%s%s", "%s%s%s%s%s%s%s%s"},
        {"%n", "%n"},
        {"%08x", "%08x"},
        {"50%%", "50%"},
        {"end%", "end%"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argument);
        OutputCapture out;
        LogCapture binary;
        rawlog(-2, 1, "%s", c.argument);
        applog(-2, 1, "received name: %s", c.argument);
        const std::string text = out.text();
        const std::size_t shownLength = std::strlen(c.shown);
        EXPECT_EQ(text.substr(0, shownLength), c.shown);
        EXPECT_TRUE(isStamped(text.substr(shownLength),
                              std::string("<UTIL> ERR: received name: ") + c.shown + "\r\n"))
            << text;
        ASSERT_EQ(binary.lines().size(), 2u);
        EXPECT_EQ(binary.lines()[0], c.argument);
    }
}

TEST_F(LogLevelsTest, TypesAreRegisteredOverwrittenAndFiltered) {
    const std::string tag31(31, 't');
    EXPECT_TRUE(registerLogType(5, tag31.c_str(), 3));
    EXPECT_FALSE(registerLogType(5, (tag31 + "t").c_str(), 1) || registerLogType(5, nullptr, 1));
    EXPECT_EQ(getFilterLevel(5), 3);
    EXPECT_TRUE(registerLogType(5, "[five] ", 9) && getFilterLevel(5) == 5);
    setFilterLevel(12345, 1);
    EXPECT_EQ(getFilterLevel(12345), 6) << "no entry is made";
    EXPECT_EQ(getFilterLevel(-1), 4) << "the fallback is not touched";

    setAllFilterLevel(-3);
    EXPECT_TRUE(getFilterLevel(-1) == 5 && getFilterLevel(5) == 5);
    setFilterLevel(5, 2);

    OutputCapture quiet;
    LogCapture binary;
    applog(5, 2, "kept");
    applog(5, 2, nullptr);
    ASSERT_EQ(binary.lines().size(), 1u);
    EXPECT_TRUE(isStamped(binary.lines()[0], "\\[five\\] WRN: kept"));
    EXPECT_EQ(binary.channels(), std::vector<int>{3});

    EXPECT_TRUE(setLogTag(tag31.c_str()));
    EXPECT_FALSE(setLogTag((tag31 + "t").c_str()) || setLogTag(nullptr));
}

// Every way of changing a level takes effect at once, for more types than fit the index that
// drops messages without the lock, and for unregistered types through the fallback.
TEST_F(LogLevelsTest, EveryLevelChangeDecidesTheNextMessage) {
    constexpr int kTypes = 1500, kFirst = 100000;
    for (int type = kFirst; type < kFirst + kTypes; ++type) {
        ASSERT_TRUE(registerLogType(type, "", 1));
    }
    OutputCapture quiet;
    auto passing = [](int type, int level) {
        LogCapture binary;
        applog(type, level, "m");
        return binary.lines().size() == 1;
    };
    for (int type : {kFirst, kFirst + 777, kFirst + kTypes - 1}) {
        SCOPED_TRACE(type);
        EXPECT_TRUE(passing(type, 1) && !passing(type, 3));
        setFilterLevel(type, 3);
        EXPECT_TRUE(passing(type, 3));
        setAllFilterLevel(2);
        EXPECT_TRUE(passing(type, 2) && !passing(type, 3));
        ASSERT_TRUE(registerLogType(type, "", 3));
        EXPECT_TRUE(passing(type, 3));
        setFilterLevel(type, 1);
    }
    setFilterLevel(-1, 1);
    EXPECT_TRUE(passing(7, 1) && !passing(7, 2));
    setFilterLevel(-1, 3);
    EXPECT_TRUE(passing(7, 3));
}

// Many threads log, register types and change levels at once: every line arrives whole.
TEST_F(LogLevelsTest, ConcurrentLoggingKeepsLinesWhole) {
    constexpr int kThreads = 6, kMessages = 300;
    OutputCapture quiet;
    LogCapture binary;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kMessages; ++i) {
                registerLogType(1000 + t * 50 + i % 50, "[c] ", 3);
                setFilterLevel(1000 + i, 2);
                applog(-2, 1, "thread %d message %d", t, i);
            }
        });
    }
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

// The next datagram on `socket` (5 s at most).
std::string receive(int socket) {
    timeval timeout = {5, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    char buffer[512];
    const ssize_t length = recv(socket, buffer, sizeof buffer, 0);
    return std::string(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
}

// Logs in a child process with a private mount namespace in which a datagram socket stands at
// /dev/log. syslog puts "<priority>" (facility user, 8), its own time stamp and the program name
// before the text, which starts at the tag and has no line end.
TEST(LogSyslogTest, SyslogReceivesLevelsOneToThreeWithoutStamp) {
    const pid_t child = fork();
    if (child == 0) {
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 ||
            bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            _exit(77);
        }
        applog(77, 3, "to syslog %d", 42);
        const std::regex info("<14>.*: INF: to syslog 42"), error("<11>.*: <UTIL> ERR: error");
        const bool infoOk = std::regex_match(receive(receiver), info);
        applog(-2, 4, "detail is not sent");
        applog(-2, 1, "error");
        _exit(infoOk && std::regex_match(receive(receiver), error) ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no syslog receiver: a private mount namespace needs root";
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace

namespace {

class LogFileTest : public TempDirTest {};

// A file gets exactly what standard output gets, for every level that passes, in its encoding.
TEST_F(LogFileTest, FileGetsWhatStandardOutputGets) {
    const std::string name = path("log.txt");
    utl::File file(name.c_str(), utl::File::TEXT_UTF8);
    ASSERT_TRUE(file.open(utl::File::OPEN_TRUNCATE, utl::File::ACCESS_WRITE));
    OutputCapture out;
    applog(-2, 1, &file, "%s %d", "first", 1);
    applog(-2, 5, &file, "%s", "filtered out");
    rawlog(-2, 4, &file, "raw %d", 2);
    const std::string printed = out.text();
    applog(-2, 1, static_cast<utl::File*>(nullptr), "%s", "no file");
    file.close();
    EXPECT_EQ(get(name), printed);
    EXPECT_TRUE(isStamped(printed.substr(0, printed.find('\n') + 1), "<UTIL> ERR: first 1\r\n"));
    EXPECT_EQ(printed.substr(printed.find('\n') + 1), "raw 2");

    utl::File wide(path("wide.txt").c_str(), utl::File::TEXT_UTF16LE);
    ASSERT_TRUE(wide.open(utl::File::OPEN_TRUNCATE, utl::File::ACCESS_WRITE));
    rawlog(-2, 1, &wide, "%s", "\xC3\xA9!");
    wide.close();
    EXPECT_EQ(get(path("wide.txt")), std::string("\xE9\0!\0", 4));
}

}  // namespace
