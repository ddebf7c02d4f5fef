#include "UtlRiffFile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FileTestSupport.h"

namespace {

using utl::RiffFile;
using utl::SubChunk;
using utl::SubChunkInfo;

std::string le32(uint32_t v) {
    return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
                       static_cast<char>((v >> 16) & 0xFF), static_cast<char>(v >> 24)};
}

std::string chunk(const std::string& id, uint32_t size, const std::string& data) {
    return id + le32(size) + data;
}

class RiffFileTest : public TempDirTest {
  protected:
    // Writes a file with sub-chunks "fmt" (3 bytes, odd) and "data" (2 bytes) through the class.
    std::string writeSample() {
        const std::string name = path("sample.riff");
        RiffFile riff(name.c_str(), 0);
        EXPECT_EQ(riff.open(1, 1), RiffFile::OPEN_SUCCESS);
        EXPECT_TRUE(riff.setFormType("WAVE"));
        EXPECT_EQ(riff.addSubChunk("fmt"), 0u);
        EXPECT_EQ(riff.write("abc", 3), 3);
        EXPECT_TRUE(riff.closeSubChunk());
        EXPECT_EQ(riff.addSubChunk("data"), 1u);
        EXPECT_EQ(riff.write("xy", 2), 2);
        EXPECT_TRUE(riff.close());
        return name;
    }
};

TEST_F(RiffFileTest, NewFilesGetPaddedIdentifiersAndLongOnesAreRefused) {
    const std::string name = path("new.riff");
    {
        RiffFile riff(name.c_str(), 4);
        RiffFile::AutoClose closer(riff);
        ASSERT_EQ(riff.open(1, 1), RiffFile::OPEN_SUCCESS);
        ASSERT_TRUE(riff.setFormType("WAVE"));
        EXPECT_EQ(riff.addSubChunk("data"), 0u);
        EXPECT_TRUE(riff.isOpenedSubChunk(0));
    }
    EXPECT_EQ(get(name), "RIFF" + le32(12) + "WAVE" + chunk("data", 0, ""));

    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(1, 1), RiffFile::OPEN_SUCCESS);
    EXPECT_FALSE(riff.setFormType("WAVES"));
    for (const char* id : {"toolong", "abcde", ""}) {
        EXPECT_EQ(riff.addSubChunk(id), RiffFile::INVALID_NUMBER) << id;
    }
    EXPECT_EQ(riff.addSubChunk("a"), 0u);
    EXPECT_STREQ(riff.getFormType(), "");
    ASSERT_TRUE(riff.close());
    EXPECT_EQ(get(name), "RIFF" + le32(12) + "    " + chunk("a   ", 0, ""));
}

TEST_F(RiffFileTest, OddSizedSubChunkIsFollowedDirectlyByTheNextHeader) {
    const std::string name = writeSample();
    EXPECT_EQ(get(name),
              "RIFF" + le32(25) + "WAVE" + chunk("fmt ", 3, "abc") + chunk("data", 2, "xy"));

    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    EXPECT_STREQ(riff.getFormType(), "WAVE");
    EXPECT_TRUE(riff.getSubChunkNumber() == 2u && riff.getSubChunkNumber("fmt") == 1u);
    EXPECT_EQ(riff.getSubChunkNumber("fmt "), 0u);  // identifiers compare trimmed

    // A longer read is shortened to the end of the data, then the end is reported.
    ASSERT_TRUE(riff.openSubChunk(0, 0));
    char buffer[16] = {};
    EXPECT_EQ(riff.read(buffer, sizeof(buffer)), 3);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    EXPECT_EQ(riff.read(buffer, sizeof(buffer)), SubChunk::END_OF_DATA);
    EXPECT_FALSE(riff.openSubChunk(1, 0));  // one open sub-chunk at a time
    EXPECT_EQ(riff.addSubChunk("more"), RiffFile::INVALID_NUMBER);
    EXPECT_TRUE(riff.closeSubChunk());
    ASSERT_TRUE(riff.openSubChunk(1, 0));
    EXPECT_EQ(riff.read(buffer, sizeof(buffer)), 2);
    EXPECT_TRUE(riff.closeSubChunk());

    // Info lists report the count found, also when more than fit.
    SubChunkInfo list[2];
    EXPECT_EQ(riff.getSubChunkInfoList(list, 2), 2);
    EXPECT_TRUE(list[1].mNumber == 1u && std::string(list[1].mId) == "data" && list[1].mSize == 2u);
    EXPECT_EQ(riff.getSubChunkInfoList(list, 1), 2);
    EXPECT_STREQ(list[0].mId, "fmt");
    EXPECT_TRUE(riff.getSubChunkInfoList(nullptr, 0) == 2 &&
                riff.getSubChunkInfoList(nullptr, 1) == -1);
    EXPECT_TRUE(riff.getSubChunkInfoList("data", list, 1) == 1 && list[0].mNumber == 1u);
    EXPECT_EQ(riff.getSubChunkInfoList("none", list, 1), 0);
    EXPECT_FALSE(riff.getSubChunkInfo(2, list));
    EXPECT_TRUE(riff.close());
    EXPECT_EQ(get(name).size(), 33u);  // reading changed nothing
}

TEST_F(RiffFileTest, OpenRefusesBadArgumentsAndMalformedFiles) {
    const std::string name = path("bad.riff");
    RiffFile riff(name.c_str(), 0);
    EXPECT_EQ(riff.open(2, 0), RiffFile::OPEN_FAILED);
    EXPECT_EQ(riff.open(0, -1), RiffFile::OPEN_FAILED);
    EXPECT_EQ(riff.open(0, 0), RiffFile::OPEN_FAILED);  // missing
    EXPECT_EQ(riff.open(1, 0), RiffFile::OPEN_FAILED);  // truncating needs writing

    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {{"not RIFF", "RIFX" + le32(4) + "WAVE"}, {"short header", "RIFF" + le32(0)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        put(name, c.bytes);
        EXPECT_EQ(riff.open(0, 1), RiffFile::OPEN_NOT_RIFF);
        EXPECT_FALSE(riff.isOpened());
        EXPECT_EQ(get(name), c.bytes);
    }
}

// A size far beyond the end of the file (its data ends with the file), a trailing partial
// header, and sizes whose step would wrap in 32 bits (to 0 or 3 bytes) all end the walk.
TEST_F(RiffFileTest, WalkStopsAtTruncatedOrOversizedSubChunks) {
    const std::string name = path("walk.riff");
    const struct {
        std::string body;
        uint32_t count;
    } cases[] = {
        {chunk("zero", 0, "") + chunk("huge", 0xFFFFFFF0u, "12345") + "tail", 2},
        {chunk("one", 1, "x") + "par", 1},
        {chunk("wrap", 0xFFFFFFF8u, "") + chunk("next", 0, ""), 1},
        {chunk("wrap", 0xFFFFFFFBu, "") + chunk("next", 0, ""), 1},
    };
    RiffFile riff(name.c_str(), 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body.substr(0, 4));
        put(name, "RIFF" + le32(0) + "TEST" + c.body);
        ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
        EXPECT_EQ(riff.getSubChunkNumber(), c.count);
        if (c.count == 2) {
            ASSERT_TRUE(riff.openSubChunk(1, 0));
            char buffer[64];
            EXPECT_EQ(riff.read(buffer, sizeof(buffer)), 9);
            EXPECT_EQ(riff.read(buffer, sizeof(buffer)), SubChunk::END_OF_DATA);
        }
        riff.close();
    }
}

TEST_F(RiffFileTest, WalkIndexesHeadersAcrossReadBlocks) {
    // The first sub-chunk shifts all later headers, so that in turn every byte of a header falls
    // on the end of a block the walk reads ahead; one sub-chunk is larger than a block.
    const std::string name = path("many.riff");
    for (uint32_t shift = 0; shift < 8; ++shift) {
        SCOPED_TRACE(shift);
        auto sizeOf = [shift](uint32_t i) { return i == 0 ? shift : i == 400 ? 5000 : 0; };
        std::string bytes = "RIFF" + le32(0) + "MANY";
        for (uint32_t i = 0; i < 600; ++i) {
            bytes +=
                chunk("c" + std::to_string(i % 10) + "  ", sizeOf(i), std::string(sizeOf(i), 'x'));
        }
        put(name, bytes);
        RiffFile riff(name.c_str(), 0);
        ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
        std::vector<SubChunkInfo> list(600);
        ASSERT_EQ(riff.getSubChunkInfoList(list.data(), 600), 600);
        for (uint32_t i = 0; i < 600; ++i) {
            ASSERT_EQ(list[i].mSize, sizeOf(i)) << i;
            ASSERT_EQ(list[i].mId, "c" + std::to_string(i % 10)) << i;
        }
        EXPECT_EQ(riff.getSubChunkNumber("c3"), 60u);
    }
}

// Seeks stay inside the data; only the last sub-chunk may grow ("fmt" would run into the header
// of "data"), and sizes reach the headers only when closed.
TEST_F(RiffFileTest, SeekAndWriteStayInsideTheDataAndSizesReachHeadersWhenClosed) {
    const std::string name = writeSample();
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 1), RiffFile::OPEN_SUCCESS);
    EXPECT_EQ(riff.seek(0, 0), -1);  // nothing open
    ASSERT_TRUE(riff.openSubChunk(0, 1));
    EXPECT_EQ(riff.position(), 3);
    const long long cases[][4] = {{0, 1, 1, 1},   {2, 1, 2, 2},  {1, -3, 0, 0}, {1, 0, 3, 3},
                                  {0, -1, -1, 3}, {0, 4, -1, 3}, {1, 1, -1, 3}, {2, 1, -1, 3},
                                  {2, -4, -1, 3}, {3, 0, -1, 3}};
    for (const auto& c : cases) {  // origin, offset, result, position after
        SCOPED_TRACE(::testing::Message() << c[0] << "," << c[1]);
        EXPECT_EQ(riff.seek(int(c[0]), c[1]), c[2]);
        EXPECT_EQ(riff.position(), c[3]);
    }
    ASSERT_TRUE(riff.closeSubChunk());

    ASSERT_TRUE(riff.openSubChunk(0, 0));
    EXPECT_TRUE(riff.write("AB", 2) == 2 && riff.write("CD", 2) == -1 && riff.size() == 3);
    ASSERT_TRUE(riff.closeSubChunk());

    ASSERT_TRUE(riff.openSubChunk(1, 1));
    EXPECT_TRUE(riff.write("zz", 2) == 2 && riff.size() == 4);
    SubChunkInfo info;
    EXPECT_TRUE(riff.getSubChunkInfo(1, &info) && info.mSize == 4u);
    EXPECT_EQ(get(name).substr(27, 4), le32(2));
    ASSERT_TRUE(riff.closeSubChunk());
    EXPECT_EQ(get(name).substr(27, 4), le32(4));
    char byte = 0;
    EXPECT_TRUE(riff.read(&byte, 1) == -1 && riff.write("x", 1) == -1);  // nothing open
    EXPECT_EQ(get(name).substr(4, 4), le32(25));
    EXPECT_TRUE(riff.close());
    EXPECT_EQ(get(name),
              "RIFF" + le32(27) + "WAVE" + chunk("fmt ", 3, "ABc") + chunk("data", 4, "xyzz"));
}

TEST_F(RiffFileTest, CloseRepairsAStaleRiffSize) {
    const std::string name = path("stale.riff");
    put(name, "RIFF" + le32(0) + "TEST" + chunk("one ", 1, "x"));
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    EXPECT_TRUE(riff.close());
    EXPECT_EQ(get(name).substr(4, 4), le32(0));  // read-only: left alone
    ASSERT_EQ(riff.open(0, 1), RiffFile::OPEN_SUCCESS);
    EXPECT_TRUE(riff.close());
    EXPECT_EQ(get(name).substr(4, 4), le32(13));
}

}  // namespace
