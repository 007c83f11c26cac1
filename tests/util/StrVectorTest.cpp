#include "util/StrVector.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "util/AppendStr.h"

namespace {

TEST(StrVector, ConstructionLookupAndText) {
    StrVector v("b", "a", "c", nullptr);
    ASSERT_EQ(v.size(), 3u);
    EXPECT_TRUE(v.contains("a"));
    EXPECT_FALSE(v.contains("d"));
    EXPECT_TRUE(v.contains("ab", 1));
    v.push_back("xyz", 2);
    EXPECT_EQ(v.back(), "xy");

    const StrVector t("a", "b c", "", nullptr);
    EXPECT_EQ(t.toString(), "{[0]='a' [1]='b c' [2]=''}");
    EXPECT_EQ(t.toString_concise(), "[a 'b c' ]");
    EXPECT_EQ(StrVector().toString(), "{}");
    EXPECT_EQ(StrVector().toString_concise(), "[]");
}

TEST(StrVector, Joins) {
    StrVector v("a", "b c", "\"d\"", nullptr);
    Str s("> ");
    v.joinInto(s, ',');
    EXPECT_EQ(s, "> a,b c,\"d\"") << "joins append";
    Str t;
    v.joinInto(t, " | ");
    EXPECT_EQ(t, "a | b c | \"d\"");
    Str q;
    v.joinIntoAsEscapedSearchTerms(q, ' ');
    EXPECT_EQ(q, "a \"b c\" \"\\\"d\\\"\"");
    Str e;
    StrVector().joinInto(e, ',');
    EXPECT_EQ(e, "");
    // Into chunked output, across a chunk boundary.
    AppendStr a;
    a.append(AppendStr::CHUNK_SIZE - 3, '.');
    v.joinInto(&a, ',');
    v.joinInto(&a, "::");
    Str tail;
    append_stringified(&tail, a);
    EXPECT_EQ(tail.substr(AppendStr::CHUNK_SIZE - 3), "a,b c,\"d\"a::b c::\"d\"");
}

// A permutation, and every order of three reachable.
TEST(StrVector, ShuffleKeepsTheElements) {
    const StrVector original("a", "b", "c", nullptr);
    std::set<std::string> orders;
    for (int i = 0; i < 200; ++i) {
        StrVector v = original;
        v.shuffle();
        std::string order;
        for (const Str& s : v) order += s;
        StrVector sorted = v;
        sorted.sort();
        ASSERT_EQ(sorted, original);
        orders.insert(order);
    }
    EXPECT_EQ(orders.size(), 6u);
    StrVector one("x", nullptr);
    one.shuffle();
    EXPECT_EQ(one, StrVector("x", nullptr));
}

TEST(StrVector, SortDedupReverse) {
    StrVector v("b", "a", "b", "\xff", "a", "c", nullptr);
    StrVector d = v;
    d.dedup();
    EXPECT_EQ(d, StrVector("b", "a", "\xff", "c", nullptr)) << "first occurrences, in order";
    v.sort();
    EXPECT_EQ(v, StrVector("a", "a", "b", "b", "c", "\xff", nullptr)) << "bytes sort unsigned";
    v.dedupAlreadySorted();
    EXPECT_EQ(v, StrVector("a", "b", "c", "\xff", nullptr));
    v.reverse();
    EXPECT_EQ(v.front(), "\xff");

    // A shared history spans vectors; a vector of one is left alone, and its
    // value is not recorded.
    StrSet seen;
    StrVector first("x", "y", nullptr), second("y", "z", "x", nullptr), third("z", nullptr),
        fourth("w", "w", nullptr);
    for (StrVector* s : {&first, &second, &third, &fourth}) s->dedup(seen);
    EXPECT_EQ(first, StrVector("x", "y", nullptr));
    EXPECT_EQ(second, StrVector("z", nullptr));
    EXPECT_EQ(third, StrVector("z", nullptr));
    EXPECT_EQ(fourth, StrVector("w", nullptr));
    EXPECT_EQ(seen.size(), 4u);
}

TEST(StrVector, DestructiveAppendsAndHeapEstimate) {
    StrVector v;
    v.reserve(4);
    Str s(std::string(100, 'q'));
    const char* buf = s.data();
    v.appendDestructive(&s);
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(v[0].data(), buf) << "swapped in, not copied";
    v.push_back("short");
    EXPECT_EQ(v.estimateHeapUsage(), 4 * sizeof(Str) + v[0].capacity() + 15)
        << "an in-object element counts its object's capacity";

    StrVector source("a", "b", nullptr);
    StrVector empty;
    const Str* array = source.data();
    empty.appendDestructive(&source);
    EXPECT_EQ(empty.data(), array) << "an empty receiver takes the whole array";
    EXPECT_TRUE(source.empty());

    StrVector big;
    big.reserve(64);
    StrVector small("c", nullptr), more("d", nullptr);
    big.appendDestructive(&small);
    EXPECT_GE(big.capacity(), 64u) << "a larger receiver keeps its array";
    EXPECT_TRUE(small.empty());
    big.appendDestructive(&more);
    EXPECT_EQ(big, StrVector("c", "d", nullptr));
}

TEST(StrSegmentVector, ViewsAndJoins) {
    StrVector owner("a", "bb", nullptr);
    StrSegmentVector segs;
    segs.append(owner);
    segs.push_back("ccc");
    EXPECT_EQ(segs[1].data(), owner[1].data());
    Str s;
    segs.joinInto(s, "+");
    EXPECT_EQ(s, "a+bb+ccc");
    StrVector copies;
    copies.append(segs);
    EXPECT_EQ(copies, StrVector("a", "bb", "ccc", nullptr));
}

}  // namespace
