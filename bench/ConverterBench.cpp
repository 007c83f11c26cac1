// Conversion into UTF-8 against glibc's iconv(3), with the converter opened
// once and an output buffer kept across iterations on both sides.

#include <iconv.h>

#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "util/UTF8Converter.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

constexpr size_t kTextBytes = 64 * 1024;

std::string iconvConvert(const char* from, const char* to, const std::string& in) {
    iconv_t cd = iconv_open(to, from);
    std::string out(in.size() * 4 + 16, '\0');
    char* ip = const_cast<char*>(in.data());
    size_t il = in.size();
    char* op = out.data();
    size_t ol = out.size();
    iconv(cd, &ip, &il, &op, &ol);
    iconv_close(cd);
    out.resize(out.size() - ol);
    return out;
}

// French-like prose: mostly ASCII, an accented letter every twelfth
// character or so.
const std::string& latin1Text() {
    static const std::string text =
        iconvConvert("UTF-8", "ISO-8859-1", benchsupport::mixedUtf8Text(kTextBytes, 12));
    return text;
}

// Japanese-like prose: runs of kanji (JIS level 1), hiragana and katakana
// with the ideographic comma and full stop, some ASCII digits and spaces.
const std::string& shiftJisText() {
    static const std::string text = [] {
        std::mt19937 rng(932);
        std::string s;
        auto put = [&](unsigned lead, unsigned trail) {
            s.push_back(static_cast<char>(lead));
            s.push_back(static_cast<char>(trail));
        };
        while (s.size() < kTextBytes) {
            for (int n = 2 + rng() % 6; n > 0; --n) {
                switch (rng() % 3) {
                    case 0: {
                        const unsigned trail = 0x40 + rng() % 0xBC;  // 0x40-0xFB
                        put(0x89 + rng() % 15, trail == 0x7F ? 0x80 : trail);
                        break;
                    }
                    case 1:
                        put(0x82, 0x9F + rng() % 0x53);
                        break;
                    default: {
                        const unsigned trail = 0x40 + rng() % 0x57;
                        put(0x83, trail == 0x7F ? 0x80 : trail);
                    }
                }
            }
            if (rng() % 8 == 0) s += " 2026 ";
            put(0x81, rng() % 4 ? 0x41 : 0x42);
        }
        return s;
    }();
    return text;
}

void ConvertTarvex(State& state, const char* charset, const std::string& text) {
    UTF8Converter converter;
    converter.choose(charset);
    Str out;
    for (auto _ : state) {
        out.clear();
        DoNotOptimize(converter.convert(&out, text.data(), text.data() + text.size()));
        DoNotOptimize(out.data());
    }
    if (converter.invalidBytes() != 0) state.SkipWithError("invalid bytes in the sample");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void ConvertIconv(State& state, const char* charset, const std::string& text) {
    iconv_t cd = iconv_open("UTF-8", charset);
    std::string out(text.size() * 4, '\0');
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* ip = const_cast<char*>(text.data());
        size_t il = text.size();
        char* op = out.data();
        size_t ol = out.size();
        if (iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1)) {
            state.SkipWithError("iconv refused the sample");
            break;
        }
        DoNotOptimize(op);
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void Latin1Tarvex(State& state) { ConvertTarvex(state, "ISO-8859-1", latin1Text()); }
void Latin1Iconv(State& state) { ConvertIconv(state, "ISO-8859-1", latin1Text()); }
void ShiftJisTarvex(State& state) { ConvertTarvex(state, "Shift_JIS", shiftJisText()); }
void ShiftJisIconv(State& state) { ConvertIconv(state, "SHIFT_JIS", shiftJisText()); }

BENCHMARK(Latin1Tarvex)->Name("latin1_to_utf8_64KiB/tarvex");
BENCHMARK(Latin1Iconv)->Name("latin1_to_utf8_64KiB/peer");
BENCHMARK(ShiftJisTarvex)->Name("shift_jis_to_utf8_64KiB/tarvex");
BENCHMARK(ShiftJisIconv)->Name("shift_jis_to_utf8_64KiB/peer");

}  // namespace
