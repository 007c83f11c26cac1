// Directory walking against find(1)'s listing of a generated tree.

#include "util/DirectoryDescriptor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "support/TestSupport.h"

namespace {

using testsupport::ScratchDir;

// name -> type letter, as `find -printf '%f %Y'` gives them (links followed).
std::map<std::string, char> findListing(const std::string& dir) {
    auto r = testsupport::runProcess(
        {"/usr/bin/find", dir, "-mindepth", "1", "-maxdepth", "1", "-printf", "%f/%Y\\n"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    std::map<std::string, char> out;
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) out[line.substr(0, line.size() - 2)] = line.back();
    return out;
}

// "N" is find's word for a link to nothing; the one "other" here is the fifo.
char letter(Pathname::file_type_t t) {
    return t == Pathname::FILETYPE_REGULAR     ? 'f'
           : t == Pathname::FILETYPE_DIRECTORY ? 'd'
           : t == Pathname::FILETYPE_NONE      ? 'N'
                                               : 'p';
}

TEST(DirectoryIterator, AgreesWithFind) {
    ScratchDir dir;
    Pathname root(dir.path());
    for (int i = 0; i < 40; ++i) testsupport::writeFile(root / ("file" + std::to_string(i)), "x");
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE((root / ("dir" + std::to_string(i))).mkdir(Pathname::MKDIR_NORMAL));
    for (const char* to : {"file0", "dir0", "vanished"})
        ASSERT_TRUE((root / to).symlinkTo(root / (std::string("link-to-") + to)));
    ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
    for (const char* hidden : {".hidden", "..twodots"}) testsupport::writeFile(root / hidden, "");

    std::map<std::string, char> ours;
    DirectoryIterator it(root);
    Pathname name;
    Pathname::file_type_t type;
    while (it.getNext(name, type)) {
        ASSERT_EQ(name.find('/'), Str::npos);
        ours[name] = letter(type);
    }
    EXPECT_FALSE(it.getNext(name));  // finished stays finished
    EXPECT_EQ(ours, findListing(root));

    // Sorted: the same names in byte order.
    std::vector<std::string> sorted;
    SortedDirectoryIterator sit(root);
    while (sit.getNext(name)) sorted.push_back(name);
    std::vector<std::string> expected;
    for (auto& [n, t] : ours) expected.push_back(n);
    EXPECT_EQ(sorted, expected);
}

TEST(DirectoryIterator, EmptyMissingAndRetried) {
    ScratchDir dir;
    Pathname root = Pathname(dir.path()) / "later";
    DirectoryIterator it(root);
    Pathname name;
    EXPECT_FALSE(it.getNext(name));  // can't open yet: tried again next time
    ASSERT_TRUE(root.mkdir(Pathname::MKDIR_NORMAL));
    testsupport::writeFile(root / "a", "");
    EXPECT_TRUE(it.getNext(name));
    EXPECT_EQ(name, "a");
    EXPECT_FALSE(it.getNext(name));

    Pathname emptyDir = Pathname(dir.path()) / "empty";
    ASSERT_TRUE(emptyDir.mkdir(Pathname::MKDIR_NORMAL));
    SortedDirectoryIterator none(emptyDir);
    EXPECT_FALSE(none.getNext(name));
}

TEST(ReaddirCache, ReadsOnceAndRetriesFailures) {
    ScratchDir dir;
    Pathname root(dir.path());
    testsupport::writeFile(root / "b", "");
    testsupport::writeFile(root / "a", "");
    ReaddirCache cache;
    const auto& first = cache.read(root);
    EXPECT_EQ(std::vector<Pathname>(first.begin(), first.end()), std::vector<Pathname>({"a", "b"}));
    testsupport::writeFile(root / "c", "");
    EXPECT_EQ(cache.read(root).size(), 2u);  // no invalidation

    Pathname later = root / "later";
    EXPECT_TRUE(cache.read(later).empty());
    ASSERT_TRUE(later.mkdir(Pathname::MKDIR_NORMAL));
    testsupport::writeFile(later / "x", "");
    EXPECT_EQ(cache.read(later).size(), 1u);
}

TEST(DirectoryEntry, RealNamesAndJoining) {
    // Which names are real, and joining to a parent that is the target
    // itself, are the fuzz target's work.
    struct dirent d = {};
    strcpy(d.d_name, "leaf");
    DirectoryEntry e(&d);
    Pathname q;
    q.buildFromParentAndLeaf(Pathname("/"), e);
    EXPECT_EQ(q, "/leaf");
    q.buildFromParentAndLeaf(Pathname(""), e);
    EXPECT_EQ(q, "/leaf");
}

}  // namespace
