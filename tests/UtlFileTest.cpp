#include "UtlFile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "FileTestSupport.h"
#include "LogCapture.h"
#include "UtlCharConvert.h"

namespace {

using utl::File;

class FileTest : public TempDirTest {};

// A forked process that runs `body` with the write end of a pipe to the parent and reports 'y'
// there when it returns true; it then waits to be killed, which the destructor does.
struct Child {
    template <class Body>
    explicit Child(Body body) {
        int fds[2] = {-1, -1};
        if (pipe(fds) == 0 && (pid = fork()) == 0) {
            const char ok = body(fds[1]) ? 'y' : 'n';
            (void)!::write(fds[1], &ok, 1);
            for (;;) {
                pause();
            }
        }
        close(fds[1]);
        reports = fds[0];
    }
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(reports);
    }
    pid_t pid = -1;
    int reports = -1;
};

// Under a umask that keeps only the owner's bits, new directories and files still get 0777.
TEST_F(FileTest, WritersCreateDirectoriesAndFilesWithFullModeUnderAnyUmask) {
    const mode_t old = umask(077);
    File file((mDir + "\\m\\sub\\a.txt").c_str(), File::TEXT_UTF8);
    EXPECT_STREQ(path("m/sub/a.txt").c_str(), file.getPath());
    EXPECT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    umask(old);
    for (const char* made : {"m", "m/sub", "m/sub/a.txt"}) {
        EXPECT_EQ(0777, mode(path(made))) << made;
    }
    EXPECT_EQ(0700, mode(mDir)) << "the parent's mode is restored";
}

TEST_F(FileTest, RefusedOpensLeaveFileClosedAndParentModeAsItWas) {
    put(path("ro.txt"), "x");
    chmod(path("ro.txt").c_str(), 0444);
    File missing(path("missing.txt").c_str(), File::TEXT_UTF8);
    File readOnly(path("ro.txt").c_str(), File::TEXT_UTF8);
    File directory(mDir.c_str(), File::TEXT_UTF8);
    LogCapture capture;
    EXPECT_FALSE(missing.open(File::OPEN_EXISTING, File::ACCESS_READ));
    EXPECT_FALSE(missing.open(File::OPEN_TRUNCATE, File::ACCESS_READ));
    EXPECT_FALSE(missing.open(3, File::ACCESS_WRITE));
    EXPECT_FALSE(readOnly.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_FALSE(directory.open(File::OPEN_EXISTING, File::ACCESS_READ));
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_FALSE(missing.exists());
    EXPECT_EQ(0700, mode(mDir));
    EXPECT_EQ(-1, missing.read(nullptr, 1));
    EXPECT_TRUE(capture.contains("in read func file is not opened"));

    // An open that fails in the system call restores the parent, too.
    chmod(mDir.c_str(), 0500);
    put(path("blocked"), "");
    File blocked(path("blocked/x.txt").c_str(), File::TEXT_UTF8);
    EXPECT_FALSE(blocked.open(File::OPEN_EXISTING, File::ACCESS_WRITE));
    EXPECT_EQ(0500, mode(mDir));
}

TEST_F(FileTest, BytesMoveAtTheLibrarysOwnOriginsAndReadEndsWithMinusThree) {
    File file(path("b.bin").c_str(), File::TEXT_UTF8);
    {
        File::AutoClose closer(file);
        ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ_WRITE));
        EXPECT_FALSE(file.open(File::OPEN_EXISTING, File::ACCESS_READ_WRITE));
        EXPECT_EQ(11, file.write("hello world", 11));
        EXPECT_EQ(-1, file.write("x", 0));
        EXPECT_EQ(11, file.size());
        EXPECT_EQ(2, file.seek(2, File::SEEK_FROM_BEGIN));
        EXPECT_EQ(5, file.seek(3, File::SEEK_FROM_CURRENT));
        EXPECT_EQ(6, file.seek(-5, File::SEEK_FROM_END));
        EXPECT_EQ(-1, file.seek(0, 3));
        EXPECT_EQ(5, file.availableSize());
        char buffer[16] = {};
        EXPECT_EQ(5, file.read(buffer, sizeof buffer));
        EXPECT_STREQ("world", buffer);
        EXPECT_EQ(File::END_OF_FILE, file.read(buffer, 1));
        EXPECT_EQ(0, file.availableSize());

        EXPECT_EQ(2, file.seek(2, File::SEEK_FROM_BEGIN));
        EXPECT_TRUE(file.resize(8));
        EXPECT_EQ(2, file.position()) << "kept before the new end";
        EXPECT_TRUE(file.resize());
        EXPECT_EQ(2, file.size());
        EXPECT_TRUE(file.resize(1));
        EXPECT_EQ(1, file.position()) << "moved to the new end";
    }
    EXPECT_EQ(-1, file.position()) << "closed";
    ASSERT_TRUE(file.open(File::OPEN_APPEND, File::ACCESS_WRITE));
    EXPECT_EQ(1, file.position());
    file.close();
    ASSERT_TRUE(file.open(File::OPEN_TRUNCATE, File::ACCESS_WRITE));
    EXPECT_EQ(0, file.size());
}

// The holder is killed, not closed, so this also shows that a dead holder leaves no lock.
TEST_F(FileTest, LocksAreSharedBetweenReadersAndExclusiveForAWriterAcrossProcesses) {
    const std::string name = path("lock.txt");
    put(name, "data");
    for (int childAccess : {File::ACCESS_WRITE, File::ACCESS_READ}) {
        SCOPED_TRACE(childAccess);
        Child holder([&](int) {
            static File held(name.c_str(), File::TEXT_UTF8);
            return held.open(File::OPEN_EXISTING, childAccess);
        });
        char ok = 'n';
        ASSERT_TRUE(::read(holder.reports, &ok, 1) == 1 && ok == 'y');
        const bool reading = childAccess == File::ACCESS_READ;
        File writer(name.c_str(), File::TEXT_UTF8);
        File reader(name.c_str(), File::TEXT_UTF8);
        bool sharedOnly = false;
        EXPECT_TRUE(File::isOpened(name.c_str(), &sharedOnly));
        EXPECT_EQ(reading, sharedOnly);
        // Contention is logged at debug level, which reaches standard output only.
        const std::string logged = captureStdout(
            [&] { EXPECT_FALSE(writer.open(File::OPEN_EXISTING, File::ACCESS_WRITE)); });
        EXPECT_NE(std::string::npos,
                  logged.find("DTL: Other process is opening. errno[11] Path:" + name));
        EXPECT_EQ(0700, mode(mDir)) << "the parent's mode is restored";
        EXPECT_EQ(reading, reader.open(File::OPEN_EXISTING, File::ACCESS_READ));
        EXPECT_FALSE(File::copy(name.c_str(), path("copy.txt").c_str(), 1));
    }
    EXPECT_FALSE(File::isOpened(name.c_str(), nullptr));
    EXPECT_TRUE(File::copy(name.c_str(), path("copy.txt").c_str(), 0));
    EXPECT_EQ("data", get(path("copy.txt")));
}

TEST_F(FileTest, WriterKilledMidwayLeavesCompletedWritesAndNoLock) {
    const std::string name = path("killed.bin");
    unsigned int done = 0;
    {  // the writer is killed when it leaves this scope
        Child writer([&](int report) -> bool {
            File file(name.c_str(), File::TEXT_UTF8);
            file.open(File::OPEN_TRUNCATE, File::ACCESS_WRITE);
            char block[4096];
            for (unsigned int i = 0;; ++i) {
                std::memset(block, static_cast<int>('A' + i % 26), sizeof block);
                file.write(block, sizeof block);
                (void)!::write(report, &i, sizeof i);
            }
        });
        for (unsigned int i = 0; i < 20 && ::read(writer.reports, &i, sizeof i) == sizeof i;) {
            done = i + 1;
        }
    }
    const std::string bytes = get(name);
    ASSERT_GE(bytes.size(), done * 4096u);
    for (unsigned int i = 0; i < done; ++i) {
        EXPECT_EQ(std::string(4096, static_cast<char>('A' + i % 26)), bytes.substr(i * 4096, 4096));
    }
    EXPECT_FALSE(File::isOpened(name.c_str(), nullptr));
}

TEST_F(FileTest, TextIsWrittenInEachEncodingWithoutByteOrderMark) {
    const std::string text = "a\xC3\xA9\xE3\x81\x82";  // a, e-acute, hiragana a
    const std::pair<int, std::string> cases[] = {
        {File::TEXT_UTF8, text + "\n"},
        {File::TEXT_UTF16BE, std::string("\0a\0\xE9\x30\x42\0\n", 8)},
        {File::TEXT_UTF16LE, std::string("a\0\xE9\0\x42\x30\n\0", 8)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const std::string name = path("t" + std::to_string(c.first));
        const int bytes = static_cast<int>(c.second.size());
        File file(name.c_str(), c.first);
        ASSERT_TRUE(file.open(File::OPEN_TRUNCATE, File::ACCESS_READ_WRITE));
        EXPECT_EQ(bytes, file.writeLine(text.c_str()));
        EXPECT_EQ(c.second, get(name));
        EXPECT_EQ(-1, file.writeText(text.c_str(), File::TEXT_LIMIT, 0) &
                          file.writeText(text.c_str(), 1, 100));

        file.seek(0, File::SEEK_FROM_BEGIN);
        unsigned int size = 0;
        EXPECT_EQ(bytes, file.readText(nullptr, 0, 100, 0, &size));
        EXPECT_EQ(text.size() + 2, size) << "measured with the LF and terminator";
        file.seek(0, File::SEEK_FROM_BEGIN);
        char out[32] = "xy";
        file.readText(out, sizeof out, static_cast<unsigned int>(bytes) - 1, 2, &size);
        EXPECT_EQ("xy" + text, std::string(out));
        EXPECT_EQ(1, file.writeText(text.c_str(), 1, c.first == File::TEXT_UTF8 ? 0 : 1));
    }
    File sjis(path("sjis.txt").c_str(), File::TEXT_SJIS);
    ASSERT_TRUE(sjis.open(File::OPEN_TRUNCATE, File::ACCESS_WRITE));
    EXPECT_EQ(-1, sjis.writeText("a", 10, 0) & sjis.writeLine("a"));
}

TEST_F(FileTest, ReadingSkipsOnlyTheUtf8ByteOrderMark) {
    const struct {
        int type;
        std::string bytes;
        const char* text;
    } cases[] = {{File::TEXT_UTF8, "\xEF\xBB\xBFok", "ok"},
                 {File::TEXT_UTF16LE, std::string("\xFF\xFEo\0k\0", 6), "\xEF\xBB\xBFok"},
                 // hiragana a, half-width katakana a
                 {File::TEXT_SJIS, "\x82\xA0\xB1", "\xE3\x81\x82\xEF\xBD\xB1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        put(path("bom"), c.bytes);
        File file(path("bom").c_str(), c.type);
        ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
        utl::BasicString<char> out(0u, 1);
        EXPECT_GT(file.readText(&out, 100, 0, nullptr), 0);
        EXPECT_STREQ(c.text, out.c_str());
        EXPECT_EQ(File::END_OF_FILE, file.readText(&out, 100, 0, nullptr));
    }
}

// The line rules applied one character at a time to the bytes of a file, as the reference for the
// buffered reader: the content and line-end bytes of the line at `at`.
std::pair<unsigned int, unsigned int> referenceLine(const std::string& bytes, std::size_t at,
                                                    int type) {
    unsigned int eol = 0;
    std::size_t p = at;
    const bool wide = type >= File::TEXT_UTF16BE;
    while (p < bytes.size() && (!wide || p + 1 < bytes.size())) {
        unsigned int length = 1;
        unsigned int code = static_cast<unsigned char>(bytes[p]);
        if (wide) {
            length = 2;
            const unsigned char a = bytes[p], b = bytes[p + 1];
            code = type == File::TEXT_UTF16BE ? (a << 8 | b) : (b << 8 | a);
        } else {
            char window[7] = {};
            bytes.copy(window, 6, p);
            if (type == File::TEXT_SJIS) {
                char utf8[6];
                utl::convertCharFromSjisToUtf8(utf8, 6, window, &length);
            } else if (code != 0) {
                length = utl::strCharBytesBase(window, static_cast<bool*>(nullptr));
                length = length == ~0u ? 1 : length == 0 ? 3 : length;
            }
            length = length == 0 ? 1 : length;
            code = length == 1 ? code : 0x80;
        }
        p += length;
        if (code == '\r') {
            eol += length;
        } else if (code == '\n') {
            return {static_cast<unsigned int>(p - at) - eol - length, eol + length};
        } else {
            eol = 0;
        }
    }
    return {static_cast<unsigned int>(p - at) - eol, eol};
}

TEST_F(FileTest, BufferedLinesMatchTheCharacterRulesInEveryEncoding) {
    // Zero bytes are appended at random below.
    const std::vector<std::string> bytePieces = {
        "abc",          "\r",           "\n",           "\r\n",
        "\xC3\xA9",     "\x82\xA0",     "\xC3",         "\xB1",
        "\xE3\x81\x82", "\xEF\xBB\xBF", "\xFF",         "x\ry",
        "\xC0\x80",     "\xE0\x80\x80", "\xED\xA0\x80", "\xF0\x9F\x98\x80"};
    const std::vector<std::u16string> widePieces = {
        u"abc", u"\r", u"\n", u"\r\n", u"\u00E9", u"\U0001F600", u"\xD800", u"\uFEFF", u"x\ry"};
    std::mt19937 random(7);
    for (int type = File::TEXT_SJIS; type <= File::TEXT_UTF16LE; ++type) {
        SCOPED_TRACE(type);
        const bool wide = type >= File::TEXT_UTF16BE;
        const auto encode = [type](const std::u16string& text) {
            std::string out;
            for (char16_t u : text) {
                const char hi = static_cast<char>(u >> 8), lo = static_cast<char>(u & 0xFF);
                out += type == File::TEXT_UTF16BE ? std::string{hi, lo} : std::string{lo, hi};
            }
            return out;
        };
        // Long enough to cross several buffer refills, with lines of every shape.
        std::string bytes;
        while (bytes.size() < 3 * File::BUFFER_BYTES) {
            if (wide) {
                bytes += encode(widePieces[random() % widePieces.size()]);
            } else {
                bytes += std::string(bytePieces[random() % bytePieces.size()])
                             .append(random() % 13 == 12 ? 1 : 0, '\0');
            }
        }
        bytes += wide ? encode(u"last") + "z" : "last";
        put(path("lines"), bytes);
        File buffered(path("lines").c_str(), type);
        File direct(path("lines").c_str(), type);
        ASSERT_TRUE(buffered.open(File::OPEN_EXISTING, File::ACCESS_READ));
        ASSERT_TRUE(direct.open(File::OPEN_EXISTING, File::ACCESS_READ));
        for (std::size_t at = 0;;) {
            SCOPED_TRACE(at);
            char got[File::TEXT_LIMIT] = {};
            unsigned int gotSize = 0;
            const int result = buffered.readLine(got, sizeof got - 1, &gotSize);
            const auto [content, eol] = referenceLine(bytes, at, type);
            if (content + eol == 0) {
                EXPECT_EQ(File::END_OF_FILE, result);
                break;
            }
            ASSERT_EQ(static_cast<int>(content + eol), result);
            char want[File::TEXT_LIMIT * 3] = {};
            unsigned int wantSize = 1;
            direct.seek(static_cast<long long>(at), File::SEEK_FROM_BEGIN);
            if (content > 0) {
                ASSERT_GE(direct.readText(want, sizeof want, content, 0, &wantSize), 0);
            }
            EXPECT_STREQ(want, got);
            EXPECT_EQ(wantSize, gotSize);
            at += content + eol;
            EXPECT_EQ(static_cast<long long>(at), buffered.position());
        }
    }
}

TEST_F(FileTest, LineScansReportTheirPartsAndKeepPositionsWhereDocumented) {
    put(path("l.txt"), "ab\r\ncd\rx\r");
    File file(path("l.txt").c_str(), File::TEXT_UTF8);
    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    unsigned int content = 0, eol = 0;
    EXPECT_EQ(0xFFFFFFFFu, file.nextEOLSize());
    file.seek(2, File::SEEK_FROM_BEGIN);
    EXPECT_EQ(2u, file.nextEOLSize());
    EXPECT_EQ(2, file.position());
    EXPECT_EQ(2, file.findNextLineSize(0, &content, &eol));
    EXPECT_EQ(std::make_pair(0u, 2u), std::make_pair(content, eol));
    EXPECT_EQ(0xFFFFFFFFu, file.nextEOLSize());
    EXPECT_EQ(0, file.findNextLineSize(0, &content, &eol)) << "the file ends before an LF";
    EXPECT_EQ(std::make_pair(4u, 1u), std::make_pair(content, eol));
    EXPECT_EQ(0u, file.nextEOLSize());
    char line[8];
    EXPECT_EQ(File::END_OF_FILE, file.readLine(line, sizeof line, nullptr));
}

TEST_F(FileTest, SeekKeyRestartsWithoutRetryingTheMismatchingByte) {
    put(path("k.bin"), "xaaabyyaab");
    File file(path("k.bin").c_str(), File::TEXT_UTF8);
    ASSERT_TRUE(file.open(File::OPEN_EXISTING, File::ACCESS_READ));
    file.seek(1, File::SEEK_FROM_BEGIN);
    EXPECT_EQ(File::KEY_NOT_FOUND, file.seekKey("aab", 0, 6, 0));
    EXPECT_EQ(1, file.position());
    EXPECT_EQ(7, file.seekKey("aab", 0, 100, 0));
    EXPECT_EQ(7, file.position());
    EXPECT_EQ(10, file.seekKey("aab", File::FROM_CURRENT, 100, 1));
    EXPECT_EQ(-1, file.seekKey("", 0, 100, 0));
}

TEST(FileNameParts, FollowTheirRulesForEveryShapeOfPath) {
    // The file name, directory, extension and volume of a path, joined with "|".
    const auto parts = [](const char* path) {
        char name[File::PATH_BYTES], directory[File::PATH_BYTES], extension[File::PATH_BYTES],
            volume[File::PATH_BYTES];
        const bool ok = File::extractFileName(name, sizeof name, path, 0) &&
                        File::extractDirectoryPath(directory, sizeof directory, path) &&
                        File::extractExtension(extension, sizeof extension, path) &&
                        File::extractVolumeName(volume, sizeof volume, path);
        return ok ? std::string(name) + "|" + directory + "|" + extension + "|" + volume : "-";
    };
    const std::pair<const char*, const char*> cases[] = {
        {"a/b/c.txt", "c.txt|a/b|txt|a"},
        {"a/b/", "b|a||a"},
        {"/x", "x|||x"},
        {"C:\\dir\\a.txt", "a.txt|C:/dir|txt|C:"},
        {"/mnt/sd/archive", "archive|/mnt/sd||mnt"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, parts(c.first)) << c.first;
    }
    char out[File::PATH_BYTES];
    EXPECT_TRUE(File::extractFileName(out, sizeof out, "a/c.tar.gz", 1));
    EXPECT_STREQ("c.tar", out);
    EXPECT_FALSE(File::extractFileName(out, 5, "a/c.txt", 0)) << "does not fit";
    const std::string tooLong(File::PATH_BYTES, 'a');
    for (const char* bad :
         {"a//b", "a\\/b", "a\\\\b", tooLong.c_str(), static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(File::extractFileName(out, sizeof out, bad, 0));
        EXPECT_FALSE(File::exists(bad));
    }
    EXPECT_TRUE(File::extractFileName(out, sizeof out, tooLong.substr(1).c_str(), 0));
}

TEST_F(FileTest, TreesAreCopiedMovedSizedAndErasedAsDocumented) {
    ASSERT_TRUE(File::makeDirectories(path("t/a/b").c_str()));
    EXPECT_TRUE(File::makeDirectories(path("t/a").c_str()));
    put(path("t/f"), "x");
    EXPECT_FALSE(File::makeDirectories(path("t/f").c_str()));
    put(path("t/a/one.txt"), "12345");
    put(path("t/a/b/two.txt"), "123");
    EXPECT_EQ(9, File::size(path("t").c_str()));

    EXPECT_FALSE(File::copy(path("t/a/one.txt").c_str(), path("t/f").c_str(), 0));
    EXPECT_EQ("x", get(path("t/f")));
    EXPECT_TRUE(File::copy(path("t/a/one.txt").c_str(), path("t/f").c_str(), 1));
    EXPECT_EQ("12345", get(path("t/f")));
    EXPECT_TRUE(File::move(path("t/f").c_str(), path("u/v/g").c_str()));
    EXPECT_EQ("12345", get(path("u/v/g")));
    EXPECT_EQ(0777, mode(path("u/v")));

    EXPECT_TRUE(File::applyReadOnly(path("t").c_str(), 1));
    EXPECT_TRUE(File::isReadOnly(path("t/a/b/two.txt").c_str()));
    EXPECT_TRUE(File::liftReadOnly(path("t/a").c_str(), 1));
    EXPECT_TRUE(File::applyReadOnly(path("t/a/b/two.txt").c_str(), 0));
    LogCapture capture;
    EXPECT_FALSE(File::erase(path("t").c_str(), 0));
    EXPECT_TRUE(File::exists(path("t/a/b/two.txt").c_str()));
    EXPECT_FALSE(File::exists(path("t/a/one.txt").c_str()));
    EXPECT_TRUE(File::erase(path("t").c_str(), 1));
    EXPECT_FALSE(File::exists(path("t").c_str()));
    EXPECT_FALSE(File::erase(path("t").c_str(), 1));
}

// Entries of `dir` as their sorted names, each followed by a space; "?" marks one without the
// "dir/" prefix.
std::string listed(const utl::Array<utl::BasicString<char>>& list, const std::string& dir) {
    std::vector<std::string> names;
    for (unsigned int i = 0; i < list.getCount(); ++i) {
        const std::string entry = list.getAt(i).c_str();
        names.push_back(entry.rfind(dir + "/", 0) == 0 ? entry.substr(dir.size() + 1) : "?");
    }
    std::sort(names.begin(), names.end());
    std::string joined;
    for (const std::string& name : names) {
        joined += name + " ";
    }
    return joined;
}

TEST_F(FileTest, ChildrenListByKindExtensionPatternAndCount) {
    const std::string dir = path("d");
    ASSERT_TRUE(File::makeDirectories((dir + "/sub").c_str()));
    for (const char* name : {"a.log", "b.txt", "c.LOG"}) {
        put(dir + "/" + name, "x");
    }
    const struct {
        std::string path;
        int kind;
        const char* extension;
        const char* expected;
    } cases[] = {{dir, 2, nullptr, "a.log b.txt c.LOG sub "},
                 {dir, 0, nullptr, "a.log b.txt c.LOG "},
                 {dir, 1, nullptr, "sub "},
                 {dir, 2, "log", "a.log c.LOG sub "},
                 {dir + "/*.log", 2, nullptr, "a.log "},
                 {dir + "/[ab]*", 0, "TXT", "b.txt "}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        utl::Array<utl::BasicString<char>> list(0, 1);
        const int count = File::children(c.path.c_str(), &list, c.kind, c.extension, 0);
        EXPECT_EQ(count, static_cast<int>(list.getCount()));
        EXPECT_EQ(c.expected, listed(list, dir));
    }
    utl::Array<utl::BasicString<char>> list(0, 1);
    EXPECT_EQ(File(dir.c_str(), File::TEXT_UTF8).children(&list, 2, nullptr, 1), 1);
    EXPECT_EQ(File::children(path("missing").c_str(), &list, 2, nullptr, 0), -1);
    EXPECT_EQ(File::children((dir + "/a.log").c_str(), &list, 2, nullptr, 0), -1);
    EXPECT_EQ(File::children(dir.c_str(), nullptr, 2, nullptr, 0), -1);
}

}  // namespace
