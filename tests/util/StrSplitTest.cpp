// The split family: token boundaries, counts, and the forms that must agree.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "util/StrVector.h"

namespace {

using Tokens = std::vector<std::string>;

enum Form { kByte, kNonEmpty, kMulti, kMultiNonEmpty, kLines };

// The tokens a form appends to a vector that holds one already.
Tokens split(Form form, const std::string& s, const std::string& sep, uint32_t max) {
    StrVector v{"keep"};
    const char* d = s.data();
    switch (form) {
        case kByte:
            mem_split_into(&v, d, s.size(), sep[0], max);
            break;
        case kNonEmpty:
            mem_split_into_nonempty(&v, d, s.size(), sep[0], max);
            break;
        case kMulti:
            mem_split_into_mbyte(&v, d, s.size(), sep.data(), sep.size(), max);
            break;
        case kMultiNonEmpty:
            mem_split_into_nonempty_mbyte(&v, d, s.size(), sep.data(), sep.size(), max);
            break;
        case kLines:
            mem_split_lines_into(&v, d, s.size());
    }
    EXPECT_EQ(v[0], "keep") << "the into forms append";
    return Tokens(v.begin() + 1, v.end());
}

TEST(Split, EveryFormAtTheEdges) {
    constexpr uint32_t N = SPLIT_NO_LIMIT;
    const std::tuple<Form, std::string, std::string, uint32_t, Tokens> cases[] = {
        {kByte, "", ",", N, {}},  // no token at all, not one empty token
        {kByte, ",", ",", N, {"", ""}},
        {kByte, "a,b,c", ",", N, {"a", "b", "c"}},
        {kByte, "a,b,c", ",", 1, {"a", "b,c"}},
        {kByte, "a,b,c", ",", 0, {"a,b,c"}},
        {kByte, "a,,b,", ",", N, {"a", "", "b", ""}},
        {kByte, ",,", ",", 1, {"", ","}},
        // Runs are skipped, and what a limit leaves stands as it is.
        {kNonEmpty, ",,a,,b,,", ",", N, {"a", "b"}},
        {kNonEmpty, ",,a,,b,,", ",", 1, {"a", "b,,"}},
        {kNonEmpty, ",,,", ",", 0, {}},
        {kNonEmpty, ",,a,", ",", 0, {"a,"}},
        {kNonEmpty, "", ",", N, {}},
        {kNonEmpty, "abc", ",", N, {"abc"}},
        {kMulti, "a::b::", "::", N, {"a", "b", ""}},
        {kMulti, "a:::b", "::", N, {"a", ":b"}},      // the scan goes on behind a match
        {kMulti, ",,;;,;", ",;", N, {",", ";", ""}},  // and again after a partial one
        {kMulti, "a::b::c", "::", 1, {"a", "b::c"}},
        {kMulti, "a::b", "::", 0, {"a::b"}},
        {kMulti, "a,b", ",", N, {"a", "b"}},  // length 1 is the byte form
        {kMulti, "", ",", N, {}},
        {kMulti, "abc", "", N, {"a", "b", "c"}},  // length 0: one-byte tokens
        {kMulti, "abc", "", 1, {"a", "bc"}},
        {kMulti, "", "::", N, {""}},  // the rest is always emitted
        {kMulti, "", "", N, {}},
        {kMultiNonEmpty, "::::a::::b::", "::", N, {"a", "b"}},
        {kMultiNonEmpty, "::a::::b::", "::", 1, {"a", "b::"}},
        {kLines, "a\r\n\nb\r", "", N, {"a", "", "b\r"}},
        {kLines, "", "", N, {}},
        {kLines, "\n", "", N, {""}},
        {kLines, "\r\n", "", N, {""}},
        {kLines, "a\r\r\n", "", N, {"a\r"}},  // only one CR is dropped
        {kLines, "a", "", N, {"a"}},
    };
    for (const auto& [form, in, sep, max, want] : cases) {
        EXPECT_EQ(split(form, in, sep, max), want)
            << "form " << form << " " << testing::PrintToString(in) << " by "
            << testing::PrintToString(sep) << " max " << max;
    }
}

TEST(Split, ClassSeparatorsAndSegments) {
    StrVector v;
    mem_split_into(&v, "a b,c", 5, CharacterClass::COMMA_OR_SPACE);
    EXPECT_EQ(Tokens(v.begin(), v.end()), (Tokens{"a", "b", "c"}));
    v.clear();
    mem_split_into_nonempty(&v, " a ,, b ", 8, CharacterClass::COMMA_OR_SPACE, 1);
    EXPECT_EQ(Tokens(v.begin(), v.end()), (Tokens{"a", "b "}));

    StrSegmentVector segs;
    const std::string text = "x--y";
    mem_split_into_mbytez(&segs, text.data(), text.size(), "--");
    ASSERT_EQ(segs.size(), 2u);
    EXPECT_EQ(segs[1].data(), text.data() + 3) << "segment forms keep views into the input";
}

}  // namespace
