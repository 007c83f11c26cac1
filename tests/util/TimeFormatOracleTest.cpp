// TimeFormat rendering against other people's clocks: glibc's strftime in the
// C locale (through python3), GNU date for what strftime lacks (sub-second
// digits, the colon offsets, epoch seconds), and Python's ISO calendar. The
// places where we part from glibc on purpose are pinned one by one below.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/Oracles.h"
#include "support/TestSupport.h"
#include "util/DateTime.h"

namespace {

long utc(int year, int month, int mday, int hour = 0, int minute = 0, int second = 0) {
    struct tm t = {};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = mday;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
    return static_cast<long>(timegm(&t));
}

TimeFormat compiled(const std::string& format) {
    TimeFormat f;
    EXPECT_TRUE(f.setFtime(format.c_str())) << format;
    return f;
}

std::string gmt(long t, const TimeFormat& f, unsigned long usec = 0) {
    GmtStructTm g;
    EXPECT_TRUE(g.GMT_fromUnixTime(t)) << t;
    Str out;
    if (f.valid()) g.appendFtime(out, f, usec);
    return out;
}

std::string gmt(long t, const char* format, unsigned long usec = 0) {
    return gmt(t, compiled(format), usec);
}

// Seconds spread over 1971-2999, the same on every run, then the edges.
std::vector<long> sampleTimes() {
    std::mt19937_64 rng(300);
    const long lo = utc(1971, 1, 1), hi = utc(3000, 1, 1);
    std::vector<long> times;
    for (int i = 0; i < 40; ++i) times.push_back(lo + static_cast<long>(rng() % (hi - lo)));
    const int edges[][6] = {
        {2021, 1, 3, 0, 0, 0},      {2024, 12, 30, 0, 0, 0},    {2024, 2, 29, 6, 7, 8},
        {1999, 12, 31, 23, 59, 59}, {2000, 1, 1, 0, 0, 0},      {2000, 1, 1, 0, 59, 59},
        {2000, 1, 1, 11, 59, 59},   {2000, 1, 1, 12, 0, 0},     {2000, 1, 1, 12, 59, 59},
        {2000, 1, 1, 13, 0, 0},     {2020, 12, 31, 23, 59, 59}, {1971, 1, 1, 0, 0, 0},
        {2999, 12, 31, 23, 59, 59}, {2027, 1, 3, 9, 5, 1}};
    for (const int* e : edges) times.push_back(utc(e[0], e[1], e[2], e[3], e[4], e[5]));
    return times;
}

std::string unhex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::vector<std::string> python(const std::vector<std::string>& inputs) {
    // Each input line is "S seconds hex-format" (strftime on gmtime) or
    // "I seconds" (the ISO year, week and weekday of that UTC day).
    return oracle::runOverHex(
        {"/usr/bin/env", "python3", TARVEX_SOURCE_DIR "/tests/data/TimeFormatOracleTest/clock.py"},
        inputs);
}

// ---------------------------------------------------------------- glibc strftime

TEST(TimeFormatOracle, MatchesGlibcStrftimeInTheCLocale) {
    const std::vector<std::string> formats = {
        // Every conversion the two share.
        "%a", "%A", "%b", "%B", "%c", "%C", "%d", "%D", "%e", "%F", "%g", "%G", "%h", "%H", "%I",
        "%j", "%k", "%l", "%m", "%M", "%n", "%p", "%P", "%r", "%R", "%S", "%t", "%T", "%u", "%U",
        "%V", "%w", "%W", "%x", "%X", "%y", "%Y", "%z", "%%", "[%Y-%m-%dT%H:%M:%S %z]",
        // Flags and widths on numbers and names.
        "%-d", "%_H", "%^a", "%5Y", "%03d", "%4H", "%_5Y", "%010Y", "%3e", "%-e", "%0e", "%4k",
        "%-k", "%6j", "%_j", "%-j", "%^A", "%^b", "%^B", "%^p", "%_m", "%-m", "%-U", "%_V", "%-I",
        "%3l", "%-M", "%_S", "%4g", "%-y", "%_d", "%-H"};
    const std::vector<long> times = sampleTimes();
    std::vector<std::string> inputs;
    for (const std::string& f : formats) {
        for (long t : times) inputs.push_back("S " + std::to_string(t) + " " + oracle::hex(f));
    }
    const std::vector<std::string> theirs = python(inputs);

    size_t at = 0;
    for (const std::string& f : formats) {
        const TimeFormat ours = compiled(f);
        int wrong = 0;
        for (long t : times) {
            const std::string mine = gmt(t, ours), expected = unhex(theirs[at++]);
            // The first difference in full, then only how many there were.
            if (mine != expected && wrong++ == 0) {
                EXPECT_EQ(mine, expected) << "format \"" << f << "\" at " << t;
            }
        }
        EXPECT_EQ(wrong, 0) << "format \"" << f << "\"";
    }
}

TEST(TimeFormatOracle, IsoWeeksMatchPythonOverEveryDayOf2019To2026) {
    std::vector<long> days;
    for (long t = utc(2019, 1, 1); t < utc(2027, 1, 1); t += 86400) days.push_back(t + 43199);
    std::vector<std::string> inputs;
    for (long t : days) inputs.push_back("I " + std::to_string(t));
    const std::vector<std::string> theirs = python(inputs);
    const TimeFormat iso = compiled("%G %V %u");
    int wrong = 0;
    for (size_t i = 0; i < days.size(); ++i) {
        const std::string mine = gmt(days[i], iso);
        if (mine != theirs[i] && wrong++ < 5) {
            ADD_FAILURE() << gmt(days[i], "%F") << ": ours " << mine << ", Python " << theirs[i];
        }
    }
    EXPECT_EQ(wrong, 0);
}

// ---------------------------------------------------------------- GNU date

TEST(TimeFormatOracle, SubsecondsOffsetsAndEpochMatchGnuDate) {
    // POSIX rules rather than zone files, so that no tz database is needed.
    const std::vector<std::string> zones = {"UTC0",  "IST-5:30", "BRT3",
                                            "CET-1", "NPT-5:45", "NST3:30"};
    const std::string format = "%s|%N|%3N|%6N|%z|%:z|%::z|%:::z|%-d|%_H|%^a";
    std::vector<std::pair<long, unsigned long>> moments = {{utc(2000, 1, 1), 0},
                                                           {utc(2024, 2, 29, 23, 59, 59), 999999},
                                                           {utc(1999, 12, 31, 18, 45), 1},
                                                           {utc(2021, 1, 3, 20, 30), 500000},
                                                           {utc(2024, 12, 30, 3, 4, 5), 123456}};
    std::mt19937_64 rng(300);
    for (long t : sampleTimes()) moments.push_back({t, rng() % 1000000});
    testsupport::ScratchDir dir;
    std::string stamps;
    char buf[64];
    for (auto [t, usec] : moments) {
        snprintf(buf, sizeof buf, "@%ld.%06lu\n", t, usec);
        stamps += buf;
    }
    testsupport::writeFile(dir / "times", stamps);
    const char* script =
        "in=$1; f=$2; shift 2; for z; do TZ=$z date -f \"$in\" \"+$f\" || exit 1; done";
    std::vector<std::string> argv = {"/bin/sh", "-c", script, "sh", dir / "times", format};
    argv.insert(argv.end(), zones.begin(), zones.end());
    const testsupport::ProcessResult r = testsupport::runProcess(argv);
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    std::vector<std::string> theirs;
    std::istringstream lines(r.out);
    for (std::string l; std::getline(lines, l);) theirs.push_back(l);
    ASSERT_EQ(theirs.size(), zones.size() * moments.size());

    const TimeFormat ours = compiled(format);
    std::optional<std::string> savedTz;
    if (const char* old = getenv("TZ")) savedTz = old;
    for (size_t z = 0; z < zones.size(); ++z) {
        setenv("TZ", zones[z].c_str(), 1);
        tzset();
        int wrong = 0;
        for (size_t i = 0; i < moments.size(); ++i) {
            const auto [t, usec] = moments[i];
            std::string mine = gmt(t, ours, usec);  // UTC0 through the GMT path
            if (z > 0) {
                LocalStructTm l;
                EXPECT_TRUE(l.Local_fromUnixTime(t)) << t;
                Str out;
                l.appendFtime(out, ours, usec);
                mine = out;
            }
            const std::string& expected = theirs[z * moments.size() + i];
            if (mine != expected && wrong++ == 0) {
                EXPECT_EQ(mine, expected) << "TZ=" << zones[z] << " @" << t << " usec " << usec;
            }
        }
        EXPECT_EQ(wrong, 0) << "TZ=" << zones[z];
    }
    savedTz ? setenv("TZ", savedTz->c_str(), 1) : unsetenv("TZ");
    tzset();
}

// ---------------------------------------------------------------- on purpose

// '#': glibc upper-cases, we swap the case, as the flag means for every
// other conversion. Width 2 cuts a weekday name to two letters, enough to
// tell the days apart. Names are never padded unless a width asks.
TEST(TimeFormatOnPurpose, NamesPartFromGlibc) {
    const long sunday = utc(2024, 1, 7, 15);  // a Sunday in January
    EXPECT_EQ(gmt(sunday, "%#a %#b"), "sUN jAN");
    EXPECT_EQ(gmt(sunday, "%2a|%2A"), "Su|Su");
    EXPECT_EQ(gmt(utc(2024, 5, 5), "[%A][%B]"), "[Sunday][May]");
    // A broken field shows as such instead of reading past the name tables.
    GmtStructTm g;
    ASSERT_TRUE(g.GMT_fromUnixTime(sunday));
    g.tm_mon = 12;
    g.tm_wday = 7;
    Str out;
    g.appendFtime(out, compiled("%b|%B|%a|%A"));
    EXPECT_EQ(out, "???|???|???|???");
}

}  // namespace
