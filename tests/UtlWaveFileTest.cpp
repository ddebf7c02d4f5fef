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
// Format data as other tools write it: byte rate and block align in bytes.
std::string pcmFormat(uint32_t rate, uint16_t channels, uint16_t bits) {
    const uint16_t align = uint16_t(channels * bits / 8);
    return le16(1) + le16(channels) + le32(rate) + le32(rate * align) + le16(align) + le16(bits);
}

// Standard output of a shell command; false when it cannot run or exits non-zero.
bool run(const std::string& command, std::string* out) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return false;
    }
    out->clear();
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        out->append(buffer, got);
    }
    return pclose(pipe) == 0;
}

bool haveTool(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

#define SKIP_WITHOUT(tool)                                                \
    if (!haveTool(tool)) {                                                \
        GTEST_SKIP() << tool << " is not installed: cross-check not run"; \
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
        std::string data;
        if (!wave.openSubChunk(0, WaveFile::CHUNK_DATA)) {
            return "(not opened)";
        }
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

TEST_F(WaveFileTest, NewFileHasRiffLayoutAndByteRateInBits) {
    const std::string file = path("a.wav");
    writeWave(file, 44100, 2, 16, mSamples);
    const std::string fmt = le16(1) + le16(2) + le32(44100) + le32(1411200) + le16(32) + le16(16);
    EXPECT_EQ(get(file), riff("WAVE", chunk("fmt ", fmt) + chunk("data", mSamples)));

    WaveFile wave(file.c_str());
    ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
    EXPECT_EQ(wave.getSamplingRate(), 44100u);
    EXPECT_EQ(wave.getChannel(), 2);
    EXPECT_EQ(wave.getBitsWidth(), 16);
    EXPECT_EQ(wave.getFormatId(), 1);
    EXPECT_EQ(wave.getBytePerSec(), 1411200u);
    EXPECT_EQ(wave.getBlockAlign(), 32);
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), 16);
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_DATA), 8);
    EXPECT_EQ(wave.getChunkDataSize(2), -1);
    EXPECT_EQ(readData(wave), mSamples);
    ASSERT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
    EXPECT_EQ(wave.seek(1, -2), 6);
    EXPECT_EQ(wave.seek(1, 1), -1);
    EXPECT_EQ(wave.position(), 6);
    EXPECT_EQ(wave.size(), 8);
}

TEST_F(WaveFileTest, ReopenedFileKeepsOneFormatChunkAndAppendsSamples) {
    const std::string file = path("a.wav");
    writeWave(file, 44100, 2, 16, mSamples);
    const size_t length = get(file).size();
    {
        WaveFile wave(file.c_str());
        ASSERT_EQ(wave.open(0, 1), WaveFile::OPEN_OK);
        ASSERT_TRUE(wave.setFmtChunkData(8000, 1, 8, 1));
        EXPECT_EQ(get(file).size(), length);  // overwritten in place, no second "fmt "
        ASSERT_TRUE(wave.openSubChunk(1, WaveFile::CHUNK_DATA));
        EXPECT_EQ(wave.write("xyz", 3), 3);
        EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_DATA), 11);  // tracked while open
    }
    const std::string bytes = get(file);
    EXPECT_EQ(bytes.substr(4, 4), le32(uint32_t(bytes.size() - 8)));
    WaveFile wave(file.c_str());
    ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
    EXPECT_EQ(wave.getSamplingRate(), 8000u);
    EXPECT_EQ(wave.getChannel(), 1);
    EXPECT_EQ(wave.getBitsWidth(), 8);
    EXPECT_EQ(readData(wave), mSamples + "xyz");
}

TEST_F(WaveFileTest, OpenTellsWhatIsMissingAndLeavesTheFileClosed) {
    const std::string fmt = chunk("fmt ", pcmFormat(8000, 1, 8));
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
    EXPECT_FALSE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
    EXPECT_FALSE(wave.openSubChunk(0, 2));
    EXPECT_FALSE(wave.openSubChunk(2, WaveFile::CHUNK_FMT));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), -1);  // absent, not empty
    EXPECT_EQ(wave.write("a", 1), -1);

    ASSERT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_FMT));  // added, empty
    EXPECT_TRUE(wave.isOpenedSubChunk(WaveFile::CHUNK_FMT));
    EXPECT_FALSE(wave.isOpenedSubChunk(WaveFile::CHUNK_DATA));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), 0);
    EXPECT_FALSE(wave.setFmtChunkData(8000, 1, 8, 1));  // one sub-chunk at a time
    ASSERT_TRUE(wave.closeSubChunk());
    EXPECT_TRUE(wave.setFmtChunkData(8000, 1, 8, 1));
    EXPECT_EQ(wave.getChunkDataSize(WaveFile::CHUNK_FMT), 16);
    EXPECT_TRUE(wave.openSubChunk(0, WaveFile::CHUNK_DATA));
}

// Every prefix of a valid file either fails to open (and stays closed) or reads a prefix of the
// samples, as many bytes as the cut left.
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

// Independent readers: sox (its "--i" mode and soxi) and Python's wave module.
class WaveFileReaderTest : public WaveFileTest {
  protected:
    // "channels rate bits samples-per-channel" as sox reports them.
    static std::string soxInfo(const std::string& file) {
        std::string out;
        std::string info;
        for (const char* option : {"-c", "-r", "-b", "-s"}) {
            EXPECT_TRUE(run(std::string("soxi ") + option + " '" + file + "'", &out));
            info += (info.empty() ? "" : " ") + out.substr(0, out.find('\n'));
        }
        return info;
    }
    static std::string soxSamples(const std::string& file) {
        std::string out;
        EXPECT_TRUE(run("sox '" + file + "' -t raw -", &out));
        return out;
    }
};

// sox reads byte rate and block align (its debug output shows "1411200 byte/sec, 32 block
// align") but sizes frames from channels and bits per sample; Python's wave module unpacks both
// fields and ignores them. So both report the format we meant despite the fields in bits.
TEST_F(WaveFileReaderTest, SoxAndPythonReadWhatWeWrote) {
    SKIP_WITHOUT("sox");
    const std::string stereo16 = mSamples + le16(7) + le16(0x7FFF);
    const std::string mono8("\x80\x01\xFF\x7F\x00", 5);
    writeWave(path("s16.wav"), 44100, 2, 16, stereo16);
    writeWave(path("m8.wav"), 8000, 1, 8, mono8);
    std::string out;
    ASSERT_TRUE(run("sox --i -c '" + path("s16.wav") + "'", &out));
    EXPECT_EQ(out, "2\n");
    EXPECT_EQ(soxInfo(path("s16.wav")), "2 44100 16 3");
    EXPECT_EQ(soxSamples(path("s16.wav")), stereo16);
    EXPECT_EQ(soxInfo(path("m8.wav")), "1 8000 8 5");
    EXPECT_EQ(soxSamples(path("m8.wav")), mono8);

    SKIP_WITHOUT("python3");
    const std::string python =
        "python3 -c 'import sys, wave\nfor f in sys.argv[1:]:\n w = wave.open(f)\n "
        "print(w.getnchannels(), w.getframerate(), 8 * w.getsampwidth(), w.getnframes())' ";
    ASSERT_TRUE(run(python + path("s16.wav") + " " + path("m8.wav"), &out));
    EXPECT_EQ(out, "2 44100 16 3\n1 8000 8 5\n");
}

// Files written by sox, including an odd-sized data sub-chunk (sox pads it; the pad byte after
// the last sub-chunk is ignored) and a "LIST" sub-chunk before "data".
TEST_F(WaveFileReaderTest, FilesWrittenBySoxOpenWithTheirFormatAndSamples) {
    SKIP_WITHOUT("sox");
    std::string out;
    ASSERT_TRUE(run("cd '" + mDir +
                        "' && sox -n -r 8000 -c 2 -b 16 s16.wav synth 0.002 sine 440 && "
                        "sox -n -r 8000 -c 1 -b 8 m8.wav synth 0.000625 sine 440",
                    &out));
    const std::string s16 = get(path("s16.wav"));
    const size_t data = s16.find("data");
    ASSERT_NE(data, std::string::npos);
    const std::string list = chunk("LIST", "INFOICMT" + le32(4) + "abcd");
    const std::string body = s16.substr(12, data - 12) + list + s16.substr(data);
    put(path("list.wav"), riff("WAVE", body));

    const struct {
        const char* name;
        std::string info;
    } cases[] = {
        {"s16.wav", "2 8000 16 16"}, {"m8.wav", "1 8000 8 5"}, {"list.wav", "2 8000 16 16"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(soxInfo(path(c.name)), c.info);
        WaveFile wave(path(c.name).c_str());
        ASSERT_EQ(wave.open(0, 0), WaveFile::OPEN_OK);
        EXPECT_EQ(std::to_string(wave.getChannel()) + " " + std::to_string(wave.getSamplingRate()) +
                      " " + std::to_string(wave.getBitsWidth()),
                  c.info.substr(0, c.info.rfind(' ')));
        EXPECT_EQ(readData(wave), soxSamples(path(c.name)));
    }
}

}  // namespace
