// The split family: token boundaries, counts, and the forms that must agree.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "util/StrVector.h"

namespace {

using Tokens = std::vector<std::string>;

Tokens toTokens(const StrVector& v) { return Tokens(v.begin(), v.end()); }

Tokens split(const std::string& s, char sep, uint32_t max = SPLIT_NO_LIMIT) {
    StrVector v;
    mem_split_into(&v, s.data(), s.size(), sep, max);
    return toTokens(v);
}

Tokens splitNonEmpty(const std::string& s, char sep, uint32_t max = SPLIT_NO_LIMIT) {
    StrVector v;
    mem_split_into_nonempty(&v, s.data(), s.size(), sep, max);
    return toTokens(v);
}

Tokens splitM(const std::string& s, const std::string& sep, uint32_t max = SPLIT_NO_LIMIT) {
    StrVector v;
    mem_split_into_mbyte(&v, s.data(), s.size(), sep.data(), sep.size(), max);
    return toTokens(v);
}

Tokens splitMNonEmpty(const std::string& s, const std::string& sep, uint32_t max = SPLIT_NO_LIMIT) {
    StrVector v;
    mem_split_into_nonempty_mbyte(&v, s.data(), s.size(), sep.data(), sep.size(), max);
    return toTokens(v);
}

Tokens lines(const std::string& s) {
    StrVector v;
    mem_split_lines_into(&v, s.data(), s.size());
    return toTokens(v);
}

TEST(Split, EmptyTokensAndLimits) {
    EXPECT_EQ(split("", ','), Tokens{}) << "no token at all, not one empty token";
    EXPECT_EQ(split(",", ','), (Tokens{"", ""}));
    EXPECT_EQ(split("a,b,c", ','), (Tokens{"a", "b", "c"}));
    EXPECT_EQ(split("a,b,c", ',', 1), (Tokens{"a", "b,c"}));
    EXPECT_EQ(split("a,b,c", ',', 0), (Tokens{"a,b,c"}));
    EXPECT_EQ(split("a,,b,", ','), (Tokens{"a", "", "b", ""}));
    EXPECT_EQ(split(",,", ',', 1), (Tokens{"", ","}));
}

TEST(Split, NonEmptySkipsRunsAndKeepsTheRestAsItStands) {
    EXPECT_EQ(splitNonEmpty(",,a,,b,,", ','), (Tokens{"a", "b"}));
    EXPECT_EQ(splitNonEmpty(",,a,,b,,", ',', 1), (Tokens{"a", "b,,"}));
    EXPECT_EQ(splitNonEmpty(",,,", ',', 0), Tokens{});
    EXPECT_EQ(splitNonEmpty(",,a,", ',', 0), (Tokens{"a,"}));
    EXPECT_EQ(splitNonEmpty("", ','), Tokens{});
    EXPECT_EQ(splitNonEmpty("abc", ','), (Tokens{"abc"}));
}

TEST(Split, ClassSeparators) {
    StrVector v;
    mem_split_into(&v, "a b,c", 5, CharacterClass::COMMA_OR_SPACE);
    EXPECT_EQ(toTokens(v), (Tokens{"a", "b", "c"}));
    v.clear();
    mem_split_into_nonempty(&v, " a ,, b ", 8, CharacterClass::COMMA_OR_SPACE, 1);
    EXPECT_EQ(toTokens(v), (Tokens{"a", "b "}));
}

TEST(Split, MultiByteSeparators) {
    EXPECT_EQ(splitM("a::b::", "::"), (Tokens{"a", "b", ""}));
    EXPECT_EQ(splitM("a:::b", "::"), (Tokens{"a", ":b"})) << "the scan goes on behind a match";
    EXPECT_EQ(splitM("a::b::c", "::", 1), (Tokens{"a", "b::c"}));
    EXPECT_EQ(splitM("a,b", ","), (Tokens{"a", "b"})) << "length 1 is the byte form";
    EXPECT_EQ(splitM("abc", ""), (Tokens{"a", "b", "c"})) << "length 0: one-byte tokens";
    EXPECT_EQ(splitM("abc", "", 1), (Tokens{"a", "bc"}));
    EXPECT_EQ(splitM("", "::"), (Tokens{""})) << "the rest is always emitted";
    EXPECT_EQ(splitM("", ","), Tokens{}) << "length 1 is the byte form";
    EXPECT_EQ(splitM("", ""), Tokens{});
    EXPECT_EQ(splitMNonEmpty("::::a::::b::", "::"), (Tokens{"a", "b"}));
    EXPECT_EQ(splitMNonEmpty("::a::::b::", "::", 1), (Tokens{"a", "b::"}));

    StrSegmentVector segs;
    const std::string text = "x--y";
    mem_split_into_mbytez(&segs, text.data(), text.size(), "--");
    ASSERT_EQ(segs.size(), 2u);
    EXPECT_EQ(segs[1].data(), text.data() + 3) << "segment forms keep views into the input";
}

TEST(Split, Lines) {
    EXPECT_EQ(lines("a\r\n\nb\r"), (Tokens{"a", "", "b\r"}));
    EXPECT_EQ(lines(""), Tokens{});
    EXPECT_EQ(lines("\n"), (Tokens{""}));
    EXPECT_EQ(lines("\r\n"), (Tokens{""}));
    EXPECT_EQ(lines("a\r\r\n"), (Tokens{"a\r"})) << "only one CR is dropped";
    EXPECT_EQ(lines("a"), (Tokens{"a"}));
}

TEST(Split, IntoFormsAppend) {
    StrVector v{"keep"};
    mem_split_into(&v, "a,b", 3, ',');
    EXPECT_EQ(toTokens(v), (Tokens{"keep", "a", "b"}));
}

// Every form against a model built on std::string::find, on random inputs.
Tokens modelSplit(const std::string& s, const std::string& sep, uint32_t max) {
    Tokens out;
    if (s.empty() && sep.size() == 1) return out;
    size_t start = 0;
    for (uint32_t left = max; left > 0; --left) {
        size_t pos = s.find(sep, start);
        if (pos == std::string::npos) break;
        out.push_back(s.substr(start, pos - start));
        start = pos + sep.size();
    }
    out.push_back(s.substr(start));
    return out;
}

TEST(Split, AgreesWithAModelOnRandomInputs) {
    std::mt19937 rng(23);
    for (int i = 0; i < 5000; ++i) {
        std::string s(rng() % 12, 'a');
        for (char& c : s) c = "ab,;"[rng() % 4];
        const uint32_t max = rng() % 3 ? SPLIT_NO_LIMIT : rng() % 4;
        ASSERT_EQ(split(s, ',', max), modelSplit(s, ",", max)) << s << " max " << max;
        ASSERT_EQ(splitM(s, ",;", max), modelSplit(s, ",;", max)) << s << " max " << max;

        // The non-empty form is the full split without empty tokens, as long
        // as no limit cuts it short.
        Tokens full = modelSplit(s, ",", SPLIT_NO_LIMIT);
        Tokens nonEmpty;
        for (const std::string& t : full) {
            if (!t.empty()) nonEmpty.push_back(t);
        }
        ASSERT_EQ(splitNonEmpty(s, ','), nonEmpty) << s;
    }
}

}  // namespace
