// Path algebra on tricky names, and shell quoting proved by a real shell.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/Pathname.h"

namespace {

TEST(PathnameJoin, AddsExactlyTheSeparatorsNeeded) {
    struct Case {
        const char *a, *b, *expected;
    } cases[] = {
        {"", "x", "/x"},    {"", "", ""},       {"a", "", "a"},         {"a", "b", "a/b"},
        {"a/", "b", "a/b"}, {"a", "/b", "a/b"}, {"a/", "//b", "a/b"},   {"a", "/", "a/"},
        {"/", "b", "/b"},   {"/", "/", "/"},    {"a//", "b/", "a//b/"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(Pathname(c.a) / c.b, c.expected) << c.a << " / " << c.b;
        Pathname p(c.a);
        p /= StrSegment(c.b, strlen(c.b));
        EXPECT_EQ(p, c.expected);
    }
    EXPECT_EQ(Pathname("a") + "b", "ab");
    EXPECT_EQ("x" + Pathname("/y"), "x/y");
    EXPECT_EQ(Pathname("abc").substr(5), "");
    EXPECT_EQ(Pathname("abc").substr(1, 99), "bc");
    EXPECT_EQ(Pathname("a\\b\\c").replaceBackSlashesWithSep(), "a/b/c");
}

TEST(PathnameNames, LeafParentAndExtensions) {
    struct Case {
        const char* path;
        const char *leaf, *parent, *ext1, *ext2, *without1, *without2, *base;
    } cases[] = {
        {"", "/", "", "", "", "", "", "/"},
        {"/", "/", "/", "", "", "/", "/", "/"},
        {"///", "/", "/", "", "", "///", "///", "/"},
        {"a", "a", "", "", "", "a", "a", "a"},
        {"/a", "a", "/", "", "", "/a", "/a", "a"},
        {"/a/b/", "b", "/a", "", "", "/a/b/", "/a/b/", "b"},
        {"a/b", "b", "a", "", "", "a/b", "a/b", "b"},
        {"a.tar.gz", "a.tar.gz", "", "gz", "tar.gz", "a.tar", "a", "a.tar"},
        {"/x/a.tar.gz", "a.tar.gz", "/x", "gz", "tar.gz", "/x/a.tar", "/x/a", "a.tar"},
        {"dir.d/file", "file", "dir.d", "", "", "dir.d/file", "dir.d/file", "file"},
        {".bashrc", ".bashrc", "", "bashrc", "", ".bashrc", ".bashrc", ".bashrc"},
        {"/x/.bashrc", ".bashrc", "/x", "bashrc", "", "/x/.bashrc", "/x/.bashrc", ".bashrc"},
        {"x/.a.b", ".a.b", "x", "b", "a.b", "x/.a", "x/.a.b", ".a"},
        {"a.tar", "a.tar", "", "tar", "", "a", "a.tar", "a"},
        {"a.", "a.", "", "", "", "a", "a.", "a"},
        {"//a//b//", "b", "//a", "", "", "//a//b//", "//a//b//", "b"},
    };
    for (auto& c : cases) {
        Pathname p(c.path);
        EXPECT_EQ(p.toLeaf(), c.leaf) << c.path;
        EXPECT_EQ(p.toParent(), c.parent) << c.path;
        EXPECT_EQ(p.ext(1), c.ext1) << c.path;
        EXPECT_EQ(p.ext(2), c.ext2) << c.path;
        EXPECT_EQ(p.withoutExt(1), c.without1) << c.path;
        EXPECT_EQ(p.withoutExt(2), c.without2) << c.path;
        EXPECT_EQ(p.withoutExt(0), c.path) << c.path;
        EXPECT_EQ(p.basenameWithoutExt(), c.base) << c.path;
    }
}

TEST(PathnameNames, Separators) {
    struct Case {
        const char *path, *added, *removed, *single;
    } cases[] = {
        {"", "/", "", ""},
        {"/", "/", "/", "/"},
        {"///", "///", "/", "/"},
        {"a", "a/", "a", "a"},
        {"a//b///", "a//b///", "a//b", "a/b/"},
        {"//a", "//a/", "//a", "/a"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(Pathname(c.path).addTrailingSep(), c.added) << c.path;
        EXPECT_EQ(Pathname(c.path).removeTrailingSeps(), c.removed) << c.path;
        EXPECT_EQ(Pathname(c.path).removeDoubleSeps(), c.single) << c.path;
        EXPECT_EQ(Pathname::removeDoubleSeps(Pathname(c.path)), c.single) << c.path;
    }
}

TEST(PathnameNames, NormalizeAndDotDotRemoval) {
    struct Case {
        const char* path;
        const char* normalized;
        bool ok;
        const char* withoutDotDot;
    } cases[] = {
        {"", "", true, ""},
        {"/..", "/", false, "/"},
        {"..", "", false, ""},
        {"../a", "a", false, "a"},
        {"a/..", "", true, "a"},
        {"a/../b", "b", true, "a/b"},
        {"/a/./b//", "/a/b/", true, "/a/./b//"},
        {"/a/b/../../..", "/", false, "/a/b"},
        {"a/b/../c/./d/", "a/c/d/", true, "a/b/c/./d/"},
        {"./", "", true, "./"},
        {"/", "/", true, "/"},
        {"..x/x..", "..x/x..", true, "..x/x.."},
        {"a/../../b/..", "", false, "a/b"},
        {"x/..//y", "y", true, "x//y"},
        {"/./..//", "/", false, "/.//"},
    };
    for (auto& c : cases) {
        Pathname p(c.path);
        EXPECT_EQ(p.normalize(), c.ok) << c.path;
        EXPECT_EQ(p, c.normalized) << c.path;
        EXPECT_EQ(Pathname(c.path).removeDotDotSlash(), c.withoutDotDot) << c.path;
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
    args.reverse();
    EXPECT_EQ(args.front(), "it's");
}

// ---------------------------------------------------------------- shell quoting

TEST(PathnameShell, QuotingByTheRules) {
    const char* const cases[][2] = {
        {"plain/path.txt", "plain/path.txt"},
        {"", ""},
        {"a b", "\"a b\""},
        {"it's", "it\\'s"},
        {"a$b", "'a$b'"},
        {"a$b c", "'a$b c'"},
        {"it's a $x", "\"it's a \\$x\""},
        {"a*b", "a\\*b"},
        {"a*b c", "\"a*b c\""},
    };
    for (const auto& [in, want] : cases) EXPECT_EQ(Pathname(in).shellQuoted(), want) << in;
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
