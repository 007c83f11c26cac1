// Path algebra on tricky names, and shell quoting proved by a real shell.

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/Pathname.h"

namespace {

// The rows of a table in data/PathnameNamesTest/, each with `columns` fields.
std::vector<std::vector<std::string>> rows(const std::string& table, size_t columns) {
    std::vector<std::vector<std::string>> out;
    std::istringstream in(
        testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/PathnameNamesTest/" + table));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        out.emplace_back();
        std::istringstream fields(line);
        for (std::string f; std::getline(fields, f, '\t');)
            out.back().push_back(f == "\"\"" ? "" : f);
        EXPECT_EQ(out.back().size(), columns) << line;
        if (out.back().size() != columns) out.pop_back();
    }
    EXPECT_GE(out.size(), 6u) << table;
    return out;
}

TEST(PathnameJoin, AddsExactlyTheSeparatorsNeeded) {
    for (const auto& r : rows("join.tsv", 3)) {
        EXPECT_EQ(Pathname(r[0]) / r[1].c_str(), r[2]) << r[0] << " / " << r[1];
        Pathname p(r[0]);
        p /= StrSegment(r[1].data(), r[1].size());
        EXPECT_EQ(p, r[2]);
    }
    EXPECT_EQ(Pathname("abc").substr(5), "");
    EXPECT_EQ(Pathname("abc").substr(1, 99), "bc");
    EXPECT_EQ(Pathname("a\\b\\c").replaceBackSlashesWithSep(), "a/b/c");
}

TEST(PathnameNames, LeafParentAndExtensions) {
    for (const auto& r : rows("names.tsv", 8)) {
        const Pathname p(r[0]);
        SCOPED_TRACE(r[0]);
        EXPECT_EQ(p.toLeaf(), r[1]);
        EXPECT_EQ(p.toParent(), r[2]);
        EXPECT_EQ(p.ext(1), r[3]);
        EXPECT_EQ(p.ext(2), r[4]);
        EXPECT_EQ(p.withoutExt(1), r[5]);
        EXPECT_EQ(p.withoutExt(2), r[6]);
        EXPECT_EQ(p.withoutExt(0), r[0]);
        EXPECT_EQ(p.basenameWithoutExt(), r[7]);
    }
}

TEST(PathnameNames, Separators) {
    for (const auto& r : rows("separators.tsv", 4)) {
        SCOPED_TRACE(r[0]);
        EXPECT_EQ(Pathname(r[0]).addTrailingSep(), r[1]);
        EXPECT_EQ(Pathname(r[0]).removeTrailingSeps(), r[2]);
        EXPECT_EQ(Pathname(r[0]).removeDoubleSeps(), r[3]);
    }
}

TEST(PathnameNames, NormalizeAndDotDotRemoval) {
    for (const auto& r : rows("normalize.tsv", 4)) {
        SCOPED_TRACE(r[0]);
        Pathname p(r[0]);
        EXPECT_EQ(p.normalize(), r[2] == "ok");
        EXPECT_EQ(p, r[1]);
        EXPECT_EQ(Pathname(r[0]).removeDotDotSlash(), r[3]);
    }
}

TEST(PathnameVector, SeparatedPiecesAndTextForm) {
    PathnameVector v("/usr/bin::/bin:", ':');
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0], "/usr/bin");
    EXPECT_EQ(v[1], "/bin");
    PathnameVector parts;
    Pathname("//a/b//c/").splitOnSepInto(parts);
    EXPECT_EQ(parts, PathnameVector({"a", "b", "c"}));

    PathnameVector args;
    args.push_back("plain");
    args.addArg("name", "two words");
    Pathname moved("it's");
    args.appendDestructive(&moved);
    EXPECT_TRUE(moved.empty());
    Str text = Str::from(args);
    EXPECT_EQ(text, "{plain \"--name=two words\" it\\'s}");
    PathnameVector back;
    ASSERT_TRUE(mem_parse_into(text.data(), text.size(), &back));
    EXPECT_EQ(back, args);
    EXPECT_FALSE(mem_parse_into("{", 1, &back));
    EXPECT_EQ(back, args);
}

// ---------------------------------------------------------------- shell quoting

TEST(PathnameShell, QuotingByTheRules) {
    for (const auto& r : rows("shell_quoting.tsv", 2))
        EXPECT_EQ(Pathname(r[0]).shellQuoted(), r[1]) << r[0];
}

// What /bin/sh makes of `words`, each printed with a NUL after it.
std::vector<std::string> throughShell(const std::vector<Pathname>& words) {
    std::string cmd = "printf '%s\\0'";
    for (auto& w : words) cmd += " " + w.shellQuoted();
    auto r = testsupport::runProcess({"/bin/sh", "-c", cmd});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t i = 0; i < r.out.size(); ++i) {
        if (r.out[i] == '\0') {
            out.push_back(r.out.substr(start, i - start));
            start = i + 1;
        }
    }
    return out;
}

TEST(PathnameShell, RoundTripThroughARealShell) {
    std::vector<Pathname> words = {
        "plain",     "a b",        "it's",       "a$b",        "say \"hi\"", "back\\slash",
        "tab\there", "line\nfeed", "x;rm -rf y", "*",          "[ab]?",      "a=b",
        "#comment",  "$(echo no)", "`echo no`",  "a>b",        "a<b",        "p|q&r",
        "'",         "\"",         "\\",         "it's $HOME", "(x)",        "'a b' \"c\"",
    };
    // And random words over every printable byte and the blanks.
    std::mt19937 rng(20261122);
    const std::string alphabet = " \t\n!\"#$%&'()*+,-./0123456789:;<=>?@AZ[\\]^_`az{|}~";
    for (int i = 0; i < 300; ++i) {
        std::string w;
        size_t n = 1 + rng() % 12;
        while (w.size() < n) w += alphabet[rng() % alphabet.size()];
        words.emplace_back(w);
    }
    // (Our own splitter reading the quoted form back is the fuzz target's work.)
    auto got = throughShell(words);
    ASSERT_EQ(got.size(), words.size());
    for (size_t i = 0; i < words.size(); ++i)
        EXPECT_EQ(got[i], words[i]) << "quoted as " << words[i].shellQuoted();
}

TEST(PathnameShell, SplittingStopsAtTheEnds) {
    Pathname arg("junk");
    StrSegment rest;
    Str text("'a b' c");
    ASSERT_TRUE(Pathname::splitArgShellQuoted(text.seg(), &arg, &rest));
    EXPECT_EQ(arg, "a b");
    EXPECT_EQ(Str(rest), " c");
    for (const char* bad : {"'a", "\"a", "a\\", "", "   ", "''", "\"\"", "\"a\\\""}) {
        EXPECT_FALSE(Pathname::splitArgShellQuoted(StrSegment(bad, strlen(bad)), &arg, &rest))
            << bad;
    }
    EXPECT_TRUE(Pathname::splitArgShellQuoted(StrSegment("a''b", 4), &arg, &rest));
    EXPECT_EQ(arg, "ab");

    PathnameVector v;
    Pathname("  one 'two three' fo\"ur\" '' five").splitShellQuotedInto(v);
    EXPECT_EQ(v, PathnameVector({"one", "two three", "four"}));
}

}  // namespace
