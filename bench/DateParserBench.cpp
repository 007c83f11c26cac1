// Timestamp extraction, lines per second over the real logs of
// tests/data/logs. For each log:
//   hit/<log>     the parser as a stream uses it: the last pattern first,
//                 the date reused;
//   search/<log>  every line searched by every pattern (no history);
// each against what a user who knows the format would write: one PCRE2 JIT
// match to find the stamp plus strptime, or Howard Hinnant's date::parse.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <benchmark/benchmark.h>
#include <date/date.h>
#include <pcre2.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "util/DateParser.h"

namespace {

using benchmark::State;

struct Log {
    const char* name;
    const char* regex;   // group 1: the stamp
    const char* format;  // for strptime and date::parse
    int64_t now;         // the reader's clock, near the log's time
};

const Log kLogs[] = {
    {"Android", "^(\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)", "%m-%d %H:%M:%S", 1496275200},
    {"Apache", "^\\[\\w+ (\\w+ \\d+ [\\d:]+ \\d+)\\]", "%b %d %H:%M:%S %Y", 1136073600},
    {"BGL", "(\\d{4}-\\d\\d-\\d\\d-\\d\\d\\.\\d\\d\\.\\d\\d)", "%Y-%m-%d-%H.%M.%S", 1138752000},
    {"HDFS", "^(\\d{6} \\d{6})", "%y%m%d %H%M%S", 1228089600},
    {"Linux", "^(\\w{3} +\\d+ [\\d:]{8})", "%b %d %H:%M:%S", 1135987200},
    {"Spark", "^(\\d\\d/\\d\\d/\\d\\d [\\d:]{8})", "%y/%m/%d %H:%M:%S", 1498867200},
    {"Zookeeper", "^(\\d{4}-\\d\\d-\\d\\d [\\d:]{8})", "%Y-%m-%d %H:%M:%S", 1441065600},
};

const std::vector<std::string>& lines(const char* name) {
    static std::vector<std::string> all[sizeof kLogs / sizeof kLogs[0]];
    for (size_t i = 0; i < sizeof kLogs / sizeof kLogs[0]; ++i) {
        if (strcmp(kLogs[i].name, name) != 0) continue;
        if (all[i].empty()) {
            const std::string path =
                std::string(TARVEX_SOURCE_DIR "/tests/data/logs/") + name + "_2k.log";
            FILE* f = fopen(path.c_str(), "r");
            if (f == nullptr) abort();
            char buf[65536];
            while (fgets(buf, sizeof buf, f)) {
                std::string l = buf;
                if (!l.empty() && l.back() == '\n') l.pop_back();
                all[i].push_back(l);
            }
            fclose(f);
        }
        return all[i];
    }
    abort();
}

void perLine(State& state, size_t n) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void Tarvex(State& state, const Log* log, bool cache) {
    const std::vector<std::string>& text = lines(log->name);
    DateParser parser(cache);
    parser.guesser().setTZ("UTC");
    const Timeval now(log->now, 0);
    Timeval t;
    size_t found = 0;
    for (auto _ : state) {
        for (const std::string& l : text)
            found += parser.parseDate(t, StrSegment(l.data(), l.size()), now);
    }
    if (found != state.iterations() * text.size()) state.SkipWithError("a line without a time");
    perLine(state, text.size());
}

// One JIT-compiled PCRE2 pattern: where a line's stamp (group 1) lies.
class StampFinder {
public:
    explicit StampFinder(const char* pattern) {
        int err;
        PCRE2_SIZE at;
        _re = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, 0, &err,
                            &at, nullptr);
        pcre2_jit_compile(_re, PCRE2_JIT_COMPLETE);
        _md = pcre2_match_data_create_from_pattern(_re, nullptr);
    }
    ~StampFinder() {
        pcre2_match_data_free(_md);
        pcre2_code_free(_re);
    }
    bool find(const std::string& line, size_t* begin, size_t* end) {
        if (pcre2_jit_match(_re, reinterpret_cast<PCRE2_SPTR>(line.data()), line.size(), 0, 0, _md,
                            nullptr) < 2) {
            return false;
        }
        const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(_md);
        *begin = ov[2];
        *end = ov[3];
        return true;
    }

private:
    pcre2_code* _re;
    pcre2_match_data* _md;
};

void Pcre2Strptime(State& state, const Log* log) {
    const std::vector<std::string>& text = lines(log->name);
    StampFinder finder(log->regex);
    size_t found = 0;
    char stamp[64];
    for (auto _ : state) {
        for (const std::string& l : text) {
            size_t b, e;
            if (!finder.find(l, &b, &e)) continue;
            const size_t n = std::min<size_t>(e - b, sizeof stamp - 1);
            memcpy(stamp, l.data() + b, n);
            stamp[n] = '\0';
            struct tm tm = {};
            tm.tm_year = 2016 - 1900;  // for formats without a year
            if (strptime(stamp, log->format, &tm) != nullptr) {
                found += timegm(&tm) != -1;
            }
        }
    }
    if (found != state.iterations() * text.size()) state.SkipWithError("a line without a time");
    perLine(state, text.size());
}

// date::parse reads from a stream: the stamp's place is found by the same
// regex, as a user of the library would.
void DateParse(State& state, const Log* log) {
    const std::vector<std::string>& text = lines(log->name);
    StampFinder finder(log->regex);
    size_t found = 0;
    std::istringstream in;
    for (auto _ : state) {
        for (const std::string& l : text) {
            size_t b, e;
            if (!finder.find(l, &b, &e)) continue;
            in.clear();
            in.str(l.substr(b, e - b));
            std::chrono::sys_seconds tp;
            in >> date::parse(log->format, tp);
            found += !in.fail();
        }
    }
    // Formats without a year can't make a time point for date::parse.
    if (found == 0) state.SkipWithError("date::parse read nothing");
    perLine(state, text.size());
}

const bool kRegistered = [] {
    for (const Log& log : kLogs) {
        const std::string hit = std::string("hit/") + log.name;
        const std::string search = std::string("search/") + log.name;
        benchmark::RegisterBenchmark((hit + "/tarvex").c_str(), Tarvex, &log, true);
        benchmark::RegisterBenchmark((search + "/tarvex").c_str(), Tarvex, &log, false);
        for (const std::string& group : {hit, search}) {
            benchmark::RegisterBenchmark((group + "/pcre2_strptime").c_str(), Pcre2Strptime, &log);
            if (strpbrk(log.format, "yY") != nullptr) {  // date::parse needs the year
                benchmark::RegisterBenchmark((group + "/date_parse").c_str(), DateParse, &log);
            }
        }
    }
    return true;
}();

}  // namespace
