// PCRE2's own Perl-compatible tests (tests/data/pcre2/testinput1) and our
// hand-picked ones (data/RegexPcre2SuiteTest/handpicked), those patterns that
// carry no modifiers, through Regex and through pcre2test in UTF mode; the
// same match and the same groups for every subject.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "support/Pcre2test.h"
#include "support/TestSupport.h"
#include "util/Regex.h"

namespace {

struct Case {
    std::string pattern;
    std::vector<std::string> subjects;  // raw bytes, valid UTF-8
};

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') return (c | 0x20) - 'a' + 10;
    return -1;
}

// A subject line as pcre2test reads it outside UTF mode; false for one that
// uses modifiers or repetition, which this driver doesn't take.
bool decodeSubject(const std::string& line, std::string* out) {
    const size_t b = line.find_first_not_of(" \t"), e = line.find_last_not_of(" \t");
    if (b == std::string::npos) return false;
    const std::string s = line.substr(b, e - b + 1), named = "abefnrtv";
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\') {
            out->push_back(s[i]);
            continue;
        }
        if (++i == s.size()) return true;  // a lone backslash ends the subject
        const char c = s[i];
        unsigned v = 0;
        if (c == '=' || c == '[') return false;
        if (c == 'x' && i + 1 < s.size() && s[i + 1] == '{') {
            const size_t close = s.find('}', i);
            if (close == std::string::npos) return false;
            for (size_t k = i + 2; k < close; ++k) {
                if (hexDigit(s[k]) < 0) return false;
                v = v * 16 + unsigned(hexDigit(s[k]));
            }
            i = close;
        } else if (c == 'x') {
            for (int n = 0; n < 2 && i + 1 < s.size() && hexDigit(s[i + 1]) >= 0; ++n)
                v = v * 16 + unsigned(hexDigit(s[++i]));
        } else if (c >= '0' && c <= '7') {
            v = unsigned(c - '0');
            for (int n = 0; n < 2 && i + 1 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '7'; ++n)
                v = v * 8 + unsigned(s[++i] - '0');
        } else {  // a named control, or any other escaped byte stands for itself
            const size_t k = named.find(c);
            v = static_cast<unsigned char>(k == std::string::npos ? c : "\a\b\x1b\f\n\r\t\v"[k]);
        }
        if (v > 0xFF) return false;
        out->push_back(char(v));
    }
    return true;
}

// The patterns without modifiers and their usable subjects; counts what was
// left out.
std::vector<Case> readSuite(const std::string& text, unsigned* skippedPatterns,
                            unsigned* skippedSubjects) {
    std::vector<Case> cases;
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    bool special = false;  // inside "#pattern" or "#subject" settings
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& l = lines[i];
        if (l.rfind("#pattern", 0) == 0 || l.rfind("#subject", 0) == 0) {
            special = l.find(" -") == std::string::npos;
            continue;
        }
        if (l.empty() || l[0] != '/') continue;
        // A pattern may span lines: it ends at an unescaped "/" at the end of
        // a line, or followed by modifiers.
        std::string pattern = l.substr(1), modifiers;
        for (;;) {
            size_t end = std::string::npos;
            for (size_t k = 0; k < pattern.size(); ++k) {
                if (pattern[k] == '/') end = k;
                k += pattern[k] == '\\';
            }
            if (end != std::string::npos) {
                modifiers = pattern.substr(end + 1);
                pattern.resize(end);
                break;
            }
            if (++i == lines.size()) return cases;
            pattern += "\n" + lines[i];
        }
        Case c{pattern, {}};
        for (++i; i < lines.size() && !lines[i].empty() &&
                  (lines[i][0] == ' ' || lines[i][0] == '\t' || lines[i][0] == '\\');
             ++i) {
            if (lines[i].rfind("\\=", 0) == 0) continue;  // a comment
            std::string subject;
            if (decodeSubject(lines[i], &subject) &&
                mem_is_valid_utf8(subject.data(), subject.size()))
                c.subjects.push_back(subject);
            else
                ++*skippedSubjects;
        }
        --i;
        if (modifiers.empty() && !special)
            cases.push_back(std::move(c));
        else
            ++*skippedPatterns;
    }
    return cases;
}

// Every byte as \xhh (in UTF mode a raw byte) but letters and digits.
std::string escapedForPcre2test(const std::string& s) {
    std::string out = "    ";
    for (unsigned char c : s) {
        char buf[8];
        snprintf(buf, sizeof buf, isalnum(c) ? "%c" : "\\x%02x", c);
        out += buf;
    }
    return out.size() == 4 ? "    \\" : out;
}

TEST(RegexPcre2Suite, PerlCompatibleCasesAgreeWithPcre2test) {
    if (access("/usr/bin/pcre2test", X_OK) != 0) GTEST_SKIP() << "pcre2test not installed";
    unsigned skippedPatterns = 0, skippedSubjects = 0;
    const std::vector<Case> cases = readSuite(
        testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/pcre2/testinput1") + "\n" +
            testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/RegexPcre2SuiteTest/handpicked"),
        &skippedPatterns, &skippedSubjects);
    ASSERT_GT(cases.size(), 500u);
    ASSERT_EQ(cases.back().pattern, "^$") << "the hand-picked cases are read";

    // One pattern line per subject, so that each result follows its own echo.
    testsupport::ScratchDir dir;
    std::string input;
    std::vector<std::pair<size_t, size_t>> order;  // case, subject
    for (size_t c = 0; c < cases.size(); ++c) {
        for (size_t s = 0; s < cases[c].subjects.size(); ++s) {
            input += "/" + cases[c].pattern + "/utf\n" + escapedForPcre2test(cases[c].subjects[s]) +
                     "\n\n";
            order.emplace_back(c, s);
        }
    }
    testsupport::writeFile(dir / "in", input);
    const auto run = testsupport::runProcess({"/usr/bin/pcre2test", "-q", dir / "in"});

    // Each subject's block runs from its echoed pattern line to the next one;
    // its result lines follow the echoed subject.
    unsigned compared = 0, bothRefused = 0, mismatches = 0;
    size_t at = 0;
    for (size_t k = 0; k < order.size(); ++k) {
        const Case& c = cases[order[k].first];
        const std::string& subject = c.subjects[order[k].second];
        const std::string head = "/" + c.pattern + "/utf\n";
        const size_t start = run.out.find(head, at);
        ASSERT_NE(start, std::string::npos) << "block " << k;
        at = start + head.size();
        const size_t next =
            k + 1 < order.size()
                ? run.out.find("/" + cases[order[k + 1].first].pattern + "/utf\n", at)
                : run.out.size();
        const std::string block = run.out.substr(at, next - at);
        std::vector<std::string> want;
        // A pattern pcre2test refuses is reported before the echoed subject.
        size_t p = block.rfind("Failed", 0) == 0 ? 0 : block.find('\n') + 1;
        for (size_t nl; p < block.size() && (nl = block.find('\n', p)) != std::string::npos;
             p = nl + 1) {
            const std::string line = block.substr(p, nl - p);
            if (line.empty() || line.rfind("    ", 0) == 0) continue;  // blank, or an echo
            const size_t colon = line.find(':');
            want.push_back(line == "No match" || colon == std::string::npos ||
                                   line.rfind("Failed", 0) == 0
                               ? line
                               : line.substr(std::min(line.size(), colon + 2)));
        }
        const bool theyFailed =
            !want.empty() && (want[0].rfind("Failed", 0) == 0 || want[0].rfind("** ", 0) == 0);
        std::vector<std::string> ours = {"No match"};
        try {
            Regex re{Str(c.pattern)};
            RegexMatch m;
            if (re.match(subject, &m)) {
                unsigned n = m.size();  // up to the last group set
                while (n > 1 && !m.isGroupSet(n - 1)) --n;
                ours.clear();
                for (unsigned g = 0; g < n; ++g)
                    ours.push_back(m.isGroupSet(g) ? pcre2test::printed(m.getGroup(g)) : "<unset>");
            }
        } catch (const RegexException&) {
            ours = {"refused"};
        }
        if (theyFailed) {
            // pcre2test refused the pattern, or the match hit a limit.
            bothRefused += ours.size() == 1 && (ours[0] == "refused" || ours[0] == "No match");
            continue;
        }
        ++compared;
        if (ours != want) {
            ++mismatches;
            ADD_FAILURE() << "/" << c.pattern << "/ on \"" << subject << "\": ours "
                          << testing::PrintToString(ours) << ", pcre2test "
                          << testing::PrintToString(want);
        }
    }
    printf(
        "pcre2 suite: %zu patterns, %u subjects compared, %u refused by pcre2test, "
        "%u patterns with modifiers and %u subjects with unsupported escapes left out\n",
        cases.size(), compared, bothRefused, skippedPatterns, skippedSubjects);
    EXPECT_EQ(mismatches, 0u);
    EXPECT_GT(compared, 1000u);
}

}  // namespace
