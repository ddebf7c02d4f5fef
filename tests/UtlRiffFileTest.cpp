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

TEST_F(RiffFileTest, NewFileWithOneEmptySubChunkIsTwentyBytes) {
    const std::string name = path("empty.wav");
    {
        RiffFile riff(name.c_str(), 4);
        RiffFile::AutoClose closer(riff);
        ASSERT_EQ(riff.open(1, 1), RiffFile::OPEN_SUCCESS);
        ASSERT_TRUE(riff.setFormType("WAVE"));
        EXPECT_EQ(riff.addSubChunk("data"), 0u);
        EXPECT_TRUE(riff.isOpenedSubChunk(0));
    }
    EXPECT_EQ(get(name), "RIFF" + le32(12) + "WAVE" + chunk("data", 0, ""));
}

TEST_F(RiffFileTest, OddSizedSubChunkIsFollowedDirectlyByTheNextHeader) {
    const std::string name = writeSample();
    EXPECT_EQ(get(name),
              "RIFF" + le32(25) + "WAVE" + chunk("fmt ", 3, "abc") + chunk("data", 2, "xy"));

    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    EXPECT_STREQ(riff.getFormType(), "WAVE");
    EXPECT_EQ(riff.getSubChunkNumber(), 2u);
    EXPECT_EQ(riff.getSubChunkNumber("fmt"), 1u);
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
    EXPECT_TRUE(riff.close());
    EXPECT_EQ(get(name).size(), 33u);  // reading changed nothing
}

TEST_F(RiffFileTest, IdentifiersArePaddedAndLongOnesRefused) {
    const std::string name = path("ids.riff");
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(1, 1), RiffFile::OPEN_SUCCESS);
    EXPECT_FALSE(riff.setFormType("WAVES"));
    EXPECT_EQ(riff.addSubChunk("toolong"), RiffFile::INVALID_NUMBER);
    EXPECT_EQ(riff.addSubChunk("abcde"), RiffFile::INVALID_NUMBER);
    EXPECT_EQ(riff.addSubChunk(""), RiffFile::INVALID_NUMBER);
    EXPECT_EQ(riff.addSubChunk("a"), 0u);
    EXPECT_STREQ(riff.getFormType(), "");
    ASSERT_TRUE(riff.close());
    EXPECT_EQ(get(name), "RIFF" + le32(12) + "    " + chunk("a   ", 0, ""));
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

TEST_F(RiffFileTest, WalkStopsAtTruncatedOrOversizedSubChunks) {
    const std::string name = path("walk.riff");
    // A zero size, then a size far beyond the end of the file, then bytes never reached.
    put(name, "RIFF" + le32(0) + "TEST" + chunk("zero", 0, "") +
                  chunk("huge", 0xFFFFFFF0u, "12345") + "tail");
    RiffFile riff(name.c_str(), 1);
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    EXPECT_EQ(riff.getSubChunkNumber(), 2u);
    ASSERT_TRUE(riff.openSubChunk(1, 0));
    char buffer[64];
    EXPECT_EQ(riff.read(buffer, sizeof(buffer)), 9);  // the data ends with the file
    EXPECT_EQ(riff.read(buffer, sizeof(buffer)), SubChunk::END_OF_DATA);
    riff.close();

    // A trailing partial header is not a sub-chunk.
    put(name, "RIFF" + le32(0) + "TEST" + chunk("one", 1, "x") + "par");
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    EXPECT_EQ(riff.getSubChunkNumber(), 1u);
    riff.close();

    // Sizes whose step would wrap in 32 bits (to 0 or 3 bytes) end the walk after one header.
    for (unsigned int size : {0xFFFFFFF8u, 0xFFFFFFFBu}) {
        put(name, "RIFF" + le32(0) + "TEST" + chunk("wrap", size, "") + chunk("next", 0, ""));
        ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
        EXPECT_EQ(riff.getSubChunkNumber(), 1u);
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

TEST_F(RiffFileTest, SeekStaysInsideTheData) {
    const std::string name = writeSample();
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 1), RiffFile::OPEN_SUCCESS);
    EXPECT_EQ(riff.seek(0, 0), -1);  // nothing open
    ASSERT_TRUE(riff.openSubChunk(0, 1));
    EXPECT_EQ(riff.position(), 3);
    const struct {
        int origin;
        long long offset;
        long long expected;
        long long after;
    } cases[] = {{0, 1, 1, 1},  {2, 1, 2, 2},  {1, -3, 0, 0}, {1, 0, 3, 3},   {0, -1, -1, 3},
                 {0, 4, -1, 3}, {1, 1, -1, 3}, {2, 1, -1, 3}, {2, -4, -1, 3}, {3, 0, -1, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.origin << "," << c.offset);
        EXPECT_EQ(riff.seek(c.origin, c.offset), c.expected);
        EXPECT_EQ(riff.position(), c.after);
    }
}

TEST_F(RiffFileTest, SizesReachTheHeadersOnlyWhenClosed) {
    const std::string name = writeSample();
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 1), RiffFile::OPEN_SUCCESS);
    // Only the last sub-chunk may grow: "fmt" would run into the header of "data".
    ASSERT_TRUE(riff.openSubChunk(0, 0));
    EXPECT_EQ(riff.write("AB", 2), 2);
    EXPECT_EQ(riff.write("CD", 2), -1);
    EXPECT_EQ(riff.size(), 3);
    ASSERT_TRUE(riff.closeSubChunk());

    ASSERT_TRUE(riff.openSubChunk(1, 1));
    EXPECT_EQ(riff.write("zz", 2), 2);
    EXPECT_EQ(riff.size(), 4);
    SubChunkInfo info;
    ASSERT_TRUE(riff.getSubChunkInfo(1, &info));
    EXPECT_EQ(info.mSize, 4u);
    EXPECT_EQ(get(name).substr(27, 4), le32(2));  // the header is not touched yet
    ASSERT_TRUE(riff.closeSubChunk());
    EXPECT_EQ(get(name).substr(27, 4), le32(4));
    char byte = 0;
    EXPECT_EQ(riff.read(&byte, 1), -1);
    EXPECT_EQ(riff.write("x", 1), -1);
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

TEST_F(RiffFileTest, InfoListsReportTheCountFound) {
    const std::string name = writeSample();
    RiffFile riff(name.c_str(), 0);
    ASSERT_EQ(riff.open(0, 0), RiffFile::OPEN_SUCCESS);
    SubChunkInfo list[2];
    EXPECT_EQ(riff.getSubChunkInfoList(list, 2), 2);
    EXPECT_EQ(list[1].mNumber, 1u);
    EXPECT_STREQ(list[1].mId, "data");
    EXPECT_EQ(list[1].mSize, 2u);

    SubChunkInfo one[1];
    EXPECT_EQ(riff.getSubChunkInfoList(one, 1), 2);  // more than fit
    EXPECT_STREQ(one[0].mId, "fmt");
    EXPECT_EQ(riff.getSubChunkInfoList(nullptr, 0), 2);
    EXPECT_EQ(riff.getSubChunkInfoList(nullptr, 1), -1);
    EXPECT_EQ(riff.getSubChunkInfoList("data", one, 1), 1);
    EXPECT_EQ(one[0].mNumber, 1u);
    EXPECT_EQ(riff.getSubChunkInfoList("none", one, 1), 0);
    EXPECT_FALSE(riff.getSubChunkInfo(2, one));
}

}  // namespace
