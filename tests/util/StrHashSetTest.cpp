#include "util/StrHashSet.h"

#include <gtest/gtest.h>

#include <algorithm>
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

std::vector<std::string> contents(const StrHashSet& s) {
    std::vector<std::string> out;
    for (HashedStrReference r : s) out.emplace_back(r.data(), r.length());
    return out;
}

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

struct FixedBuffer : backtrace_writing_handler {
    char data[4096];
    size_t used = 0;
    FixedBuffer() { do_write = &write; }
    static void write(backtrace_writing_handler* h, const char* p, size_t n) {
        auto* self = static_cast<FixedBuffer*>(h);
        n = std::min(n, sizeof self->data - self->used);
        memcpy(self->data + self->used, p, n);
        self->used += n;
    }
};

// ---------------------------------------------------------------- StrHashSet

TEST(StrHashSet, CollidingTextsAreToldApartByTheirBytes) {
    const std::vector<std::string> family = collisionFamily(7);
    ASSERT_EQ(family.size(), 128u);
    for (const std::string& t : family) ASSERT_EQ(referenceDjb2(t), referenceDjb2(family[0]));

    // One hash over more entries than one leaf holds; every other one present.
    StrHashSet set;
    for (size_t i = 0; i < family.size(); i += 2) EXPECT_TRUE(set.insert(family[i].c_str()));
    for (size_t i = 0; i < family.size(); i += 2) EXPECT_FALSE(set.insert(family[i].c_str()));
    EXPECT_EQ(set.size(), 64u);
    for (size_t i = 0; i < family.size(); ++i) expectContains(set, family[i], i % 2 == 0);
    for (size_t i = 1; i < family.size(); i += 2) EXPECT_TRUE(set.insert(family[i].c_str()));
    for (size_t i = 0; i < family.size(); i += 3) EXPECT_TRUE(set.erase(family[i].c_str()));
    for (size_t i = 0; i < family.size(); i += 3) EXPECT_FALSE(set.erase(family[i].c_str()));
    for (size_t i = 0; i < family.size(); ++i) expectContains(set, family[i], i % 3 != 0);
}

// Equal hashes and a common prefix: only the length can decide. Such texts
// don't occur with honest short hashes, so the hash is given.
TEST(StrHashSet, LengthDecidesBetweenTextsOfOneHash) {
    const str_hash_t h = 12345;
    StrHashSet set;
    EXPECT_TRUE(set.insert("abc", 3, h));
    EXPECT_TRUE(set.insert("abcd", 4, h));
    EXPECT_TRUE(set.insert("", 0, h));
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
        const bool growing = step < 20000;
        if (op < (growing ? 5u : 2u)) {
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
    }
    EXPECT_GT(oracle.size(), 10u);

    // Iteration: each text once, in order of hash.
    const std::vector<std::string> listed = contents(set);
    EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()),
              std::set<std::string>(oracle.begin(), oracle.end()));
    EXPECT_EQ(listed.size(), oracle.size());
    EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end(), [](const auto& a, const auto& b) {
        return referenceDjb2(a) < referenceDjb2(b);
    }));
    for (const std::string& t : texts) expectContains(set, t, oracle.count(t) == 1);

    // Emptied, it is empty in every way and fills again.
    for (const std::string& t : listed) ASSERT_TRUE(set.erase(StrSegment(t)));
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.begin(), set.end());
    EXPECT_FALSE(set.contains(listed[0].data(), listed[0].size()));
    EXPECT_TRUE(set.insert("again"));
    set.clear();
    EXPECT_EQ(set.size(), 0u);
    EXPECT_FALSE(set.contains("again"));
    EXPECT_TRUE(set.insert("again"));
}

TEST(StrHashSet, CopiesAreDeepAndIndependent) {
    auto original = std::make_unique<StrHashSet>();
    for (int i = 0; i < 500; ++i) original->insert(Str::fromFormat("key-%d", i));
    StrHashSet copy(*original);
    StrHashSet assigned;
    assigned.insert("dropped");
    assigned = *original;
    EXPECT_FALSE(assigned.contains("dropped"));
    EXPECT_EQ(contents(copy), contents(*original));
    EXPECT_NE((*copy.begin()).data(), (*original->begin()).data());
    original->erase("key-7");
    original->insert("only-in-original");
    EXPECT_FALSE(copy.contains("only-in-original"));
    original.reset();
    for (int i = 0; i < 500; ++i) {
        const Str key = Str::fromFormat("key-%d", i);
        ASSERT_TRUE(copy.contains(key));
        ASSERT_TRUE(assigned.contains(key));
    }
    StrHashSet moved(std::move(copy));
    EXPECT_EQ(moved.size(), 500u);
    EXPECT_TRUE(copy.empty());
    EXPECT_FALSE(copy.contains("key-1"));
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
    EXPECT_EQ(Str::from(StrHashSet()), "{}");

    // The crash path writes the same without touching the heap.
    FixedBuffer buffer;
    CrashLogWriteHandler h(&buffer);
    if (!alloccounter::available()) GTEST_SKIP() << "allocations can't be counted here";
    alloccounter::Scope scope;
    crashlog_write(h, set);
    EXPECT_EQ(scope.allocations(), 0);
    EXPECT_EQ(std::string(buffer.data, buffer.used), expected);
}

// ---------------------------------------------------------------- FixedStrHashSet

TEST(FixedStrHashSet, AgreesWithUnorderedSetOnAListWithRepeats) {
    std::mt19937_64 rng(11);
    const std::vector<std::string> texts = mixedTexts(3000, rng);
    std::vector<Str> chosen;
    std::unordered_set<std::string> oracle;
    for (size_t i = 0; i < texts.size(); i += 2)
        chosen.emplace_back(texts[i]), oracle.insert(texts[i]);
    chosen.emplace_back(texts[0]);  // repeated
    chosen.emplace_back(texts[0]);
    const FixedStrHashSet set(chosen);
    EXPECT_EQ(set.size(), oracle.size());
    for (const std::string& t : texts) expectContains(set, t, oracle.count(t) == 1);
    for (size_t i = 1; i < set.size(); ++i) {
        ASSERT_LE(referenceDjb2(set[i - 1]), referenceDjb2(set[i]));
    }
    const FixedStrHashSet fromSegments(std::vector<StrSegment>(chosen.begin(), chosen.end()));
    EXPECT_EQ(Str::from(fromSegments), Str::from(set));
}

TEST(FixedStrHashSet, CopyMoveAndClear) {
    const char* const names[] = {"alpha", "beta", "gamma"};
    auto original = std::make_unique<FixedStrHashSet>(names, 3);
    FixedStrHashSet copy(*original);
    FixedStrHashSet assigned{"other"};
    assigned = *original;
    original.reset();
    for (const char* n : names) EXPECT_TRUE(copy.contains(n) && assigned.contains(n)) << n;
    EXPECT_FALSE(assigned.contains("other"));

    FixedStrHashSet moved(std::move(copy));
    EXPECT_TRUE(moved.contains("beta"));
    EXPECT_TRUE(copy.empty());
    EXPECT_FALSE(copy.contains("beta"));
    moved.clear();
    EXPECT_FALSE(moved.contains("beta"));
    EXPECT_EQ(Str::from(moved), "{}");
    EXPECT_EQ(Str::from(FixedStrHashSet{"a\nb"}), "{\"a\\nb\"}");
}

// ---------------------------------------------------------------- StaticStrHashSet

// Filled by a static initialiser of this file with a text constructed only
// after it: the set is constant-initialised, and hashes wait for finalizing.
constinit StaticStrHashSet earlyNames;
extern const Str laterText;
const bool earlyFilled = [] {
    earlyNames.insert(&laterText);
    return true;
}();
const Str laterText("constructed after the insert");

TEST(StaticStrHashSet, FilledByStaticInitialisers) {
    ASSERT_TRUE(earlyFilled);
    EXPECT_TRUE(earlyNames.contains("constructed after the insert"));
    EXPECT_EQ(earlyNames.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_FALSE(earlyNames.contains(""));
}

TEST(StaticStrHashSet, EmptySetAnswersFalseWithoutFinalizing) {
    const Str word("word");
    StaticStrHashSet populating;
    populating.insert(&word);
    StaticStrHashSet empty;
    EXPECT_FALSE(empty.contains("word"));
    EXPECT_FALSE(empty.contains(""));
    EXPECT_EQ(empty.state(), StaticStrHashSet::STATE_UNPOPULATED);
    EXPECT_EQ(populating.state(), StaticStrHashSet::STATE_POPULATING);
    // Still open for insertion afterwards.
    empty.insert(&word);
    EXPECT_TRUE(empty.contains("word"));
    EXPECT_EQ(populating.state(), StaticStrHashSet::STATE_FINISHED);
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

    std::vector<uint64_t> hashes;
    for (const Str* s : b) hashes.push_back(referenceDjb2(*s));
    EXPECT_EQ(hashes.size(), 65u);
    EXPECT_TRUE(std::is_sorted(hashes.begin(), hashes.end()));
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

TEST(StaticStrHashSetDeathTest, InsertAfterFinalizingFails) {
    const Str word("word");
    StaticStrHashSet empty;
    empty._finalize();
    EXPECT_EQ(empty.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_FALSE(empty.contains("word"));
    EXPECT_DEATH(empty.insert(&word), "_state == STATE_UNPOPULATED");

    StaticStrHashSet full;
    full.insert(&word);
    EXPECT_TRUE(full.contains("word"));
    EXPECT_DEATH(full.insert(&word), "_state == STATE_UNPOPULATED");
}

}  // namespace
