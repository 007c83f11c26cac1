#include "util/HttpArguments.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/AllocCounter.h"
#include "support/HashCollisions.h"
#include "support/Oracles.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using hashcollisions::referenceDjb2;

Pairs pairs(const HttpArguments& args) {
    Pairs out;
    for (const auto& a : args) out.emplace_back(a.key, a.value);
    return out;
}

// Parses `text` over a stale argument. Splits, the printed form and lookups
// by hash are fuzz/http_arguments' checks.
std::pair<bool, Pairs> parse(const std::string& text) {
    HttpArguments args;
    args.add("stale", 5, referenceDjb2("stale"), "x");
    const bool ok = mem_parse_into(text.data(), text.size(), &args);
    return {ok, pairs(args)};
}

// What the Python differential below cannot reach: ";" also ends a pair
// here, and a bad hex byte is dropped with its "%" (and any first digit).
TEST(HttpArguments, ParsesUrlEncodedText) {
    const std::tuple<std::string, bool, Pairs> cases[] = {
        {"", true, {}},
        {"a=1;b=2", true, {{"a", "1"}, {"b", "2"}}},
        {"&&;a&", true, {{"a", ""}}},
        {"a=%zz", false, {{"a", "z"}}},
        {"a=%4g1", false, {{"a", "1"}}},
        {"a=%&b=1", false, {{"a", "b=1"}}},
        {"a=%4", false, {{"a", ""}}},
        {"a%", false, {{"a", ""}}},
    };
    for (const auto& [text, ok, want] : cases) EXPECT_EQ(parse(text), std::pair(ok, want)) << text;
}

// Python's parse_qsl over texts of valid escapes, without ";".
TEST(HttpArguments, AgreesWithPythonParseQsl) {
    static const char* const atoms[] = {"a",   "B",   "=",      "&", "+", "%41",  "%3d", "%26",
                                        "%2B", "%e9", "%C3%A9", " ", "~", "\x80", "%00", "%25"};
    std::mt19937_64 rng(84);
    std::vector<std::string> inputs = {
        "",          "a",    "=",       "&&a=&",     "a==b",         "a=b=c",
        "a=1&b",     "=x&=", "a+b=c+d", "a=1&a=2&a", "x=%41%42+%43", "%41%6a%3D=%3d%26%2B",
        "%00=%fF%80"};
    while (inputs.size() < 400) {
        std::string s;
        for (size_t n = rng() % 12; n > 0; --n) s += atoms[rng() % std::size(atoms)];
        inputs.push_back(s);
    }
    const std::vector<std::string> theirs = oracle::runOverHex(
        {"/usr/bin/env", "python3", TARVEX_SOURCE_DIR "/tests/data/HttpArgumentsTest/parse_qsl.py"},
        inputs);
    for (size_t i = 0; i < inputs.size(); ++i) {
        const auto [ok, got] = parse(inputs[i]);
        EXPECT_TRUE(ok) << inputs[i];
        std::string mine;
        for (const auto& [k, v] : got) {
            mine += (mine.empty() ? "" : " ") + oracle::hex(k) + ":" + oracle::hex(v);
        }
        EXPECT_EQ(mine, theirs[i]) << testing::PrintToString(inputs[i]);
    }
}

TEST(HttpArguments, MultimapKeepsCollidingKeysApart) {
    const auto [x, y] = hashcollisions::collidingPair();
    const str_hash_t h = referenceDjb2(x);
    ASSERT_EQ(h, referenceDjb2(y));
    HttpArguments args;
    args.add(x.data(), x.size(), h, "x1");
    args.add(y.data(), y.size(), h, "y1");
    args.add("z", 1, referenceDjb2("z"), "z1");
    args.add(x.data(), x.size(), h, "x2");
    args.add(y.data(), y.size(), h, "y2");
    EXPECT_EQ(args.count(x.data(), x.size(), h), 2u);
    EXPECT_EQ(*args.index(y.data(), y.size(), h, 1), "y2");
    EXPECT_EQ(args.index(y.data(), y.size(), h, 2), nullptr);
    EXPECT_EQ(args.get(x.data(), x.size(), h + 1), nullptr) << "a wrong hash finds nothing";
    EXPECT_EQ(args.get("x", 1, referenceDjb2("x")), nullptr);

    Str v("X1");
    args.setDestructive(x.data(), x.size(), h, v);
    EXPECT_TRUE(v.empty());
    args.set(y.data(), y.size(), h, Str("Y1"));
    args.set("new", 3, referenceDjb2("new"), Str("n"));
    EXPECT_EQ(pairs(args),
              (Pairs{{x, "X1"}, {y, "Y1"}, {"z", "z1"}, {x, "x2"}, {y, "y2"}, {"new", "n"}}));

    // Taking out the chain's last and the list's last, then adding, must
    // link the newcomers after what is left.
    Str fetched("untouched");
    EXPECT_FALSE(args.fetchAndRemoveKey("q", 1, referenceDjb2("q"), &fetched));
    EXPECT_EQ(fetched, "untouched");
    EXPECT_TRUE(args.fetchAndRemoveKey(y.data(), y.size(), h, &fetched));
    EXPECT_EQ(fetched, "Y1");
    EXPECT_EQ(args.removeKey("new", 3, referenceDjb2("new")), 1u);
    args.add(y.data(), y.size(), h, "y3");
    args.add("z", 1, referenceDjb2("z"), "z2");
    EXPECT_EQ(*args.index(y.data(), y.size(), h, 0), "y3");
    EXPECT_EQ(pairs(args), (Pairs{{x, "X1"}, {"z", "z1"}, {x, "x2"}, {y, "y3"}, {"z", "z2"}}));
    auto it = args.find(x.data(), x.size(), h);
    EXPECT_EQ(it.advanceWithSameKey()->value, "x2");
    EXPECT_TRUE(it.advanceWithSameKey() == args.end());
    EXPECT_EQ(args.removeKey(x.data(), x.size(), h), 2u);
    EXPECT_EQ(args.removeKey("z", 1, referenceDjb2("z")), 2u);
    EXPECT_EQ(pairs(args), (Pairs{{y, "y3"}}));
    EXPECT_EQ(args.size(), 1u);
}

TEST(HttpArguments, CopyMoveAndSwapKeepTheLinks) {
    HttpArguments a, empty;
    ASSERT_TRUE(mem_parse_into("k=1&l=2", 7, &a));
    HttpArguments copy(a);
    copy.add("m", 1, referenceDjb2("m"), "3");
    EXPECT_EQ(a.size(), 2u);
    a.swap(empty);
    EXPECT_TRUE(a.empty());
    a.add("p", 1, referenceDjb2("p"), "0");  // both ends of each list must be its own
    empty.add("n", 1, referenceDjb2("n"), "4");
    EXPECT_EQ(pairs(a), (Pairs{{"p", "0"}}));
    EXPECT_EQ(pairs(empty), (Pairs{{"k", "1"}, {"l", "2"}, {"n", "4"}}));
    HttpArguments moved(std::move(copy));
    moved.add("o", 1, referenceDjb2("o"), "5");
    EXPECT_EQ(*moved.get("m", 1, referenceDjb2("m")), "3");
    a = moved;
    EXPECT_TRUE(a == moved);
    EXPECT_EQ(a.removeKey("k", 1, referenceDjb2("k")), 1u);
    EXPECT_FALSE(a == moved);
}

TEST(HttpArguments, ReuseAndLookupsDoNotAllocate) {
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    const std::string text = "alpha=1&beta=a+long+value+past+the+inline+buffer&alpha=3&gamma";
    HttpArguments args;
    ASSERT_TRUE(mem_parse_into(text.data(), text.size(), &args));
    ASSERT_TRUE(mem_parse_into(text.data(), text.size(), &args));  // spare tree nodes kept
    alloccounter::Scope scope;
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(mem_parse_into(text.data(), text.size(), &args));
    EXPECT_EQ(args.count("alpha", 5, referenceDjb2("alpha")), 2u);
    EXPECT_NE(args.get("gamma", 5, referenceDjb2("gamma")), nullptr);
    EXPECT_EQ(scope.allocations(), 0);
}

}  // namespace
