// Digests against coreutils' sha1sum and kin over the same bytes, and the
// text forms.

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <string>

#include "support/TestSupport.h"
#include "util/AppendStr.h"
#include "util/FileDescriptor.h"
#include "util/SHA.h"

namespace {

// What coreutils' <name>sum prints for the bytes, hex only.
std::string coreutilsHex(const std::string& name, const std::string& bytes) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "in", bytes);
    const testsupport::ProcessResult r =
        testsupport::runProcess({"/usr/bin/" + name + "sum", dir / "in"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    return r.out.substr(0, r.out.find(' '));
}

std::string longInput() {
    std::string s(10000, '\0');
    for (int i = 0; i < 10000; i++) s[i] = char(i * 7 + i / 255);
    return s;
}

TEST(SHATest, DigestsMatchCoreutils) {
    for (const std::string& in :
         {std::string(), std::string("abc"), std::string("\0\xff\n", 3), longInput()}) {
        SCOPED_TRACE(in.size());
        EXPECT_EQ(SHA1Hash::of(in.data(), in.size()).hex(), coreutilsHex("sha1", in));
        EXPECT_EQ(SHA256Hash::of(in.data(), in.size()).hex(), coreutilsHex("sha256", in));
        EXPECT_EQ(SHA384Hash::of(in.data(), in.size()).hex(), coreutilsHex("sha384", in));
        EXPECT_EQ(SHA512Hash::of(in.data(), in.size()).hex(), coreutilsHex("sha512", in));
        EXPECT_EQ(MD5Hash::of(in.data(), in.size()).hex(), coreutilsHex("md5", in));
    }
}

// In pieces, from a copy of a context midway, from chunks and from a file
// read to its end: the digest of the whole.
TEST(SHATest, PiecewiseCopiesStreamsAndTextForms) {
    const std::string in = longInput();
    EvpMdContext c(EVP_sha256());
    c.update(in.data(), 4000);
    EvpMdContext fork(c);  // the state travels with the copy
    c.update(in.data() + 4000, in.size() - 4000);
    fork.update(in.data() + 4000, in.size() - 4000);
    SHA256HashResult a, b;
    c.evpFinalize(a.bytes);
    fork.evpFinalize(b.bytes);
    EXPECT_EQ(a, SHA256HashResult(in.data(), in.size()));
    EXPECT_EQ(b, a);

    AppendStr chunks;
    chunks.append(in.data(), in.size());
    EXPECT_EQ(SHA256HashResult(chunks), a);
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "f", in);
    ScopedFileDescriptor fd(Pathname((dir / "f").c_str()));
    ASSERT_TRUE(fd.valid());
    Str streamed;
    SHA1Hash::streamHashHex(fd, &streamed);
    EXPECT_EQ(streamed, SHA1Hash::of(in.data(), in.size()).hex());

    c.evpClear(EVP_sha1());
    c << StrSegment("abc", 3);
    SHA1HashResult s;
    c.evpFinalize(s.bytes);
    EXPECT_EQ(testsupport::crashText(s), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(SHATest, FailureMessageNamesTheStep) {
    // A fresh context without a digest can't start.
    try {
        EvpMdContext c(nullptr);
        FAIL() << "no exception";
    } catch (const MessageDigestException& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Error initializing message digest: ", 0), 0u)
            << e.what();
    }
}

}  // namespace
