#include "util/StrHashSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/AllocCounter.h"
#include "support/HashCollisions.h"
#include "util/BasicConversions.h"
#include "util/CrashLog.h"

namespace {

using hashcollisions::collisionFamily;
using hashcollisions::referenceDjb2;

// Asks by every form (text and length, given hash, zero-terminated).
template <class Set>
void expectContains(const Set& set, const std::string& t, bool want) {
    const std::string shown = testing::PrintToString(t);
    EXPECT_EQ(set.contains(t.data(), t.size()), want) << shown;
    EXPECT_EQ(set.contains(t.data(), t.size(), referenceDjb2(t)), want) << shown;
    if (t.find('\0') == std::string::npos) {
        EXPECT_EQ(set.contains(t.c_str()), want) << shown;
    }
}

// Texts of every kind a lookup must tell apart: colliding ones, prefixes of
// each other, the empty one, bytes from 0x80 up, long ones.
std::vector<std::string> mixedTexts(size_t n, std::mt19937_64& rng) {
    std::vector<std::string> texts = collisionFamily(7);  // 128 of one hash
    for (const char* t : {"", "a", "ab", "\x80\xff"}) texts.push_back(t);
    texts.push_back(std::string(300, 'z'));
    while (texts.size() < n) {
        std::string t(rng() % 12, '\0');
        for (char& c : t) c = static_cast<char>(rng() % 2 ? 'a' + rng() % 4 : rng() % 256);
        texts.push_back(t);
    }
    std::shuffle(texts.begin(), texts.end(), rng);
    return texts;
}

bool inHashOrder(const std::vector<std::string>& texts) {
    return std::is_sorted(texts.begin(), texts.end(), [](const auto& a, const auto& b) {
        return referenceDjb2(a) < referenceDjb2(b);
    });
}

// Copies outlive their source; a moved-from set is empty, a cleared one too.
template <class Set>
void expectCopiesAndMoves(std::unique_ptr<Set> original, const std::vector<Str>& keys) {
    Set copy(*original), assigned{"other"};
    assigned = *original;
    EXPECT_FALSE(assigned.contains("other"));
    EXPECT_EQ(Str::from(copy), Str::from(*original));
    original.reset();
    for (const Str& k : keys) ASSERT_TRUE(copy.contains(k) && assigned.contains(k)) << k;
    Set moved(std::move(copy));
    EXPECT_EQ(moved.size(), keys.size());
    EXPECT_TRUE(copy.empty());
    EXPECT_FALSE(copy.contains(keys[1]));
    moved.clear();
    EXPECT_FALSE(moved.contains(keys[1]));
    EXPECT_EQ(Str::from(moved), "{}");
}

// ---------------------------------------------------------------- StrHashSet

// Equal hashes and a common prefix: only the length can decide. Such texts
// don't occur with honest short hashes, so the hash is given.
TEST(StrHashSet, LengthDecidesBetweenTextsOfOneHash) {
    const str_hash_t h = 12345;
    StrHashSet set;
    for (size_t n : {3, 4, 0}) EXPECT_TRUE(set.insert("abcd", n, h)) << n;
    EXPECT_FALSE(set.insert("abcd", 4, h));
    for (size_t n = 0; n <= 5; ++n)
        EXPECT_EQ(set.contains("abcde", n, h), n == 0 || n == 3 || n == 4) << n;
    EXPECT_FALSE(set.contains("abc", 3, h + 1));
    EXPECT_TRUE(set.erase("abcd", 4, h));
    EXPECT_TRUE(set.contains("abc", 3, h));
    EXPECT_FALSE(set.contains("abcd", 4, h));
}

TEST(StrHashSet, AgreesWithUnorderedSetOverRandomOperations) {
    std::mt19937_64 rng(7);
    const std::vector<std::string> texts = mixedTexts(4000, rng);
    StrHashSet set;
    std::unordered_set<std::string> oracle;
    for (int step = 0; step < 40000; ++step) {
        const std::string& t = texts[rng() % texts.size()];
        // Grow for the first half, then shrink, to exercise splits and merges.
        const unsigned op = static_cast<unsigned>(rng() % 10);
        if (op < (step < 20000 ? 5u : 2u)) {
            const bool added = step % 3 == 0   ? set.insert(t.data(), t.size())
                               : step % 3 == 1 ? set.insert(t.data(), t.size(), referenceDjb2(t))
                                               : set.insert(StrSegment(t));
            ASSERT_EQ(added, oracle.insert(t).second) << step;
        } else if (op < 6) {
            const bool erased = step % 2 == 0 ? set.erase(t.data(), t.size())
                                              : set.erase(t.data(), t.size(), referenceDjb2(t));
            ASSERT_EQ(erased, oracle.erase(t) == 1) << step;
        } else {
            ASSERT_EQ(set.contains(t.data(), t.size()), oracle.count(t) == 1) << step;
        }
        ASSERT_EQ(set.size(), oracle.size());
        // At the peak some 100 of the 128 colliding texts are in, more than a leaf holds.
        if (step == 19999) {
            for (const std::string& t : texts) expectContains(set, t, oracle.count(t) == 1);
        }
    }
    EXPECT_GT(oracle.size(), 10u);

    // Iteration: each text once, in order of hash.
    std::vector<std::string> listed;
    for (HashedStrReference r : set) listed.emplace_back(r.data(), r.length());
    EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()),
              std::set<std::string>(oracle.begin(), oracle.end()));
    EXPECT_EQ(listed.size(), oracle.size());
    EXPECT_TRUE(inHashOrder(listed));
    for (const std::string& t : texts) expectContains(set, t, oracle.count(t) == 1);

    // Emptied, it is empty in every way and fills again.
    for (const std::string& t : listed) ASSERT_TRUE(set.erase(StrSegment(t)));
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.begin(), set.end());
    EXPECT_TRUE(set.insert("again"));
}

TEST(StrHashSet, CopiesAreDeepAndIndependent) {
    std::vector<Str> keys;
    auto original = std::make_unique<StrHashSet>();
    for (int i = 0; i < 500; ++i) original->insert(keys.emplace_back(Str::fromFormat("key-%d", i)));
    StrHashSet copy(*original);
    EXPECT_NE((*copy.begin()).data(), (*original->begin()).data());
    copy.erase("key-7");
    copy.insert("only-in-copy");
    EXPECT_TRUE(original->contains("key-7"));
    EXPECT_FALSE(original->contains("only-in-copy"));
    expectCopiesAndMoves(std::move(original), keys);
}

TEST(StrHashSet, StringifiedAsQuotedTextsInHashOrder) {
    std::vector<std::pair<std::string, std::string>> quoted = {
        {"b", "\"b\""}, {"say \"hi\"", "\"say \\\"hi\\\"\""}, {"", "\"\""}, {"\xff", "\"\\xFF\""}};
    std::sort(quoted.begin(), quoted.end(), [](const auto& a, const auto& b) {
        return referenceDjb2(a.first) < referenceDjb2(b.first);
    });
    std::string expected;
    for (const auto& [text, shown] : quoted) expected += (expected.empty() ? "{" : ", ") + shown;
    expected += "}";
    const StrHashSet set{"b", "say \"hi\"", "", "\xff"};
    Str s = "set=";
    append_stringified(&s, set);
    EXPECT_EQ(s, "set=" + expected);

    // The crash path writes the same without touching the heap.
    struct Into : backtrace_writing_handler {
        std::string text;
    } into;
    into.text.reserve(4096);
    into.do_write = [](backtrace_writing_handler* h, const char* p, size_t n) {
        static_cast<Into*>(h)->text.append(p, n);
    };
    CrashLogWriteHandler h(&into);
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    alloccounter::Scope scope;
    crashlog_write(h, set);
    EXPECT_EQ(scope.allocations(), 0);
    EXPECT_EQ(into.text, expected);
}

// ---------------------------------------------------------------- FixedStrHashSet

TEST(FixedStrHashSet, AgreesWithUnorderedSetOnAListWithRepeats) {
    std::mt19937_64 rng(11);
    const std::vector<std::string> texts = mixedTexts(3000, rng);
    std::vector<Str> chosen(2, Str(texts[0]));  // repeated
    for (size_t i = 0; i < texts.size(); i += 2) chosen.emplace_back(texts[i]);
    const FixedStrHashSet set(chosen);
    const std::unordered_set<std::string> oracle(chosen.begin(), chosen.end());
    EXPECT_EQ(set.size(), oracle.size());
    for (const std::string& t : texts) expectContains(set, t, oracle.count(t) == 1);
    std::vector<std::string> listed;
    for (size_t i = 0; i < set.size(); ++i) listed.emplace_back(set[i]);
    EXPECT_TRUE(inHashOrder(listed));
    const FixedStrHashSet fromSegments(std::vector<StrSegment>(chosen.begin(), chosen.end()));
    EXPECT_EQ(Str::from(fromSegments), Str::from(set));
}

TEST(FixedStrHashSet, CopyMoveAndClear) {
    const char* const names[] = {"alpha", "beta", "gamma"};
    expectCopiesAndMoves(std::make_unique<FixedStrHashSet>(names, 3),
                         std::vector<Str>(std::begin(names), std::end(names)));
    EXPECT_EQ(Str::from(FixedStrHashSet{"a\nb"}), "{\"a\\nb\"}");
}

// ---------------------------------------------------------------- StaticStrHashSet

// Filled by a static initialiser of this file with a text constructed only
// after it: the set is constant-initialised, and hashes wait for finalizing.
constinit StaticStrHashSet earlyNames;
extern const Str laterText;
const bool earlyFilled = (earlyNames.insert(&laterText), true);
const Str laterText("constructed after the insert");

TEST(StaticStrHashSet, FilledByStaticInitialisers) {
    ASSERT_TRUE(earlyFilled);
    EXPECT_TRUE(earlyNames.contains("constructed after the insert"));
    EXPECT_EQ(earlyNames.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_FALSE(earlyNames.contains(""));
}

TEST(StaticStrHashSet, FirstLookupFinalizesEverySetStillPopulating) {
    const std::vector<std::string> family = collisionFamily(7);
    std::vector<Str> owned(family.begin(), family.end());
    owned.emplace_back("");
    StaticStrHashSet a, b, c, never;
    for (size_t i = 0; i < owned.size(); ++i) (i % 2 ? a : b).insert(&owned[i]);
    c.insert(&owned[0]);
    c.insert(&owned[0]);
    {
        // A set destroyed while populating leaves the registry.
        StaticStrHashSet gone;
        gone.insert(&owned[1]);
    }
    // Hashes are taken late: a text may change until finalizing.
    owned.back() = "filled in later";
    EXPECT_EQ(a.size(), 64u);
    EXPECT_EQ(b.size(), 65u);

    EXPECT_TRUE(b.contains(owned[0].data(), owned[0].size(), referenceDjb2(owned[0])));
    for (const StaticStrHashSet* s : {&a, &b, &c})
        EXPECT_EQ(s->state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_EQ(never.state(), StaticStrHashSet::STATE_UNPOPULATED);

    for (size_t i = 0; i < family.size(); ++i) {
        expectContains(a, family[i], i % 2 == 1);
        expectContains(b, family[i], i % 2 == 0);
    }
    EXPECT_TRUE(b.contains("filled in later"));
    EXPECT_FALSE(b.contains(""));
    EXPECT_TRUE(c.contains(owned[0]));
    EXPECT_EQ(c.size(), 2u);
    EXPECT_FALSE(c.contains(owned[1]));

    std::vector<std::string> listed;
    for (const Str* s : b) listed.emplace_back(*s);
    EXPECT_EQ(listed.size(), 65u);
    EXPECT_TRUE(inHashOrder(listed));
    StaticStrHashSet::finalizeAll();  // nothing left to do
}

TEST(StaticStrHashSet, StringifiedInInsertionOrderUntilFinalized) {
    const Str x("x"), y("y\"");
    StaticStrHashSet set;
    EXPECT_EQ(Str::from(set), "{}");
    set.insert(&y);
    set.insert(&x);
    EXPECT_EQ(Str::from(set), "{\"y\\\"\", \"x\"}");
    StaticStrHashSet::finalizeAll();
    const bool xFirst = referenceDjb2("x") < referenceDjb2("y\"");
    EXPECT_EQ(Str::from(set), xFirst ? "{\"x\", \"y\\\"\"}" : "{\"y\\\"\", \"x\"}");
}

// An empty set answers without finalizing and stays open; a finished one,
// empty or not, refuses inserts.
TEST(StaticStrHashSetDeathTest, EmptyStaysOpenAndFinishedRefusesInserts) {
    const Str word("word");
    StaticStrHashSet populating, set, finished;
    populating.insert(&word);
    EXPECT_FALSE(set.contains("word"));
    EXPECT_FALSE(set.contains(""));
    EXPECT_EQ(set.state(), StaticStrHashSet::STATE_UNPOPULATED);
    EXPECT_EQ(populating.state(), StaticStrHashSet::STATE_POPULATING);
    set.insert(&word);
    EXPECT_TRUE(set.contains("word"));
    EXPECT_EQ(populating.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_DEATH(set.insert(&word), "_state == STATE_UNPOPULATED");

    finished._finalize();
    EXPECT_EQ(finished.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_FALSE(finished.contains("word"));
    EXPECT_DEATH(finished.insert(&word), "_state == STATE_UNPOPULATED");
}

}  // namespace
