// The printf engine against glibc's snprintf and {fmt}, on a typical log line,
// on integers and on floats; integer and shortest-double text against
// std::to_chars and fmt::format_int.

#include <fmt/format.h>
#include <fmt/printf.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "libzero/int-to-ascii.h"
#include "util/PrintFloatingPoint.h"
#include "util/Str.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

// Inputs from fixed tables, the same on every run: what a server logs.
struct Inputs {
    std::vector<const char*> files, messages;
    std::vector<int> lines, ints;
    std::vector<unsigned long> counters;
    std::vector<double> doubles;  // latencies, ratios, sizes and tiny values
};

const Inputs& inputs() {
    static const Inputs in = [] {
        Inputs v;
        std::mt19937_64 rng(42);
        const char* files[] = {"TcpChannel.cpp", "EventLoop.cpp", "HttpListener.cpp", "Logger.cpp"};
        const char* messages[] = {"connection closed by peer", "request finished", "timer expired",
                                  "reply sent, keeping alive"};
        for (int i = 0; i < 1024; ++i) {
            v.files.push_back(files[rng() % 4]);
            v.messages.push_back(messages[rng() % 4]);
            v.lines.push_back(static_cast<int>(rng() % 3000));
            v.ints.push_back(static_cast<int>(rng()) >> (rng() % 31));
            v.counters.push_back(rng() >> (rng() % 64));
            switch (rng() % 4) {
                case 0:
                    v.doubles.push_back(static_cast<double>(rng() % 2000000) / 1000);
                    break;
                case 1:
                    v.doubles.push_back(static_cast<double>(rng() % 1000000) / 1e6);
                    break;
                case 2:
                    v.doubles.push_back(static_cast<double>(rng() % 1000000000) * 1.5);
                    break;
                default:
                    v.doubles.push_back(std::ldexp(static_cast<double>(rng() % 1000000), -40));
            }
        }
        return v;
    }();
    return in;
}

// ---------------------------------------------------------------- a log line

void LogLineTarvex(State& state) {
    const Inputs& in = inputs();
    Str s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        s.appendFormat("%s:%d %s %lu %.3f", in.files[k], in.lines[k], in.messages[k],
                       in.counters[k], in.doubles[k]);
        DoNotOptimize(s.data());
    }
}

void LogLineSnprintf(State& state) {
    const Inputs& in = inputs();
    char buf[256];
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        DoNotOptimize(snprintf(buf, sizeof buf, "%s:%d %s %lu %.3f", in.files[k], in.lines[k],
                               in.messages[k], in.counters[k], in.doubles[k]));
    }
}

void LogLineFmtFormatTo(State& state) {
    const Inputs& in = inputs();
    std::string s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        fmt::format_to(std::back_inserter(s), "{}:{} {} {} {:.3f}", in.files[k], in.lines[k],
                       in.messages[k], in.counters[k], in.doubles[k]);
        DoNotOptimize(s.data());
    }
}

void LogLineFmtSprintf(State& state) {
    const Inputs& in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        DoNotOptimize(fmt::sprintf("%s:%d %s %lu %.3f", in.files[k], in.lines[k], in.messages[k],
                                   in.counters[k], in.doubles[k]));
    }
}

BENCHMARK(LogLineTarvex)->Name("log_line/tarvex");
BENCHMARK(LogLineSnprintf)->Name("log_line/snprintf");
BENCHMARK(LogLineFmtFormatTo)->Name("log_line/fmt_format_to");
BENCHMARK(LogLineFmtSprintf)->Name("log_line/fmt_sprintf");

// ---------------------------------------------------------------- integers

void IntsTarvex(State& state) {
    const Inputs& in = inputs();
    Str s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        s.appendFormat("%d %d %u %lu %x", in.ints[k], in.lines[k], in.ints[k ^ 1], in.counters[k],
                       in.ints[k ^ 2]);
        DoNotOptimize(s.data());
    }
}

void IntsSnprintf(State& state) {
    const Inputs& in = inputs();
    char buf[128];
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        DoNotOptimize(snprintf(buf, sizeof buf, "%d %d %u %lu %x", in.ints[k], in.lines[k],
                               in.ints[k ^ 1], in.counters[k], in.ints[k ^ 2]));
    }
}

void IntsFmtFormatTo(State& state) {
    const Inputs& in = inputs();
    std::string s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        fmt::format_to(std::back_inserter(s), "{} {} {} {} {:x}", in.ints[k], in.lines[k],
                       static_cast<unsigned>(in.ints[k ^ 1]), in.counters[k],
                       static_cast<unsigned>(in.ints[k ^ 2]));
        DoNotOptimize(s.data());
    }
}

BENCHMARK(IntsTarvex)->Name("five_integers/tarvex");
BENCHMARK(IntsSnprintf)->Name("five_integers/snprintf");
BENCHMARK(IntsFmtFormatTo)->Name("five_integers/fmt_format_to");

// ---------------------------------------------------------------- floats

void FloatsTarvex(State& state) {
    const Inputs& in = inputs();
    Str s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        s.appendFormat("%f %.3f %e %g", in.doubles[k], in.doubles[k ^ 1], in.doubles[k ^ 2],
                       in.doubles[k ^ 3]);
        DoNotOptimize(s.data());
    }
}

void FloatsSnprintf(State& state) {
    const Inputs& in = inputs();
    char buf[256];
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        DoNotOptimize(snprintf(buf, sizeof buf, "%f %.3f %e %g", in.doubles[k], in.doubles[k ^ 1],
                               in.doubles[k ^ 2], in.doubles[k ^ 3]));
    }
}

void FloatsFmtFormatTo(State& state) {
    const Inputs& in = inputs();
    std::string s;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++ & 1023;
        s.clear();
        fmt::format_to(std::back_inserter(s), "{:f} {:.3f} {:e} {:g}", in.doubles[k],
                       in.doubles[k ^ 1], in.doubles[k ^ 2], in.doubles[k ^ 3]);
        DoNotOptimize(s.data());
    }
}

BENCHMARK(FloatsTarvex)->Name("four_floats/tarvex");
BENCHMARK(FloatsSnprintf)->Name("four_floats/snprintf");
BENCHMARK(FloatsFmtFormatTo)->Name("four_floats/fmt_format_to");

// ---------------------------------------------------------------- integer to text

void IntToTextTarvex(State& state) {
    const Inputs& in = inputs();
    char buf[24];
    size_t i = 0;
    for (auto _ : state) {
        DoNotOptimize(convertU64ToAscii(in.counters[i++ & 1023], buf));
        DoNotOptimize(buf);
    }
}

void IntToTextToChars(State& state) {
    const Inputs& in = inputs();
    char buf[24];
    size_t i = 0;
    for (auto _ : state) {
        DoNotOptimize(std::to_chars(buf, buf + sizeof buf, in.counters[i++ & 1023]).ptr);
        DoNotOptimize(buf);
    }
}

void IntToTextFormatInt(State& state) {
    const Inputs& in = inputs();
    size_t i = 0;
    for (auto _ : state) {
        fmt::format_int f(in.counters[i++ & 1023]);
        DoNotOptimize(f.data());
        DoNotOptimize(f.size());
    }
}

BENCHMARK(IntToTextTarvex)->Name("int64_to_text/tarvex");
BENCHMARK(IntToTextToChars)->Name("int64_to_text/std_to_chars");
BENCHMARK(IntToTextFormatInt)->Name("int64_to_text/fmt_format_int");

// ---------------------------------------------------------------- shortest doubles

void ShortestTarvex(State& state) {
    const Inputs& in = inputs();
    char buf[400];
    size_t i = 0;
    for (auto _ : state) {
        ConvertDoubleToStringShortest c(in.doubles[i++ & 1023]);
        c.renderFixedPointPrereserved(buf);
        DoNotOptimize(buf);
    }
}

void ShortestToChars(State& state) {
    const Inputs& in = inputs();
    char buf[400];
    size_t i = 0;
    for (auto _ : state) {
        DoNotOptimize(
            std::to_chars(buf, buf + sizeof buf, in.doubles[i++ & 1023], std::chars_format::fixed)
                .ptr);
        DoNotOptimize(buf);
    }
}

BENCHMARK(ShortestTarvex)->Name("shortest_double_fixed/tarvex");
BENCHMARK(ShortestToChars)->Name("shortest_double_fixed/std_to_chars");

}  // namespace
