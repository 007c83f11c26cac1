#define PCRE2_CODE_UNIT_WIDTH 8
#include "util/Regex.h"

#include <gtest/gtest.h>
#include <pcre2.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/AllocCounter.h"
#include "support/TestSupport.h"

namespace {

using testsupport::ScratchDir;

// Matching against pcre2test is RegexPcre2SuiteTest's work; the PCRE2
// option values are checked where they are defined.

TEST(Regex, BadPatternThrowsWithPcre2Message) {
    for (const char* bad : {"(", "a{2,1}", "[z-a]", "\xff"}) {
        try {
            Regex re(bad);
            ADD_FAILURE() << bad;
        } catch (const RegexException& e) {
            EXPECT_EQ(std::string(e.what()).rfind("Regex: ", 0), 0u) << e.what();
        }
    }
}

TEST(Regex, ModesAndRest) {
    Regex re("a|ab");
    EXPECT_TRUE(re.fullyMatches("ab"));  // the full program backtracks into "ab"
    EXPECT_FALSE(re.fullyMatches("abc"));
    RegexMatch m;
    StrSegment rest;
    ASSERT_TRUE(re.matchBase("xaby", 4, &m, &rest, Regex::MATCH_NORMAL));
    EXPECT_EQ(std::string(rest), "by");
    EXPECT_FALSE(Regex("^a").matchBase("ab", 2, nullptr, nullptr, Regex::MATCH_NOTBOL));
    EXPECT_TRUE(Regex("abc").matchBase("xab", 3, &m, nullptr, Regex::MATCH_PARTIAL));
    EXPECT_EQ(m.size(), 1u);
    EXPECT_EQ(std::string(m.getGroup(0)), "ab");
    EXPECT_TRUE(Regex("").matchBase(nullptr, 0, nullptr, nullptr, Regex::MATCH_NORMAL));

    struct {
        const char *pattern, *text;
        size_t offset;
        mem_regexmatch_mode_t mode;
        long want;
    } table[] = {
        {"b+", "aabbb", 0, MEM_REGEXMATCH_PLAIN, 2},
        {"b+", "aabbb", 3, MEM_REGEXMATCH_PLAIN, 3},
        {"b+", "aabbb", 0, MEM_REGEXMATCH_ANCHORED, -1},
        {"a+", "aabbb", 0, MEM_REGEXMATCH_ANCHORED, 0},
        {"b+", "aabbb", 2, MEM_REGEXMATCH_FULL, 2},
        {"b+", "aabbb", 1, MEM_REGEXMATCH_FULL, -1},
        {"b", "aab", 4, MEM_REGEXMATCH_PLAIN, -1},
        {"x", "é x", 1, MEM_REGEXMATCH_PLAIN, -1},  // inside a character
    };
    for (const auto& r : table)
        EXPECT_EQ(mem_regexmatch(Regex(r.pattern), r.text, strlen(r.text), r.offset, r.mode),
                  r.want)
            << r.pattern << " " << r.text << " " << r.offset;
}

TEST(Regex, AnEmptyOneDescribesItself) { EXPECT_EQ(testsupport::crashText(Regex()), "//"); }

TEST(Regex, InvalidUtf8SubjectsNeverMatch) {
    const Regex any(".*");
    for (const char* bad : {"\xff", "ab\xc3", "\xed\xa0\x80", "\xc0\xaf", "a\x80z"}) {
        EXPECT_FALSE(any.matches(bad)) << bad;
        EXPECT_EQ(mem_regexmatch(any, bad, strlen(bad), MEM_REGEXMATCH_PLAIN), -1);
        Str s(bad);
        EXPECT_EQ(s.eraseAll(Regex("a")), 0u);
    }
}

TEST(Regex, FullMatchFallsBackWhenWrappingBreaksThePattern) {
    // "\Q" quotes the closing ")\z" of the wrapped form, so only the plain one compiles.
    Regex re("ab\\Q");
    EXPECT_EQ(re._getImpl()->_full_re.code, nullptr);
    EXPECT_TRUE(re.matches("xab"));
    EXPECT_TRUE(re.fullyMatches("ab"));
    EXPECT_FALSE(re.fullyMatches("xab"));
}

TEST(Regex, NamedGroups) {
    Regex re("(?J)(?<b>x)|(?<a>y)(?<b>z)");
    EXPECT_EQ(re.getCaptureGroupCount(), 3u);
    EXPECT_EQ(re.findNamedGroup("a"), 2u);
    EXPECT_EQ(re.findNamedGroup("b"), 3u);  // the last of the duplicates
    EXPECT_EQ(re.findNamedGroup("c"), Regex::INVALID_GROUP);
    EXPECT_EQ(re.findNamedGroup("", 0), Regex::INVALID_GROUP);
}

TEST(Regex, ReplaceAndSplit) {
    struct {
        const char *pattern, *replacement, *text, *want;
        size_t count;
    } table[] = {
        {"(\\w+)@(\\w+)", "\\2 at \\1", "mail joe@host now", "mail host at joe now", 1},
        // An empty match at every position; an empty rest is not searched again.
        {"x*", "-", "abc", "-a-b-c", 3},
        {"x*", "-", "é€", "-é-€", 2},
        // Only an empty match steps forward: after "xx" an empty match at "b" still counts.
        {"x*", "-", "axxb", "-a--b", 3},
        {"", "", "", "", 1},
        {"b", "\\\\\\9\\", "abc", "a\\\\c", 1},
        {"z", "y", "abc", "abc", 0},
        {"^a", "A", "aaa", "Aaa", 1},
    };
    for (const auto& row : table) {
        RegexReplacementPattern p;
        p.initWithBackrefs(row.replacement);
        Str s(row.text);
        EXPECT_EQ(s.replaceAll(Regex(row.pattern), p), row.count) << row.pattern;
        EXPECT_EQ(s, row.want) << row.pattern << " on " << row.text;
    }
    Str s("a1b22c");
    EXPECT_EQ(s.eraseAll(Regex("\\d")), 3u);
    EXPECT_EQ(s, "abc");

    RegexReplacementPattern p;
    EXPECT_FALSE(p.valid());
    p.initWithBackrefs("<\\1|\\3>");
    RegexMatch m;
    ASSERT_TRUE(Regex("(a)(b)").match("ab", &m));
    Str out;
    StrSegment unresolved;
    EXPECT_FALSE(p.substitute(&out, m, &unresolved));
    EXPECT_EQ(out, "<a|");
    EXPECT_EQ(std::string(unresolved), "\\3");

    struct {
        const char *pattern, *text;
        std::vector<std::string> want;
    } splits[] = {
        {",\\s*", "a, b,c", {"a", "b", "c"}},
        {",", ",a,", {"", "a", ""}},
        {"", "ab", {"a", "b"}},
        {"x*", "aé", {"a", "é"}},
        {",", "", {""}},
    };
    for (const auto& row : splits) {
        StrSegmentVector v;
        EXPECT_EQ(Regex(row.pattern).split(row.text, strlen(row.text), &v), row.want.size());
        std::vector<std::string> got(v.begin(), v.end());
        EXPECT_EQ(got, row.want) << row.pattern << " on " << row.text;
    }
}

// Escaped random UTF-8 matching itself is the fuzz target's work; here the
// metacharacters, every ASCII byte, and that nothing more matches.
TEST(Regex, EscapedTextMatchesItselfExactly) {
    std::vector<std::string> texts = {"", "a.b", "\\", "(?:x)|[y]{2}*+?^$", "#/-\n\t ", "é€𝄞"};
    std::string all;
    for (int c = 1; c < 128; ++c) all.push_back(char(c));
    texts.push_back(all);
    for (const std::string& t : texts) {
        const Regex re(Regex::escapeMetaChars(t.data(), t.size()));
        EXPECT_TRUE(re.fullyMatches(t)) << t;
        EXPECT_FALSE(!t.empty() && re.fullyMatches(t + "x")) << t;
    }
}

TEST(Regex, CacheSharesRotatesAndRecompilesNothingOnRecentPatterns) {
    Regex::setCacheHiwater(8);
    Regex::rotateCache();
    Regex::rotateCache();
    Regex::getMetricsDestructive();
    {
        Regex a("cache-test-(a)"), b("cache-test-(a)");
        EXPECT_EQ(a._getImpl(), b._getImpl());
        EXPECT_EQ(a._getImpl()->_refcnt, 2u);
    }
    Regex again("cache-test-(a)");  // dropped a moment ago: found in the recent generation
    auto m = Regex::getMetricsDestructive();
    EXPECT_EQ(m.misses, 1u);
    EXPECT_EQ(m.hits, 2u);
    again.clear();

    // hiwater + 1 distinct drops force a rotation; what stood in the recent
    // generation is then in the old one and is still found.
    for (int k = 0; k < 9; ++k) Regex r(Str::fromFormat("cache-test-%d", k));
    m = Regex::getMetricsDestructive();
    EXPECT_EQ(m.rotations, 1u);
    EXPECT_EQ(m.misses, 9u);
    Regex found("cache-test-(a)");
    Regex newest("cache-test-8");
    m = Regex::getMetricsDestructive();
    EXPECT_EQ(m.misses, 0u);
    EXPECT_EQ(m.hits, 2u);
    found.clear();
    newest.clear();
    for (int k = 0; k < 40; ++k) Regex r(Str::fromFormat("cache-test-filler-%d", k));
    Regex::getMetricsDestructive();
    Regex gone("cache-test-(a)");
    EXPECT_EQ(Regex::getMetricsDestructive().misses, 1u);
}

TEST(Regex, MatchingAllocatesNothingAfterWarmUp) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    const Regex re("(\\d+)\\.(\\d+)\\.(\\d+)\\.(\\d+)");
    const std::string text = "from 10.0.0.1 to 192.168.1.20";
    RegexMatch m;
    ASSERT_TRUE(re.match(text, &m));
    alloccounter::Scope scope;
    for (int k = 0; k < 100; ++k) {
        EXPECT_TRUE(re.match(text, &m));
        EXPECT_GE(mem_regexmatch(re, text.data(), text.size(), MEM_REGEXMATCH_PLAIN), 0);
    }
    EXPECT_EQ(scope.allocations(), 0);
}

TEST(Regex, MatchesPastTheJitStackThroughTheInterpreter) {
    // Each repetition of the group keeps a backtracking point: far more
    // than the JIT's default stack holds.
    const std::string text = std::string(200000, 'a') + "c";
    EXPECT_TRUE(Regex("^(a|b)*c$").fullyMatches(text));
    EXPECT_EQ(mem_regexmatch(Regex("(a|b)*c"), text.data(), text.size(), MEM_REGEXMATCH_PLAIN), 0);
}

TEST(Regex, MatchLimitIsReported) {
    const Regex re("(a+)+$");
    RegexMatch m;
    m.setLimits({200, 200});
    EXPECT_FALSE(re.match(std::string(30, 'a') + "b", &m));
    EXPECT_EQ(m.limitExceeded(), 2);
    EXPECT_TRUE(re.match("aaa", &m));
    EXPECT_EQ(m.limitExceeded(), 0);
}

bool saysYes() { return true; }
bool saysNo() { return false; }

TEST(Regex, JitDecision) {
    ScratchDir dir;
    uint32_t haveJit = 0;
    pcre2_config(PCRE2_CONFIG_JIT, &haveJit);
    testsupport::writeFile(dir / "pax-on", "Name:\tx\nPaX:\tPEMRS\n");
    testsupport::writeFile(dir / "pax-off", "Name:\tx\nPaX:\tpemrs\n");
    const std::string none = dir / "missing";
    const char* inherited = getenv("TARVEX_JIT_REGEXES");
    const std::string saved = inherited ? inherited : "";
    const bool had = inherited != nullptr;
    auto setJit = [](const char* v) {
        v ? setenv("TARVEX_JIT_REGEXES", v, 1) : unsetenv("TARVEX_JIT_REGEXES");
    };

    struct {
        const char* env;  // null: unset
        std::string status;
        bool (*selinux)();
        pcre2_jit_enabled_state want;
    } table[] = {
        {nullptr, none, saysNo, PCRE2JIT_ENABLED},
        {nullptr, dir / "pax-on", saysNo, PCRE2JIT_DISABLED_PAX},
        {nullptr, dir / "pax-off", saysNo, PCRE2JIT_ENABLED},
        {nullptr, none, saysYes, PCRE2JIT_DISABLED_SELINUX},
        {"yes", dir / "pax-on", saysYes, PCRE2JIT_EXPLICITLY_ENABLED},
        {"0", none, saysNo, PCRE2JIT_EXPLICITLY_DISABLED},
        {"maybe", none, saysNo, PCRE2JIT_ENABLED},
    };
    for (const auto& row : table) {
        setJit(row.env);
        pcre2_jit_enabled_state want = row.want;
        if (!haveJit && want != PCRE2JIT_EXPLICITLY_DISABLED) want = PCRE2JIT_NOT_AVAILABLE;
        EXPECT_EQ(regex_jit_check(row.status.c_str(), row.selinux), want) << row.status;
    }

    // Switched off: no pattern compiled from then on has JIT code.
    setJit("false");
    Regex::_resetJitCheckForTesting();
    {
        Regex re("jit-test-off-(x+)");
        EXPECT_EQ(regex_jit_state(), PCRE2JIT_EXPLICITLY_DISABLED);
        EXPECT_FALSE(re._getImpl()->_re.jit);
        EXPECT_FALSE(re._getImpl()->_full_re.jit);
        EXPECT_TRUE(re.fullyMatches("jit-test-off-xx"));
    }
    setJit(had ? saved.c_str() : nullptr);
    Regex::_resetJitCheckForTesting();
    Regex re("jit-test-on-(x+)");
    EXPECT_EQ(re._getImpl()->_re.jit, regex_jit_state() >= PCRE2JIT_ENABLED);
}

}  // namespace
