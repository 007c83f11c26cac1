// TimeFormat against libc's strftime/strptime, {fmt}'s chrono and Abseil's
// time formatting, on 1024 fixed times (2000-2037, with microseconds) taken
// in turn: a log-line stamp with milliseconds, and an HTTP date.
//
// Rendering starts from epoch seconds and microseconds for every contender,
// so the timed region holds the break-down into calendar fields too:
// GmtStructTm::GMT_fromUnixTime for us, gmtime_r for strftime and {fmt}, and
// inside absl::FormatTime for Abseil (building its absl::Time from the
// microseconds is timed as well). strftime and {fmt} have no milliseconds
// conversion: they render to the second, then ".mmm" is appended with
// snprintf("%03d") and a "{:03}" field. Output goes to a buffer reused across
// iterations, except Abseil's, which returns a new std::string.
//
// Parsing reads back the text the render groups produce. strptime fills a
// struct tm including tm_wday and tm_yday, so ours is timed as rawParse plus
// filling a tm from its fields and recompute_yday_and_wday. strptime has no
// milliseconds conversion either: the three digits behind what it read are
// taken by hand. Abseil's result is its absl::Time.
//
// Howard Hinnant's date library (header-only, libhowardhinnant-date-dev)
// renders with date::format, which returns a new std::string, from a
// sys_time at milliseconds (or seconds); it parses only from a stream, so
// its parse is timed with a std::istringstream reset per text.

#include <absl/time/time.h>
#include <date/date.h>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdio>
#include <ctime>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "util/DateTime.h"
#include "util/Str.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

constexpr size_t N = 1024;

struct Sample {
    long sec;
    unsigned long usec;
};

const std::vector<Sample>& samples() {
    static const std::vector<Sample> v = [] {
        std::vector<Sample> s;
        std::mt19937_64 rng(7);
        for (size_t i = 0; i < N; ++i) {
            s.push_back({946684800L + static_cast<long>(rng() % (38ULL * 365 * 86400)),
                         static_cast<unsigned long>(rng() % 1000000)});
        }
        return s;
    }();
    return v;
}

// One way of writing a stamp: the format of each library, and whether the
// milliseconds follow.
struct Style {
    const char* strftime;
    const char* ours;
    const char* abslFormat;
    const char* abslParse;
    bool millis;
};

const Style LOGLINE = {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M:%S.%3N", "%Y-%m-%d %H:%M:%E3S",
                       "%Y-%m-%d %H:%M:%E*S", true};
const Style HTTPDATE = {"%a, %d %b %Y %H:%M:%S GMT", "%a, %d %b %Y %H:%M:%S GMT",
                        "%a, %d %b %Y %H:%M:%S GMT", "%a, %d %b %Y %H:%M:%S GMT", false};

// strftime, then the milliseconds by snprintf: also the reference text.
std::string_view strftimeRender(const Style& st, const Sample& s, char (&buf)[64]) {
    struct tm tm;
    gmtime_r(&s.sec, &tm);
    size_t n = strftime(buf, sizeof buf, st.strftime, &tm);
    if (st.millis) {
        n += snprintf(buf + n, sizeof buf - n, ".%03d", static_cast<int>(s.usec / 1000));
    }
    return {buf, n};
}

const std::vector<std::string>& texts(const Style& st) {
    static const auto make = [](const Style& style) {
        std::vector<std::string> v;
        char buf[64];
        for (const Sample& s : samples()) v.emplace_back(strftimeRender(style, s, buf));
        return v;
    };
    static const std::vector<std::string> log = make(LOGLINE), http = make(HTTPDATE);
    return &st == &LOGLINE ? log : http;
}

// ---------------------------------------------------------------- rendering

// `render(sample)` gives a view of its text; every text is checked against
// strftime's before the timed loop.
template <class Render>
void renderBench(State& state, const Style& st, Render render) {
    const std::vector<Sample>& in = samples();
    const std::vector<std::string>& want = texts(st);
    for (size_t k = 0; k < N; ++k) {
        if (render(in[k]) != want[k]) {
            const std::string msg = "wrong text \"" + std::string(render(in[k])) +
                                    "\", strftime gives \"" + want[k] + "\"";
            state.SkipWithError(msg.c_str());
            return;
        }
    }
    size_t i = 0;
    for (auto _ : state) {
        const char* text = render(in[i++ & (N - 1)]).data();
        DoNotOptimize(text);
    }
}

void renderTarvex(State& state, const Style& st) {
    const TimeFormat f(st.ours);
    Str out;
    renderBench(state, st, [&](const Sample& s) {
        GmtStructTm g;
        g.GMT_fromUnixTime(s.sec);
        out.clear();
        f.render(out, g, s.usec, &TimeFormat::gmt_ops);
        return std::string_view(out.data(), out.size());
    });
}

void renderStrftime(State& state, const Style& st) {
    char buf[64];
    renderBench(state, st, [&](const Sample& s) { return strftimeRender(st, s, buf); });
}

void renderAbsl(State& state, const Style& st) {
    const absl::TimeZone utc = absl::UTCTimeZone();
    std::string out;
    renderBench(state, st, [&](const Sample& s) {
        out = absl::FormatTime(st.abslFormat, absl::FromUnixMicros(s.sec * 1000000L + s.usec), utc);
        return std::string_view(out);
    });
}

// {fmt} checks its format at compile time, hence one function a style.
void renderDate(State& state, const Style& st) {
    using namespace std::chrono;
    std::string out;
    const std::string fmt = st.millis ? "%Y-%m-%d %H:%M:%S" : st.strftime;
    renderBench(state, st, [&](const Sample& s) {
        const date::sys_time<microseconds> tp{seconds(s.sec) + microseconds(s.usec)};
        out = st.millis ? date::format(fmt, floor<milliseconds>(tp))
                        : date::format(fmt, floor<seconds>(tp));
        return std::string_view(out);
    });
}

void renderFmtLogLine(State& state) {
    std::string out;
    renderBench(state, LOGLINE, [&](const Sample& s) {
        struct tm tm;
        gmtime_r(&s.sec, &tm);
        out.clear();
        fmt::format_to(std::back_inserter(out), "{:%Y-%m-%d %H:%M:%S}.{:03}", tm, s.usec / 1000);
        return std::string_view(out);
    });
}

void renderFmtHttpDate(State& state) {
    std::string out;
    renderBench(state, HTTPDATE, [&](const Sample& s) {
        struct tm tm;
        gmtime_r(&s.sec, &tm);
        out.clear();
        fmt::format_to(std::back_inserter(out), "{:%a, %d %b %Y %H:%M:%S GMT}", tm);
        return std::string_view(out);
    });
}

// ---------------------------------------------------------------- parsing

struct ParsedTm {
    struct tm tm;
    int millis;
};

long long epochMillis(const ParsedTm& p) {
    struct tm t = p.tm;
    return timegm(&t) * 1000LL + p.millis;
}
long long epochMillis(const absl::Time& t) { return absl::ToUnixMillis(t); }

// `parse(text)` gives a reference to its result; every result is checked
// before the timed loop.
template <class Parse>
void parseBench(State& state, const Style& st, Parse parse) {
    const std::vector<Sample>& in = samples();
    const std::vector<std::string>& text = texts(st);
    for (size_t k = 0; k < N; ++k) {
        const long long want = in[k].sec * 1000LL + (st.millis ? in[k].usec / 1000 : 0);
        if (epochMillis(parse(text[k])) != want) {
            state.SkipWithError(("wrong time from \"" + text[k] + "\"").c_str());
            return;
        }
    }
    size_t i = 0;
    for (auto _ : state) {
        const void* result = &parse(text[i++ & (N - 1)]);
        DoNotOptimize(result);
    }
}

void parseTarvex(State& state, const Style& st) {
    const TimeFormat f(st.ours);
    TimeFormatRawParseResult r;
    ParsedTm p;
    parseBench(state, st, [&](const std::string& s) -> const ParsedTm& {
        r.clear();
        p.millis = -1;
        if (!f.rawParse(&r, s.data(), s.data() + s.size())) return p;
        p.tm = {};
        p.tm.tm_year = r.year - 1900;
        p.tm.tm_mon = r.month;
        p.tm.tm_mday = r.mday;
        p.tm.tm_hour = r.hour;
        p.tm.tm_min = r.minute;
        p.tm.tm_sec = r.second;
        recompute_yday_and_wday(&p.tm);
        p.millis = st.millis ? static_cast<int>(r.subsec) : 0;
        return p;
    });
}

void parseStrptime(State& state, const Style& st) {
    ParsedTm p;
    parseBench(state, st, [&](const std::string& s) -> const ParsedTm& {
        p.tm = {};
        p.millis = -1;
        const char* end = strptime(s.c_str(), st.strftime, &p.tm);
        if (!end) return p;
        if (!st.millis) {
            p.millis = 0;
        } else if (end[0] == '.') {
            p.millis = (end[1] - '0') * 100 + (end[2] - '0') * 10 + (end[3] - '0');
        }
        return p;
    });
}

void parseDate(State& state, const Style& st) {
    using namespace std::chrono;
    absl::Time t;
    std::istringstream in;
    parseBench(state, st, [&](const std::string& s) -> const absl::Time& {
        in.clear();
        in.str(s);
        date::sys_time<milliseconds> tp;
        in >> date::parse(st.millis ? "%Y-%m-%d %H:%M:%S" : st.strftime, tp);
        t = in.fail() ? absl::InfinitePast() : absl::FromUnixMillis(tp.time_since_epoch().count());
        return t;
    });
}

void parseAbsl(State& state, const Style& st) {
    absl::Time t;
    std::string err;
    parseBench(state, st, [&](const std::string& s) -> const absl::Time& {
        if (!absl::ParseTime(st.abslParse, s, &t, &err)) t = absl::InfinitePast();
        return t;
    });
}

// ---------------------------------------------------------------- registration

const bool registered = [] {
    using benchmark::RegisterBenchmark;
    const std::pair<const char*, const Style*> styles[] = {{"logline", &LOGLINE},
                                                           {"httpdate", &HTTPDATE}};
    for (const auto& [name, st] : styles) {
        const std::string render = std::string("render_") + name + "/";
        const std::string parse = std::string("parse_") + name + "/";
        const auto reg = [st = st](const std::string& n, void (*fn)(State&, const Style&)) {
            RegisterBenchmark(n.c_str(), [st, fn](State& state) { fn(state, *st); });
        };
        reg(render + "tarvex", renderTarvex);
        reg(render + "strftime", renderStrftime);
        RegisterBenchmark((render + "fmt_chrono").c_str(),
                          st == &LOGLINE ? renderFmtLogLine : renderFmtHttpDate);
        reg(render + "absl_FormatTime", renderAbsl);
        reg(render + "date", renderDate);
        reg(parse + "tarvex", parseTarvex);
        reg(parse + "strptime", parseStrptime);
        reg(parse + "absl_ParseTime", parseAbsl);
        reg(parse + "date", parseDate);
    }
    return true;
}();

}  // namespace
