// Byte-string primitives against what a user would otherwise call.

#include <absl/strings/str_split.h>
#include <absl/strings/string_view.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BenchSupport.h"
#include "util/StrVector.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

// ---------------------------------------------------------------- substring search

struct FindCase {
    std::string hay;
    std::string needle;
};

const FindCase& findCase(size_t bytes) {
    static std::map<size_t, FindCase> cases;
    FindCase& c = cases[bytes];
    if (c.hay.empty()) {
        c.hay = benchsupport::asciiLogText(bytes);
        c.needle = "user=mallory";  // shares prefixes with "user=alice"
        c.hay.replace(c.hay.size() - 40, c.needle.size(), c.needle);
    }
    return c;
}

template <size_t Bytes>
void FindTarvex(State& state) {
    const FindCase& c = findCase(Bytes);
    for (auto _ : state) {
        DoNotOptimize(mem_find(c.hay.data(), c.hay.size(), c.needle.data(), c.needle.size()));
    }
    state.SetBytesProcessed(state.iterations() * c.hay.size());
}

template <size_t Bytes>
void FindMemmem(State& state) {
    const FindCase& c = findCase(Bytes);
    for (auto _ : state) {
        DoNotOptimize(memmem(c.hay.data(), c.hay.size(), c.needle.data(), c.needle.size()));
    }
    state.SetBytesProcessed(state.iterations() * c.hay.size());
}

template <size_t Bytes>
void FindStringView(State& state) {
    const FindCase& c = findCase(Bytes);
    const std::string_view hay(c.hay);
    for (auto _ : state) DoNotOptimize(hay.find(c.needle));
    state.SetBytesProcessed(state.iterations() * c.hay.size());
}

BENCHMARK(FindTarvex<200>)->Name("mem_find_200B/tarvex");
BENCHMARK(FindMemmem<200>)->Name("mem_find_200B/memmem");
BENCHMARK(FindStringView<200>)->Name("mem_find_200B/string_view_find");
BENCHMARK(FindTarvex<65536>)->Name("mem_find_64KiB/tarvex");
BENCHMARK(FindMemmem<65536>)->Name("mem_find_64KiB/memmem");
BENCHMARK(FindStringView<65536>)->Name("mem_find_64KiB/string_view_find");

// ---------------------------------------------------------------- UTF-8

// The straightforward strict validator a user would write.
bool plainIsValidUtf8(const unsigned char* p, size_t n) {
    size_t i = 0;
    while (i < n) {
        unsigned char b = p[i];
        size_t len;
        uint32_t cp;
        if (b < 0x80) {
            ++i;
            continue;
        } else if (b >= 0xC2 && b < 0xE0) {
            len = 2;
            cp = b & 0x1F;
        } else if (b >= 0xE0 && b < 0xF0) {
            len = 3;
            cp = b & 0x0F;
        } else if (b >= 0xF0 && b < 0xF5) {
            len = 4;
            cp = b & 0x07;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = cp << 6 | (p[i + k] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

// The straightforward count: every byte that is not a continuation byte.
size_t plainCountCodepoints(const unsigned char* p, size_t n) {
    size_t count = 0;
    for (size_t i = 0; i < n; ++i) count += (p[i] & 0xC0) != 0x80;
    return count;
}

const std::string& utf8Text(int kind) {
    static const std::string texts[] = {benchsupport::asciiLogText(65536),
                                        benchsupport::mixedUtf8Text(65536, 12),
                                        benchsupport::cjkText(65536)};
    return texts[kind];
}

template <int Kind>
void ValidTarvex(State& state) {
    const std::string& s = utf8Text(Kind);
    for (auto _ : state) DoNotOptimize(mem_is_valid_utf8(s.data(), s.size()));
    state.SetBytesProcessed(state.iterations() * s.size());
}

template <int Kind>
void ValidPlain(State& state) {
    const std::string& s = utf8Text(Kind);
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    for (auto _ : state) DoNotOptimize(plainIsValidUtf8(p, s.size()));
    state.SetBytesProcessed(state.iterations() * s.size());
}

template <int Kind>
void CountTarvex(State& state) {
    const std::string& s = utf8Text(Kind);
    for (auto _ : state) DoNotOptimize(mem_count_utf8_codepoints(s.data(), s.size()));
    state.SetBytesProcessed(state.iterations() * s.size());
}

template <int Kind>
void CountPlain(State& state) {
    const std::string& s = utf8Text(Kind);
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    for (auto _ : state) DoNotOptimize(plainCountCodepoints(p, s.size()));
    state.SetBytesProcessed(state.iterations() * s.size());
}

BENCHMARK(ValidTarvex<0>)->Name("is_valid_utf8_ascii/tarvex");
BENCHMARK(ValidPlain<0>)->Name("is_valid_utf8_ascii/plain_loop");
BENCHMARK(ValidTarvex<1>)->Name("is_valid_utf8_mixed/tarvex");
BENCHMARK(ValidPlain<1>)->Name("is_valid_utf8_mixed/plain_loop");
BENCHMARK(ValidTarvex<2>)->Name("is_valid_utf8_cjk/tarvex");
BENCHMARK(ValidPlain<2>)->Name("is_valid_utf8_cjk/plain_loop");
BENCHMARK(CountTarvex<0>)->Name("count_utf8_codepoints_ascii/tarvex");
BENCHMARK(CountPlain<0>)->Name("count_utf8_codepoints_ascii/plain_loop");
BENCHMARK(CountTarvex<1>)->Name("count_utf8_codepoints_mixed/tarvex");
BENCHMARK(CountPlain<1>)->Name("count_utf8_codepoints_mixed/plain_loop");
BENCHMARK(CountTarvex<2>)->Name("count_utf8_codepoints_cjk/tarvex");
BENCHMARK(CountPlain<2>)->Name("count_utf8_codepoints_cjk/plain_loop");

// ---------------------------------------------------------------- splitting

const std::string& csvLine() {
    static const std::string line = [] {
        std::string s;
        for (int i = 0; i < 24; ++i) {
            if (i) s += ',';
            s += i % 5 == 0 ? "" : "field" + std::to_string(i * 37);
        }
        return s;
    }();
    return line;
}

void SplitTarvex(State& state) {
    const std::string& line = csvLine();
    StrSegmentVector tokens;
    for (auto _ : state) {
        tokens.clear();
        mem_split_into(&tokens, line.data(), line.size(), ',');
        DoNotOptimize(tokens.data());
    }
    state.SetItemsProcessed(state.iterations() * 24);
}

void SplitAbsl(State& state) {
    const std::string& line = csvLine();
    std::vector<absl::string_view> tokens;
    for (auto _ : state) {
        tokens.clear();
        for (absl::string_view t : absl::StrSplit(line, ',')) tokens.push_back(t);
        DoNotOptimize(tokens.data());
    }
    state.SetItemsProcessed(state.iterations() * 24);
}

BENCHMARK(SplitTarvex)->Name("split_24_fields/tarvex");
BENCHMARK(SplitAbsl)->Name("split_24_fields/absl_StrSplit");

// ---------------------------------------------------------------- integers

const std::vector<std::string>& numbers() {
    static const std::vector<std::string> v = [] {
        std::vector<std::string> out;
        uint64_t x = 88172645463325252ull;
        for (int i = 0; i < 1024; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            const int64_t value = static_cast<int64_t>(x >> (x % 60)) * (i % 3 ? 1 : -1);
            out.push_back(std::to_string(value));
        }
        return out;
    }();
    return v;
}

void ParseTarvex(State& state) {
    const auto& v = numbers();
    for (auto _ : state) {
        for (const std::string& s : v) {
            long out = 0;
            DoNotOptimize(mem_tryToLong(s.data(), s.size(), &out));
            DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(state.iterations() * v.size());
}

void ParseStrtol(State& state) {
    const auto& v = numbers();
    for (auto _ : state) {
        for (const std::string& s : v) {
            char* end;
            DoNotOptimize(strtol(s.c_str(), &end, 10));
            DoNotOptimize(end);
        }
    }
    state.SetItemsProcessed(state.iterations() * v.size());
}

void ParseFromChars(State& state) {
    const auto& v = numbers();
    for (auto _ : state) {
        for (const std::string& s : v) {
            long out = 0;
            DoNotOptimize(std::from_chars(s.data(), s.data() + s.size(), out));
            DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(state.iterations() * v.size());
}

BENCHMARK(ParseTarvex)->Name("parse_long_x1024/tarvex");
BENCHMARK(ParseStrtol)->Name("parse_long_x1024/strtol");
BENCHMARK(ParseFromChars)->Name("parse_long_x1024/from_chars");

}  // namespace
