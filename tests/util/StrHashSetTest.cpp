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

// Texts of every kind a lookup must tell apart: colliding ones, prefixes of
// each other, the empty one, bytes from 0x80 up, long ones.
std::vector<std::string> mixedTexts(size_t n, std::mt19937_64& rng) {
    std::vector<std::string> texts = collisionFamily(7);  // 128 of one hash
    texts.push_back("");
    texts.push_back("a");
    texts.push_back("ab");
    texts.push_back("\x80\xff");
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
    for (size_t i = 0; i < family.size(); ++i) {
        const std::string& t = family[i];
        EXPECT_EQ(set.contains(t.c_str()), i % 2 == 0) << t;
        EXPECT_EQ(set.contains(t.data(), t.size()), i % 2 == 0) << t;
        EXPECT_EQ(set.contains(t.data(), t.size(), referenceDjb2(t)), i % 2 == 0) << t;
    }
    for (size_t i = 1; i < family.size(); i += 2) EXPECT_TRUE(set.insert(family[i].c_str()));
    for (size_t i = 0; i < family.size(); i += 3) EXPECT_TRUE(set.erase(family[i].c_str()));
    for (size_t i = 0; i < family.size(); i += 3) EXPECT_FALSE(set.erase(family[i].c_str()));
    for (size_t i = 0; i < family.size(); ++i) {
        EXPECT_EQ(set.contains(family[i].c_str()), i % 3 != 0) << family[i];
    }
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
    EXPECT_TRUE(set.contains("abc", 3, h));
    EXPECT_TRUE(set.contains("abcd", 4, h));
    EXPECT_TRUE(set.contains("", 0, h));
    EXPECT_FALSE(set.contains("ab", 2, h));
    EXPECT_FALSE(set.contains("abcde", 5, h));
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
    EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end(),
                               [](const std::string& a, const std::string& b) {
                                   return referenceDjb2(a) < referenceDjb2(b);
                               }));
    for (const std::string& t : texts)
        ASSERT_EQ(set.contains(t.c_str(), t.size()), oracle.count(t));
}

TEST(StrHashSet, EmptiedAndRefilled) {
    StrHashSet set;
    for (int i = 0; i < 1000; ++i) set.insert(std::to_string(i));
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(set.erase(std::to_string(i)));
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.begin(), set.end());
    EXPECT_FALSE(set.contains("0"));
    EXPECT_TRUE(set.insert("again"));
    EXPECT_TRUE(set.contains("again"));
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

    const char* originalText = (*original->begin()).data();
    EXPECT_NE((*copy.begin()).data(), originalText);
    original->erase("key-7");
    original->insert("only-in-original");
    EXPECT_TRUE(copy.contains("key-7"));
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
    const StrHashSet set{"b", "say \"hi\"", "", "\xff"};
    std::vector<std::string> byHash{"b", "say \"hi\"", "", "\xff"};
    std::sort(byHash.begin(), byHash.end(), [](const std::string& a, const std::string& b) {
        return referenceDjb2(a) < referenceDjb2(b);
    });
    std::string expected = "{";
    for (const std::string& t : byHash) {
        if (expected.size() > 1) expected += ", ";
        expected += t == "say \"hi\"" ? "\"say \\\"hi\\\"\""
                    : t == "\xff"     ? "\"\\xFF\""
                                      : '"' + t + '"';
    }
    expected += "}";
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

// Bytes from 0x80 up enter the hash as negative numbers: the hash python3
// computes that way finds the text, and the one of the byte as unsigned
// doesn't.
TEST(StrHashSet, HighBytesHashAsNegative) {
    const std::vector<std::string> texts{"\x80", "caf\xc3\xa9", "\xff\xfe\xfd", "a\x80z"};
    const std::vector<uint64_t> python = hashcollisions::pythonDjb2(texts);
    ASSERT_EQ(python.size(), texts.size()) << "python3 must be installed";
    StrHashSet set;
    FixedStrHashSet fixed(std::vector<StrSegment>(texts.begin(), texts.end()));
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string& t = texts[i];
        uint64_t unsignedHash = 5381;
        for (unsigned char c : t) unsignedHash = unsignedHash * 33 + c;
        ASSERT_NE(python[i], unsignedHash);
        set.insert(t.c_str());
        EXPECT_TRUE(set.contains(t.data(), t.size(), python[i])) << i;
        EXPECT_FALSE(set.contains(t.data(), t.size(), unsignedHash)) << i;
        EXPECT_TRUE(fixed.contains(t.data(), t.size(), python[i])) << i;
        EXPECT_FALSE(fixed.contains(t.data(), t.size(), unsignedHash)) << i;
    }
}

// ---------------------------------------------------------------- FixedStrHashSet

TEST(FixedStrHashSet, ListWithCollisionsAndRepeats) {
    const std::vector<std::string> family = collisionFamily(7);
    std::vector<Str> list;
    for (size_t i = 0; i < family.size(); i += 2) list.emplace_back(family[i]);
    list.emplace_back(family[0]);  // repeated
    list.emplace_back("");
    list.emplace_back("x");
    list.emplace_back("x");
    const FixedStrHashSet set(list);
    EXPECT_EQ(set.size(), 66u);
    for (size_t i = 0; i < family.size(); ++i) {
        const std::string& t = family[i];
        EXPECT_EQ(set.contains(t.c_str()), i % 2 == 0) << t;
        EXPECT_EQ(set.contains(t.data(), t.size()), i % 2 == 0) << t;
        EXPECT_EQ(set.contains(t.data(), t.size(), referenceDjb2(t)), i % 2 == 0) << t;
    }
    EXPECT_TRUE(set.contains(""));
    EXPECT_TRUE(set.contains("x"));
    EXPECT_FALSE(set.contains("xx"));
    for (size_t i = 1; i < set.size(); ++i) {
        EXPECT_LE(referenceDjb2(set[i - 1]), referenceDjb2(set[i]));
    }
}

TEST(FixedStrHashSet, AgreesWithUnorderedSet) {
    std::mt19937_64 rng(11);
    const std::vector<std::string> texts = mixedTexts(3000, rng);
    std::vector<StrSegment> chosen;
    std::unordered_set<std::string> oracle;
    for (size_t i = 0; i < texts.size(); i += 2) {
        chosen.emplace_back(texts[i]);
        oracle.insert(texts[i]);
    }
    const FixedStrHashSet set(chosen);
    EXPECT_EQ(set.size(), oracle.size());
    for (const std::string& t : texts) ASSERT_EQ(set.contains(t.data(), t.size()), oracle.count(t));
}

TEST(FixedStrHashSet, CopyMoveAndClear) {
    const char* const names[] = {"alpha", "beta", "gamma"};
    auto original = std::make_unique<FixedStrHashSet>(names, 3);
    FixedStrHashSet copy(*original);
    FixedStrHashSet assigned{"other"};
    assigned = *original;
    original.reset();
    for (const char* n : names) {
        EXPECT_TRUE(copy.contains(n));
        EXPECT_TRUE(assigned.contains(n));
    }
    EXPECT_FALSE(assigned.contains("other"));

    FixedStrHashSet moved(std::move(copy));
    EXPECT_TRUE(moved.contains("beta"));
    EXPECT_TRUE(copy.empty());
    EXPECT_FALSE(copy.contains("beta"));
    moved.clear();
    EXPECT_FALSE(moved.contains("beta"));
    EXPECT_EQ(Str::from(moved), "{}");

    const FixedStrHashSet one{"a\nb"};
    EXPECT_EQ(Str::from(one), "{\"a\\nb\"}");
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
    EXPECT_EQ(a.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_EQ(b.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_EQ(c.state(), StaticStrHashSet::STATE_FINISHED);
    EXPECT_EQ(never.state(), StaticStrHashSet::STATE_UNPOPULATED);

    for (size_t i = 0; i + 1 < owned.size(); ++i) {
        EXPECT_EQ(a.contains(family[i].c_str()), i % 2 == 1) << i;
        EXPECT_EQ(b.contains(family[i].data(), family[i].size()), i % 2 == 0) << i;
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
