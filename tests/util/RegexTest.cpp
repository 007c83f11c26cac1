#define PCRE2_CODE_UNIT_WIDTH 8
#include "util/Regex.h"

#include <gtest/gtest.h>
#include <pcre2.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "support/AllocCounter.h"
#include "support/Pcre2test.h"
#include "support/TestSupport.h"

namespace {

using testsupport::ScratchDir;

// Groups as pcre2test prints them: "N: text", "<unset>" in the middle,
// nothing after the last set group; "No match" alone.
std::vector<std::string> ourGroups(const char* pattern, const std::string& subject) {
    Regex re(pattern);
    RegexMatch m;
    if (!re.match(subject, &m)) return {"No match"};
    size_t last = 0;
    for (unsigned g = 0; g < m.size(); ++g) {
        if (m.isGroupSet(g)) last = g;
    }
    std::vector<std::string> out;
    for (unsigned g = 0; g <= last; ++g) {
        out.push_back(m.isGroupSet(g) ? pcre2test::printed(m.getGroup(g)) : "<unset>");
    }
    return out;
}

TEST(Regex, AgreesWithPcre2test) {
    if (access("/usr/bin/pcre2test", X_OK) != 0) GTEST_SKIP() << "pcre2test not installed";
    struct Case {
        const char* pattern;
        std::vector<std::string> subjects;
    };
    // Subjects avoid backslashes and edge blanks: pcre2test reads escapes there.
    const std::vector<Case> cases = {
        {"(a)(b)?c", {"ac", "abc", "xbc", ""}},
        {"^(\\w+)@(\\w+)\\.com$", {"joe@example.com", "joe@example.org", "@x.com"}},
        {"(a|ab)(c|bcd)(d*)", {"abcd", "acd"}},
        {"(?<year>\\d{4})-(?<mon>\\d\\d)", {"on 2024-05-01", "24-05"}},
        {"x*", {"", "xxx", "axx"}},
        {"(?i)straße", {"STRASSE", "Straße", "STRAßE"}},
        {"\\bfoo\\b", {"a foo b", "afoob"}},
        {"(a+)+b", {"aaab", "aaaa"}},
        {"[^\\x{100}-\\x{2FF}]+", {"ĀāabcĀ", "Āā"}},
        {"(?:(x)|(y))z", {"yz", "xz"}},
        {"é(.)(.)", {"aébc", "é€x"}},
        {"a(?=b)|c(?!d)", {"ab", "cd", "ce"}},
        {"(\\d+)(?:px|em)?", {"width: 12px", "none"}},
        {"^$", {"", "x"}},
    };
    ScratchDir dir;
    std::string input;
    for (const Case& c : cases) {
        input += std::string("/") + c.pattern + "/utf\n";
        // A lone backslash is the empty subject; an empty line would end the list.
        for (const std::string& s : c.subjects) input += "    " + (s.empty() ? "\\" : s) + "\n";
        input += "\n";
    }
    testsupport::writeFile(dir / "in", input);
    const auto run = testsupport::runProcess({"/usr/bin/pcre2test", "-q", dir / "in"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;

    // Results in subject order, the echoed input skipped.
    std::vector<std::vector<std::string>> theirs;
    size_t pos = 0;
    bool inResult = false;
    while (pos < run.out.size()) {
        size_t nl = run.out.find('\n', pos);
        if (nl == std::string::npos) nl = run.out.size();
        const std::string line = run.out.substr(pos, nl - pos);
        pos = nl + 1;
        const size_t colon = line.find(": ");
        const bool group = colon != std::string::npos && colon >= 2 && line[0] != '/' &&
                           line.compare(0, 4, "    ") != 0;
        if (line == "No match") {
            theirs.push_back({"No match"});
            inResult = false;
        } else if (group || (line.size() >= 2 && line.back() == ':' && line[0] != '/')) {
            if (!inResult || line.compare(0, 3, " 0:") == 0) theirs.emplace_back();
            inResult = true;
            theirs.back().push_back(colon == std::string::npos ? "" : line.substr(colon + 2));
        } else {
            inResult = false;
        }
    }
    size_t k = 0;
    for (const Case& c : cases) {
        for (const std::string& s : c.subjects) {
            ASSERT_LT(k, theirs.size()) << run.out;
            EXPECT_EQ(ourGroups(c.pattern, s), theirs[k]) << c.pattern << " on \"" << s << "\"";
            ++k;
        }
    }
    EXPECT_EQ(k, theirs.size());
}

TEST(Regex, Pcre2ConstantsAreThoseOfTheLinkedLibrary) {
    struct {
        long ours, header;
    } table[] = {
        {0x00080004, PCRE2_UTF | PCRE2_AUTO_CALLOUT},
        {0x80080004, PCRE2_UTF | PCRE2_AUTO_CALLOUT | PCRE2_ANCHORED},
        {5, PCRE2_JIT_COMPLETE | PCRE2_JIT_PARTIAL_HARD},
        {-1, PCRE2_ERROR_NOMATCH},
        {-2, PCRE2_ERROR_PARTIAL},
        {-45, PCRE2_ERROR_JIT_BADOPTION},
        {-46, PCRE2_ERROR_JIT_STACKLIMIT},
        {-47, PCRE2_ERROR_MATCHLIMIT},
        {-48, PCRE2_ERROR_NOMEMORY},
        {-53, PCRE2_ERROR_DEPTHLIMIT},
    };
    for (const auto& row : table) EXPECT_EQ(row.ours, row.header);
}

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
        const char* pattern;
        const char* text;
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
    for (const auto& row : table) {
        EXPECT_EQ(
            mem_regexmatch(Regex(row.pattern), row.text, strlen(row.text), row.offset, row.mode),
            row.want)
            << row.pattern << " " << row.text << " " << row.offset;
    }
}

TEST(Regex, DescribesItself) {
    Str out;
    append_stringified(&out, Regex("a/b+"));
    EXPECT_EQ(out, "/a/b+/");
    EXPECT_EQ(testsupport::crashText(Regex("x\\d")), "/x\\d/");
    EXPECT_EQ(testsupport::crashText(Regex()), "//");
}

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
        const char* pattern;
        const char* replacement;
        const char* text;
        const char* want;
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
        const char* pattern;
        const char* text;
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

TEST(Regex, EscapedTextMatchesItselfExactly) {
    std::vector<std::string> texts = {"", "a.b", "\\", "(?:x)|[y]{2}*+?^$", "#/-\n\t ", "é€𝄞"};
    std::string all;
    for (int c = 1; c < 128; ++c) all.push_back(char(c));
    texts.push_back(all);
    std::mt19937 rng(12345);
    const uint32_t ranges[][2] = {
        {0x20, 0x7e}, {0x80, 0x7ff}, {0x800, 0xd7ff}, {0x10000, 0x10ffff}};
    for (int n = 0; n < 200; ++n) {
        std::string t;
        for (int k = rng() % 12; k > 0; --k) {
            const auto& r = ranges[rng() % 4];
            const uint32_t cp = r[0] + rng() % (r[1] - r[0] + 1);
            utf8_character_buffer b(cp);
            t.append(b.data(), b.size());
        }
        texts.push_back(t);
    }
    for (const std::string& t : texts) {
        const Str escaped = Regex::escapeMetaChars(t.data(), t.size());
        const Regex re(escaped);
        EXPECT_TRUE(re.fullyMatches(t)) << t;
        if (!t.empty()) {
            EXPECT_FALSE(re.fullyMatches(t + "x")) << t;
        }
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
    for (int k = 0; k < 9; ++k) {
        Regex r(Str::fromFormat("cache-test-%d", k));
    }
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
    const char* saved = getenv("TARVEX_JIT_REGEXES");
    const std::string savedValue = saved ? saved : "";

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
        if (row.env) {
            setenv("TARVEX_JIT_REGEXES", row.env, 1);
        } else {
            unsetenv("TARVEX_JIT_REGEXES");
        }
        pcre2_jit_enabled_state want = row.want;
        if (!haveJit && want != PCRE2JIT_EXPLICITLY_DISABLED) want = PCRE2JIT_NOT_AVAILABLE;
        EXPECT_EQ(regex_jit_check(row.status.c_str(), row.selinux), want) << row.status;
    }

    // Switched off: no pattern compiled from then on has JIT code.
    setenv("TARVEX_JIT_REGEXES", "false", 1);
    Regex::_resetJitCheckForTesting();
    {
        Regex re("jit-test-off-(x+)");
        EXPECT_EQ(regex_jit_state(), PCRE2JIT_EXPLICITLY_DISABLED);
        EXPECT_FALSE(re._getImpl()->_re.jit);
        EXPECT_FALSE(re._getImpl()->_full_re.jit);
        EXPECT_TRUE(re.fullyMatches("jit-test-off-xx"));
    }
    if (saved) {
        setenv("TARVEX_JIT_REGEXES", savedValue.c_str(), 1);
    } else {
        unsetenv("TARVEX_JIT_REGEXES");
    }
    Regex::_resetJitCheckForTesting();
    Regex re("jit-test-on-(x+)");
    EXPECT_EQ(re._getImpl()->_re.jit, regex_jit_state() >= PCRE2JIT_ENABLED);
}

}  // namespace
