// Log filtering by regex: each line of a 2 MiB log searched for an email
// address, a URI or an IPv4 address, against raw PCRE2 JIT (the same
// engine without our layer), RE2 and std::regex. Then compiling: a pattern
// asked for again (a cache hit) and one compiled afresh every time.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#include <re2/re2.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "BenchSupport.h"
#include "util/Regex.h"

namespace {

using benchmark::State;

const char* const kPatterns[] = {
    "[A-Za-z0-9._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,}",
    "[a-z][a-z0-9+.-]*://[^\\s/?#]+[^\\s?#]*(?:\\?[^\\s#]*)?",
    "(?:(?:25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])\\.){3}(?:25[0-5]|2[0-4][0-9]|1?[0-9]?[0-9])",
};

// Log lines, about one in six with an email address and one in five with a URI.
const std::vector<std::string_view>& lines() {
    static std::string text;
    static std::vector<std::string_view> out = [] {
        std::mt19937 rng(7);
        const std::string base = benchsupport::asciiLogText(2 << 20);
        size_t at = 0;
        while (at < base.size()) {
            size_t nl = base.find('\n', at);
            if (nl == std::string::npos) nl = base.size();
            text.append(base, at, nl - at);
            if (rng() % 6 == 0) text += " mail from j.smith+log@example-mail.com";
            if (rng() % 5 == 0) text += " ref https://www.example.org/a/b?x=1&y=2";
            text += '\n';
            at = nl + 1;
        }
        std::vector<std::string_view> v;
        for (size_t p = 0; p < text.size();) {
            size_t nl = text.find('\n', p);
            if (nl == std::string::npos) nl = text.size();
            v.emplace_back(text.data() + p, nl - p);
            p = nl + 1;
        }
        return v;
    }();
    return out;
}

size_t totalBytes() {
    size_t n = 0;
    for (std::string_view l : lines()) n += l.size() + 1;
    return n;
}

void finish(State& state, size_t found) {
    state.counters["matching_lines"] = double(found);
    state.SetBytesProcessed(int64_t(state.iterations() * totalBytes()));
}

void Tarvex(State& state, int which) {
    const Regex re(kPatterns[which]);
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (std::string_view l : lines())
            found += re.matchBase(l.data(), l.size(), nullptr, nullptr);
    }
    finish(state, found);
}

void Pcre2(State& state, int which) {
    int err;
    PCRE2_SIZE off;
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kPatterns[which]),
                                     PCRE2_ZERO_TERMINATED, PCRE2_UTF, &err, &off, nullptr);
    if (code == nullptr || pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) != 0) abort();
    pcre2_match_data* md = pcre2_match_data_create_from_pattern(code, nullptr);
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (std::string_view l : lines()) {
            found += pcre2_jit_match(code, reinterpret_cast<PCRE2_SPTR>(l.data()), l.size(), 0,
                                     PCRE2_NO_UTF_CHECK, md, nullptr) > 0;
        }
    }
    pcre2_match_data_free(md);
    pcre2_code_free(code);
    finish(state, found);
}

void Re2(State& state, int which) {
    const RE2 re(kPatterns[which]);
    if (!re.ok()) abort();
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (std::string_view l : lines()) found += RE2::PartialMatch(l, re);
    }
    finish(state, found);
}

void StdRegex(State& state, int which) {
    // ECMAScript has no possessive or Unicode forms, and none of the patterns uses them.
    const std::regex re(kPatterns[which], std::regex::ECMAScript | std::regex::optimize);
    size_t found = 0;
    for (auto _ : state) {
        found = 0;
        for (std::string_view l : lines()) found += std::regex_search(l.begin(), l.end(), re);
    }
    finish(state, found);
}

// A hot pattern: one lookup in the cache.
void CompileCachedTarvex(State& state) {
    const Regex keep(kPatterns[0]);
    for (auto _ : state) {
        Regex re(kPatterns[0]);
        benchmark::DoNotOptimize(re._getImpl());
    }
}

// Compiled afresh each time: the plain and full-match programs, both JIT.
void CompileUncachedTarvex(State& state) {
    for (auto _ : state) {
        Regex re(kPatterns[0]);
        benchmark::DoNotOptimize(re._getImpl());
        re.clear();
        Regex::rotateCache();
        Regex::rotateCache();
    }
}

void CompilePcre2(State& state) {
    for (auto _ : state) {
        int err;
        PCRE2_SIZE off;
        pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kPatterns[0]),
                                         PCRE2_ZERO_TERMINATED, PCRE2_UTF, &err, &off, nullptr);
        pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
        benchmark::DoNotOptimize(code);
        pcre2_code_free(code);
    }
}

void CompileRe2(State& state) {
    for (auto _ : state) {
        RE2 re(kPatterns[0]);
        benchmark::DoNotOptimize(re.ok());
    }
}

void CompileStdRegex(State& state) {
    for (auto _ : state) {
        std::regex re(kPatterns[0], std::regex::ECMAScript | std::regex::optimize);
        benchmark::DoNotOptimize(re.mark_count());
    }
}

}  // namespace

#define REGEX_GROUP(name, which)                                   \
    BENCHMARK_CAPTURE(Tarvex, name, which)->Name(#name "/tarvex"); \
    BENCHMARK_CAPTURE(Pcre2, name, which)->Name(#name "/pcre2");   \
    BENCHMARK_CAPTURE(Re2, name, which)->Name(#name "/re2");       \
    BENCHMARK_CAPTURE(StdRegex, name, which)->Name(#name "/std_regex")->Iterations(2)
REGEX_GROUP(email, 0);
REGEX_GROUP(uri, 1);
REGEX_GROUP(ipv4, 2);

BENCHMARK(CompileCachedTarvex)->Name("compile_cached/tarvex");
BENCHMARK(CompilePcre2)->Name("compile_cached/pcre2");
BENCHMARK(CompileRe2)->Name("compile_cached/re2");
BENCHMARK(CompileStdRegex)->Name("compile_cached/std_regex");
BENCHMARK(CompileUncachedTarvex)->Name("compile_uncached/tarvex");
BENCHMARK(CompilePcre2)->Name("compile_uncached/pcre2");
