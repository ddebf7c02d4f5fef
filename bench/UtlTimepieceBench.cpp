// HTTP dates: Time::setHttpDate on the three classic forms beside libcurl's curl_getdate of the
// same texts (when libcurl is installed), and Time::getHttpDate beside strftime of a struct tm.
#include "UtlTimepiece.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>

#ifdef UTL_BENCH_HAVE_CURL
#include <curl/curl.h>
#endif

namespace {

const char* const kForms[] = {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
                              "Sun Nov  6 08:49:37 1994"};
const char* const kFormNames[] = {"rfc1123", "rfc850", "asctime"};

void formArgs(benchmark::internal::Benchmark* b) {
    b->ArgName("form");
    for (int form = 0; form < 3; ++form) {
        b->Arg(form);
    }
}

void BM_SetHttpDate(benchmark::State& state) {
    const char* text = kForms[state.range(0)];
    utl::Time t;
    for (auto _ : state) {
        benchmark::DoNotOptimize(t.setHttpDate(text));
        benchmark::ClobberMemory();
    }
    state.SetLabel(kFormNames[state.range(0)]);
}
BENCHMARK(BM_SetHttpDate)->Apply(formArgs);

#ifdef UTL_BENCH_HAVE_CURL
void BM_CurlGetdate(benchmark::State& state) {
    const char* text = kForms[state.range(0)];
    for (auto _ : state) {
        benchmark::DoNotOptimize(curl_getdate(text, nullptr));
    }
    state.SetLabel(kFormNames[state.range(0)]);
}
BENCHMARK(BM_CurlGetdate)->Apply(formArgs);
#else
[[maybe_unused]] const int kNoCurlNote =
    std::fprintf(stderr, "libcurl is not installed: the curl_getdate baseline is left out\n");
#endif

void BM_GetHttpDate(benchmark::State& state) {
    const utl::Time t(1994, 11, 6, 8, 49, 37);
    char text[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(t.getHttpDate(text, sizeof text));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_GetHttpDate);

void BM_Strftime(benchmark::State& state) {
    tm fields = {};
    fields.tm_year = 94;
    fields.tm_mon = 10;
    fields.tm_mday = 6;
    fields.tm_wday = 0;
    fields.tm_hour = 8;
    fields.tm_min = 49;
    fields.tm_sec = 37;
    char text[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &fields));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Strftime);

}  // namespace
