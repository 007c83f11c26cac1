#include "util/DateParser.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"
#include "util/Timezone.h"

namespace {

const std::string kLogs = TARVEX_SOURCE_DIR "/tests/data/logs/";

int64_t utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    struct tm t = {};
    t.tm_year = y - 1900, t.tm_mon = mo - 1, t.tm_mday = d, t.tm_hour = h, t.tm_min = mi,
    t.tm_sec = s;
    return timegm(&t);
}

std::string show(const Timeval& t) {
    const time_t s = static_cast<time_t>(t.sec());
    struct tm tm;
    gmtime_r(&s, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, t.usec());
    return buf;
}

// Reads times as UTC; catches the warnings instead of logging them.
class RecordingParser : public DateParser {
public:
    RecordingParser() : DateParser(true) { EXPECT_TRUE(guesser().setTZ("UTC")); }
    std::vector<std::string> messages;

protected:
    bool isLoggingEnabled(message_type_t, int) override { return true; }
    void doLogImpl(message_type_t type, int, const char* format, va_list args) override {
        Str text(getMessageTypeAsStr(type));
        text.append(": ");
        text.appendVformat(format, args);
        messages.push_back(text);
    }
};

// The fields of one CSV record (quotes and doubled quotes understood).
std::vector<std::string> csvFields(const std::string& line) {
    std::vector<std::string> out(1);
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quoted && c == '"' && i + 1 < line.size() && line[i + 1] == '"')
            out.back() += line[i++];
        else if (c == '"')
            quoted = !quoted;
        else if (c == ',' && !quoted)
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

std::vector<std::string> lines(const std::string& path) {
    std::vector<std::string> out;
    std::istringstream in(testsupport::readFile(path));
    for (std::string l; std::getline(in, l); out.push_back(l))
        if (!l.empty() && l.back() == '\r') l.pop_back();
    return out;
}

int monthNumber(const std::string& name) {
    const size_t at = std::string("JanFebMarAprMayJunJulAugSepOctNovDec").find(name.substr(0, 3));
    return at == std::string::npos || at % 3 != 0 ? 0 : int(at / 3) + 1;
}

using Fields = std::vector<std::string>;

int num(const std::string& s, size_t at, size_t n) { return std::stoi(s.substr(at, n)); }

// The true time of a record, as "YYYY-MM-DD HH:MM:SS.ffffff" in UTC.
std::string truth(int y, int mo, int d, const std::string& clock) {
    int h = 0, mi = 0, s = 0;
    char frac[16] = "";
    sscanf(clock.c_str(), "%d%*[:.]%d%*[:.]%d%*[.,]%9[0-9]", &h, &mi, &s, frac);
    std::string f = frac;
    f.resize(6, '0');
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%s", y, mo, d, h, mi, s, f.c_str());
    return buf;
}

// Real logs of eight systems, each line's time against the record's own
// date and time columns. Times are read as UTC (the zone the guesser is
// told); where a log has no year, `now` makes the guesser choose the one
// stated here.
TEST(DateParser, RealLogsAgreeWithTheirTruth) {
    struct System {
        const char* name;
        int64_t now;
        std::function<std::string(const Fields&)> expected;
    };
    const std::vector<System> systems = {
        {"Android", utc(2017, 6, 1),  // year stated: 2017
         [](const Fields& f) { return truth(2017, num(f[1], 0, 2), num(f[1], 3, 2), f[2]); }},
        {"Apache", utc(2006, 1, 1),
         [](const Fields& f) {
             char wd[8], mon[8], clock[16];
             int d, y;
             sscanf(f[1].c_str(), "%7s %7s %d %15s %d", wd, mon, &d, clock, &y);
             return truth(y, monthNumber(mon), d, clock);
         }},
        {"BGL", utc(2006, 2, 1),  // 2005-06-03-15.42.50.675872
         [](const Fields& f) {
             return truth(num(f[5], 0, 4), num(f[5], 5, 2), num(f[5], 8, 2), f[5].substr(11));
         }},
        {"HDFS", utc(2008, 12, 1),
         [](const Fields& f) {
             const std::string t = std::string(6 - f[2].size(), '0') + f[2];
             return truth(2000 + num(f[1], 0, 2), num(f[1], 2, 2), num(f[1], 4, 2),
                          t.substr(0, 2) + ":" + t.substr(2, 2) + ":" + t.substr(4, 2));
         }},
        {"Linux", utc(2005, 12, 31),  // year stated: 2005
         [](const Fields& f) { return truth(2005, monthNumber(f[1]), std::stoi(f[2]), f[3]); }},
        {"OpenSSH", utc(2016, 12, 31),  // year stated: 2016
         [](const Fields& f) { return truth(2016, monthNumber(f[1]), std::stoi(f[2]), f[3]); }},
        {"Spark", utc(2017, 7, 1),
         [](const Fields& f) {
             return truth(2000 + num(f[1], 0, 2), num(f[1], 3, 2), num(f[1], 6, 2), f[2]);
         }},
        {"Zookeeper", utc(2015, 9, 1),
         [](const Fields& f) {
             return truth(num(f[1], 0, 4), num(f[1], 5, 2), num(f[1], 8, 2), f[2]);
         }},
    };
    for (const System& sys : systems) {
        const std::vector<std::string> log = lines(kLogs + sys.name + "_2k.log");
        const std::vector<std::string> csv = lines(kLogs + sys.name + "_2k.log_structured.csv");
        ASSERT_EQ(log.size() + 1, csv.size()) << sys.name;
        DateParser parser(true);
        ASSERT_TRUE(parser.guesser().setTZ("UTC"));
        size_t agree = 0;
        std::string firstMiss;
        for (size_t i = 0; i < log.size(); ++i) {
            Timeval t;
            const bool ok =
                parser.parseDate(t, StrSegment(log[i].data(), log[i].size()), Timeval(sys.now, 0));
            const std::string want = sys.expected(csvFields(csv[i + 1]));
            if (ok && show(t) == want) {
                ++agree;
            } else if (firstMiss.empty()) {
                firstMiss = log[i] + "\n  got " + (ok ? show(t) : "nothing") + ", want " + want;
            }
        }
        printf("%-10s %4zu of %4zu lines agree\n", sys.name, agree, log.size());
        EXPECT_EQ(agree, log.size()) << sys.name << ": " << firstMiss;
    }
}

struct Parsed {
    bool ok;
    std::string time;
};

Parsed parseOne(DateParser& p, const std::string& line, int64_t now) {
    Timeval t;
    const bool ok = p.parseDate(t, StrSegment(line.data(), line.size()), Timeval(now, 0));
    return {ok, ok ? show(t) : ""};
}

TEST(DateParser, LinesAndTheirTimes) {
    const int64_t now = utc(2023, 6, 1, 12);
    for (const auto& r : testsupport::dataRows("DateParserTest/lines")) {
        RecordingParser p;
        const Parsed got = parseOne(p, r[0], now);
        EXPECT_EQ(got.ok, !r[1].empty()) << r[0];
        EXPECT_EQ(got.time, r[1]) << r[0];
    }
    // TAI64 labels read the low 32 bits of the seconds.
    DateParser p(true);
    p.guesser().setMinMaxDays(10950, 7);
    EXPECT_EQ(parseOne(p, "@4000000052f9a2bc0000000a", now).time, show(Timeval(0x52f9a2bc, 0)));
}

TEST(DateParser, StreamHistory) {
    const int64_t now = utc(2023, 6, 1, 12);
    RecordingParser p;
    EXPECT_FALSE(parseOne(p, "no time on a new stream", now).ok);
    EXPECT_EQ(parseOne(p, "2023-05-02 10:00:00 first", now).time, "2023-05-02 10:00:00.000000");
    EXPECT_EQ(parseOne(p, "a continuation line", now).time, "2023-05-02 10:00:00.000000");
    ASSERT_FALSE(p.messages.empty());
    EXPECT_EQ(p.messages.back(),
              "TIMESTAMP_USING_PREVIOUS: Failed to parse timestamp in the first -1 characters "
              "(lookahead limit) of the record. Defaulting to timestamp of previous record "
              "(1683021600.000000).");
    p.messages.clear();
    for (int i = 0; i < 100000; ++i) parseOne(p, "2023-05-02 10:00:00 same", now);
    ASSERT_EQ(p.messages.size(), 1u);
    EXPECT_EQ(p.messages[0].substr(0, 77),
              "TIMESTAMP_CONSECUTIVE_LIMIT: The same timestamp has been used for 100K consec");

    // A word in capitals after the time is no zone unless one is known by
    // it: lines whose level words differ keep their own times once the
    // pattern has settled.
    RecordingParser levels;
    for (int i = 0; i < 12; ++i) {
        parseOne(levels, "2023-05-02 10:00:" + std::to_string(10 + i) + " INFO x", now);
    }
    EXPECT_EQ(parseOne(levels, "2023-05-02 10:00:40 WARNING y", now).time,
              "2023-05-02 10:00:40.000000");
    // A real zone does change the form: once settled, such a line counts as a
    // change of format and keeps the previous time.
    EXPECT_EQ(parseOne(levels, "2023-05-02 10:00:41 EST z", now).time,
              "2023-05-02 10:00:40.000000");

    // Times alone take today's date, yesterday's when well ahead of now.
    RecordingParser clock;
    const int64_t justAfterMidnight = utc(2023, 6, 2, 0, 10);
    EXPECT_EQ(parseOne(clock, "23:59:59 late", justAfterMidnight).time,
              "2023-06-01 23:59:59.000000");
    EXPECT_EQ(parseOne(clock, "00:00:05 early", justAfterMidnight).time,
              "2023-06-02 00:00:05.000000");

    // A date from the source's name serves lines with times only, and the
    // clock going back past the limit starts the next day.
    RecordingParser q;
    ASSERT_TRUE(q.setDateByString(StrSegment("web-2023-03-04.log")));
    EXPECT_EQ(parseOne(q, "23:30:00 late", now).time, "2023-03-04 23:30:00.000000");
    EXPECT_EQ(parseOne(q, "00:10:00 after midnight", now).time, "2023-03-05 00:10:00.000000");
}

// Times within a day of the real clock pass whatever `now` says.
TEST(DateParser, TheRealClockOverridesTheWindow) {
    const int64_t real = Timeval::now().sec();
    const time_t r = static_cast<time_t>(real);
    struct tm t;
    gmtime_r(&r, &t);
    char line[64];
    strftime(line, sizeof line, "%Y-%m-%d %H:%M:%S today", &t);
    RecordingParser p;
    EXPECT_TRUE(parseOne(p, line, real + 6 * 366 * 86400).ok);
    // An epoch needs no date, so nothing else can stand in for it.
    const std::string old = std::to_string(real - 6 * 366 * 86400);
    RecordingParser fresh;
    EXPECT_FALSE(parseOne(fresh, old + " six years ago", real).ok);
    ASSERT_FALSE(fresh.messages.empty());
    EXPECT_EQ(fresh.messages.back().compare(0, 30, "TIMESTAMP_REGEX_OUTSIDE_WINDOW"), 0);
}

TEST(TimeGuesser, ZoneNames) {
    for (const auto& r : testsupport::dataRows("DateParserTest/zone_names")) {
        long offset = 12345;
        EXPECT_EQ(timezone_offset_by_name(r[0].c_str(), &offset), r[1] != "-") << r[0];
        EXPECT_EQ(offset, r[1] == "-" ? 12345 : std::stol(r[1])) << r[0];  // untouched if unknown
    }
    TimezoneGuessResult r;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone("GMT+0100", &r));
    EXPECT_TRUE(r.isOffset);
    EXPECT_EQ(r.offset, 3600);
}

TEST(DateParser, ZoneAliasText) {
    std::map<Str, Str> aliases;
    EXPECT_TRUE(DateParser::parseTZalias(aliases, "MEZ=CET,XST=+0300"));
    EXPECT_EQ(aliases.size(), 2u);
    for (const char* bad : {"A=B=C", "=B", "A=", "A"}) {
        std::map<Str, Str> none;
        EXPECT_FALSE(DateParser::parseTZalias(none, bad)) << bad;
        EXPECT_TRUE(none.empty()) << bad;
    }
    DateParser p(true);
    EXPECT_TRUE(p.guesser().setUserZoneAlias(aliases));
    ASSERT_TRUE(p.guesser().setTZ("UTC"));
    EXPECT_EQ(parseOne(p, "2023-05-02 10:00:00 XST", utc(2023, 6, 1)).time,
              "2023-05-02 07:00:00.000000");
}

// The common line, once the stream has taught the parser its form, costs no
// allocation: each of these logs, read twice.
TEST(DateParser, AWarmStreamAllocatesNothing) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    for (const char* name : {"Zookeeper", "Linux", "BGL", "Android"}) {
        const std::vector<std::string> log = lines(kLogs + name + "_2k.log");
        DateParser p(true);
        ASSERT_TRUE(p.guesser().setTZ("UTC"));
        const Timeval now(utc(2018, 1, 1), 0);
        p.guesser().setMinMaxDays(10950, 7);
        Timeval t;
        for (size_t i = 0; i < 200; ++i)
            p.parseDate(t, StrSegment(log[i].data(), log[i].size()), now);
        alloccounter::Scope scope;
        for (size_t i = 200; i < 400; ++i) {
            p.parseDate(t, StrSegment(log[i].data(), log[i].size()), now);
        }
        EXPECT_EQ(scope.allocations(), 0) << name;
    }
}

// A time far from the previous one: accepted with a warning while the same
// patterns found it, refused when they changed.
TEST(DateParser, HasTimeWeighsDistanceFromThePrevious) {
    const int64_t now = utc(2023, 6, 1, 12);
    RecordingParser p;
    EXPECT_FALSE(p.hasTime(StrSegment("nothing here")));
    EXPECT_TRUE(p.hasTime(StrSegment("2023-05-02 10:00:00 on a new stream")));
    parseOne(p, "2023-05-02 10:00:00 first", now);
    EXPECT_TRUE(p.hasTime(StrSegment("2023-05-02 10:30:00 near")));
    EXPECT_TRUE(p.hasTime(StrSegment("2023-05-22 10:00:00 three weeks on, same form")));
    ASSERT_FALSE(p.messages.empty());
    EXPECT_EQ(p.messages.back().compare(0, 36, "TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS"), 0);
    EXPECT_FALSE(p.hasTime(StrSegment("05/22/2023 10:00:00 three weeks on, another form")));
    EXPECT_EQ(p.messages.back().compare(0, 31, "TIMESTAMP_TOO_FAR_FROM_PREVIOUS"), 0);
}

}  // namespace
