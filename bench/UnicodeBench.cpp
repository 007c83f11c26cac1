// Case mapping of UTF-8 text against ICU, which a user would otherwise reach
// for, and against the loop one writes for ASCII only.

#include <unicode/ucasemap.h>
#include <unicode/ustring.h>

#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "util/UnicodeCodepoint.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

// Words of several scripts and both cases, about `bytes` long.
std::string mixedCaseText(size_t bytes) {
    static const char* words[] = {
        "Stra\xC3\x9F"
        "e",
        "\xC3\x89"
        "COLE",
        "caf\xC3\xA9",
        "M\xC3\xBCller",
        "\xD0\x9C\xD0\xBE\xD1\x81\xD0\xBA\xD0\xB2\xD0\xB0",  // Moskva
        "\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1",          // Athina
        "\xE6\x9D\xB1\xE4\xBA\xAC",                          // Tokyo
        "Request",
        "GET",
        "user",
        "Connection",
        "from",
        "10.1.2.3",
        "took",
        "12ms",
        "OK"};
    std::mt19937 rng(4);
    std::string s;
    while (s.size() < bytes) {
        s += words[rng() % (sizeof words / sizeof *words)];
        s += ' ';
    }
    return s;
}

const std::string& text(int kind) {
    static const std::string texts[] = {mixedCaseText(65536), benchsupport::asciiLogText(65536),
                                        benchsupport::cjkText(65536)};
    return texts[kind];
}

template <int Kind>
void LowerTarvex(State& state) {
    const Str in(text(Kind));
    Str out;
    for (auto _ : state) {
        Str::str_tolower(in, &out);
        DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * in.size());
}

// UTF-8 to UTF-16, lower case, back to UTF-8: ICU's case mapping works on
// UTF-16 text.
template <int Kind>
void LowerIcu(State& state) {
    const std::string& in = text(Kind);
    std::vector<UChar> wide(in.size() + 1), lowered(in.size() * 2 + 1);
    std::string out(in.size() * 2, '\0');
    for (auto _ : state) {
        UErrorCode err = U_ZERO_ERROR;
        int32_t wideLength = 0, lowerLength, outLength = 0;
        u_strFromUTF8(wide.data(), static_cast<int32_t>(wide.size()), &wideLength, in.data(),
                      static_cast<int32_t>(in.size()), &err);
        lowerLength = u_strToLower(lowered.data(), static_cast<int32_t>(lowered.size()),
                                   wide.data(), wideLength, "", &err);
        u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &outLength, lowered.data(),
                    lowerLength, &err);
        if (U_FAILURE(err)) state.SkipWithError("ICU failed");
        DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * in.size());
}

// ICU's direct UTF-8 case mapping, for reference.
template <int Kind>
void LowerIcuUtf8(State& state) {
    const std::string& in = text(Kind);
    UErrorCode err = U_ZERO_ERROR;
    UCaseMap* map = ucasemap_open("", 0, &err);
    std::string out(in.size() * 2, '\0');
    for (auto _ : state) {
        DoNotOptimize(ucasemap_utf8ToLower(map, out.data(), static_cast<int32_t>(out.size()),
                                           in.data(), static_cast<int32_t>(in.size()), &err));
    }
    if (U_FAILURE(err)) state.SkipWithError("ICU failed");
    ucasemap_close(map);
    state.SetBytesProcessed(state.iterations() * in.size());
}

void LowerPlainAscii(State& state) {
    const std::string& in = text(1);
    std::string out;
    for (auto _ : state) {
        out.resize(in.size());
        for (size_t i = 0; i < in.size(); ++i) {
            const char c = in[i];
            out[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        }
        DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * in.size());
}

BENCHMARK(LowerTarvex<0>)->Name("str_tolower_mixed/tarvex");
BENCHMARK(LowerIcu<0>)->Name("str_tolower_mixed/icu_u_strToLower_round_trip");
BENCHMARK(LowerIcuUtf8<0>)->Name("str_tolower_mixed/icu_ucasemap_utf8ToLower");
BENCHMARK(LowerTarvex<1>)->Name("str_tolower_ascii/tarvex");
BENCHMARK(LowerPlainAscii)->Name("str_tolower_ascii/plain_loop");
BENCHMARK(LowerIcu<1>)->Name("str_tolower_ascii/icu_u_strToLower_round_trip");
BENCHMARK(LowerTarvex<2>)->Name("str_tolower_cjk/tarvex");
BENCHMARK(LowerIcu<2>)->Name("str_tolower_cjk/icu_u_strToLower_round_trip");

}  // namespace
