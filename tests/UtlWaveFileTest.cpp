#include "UtlWaveFile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FileTestSupport.h"

namespace {

using utl::WaveFile;

std::string le16(uint16_t v) {
    return {char(v & 0xFF), char(v >> 8)};
}
std::string le32(uint32_t v) {
    return le16(uint16_t(v & 0xFFFF)) + le16(uint16_t(v >> 16));
}
std::string chunk(const std::string& id, const std::string& data) {
    return id + le32(uint32_t(data.size())) + data;
}
std::string riff(const std::string& form, const std::string& body) {
    return "RIFF" + le32(uint32_t(4 + body.size())) + form + body;
}

// Standard output of a shell command; false when it cannot run or exits non-zero.
bool run(const std::string& command, std::string* out) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return false;
    }
    out->clear();
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        out->append(buffer, got);
    }
    return pclose(pipe) == 0;
}

#define SKIP_WITHOUT(tool)                                                \
    if (std::system("command -v " tool " >/dev/null 2>&1") != 0) {        \
        GTEST_SKIP() << tool << " is not installed: cross-check not run"; \
    }

// "channels rate bits", as sox reports them.
std::string format(WaveFile& wave) {
    return std::to_string(wave.getChannel()) + " " + std::to_string(wave.getSamplingRate()) + " " +
           std::to_string(wave.getBitsWidth());
}

class WaveFileTest : public TempDirTest {
  protected:
    void writeWave(const std::string& file, uint32_t rate, uint16_t channels, uint16_t bits,
                   const std::string& samples) {
        WaveFile wave(file.c_str());
        ASSERT_EQ(wave.open(1, 1), WaveFile::OPEN_OK);
        ASSERT_TRUE(wave.setFmtChunkData(rate, channels, bits, 1));
        ASSERT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
        ASSERT_EQ(wave.write(samples.data(), unsigned(samples.size())), int(samples.size()));
        ASSERT_TRUE(wave.close());
    }
    // The whole data sub-chunk, read in small steps up to the end result -4.
    static std::string readData(WaveFile& wave) {
        if (!wave.openSubChunk(0, WaveFile::CHUNK_DATA)) {
            return "(not opened)";
        }
        std::string data;
        char buffer[3];
        int got;
        while ((got = wave.read(buffer, sizeof(buffer))) > 0) {
            data.append(buffer, unsigned(got));
        }
        EXPECT_EQ(got, -4);
        wave.closeSubChunk();
        return data;
    }
    const std::string mSamples = le16(1) + le16(0xFFFF) + le16(300) + le16(0x8000);
};

// Byte rate and block align are written in bits; reopening overwrites the one "fmt " in place.
TEST_F(WaveFileTest, NewFileHasRiffLayoutAndReopensToRewriteFormatAndAppend) {
    const std::string file = path("a.wav");
    writeWave(file, 44100, 2, 16, mSamples);
    const std::string fmt = le16(1) + le16(2) + le32(44100) + le32(1411200) + le16(32) + le16(16);
    EXPECT_EQ(get(file), riff("WAVE", chunk("fmt ", fmt) + chunk("data", mSamples)));
    {
        WaveFile wave(file.c_str());
        ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
        EXPECT_EQ(format(wave), "2 44100 16");
        EXPECT_TRUE(wave.getFormatId() == 1 && wave.getBytePerSec() == 1411200u &&
                    wave.getBlockAlign() == 32);
        EXPECT_TRUE(wave.getChunkDataSize(WaveFile::CHUNK_FMT) == 16 &&
                    wave.getChunkDataSize(WaveFile::CHUNK_DATA) == 8 &&
                    wave.getChunkDataSize(2) == -1);
        EXPECT_EQ(readData(wave), mSamples);
        ASSERT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
        EXPECT_TRUE(wave.seek(1, -2) == 6 && wave.seek(1, 1) == -1 && wave.position() == 6 &&
                    wave.size() == 8);
    }
    const size_t length = get(file).size();
    {
        WaveFile wave(file.c_str());
        ASSERT_EQ(wave.open(0, 1), WaveFile::OPEN_OK);
        ASSERT_TRUE(wave.setFmtChunkData(8000, 1, 8, 1));
        EXPECT_EQ(get(file).size(), length);
        ASSERT_TRUE(wave.openSubChunk(1, WaveFile::CHUNK_DATA));
        EXPECT_EQ(wave.write("xyz", 3), 3);
        EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_DATA), 11);  // tracked while open
    }
    const std::string bytes = get(file);
    EXPECT_EQ(bytes.substr(4, 4), le32(uint32_t(bytes.size() - 8)));
    WaveFile wave(file.c_str());
    ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
    EXPECT_EQ(format(wave), "1 8000 8");
    EXPECT_EQ(readData(wave), mSamples + "xyz");
}

TEST_F(WaveFileTest, OpenTellsWhatIsMissingAndLeavesTheFileClosed) {
    const std::string fmt =
        chunk("fmt ", le16(1) + le16(1) + le32(8000) + le32(8000) + le16(1) + le16(8));
    const struct {
        const char* name;
        std::string bytes;
        int expected;
    } cases[] = {
        {"empty", "", WaveFile::OPEN_NOT_WAVE},
        {"not RIFF", "RIFX" + le32(4) + "WAVE", WaveFile::OPEN_NOT_WAVE},
        {"other form", riff("AVI ", fmt + chunk("data", "ab")), WaveFile::OPEN_NOT_WAVE},
        {"no fmt", riff("WAVE", chunk("data", "ab")), WaveFile::OPEN_NO_FMT},
        {"no data", riff("WAVE", fmt + chunk("LIST", "ab")), WaveFile::OPEN_NO_DATA},
        {"short fmt", riff("WAVE", chunk("fmt ", "12345678") + chunk("data", "")),
         WaveFile::OPEN_FAILED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        put(path("x.wav"), c.bytes);
        WaveFile wave(path("x.wav").c_str());
        EXPECT_EQ(wave.open(0, 0), c.expected);
        EXPECT_FALSE(wave.isOpened());
    }
    WaveFile missing(path("missing.wav").c_str());
    EXPECT_EQ(missing.open(0, 0), WaveFile::OPEN_FAILED);
    EXPECT_EQ(missing.open(2, 1), WaveFile::OPEN_FAILED);
}

TEST_F(WaveFileTest, SubChunksNeedAnOpenFileAndTheFormatFirst) {
    WaveFile wave(path("n.wav").c_str());
    EXPECT_FALSE(wave.setFmtChunkData(8000, 1, 8, 1));
    EXPECT_FALSE(wave.openSubChunk(0, WaveFile::CHUNK_FMT));
    ASSERT_EQ(wave.open(1, 1), WaveFile::OPEN_OK);
    EXPECT_FALSE(wave.openSubChunk(0, WaveFile::CHUNK_DATA) || wave.openSubChunk(0, 2) ||
                 wave.openSubChunk(2, WaveFile::CHUNK_FMT));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), -1);  // absent, not empty
    EXPECT_EQ(wave.write("a", 1), -1);

    ASSERT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_FMT));  // added, empty
    EXPECT_TRUE(wave.isOpenedSubChunk(WaveFile::CHUNK_FMT) &&
                !wave.isOpenedSubChunk(WaveFile::CHUNK_DATA));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), 0);
    EXPECT_FALSE(wave.setFmtChunkData(8000, 1, 8, 1));  // one sub-chunk at a time
    ASSERT_TRUE(wave.closeSubChunk());
    EXPECT_TRUE(wave.setFmtChunkData(8000, 1, 8, 1));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), 16);
    EXPECT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
}

// Every prefix of a valid file either fails to open (and stays closed) or reads the prefix of
// the samples that the cut left.
TEST_F(WaveFileTest, TruncatedFilesFailOrReadThePrefixThatIsThere) {
    writeWave(path("full.wav"), 8000, 1, 16, mSamples + "ab");
    const std::string full = get(path("full.wav"));
    const size_t dataStart = full.size() - mSamples.size() - 2;
    for (size_t cut = 0; cut < full.size(); ++cut) {
        SCOPED_TRACE(cut);
        put(path("cut.wav"), full.substr(0, cut));
        WaveFile wave(path("cut.wav").c_str());
        if (wave.open(0, 0) != WaveFile::OPEN_OK) {
            EXPECT_FALSE(wave.isOpened());
            continue;
        }
        EXPECT_EQ(wave.getSamplingRate(), 8000u);
        EXPECT_EQ(readData(wave), full.substr(dataStart, cut - dataStart));
    }
}

// "channels rate bits samples-per-channel" as soxi reports them.
std::string soxInfo(const std::string& file) {
    std::string out;
    EXPECT_TRUE(run("for o in c r b s; do soxi -$o '" + file + "'; done | paste -sd ' '", &out));
    return out.substr(0, out.find('\n'));
}
std::string soxSamples(const std::string& file) {
    std::string out;
    EXPECT_TRUE(run("sox '" + file + "' -t raw -", &out));
    return out;
}

// Independent readers and writers. sox reads byte rate and block align but sizes frames from
// channels and bits per sample; Python's wave module ignores both fields, so both report the
// format despite the fields in bits. sox's own files include an odd-sized data sub-chunk (padded;
// the pad byte after the last sub-chunk is ignored), and one gets a "LIST" sub-chunk before "data".
TEST_F(WaveFileTest, SoxAndPythonAgreeWithUsBothWays) {
    SKIP_WITHOUT("sox");
    std::string out;
    ASSERT_TRUE(run("cd '" + mDir +
                        "' && sox -n -r 8000 -c 2 -b 16 x16.wav synth 0.002 sine 440 && "
                        "sox -n -r 8000 -c 1 -b 8 y8.wav synth 0.000625 sine 440",
                    &out));
    const std::string x16 = get(path("x16.wav"));
    const size_t data = x16.find("data");
    ASSERT_NE(data, std::string::npos);
    const std::string list = chunk("LIST", "INFOICMT" + le32(4) + "abcd");
    put(path("list.wav"), riff("WAVE", x16.substr(12, data - 12) + list + x16.substr(data)));
    for (const char* name : {"x16.wav", "y8.wav", "list.wav"}) {
        SCOPED_TRACE(name);
        const std::string info = soxInfo(path(name));
        ASSERT_EQ(info, name[0] == 'y' ? "1 8000 8 5" : "2 8000 16 16");
        WaveFile wave(path(name).c_str());
        ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
        EXPECT_EQ(format(wave), info.substr(0, info.rfind(' ')));
        EXPECT_EQ(readData(wave), soxSamples(path(name)));
    }

    const std::string stereo16 = mSamples + le16(7) + le16(0x7FFF);
    const std::string mono8("\x80\x01\xFF\x7F\x00", 5);
    writeWave(path("s16.wav"), 44100, 2, 16, stereo16);
    writeWave(path("m8.wav"), 8000, 1, 8, mono8);
    EXPECT_EQ(soxInfo(path("s16.wav")) + soxSamples(path("s16.wav")), "2 44100 16 3" + stereo16);
    EXPECT_EQ(soxInfo(path("m8.wav")) + soxSamples(path("m8.wav")), "1 8000 8 5" + mono8);

    SKIP_WITHOUT("python3");
    const std::string python =
        "python3 -c 'import sys, wave\nfor f in sys.argv[1:]:\n w = wave.open(f)\n "
        "print(w.getnchannels(), w.getframerate(), 8 * w.getsampwidth(), w.getnframes())' ";
    ASSERT_TRUE(run(python + path("s16.wav") + " " + path("m8.wav"), &out));
    EXPECT_EQ(out, "2 44100 16 3\n1 8000 8 5\n");
}

}  // namespace
