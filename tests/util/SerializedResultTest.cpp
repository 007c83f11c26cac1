// SerializedResult: the copy-or-reference rule, reserved spaces filled after
// finalize, swaps of in-object strings, resize and iteration.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "util/FileDescriptor.h"
#include "util/SerializedResult.h"

namespace {

std::string text(const SerializedResult& r) {
    Str out;
    append_stringified(&out, r);
    return out;
}

// What a gather write of the finalised value puts on a pipe.
std::string written(const SerializedResult& r) {
    int p[2];
    EXPECT_EQ(pipe2(p, O_CLOEXEC), 0);
    EXPECT_EQ(FileDescriptor(p[1]).write(r), ssize_t(r.size()));
    close(p[1]);
    std::string got(r.size() + 1, '\0');
    got.resize(size_t(std::max<ssize_t>(FileDescriptor(p[0]).read(got.data(), got.size()), 0)));
    close(p[0]);
    return got;
}

TEST(SerializedResult, ShortPiecesAreCopiedLongOnesReferenced) {
    const std::string s47(47, 'a'), s48(48, 'b');
    SerializedResult r;
    r.addReference(s47.data(), s47.size());
    EXPECT_EQ(r.state(), SerializedResult::LAST_IS_STORED);
    r.addReference("xy", 2);  // joins the stored element
    EXPECT_EQ(r._iovec().size(), 1u);
    r.addReference(s48.data(), s48.size());
    EXPECT_EQ(r._iovec().size(), 2u);
    EXPECT_EQ(r._iovec()[1].iov_base, s48.data());
    // Final: short data is referenced unless the copy is free.
    r.addReferenceFinal("z", 1);
    EXPECT_EQ(r._iovec().size(), 3u);
    r.appendFormat("%d", 42);
    r.addReferenceFinal("!", 1);
    r.addReferenceFinal("", 0);
    EXPECT_EQ(r._iovec().size(), 4u);
    const std::string want = s47 + "xy" + s48 + "z42!";
    EXPECT_EQ(r.size(), want.size());
    EXPECT_EQ(text(r), want);
    r.finalize();
    EXPECT_EQ(written(r), want);
    EXPECT_DEATH(r.addReference("late", 4), "_state != FINALIZED");
}

TEST(SerializedResult, ReservedSpaceFilledAfterFinalizeAndAcrossSwaps) {
    SerializedResult r;
    const size_t token = r.reserveSpace(4);
    const std::string body(100, 'B');
    r.addReference(body.data(), body.size());
    r.finalize();
    EXPECT_EQ(written(r), std::string(4, '\0') + body);
    r.fillInReservedSpace(token, "0100", 4);
    EXPECT_EQ(written(r), "0100" + body);
    EXPECT_DEATH(r.fillInReservedSpace(token + 1, "0100", 4), "token \\+ n <= _stor.size\\(\\)");

    // A reserved space inside a's in-object string: after the swap, the
    // filled-in bytes are in b's own string, and so must its element be.
    SerializedResult a, b;
    const size_t small = a.reserveSpace(4);
    a.finalize();
    Str big(5000, 'x');
    b.addDestructive(&big);
    EXPECT_TRUE(big.empty());  // swapped in
    b.finalize();
    a.swap(b);
    b.fillInReservedSpace(small, "tiny", 4);
    EXPECT_EQ(written(b), "tiny");
    EXPECT_EQ(written(a), std::string(5000, 'x'));
}

TEST(SerializedResult, ResizeCutsElementsAndStorage) {
    const std::string ref(60, 'R');
    SerializedResult r;
    r.addReference("head", 4);
    r.addReference(ref.data(), ref.size());
    r.addReference("tail", 4);
    r.resize(30);
    EXPECT_EQ(text(r), "head" + std::string(26, 'R'));
    EXPECT_EQ(r.state(), SerializedResult::LAST_IS_REFERENCE);
    r.addReference("more", 4);
    EXPECT_EQ(text(r), "head" + std::string(26, 'R') + "more");
    r.resize(2);
    EXPECT_EQ(r.state(), SerializedResult::LAST_IS_STORED);
    EXPECT_EQ(text(r), "he");
    r.resize(0);
    EXPECT_EQ(r.size(), 0u);
    EXPECT_EQ(r.state(), SerializedResult::LAST_IS_REFERENCE);
}

TEST(SerializedResult, IteratorsWalkEveryByteInBothStates) {
    const std::string ref(50, 'r');
    SerializedResult r;
    r.addReference("ab", 2);
    r.addReference(ref.data(), ref.size());
    r.addReference("cd", 2);
    const std::string want = "ab" + ref + "cd";
    for (int pass = 0; pass < 2; ++pass) {
        std::string got;
        for (auto it = r.begin(); !(it == r.end()); it += 1) got += *it;
        EXPECT_EQ(got, want) << "finalised: " << pass;
        auto it = r.begin();
        it += 53;
        EXPECT_EQ(*it, 'd');
        it += 1;
        EXPECT_TRUE(it == r.end());
        r.finalize();
    }
    std::ostringstream os;
    os << r;
    EXPECT_EQ(os.str(), want);

    AppendStr s;
    s.append(ref.data(), ref.size());
    SerializedResult fromChunks;
    fromChunks.addReference(s);
    fromChunks.addReference(r);
    fromChunks.finalize();
    EXPECT_EQ(written(fromChunks), ref + want);
}

}  // namespace
