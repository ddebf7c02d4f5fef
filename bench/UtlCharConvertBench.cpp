// The Shift_JIS and UTF-16 string conversions beside glibc's iconv doing the same conversion of
// the same text: about 1 MB of Japanese prose made by tools/gen_japanese_text.py at build time.
// Bytes/s counts input bytes, so each pair reads off as a ratio. Before timing, each conversion's
// output is compared with iconv's, so that both sides do the same work.
#include "UtlCharConvert.h"

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::string readText() {
    std::ifstream in(UTL_JAPANESE_TEXT, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One iconv conversion descriptor, reset before each whole-text conversion.
class Iconv {
  public:
    Iconv(const char* to, const char* from) : mCd(iconv_open(to, from)) {}
    ~Iconv() {
        if (ok()) {
            iconv_close(mCd);
        }
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    bool ok() const { return mCd != reinterpret_cast<iconv_t>(-1); }

    // The bytes written, or -1 when the text did not convert completely.
    long convert(const std::string& in, std::vector<char>& out) {
        iconv(mCd, nullptr, nullptr, nullptr, nullptr);
        char* inPtr = const_cast<char*>(in.data());
        std::size_t inLeft = in.size();
        char* outPtr = out.data();
        std::size_t outLeft = out.size();
        if (iconv(mCd, &inPtr, &inLeft, &outPtr, &outLeft) == static_cast<std::size_t>(-1)) {
            return -1;
        }
        return static_cast<long>(out.size() - outLeft);
    }

  private:
    iconv_t mCd;
};

struct Corpus {
    std::string utf8;
    std::string sjis;
};

const Corpus& corpus() {
    static const Corpus lCorpus = [] {
        Corpus c{readText(), {}};
        Iconv toSjis("CP932", "UTF-8");
        std::vector<char> out(c.utf8.size() * 2);
        const long n = toSjis.ok() ? toSjis.convert(c.utf8, out) : -1;
        c.sjis.assign(out.data(), n > 0 ? static_cast<std::size_t>(n) : 0);
        return c;
    }();
    return lCorpus;
}

// A string conversion of utl and the iconv conversion it is measured against. `Unit` is the
// output unit of the utl function.
template <class Unit>
struct Case {
    const std::string& (*input)();
    unsigned int (*convert)(Unit*, unsigned int, const char*);
    const char* iconvTo;
    const char* iconvFrom;
};

const std::string& utf8Input() {
    return corpus().utf8;
}
const std::string& sjisInput() {
    return corpus().sjis;
}

const Case<char> kSjisToUtf8{sjisInput, utl::convertStrFromSjisToUtf8, "UTF-8", "CP932"};
const Case<char> kUtf8ToSjis{utf8Input, utl::convertStrFromUtf8ToSjis, "CP932", "UTF-8"};
const Case<unsigned short> kUtf8ToUtf16{utf8Input, utl::convertStrFromUtf8ToUtf16, "UTF-16LE",
                                        "UTF-8"};

// False, with the reason given to `state`, unless the input is there and utl's output (without
// its terminator) has the same bytes as iconv's.
template <class Unit>
bool sameAsIconv(benchmark::State& state, const Case<Unit>& c) {
    const std::string& in = c.input();
    if (in.empty()) {
        state.SkipWithError("no input: the sample text or iconv's CP932 is missing");
        return false;
    }
    std::vector<Unit> ours(c.convert(nullptr, 0, in.c_str()));
    const unsigned int units =
        c.convert(ours.data(), static_cast<unsigned int>(ours.size()), in.c_str());
    Iconv cd(c.iconvTo, c.iconvFrom);
    std::vector<char> theirs(in.size() * 4);
    const long bytes = cd.ok() ? cd.convert(in, theirs) : -1;
    if (units == ~0u || bytes < 0 ||
        std::string(reinterpret_cast<const char*>(ours.data()), (units - 1) * sizeof(Unit)) !=
            std::string(theirs.data(), static_cast<std::size_t>(bytes))) {
        state.SkipWithError("utl and iconv disagree on the sample text");
        return false;
    }
    return true;
}

template <class Unit>
void runUtl(benchmark::State& state, const Case<Unit>& c) {
    if (!sameAsIconv(state, c)) {
        return;
    }
    const std::string& in = c.input();
    std::vector<Unit> out(in.size() * 3 + 1);  // Shift_JIS A1-DF: 1 byte to 3
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            c.convert(out.data(), static_cast<unsigned int>(out.size()), in.c_str()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

template <class Unit>
void runIconv(benchmark::State& state, const Case<Unit>& c) {
    if (!sameAsIconv(state, c)) {
        return;
    }
    const std::string& in = c.input();
    std::vector<char> out(in.size() * 4);
    Iconv cd(c.iconvTo, c.iconvFrom);
    for (auto _ : state) {
        benchmark::DoNotOptimize(cd.convert(in, out));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void BM_SjisToUtf8(benchmark::State& state) {
    runUtl(state, kSjisToUtf8);
}
void BM_IconvSjisToUtf8(benchmark::State& state) {
    runIconv(state, kSjisToUtf8);
}
void BM_Utf8ToUtf16(benchmark::State& state) {
    runUtl(state, kUtf8ToUtf16);
}
void BM_IconvUtf8ToUtf16(benchmark::State& state) {
    runIconv(state, kUtf8ToUtf16);
}
void BM_Utf8ToSjis(benchmark::State& state) {
    runUtl(state, kUtf8ToSjis);
}
void BM_IconvUtf8ToSjis(benchmark::State& state) {
    runIconv(state, kUtf8ToSjis);
}

BENCHMARK(BM_SjisToUtf8);
BENCHMARK(BM_IconvSjisToUtf8);
BENCHMARK(BM_Utf8ToUtf16);
BENCHMARK(BM_IconvUtf8ToUtf16);
BENCHMARK(BM_Utf8ToSjis);
BENCHMARK(BM_IconvUtf8ToSjis);

}  // namespace
