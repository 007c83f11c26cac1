#include "util/UnicodeStream.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

#include "support/Oracles.h"
#include "util/BasicConversions.h"

namespace {

class StringSink : public WritableUnicodeStream {
public:
    using WritableUnicodeStream::WritableUnicodeStream;
    std::string bytes;
    int failAfter = INT_MAX;

protected:
    bool write_byte(int byte) override {
        if (failAfter-- <= 0) {
            errno = EIO;
            return false;
        }
        bytes.push_back(static_cast<char>(byte));
        return true;
    }
};

// Reading a FILE* back is ReadableUnicodeFileStarLineReader's test; each
// encoding, libzero/UnicodeFileTest's.
TEST(UnicodeStream, FileStarWritesAndFlushesOnDestruction) {
    const std::string text = "line \xC3\xA9\r\n\xF0\x9F\x98\x80\r\n\xEF\xBB\xBFlast";
    testsupport::ScratchDir dir;
    const std::string path = dir / "f";
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    {
        WritableUnicodeFileStar out(f, UTRANS_UTF16BE);
        EXPECT_TRUE(out.writeBom());
        EXPECT_TRUE(out.put(text));
    }  // flushed by the destructor
    fclose(f);
    EXPECT_EQ(testsupport::readFile(path), oracle::fromUtf8("\xEF\xBB\xBF" + text, "UTF-16BE"));
}

TEST(UnicodeStream, FormatsThroughTheEngineIntoTheEncoding) {
    // Multi-byte text longer than the engine's staging buffer, so that its
    // pieces cut through characters.
    std::string wide;
    for (int i = 0; i < 150; ++i) wide += "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    errno = ENOENT;
    Str expected = Str::fromFormat("%s|%-6d|%5.2f|%s|%m", wide.c_str(), -42, 2.5, "\xC3\xA9");
    expected +=
        "18446744073709551615 -9223372036854775808 " + Str::from(0.1) + " " + Str::from(-1e300);

    StringSink out(UTRANS_UTF16BE);
    errno = ENOENT;
    EXPECT_TRUE(out.format("%s|%-6d|%5.2f|%s|%m", wide.c_str(), -42, 2.5, "\xC3\xA9"));
    EXPECT_TRUE(out.format_unsigned(UINT64_MAX) && out.put(" ") && out.format_signed(INT64_MIN) &&
                out.put(" ") && out.format_double(0.1) && out.put(" ") &&
                out.format_double(-1e300));
    EXPECT_EQ(out.bytes, oracle::fromUtf8(expected, "UTF-16BE"));
    EXPECT_EQ(out.invalidSequences(), 0u);
}

TEST(UnicodeStream, HeldSequencesAndFailures) {
    StringSink out(UTRANS_UTF32LE);
    EXPECT_TRUE(out.put("\xE2"));
    EXPECT_TRUE(out.put("\x82"));
    EXPECT_TRUE(out.put("\xAC\xF0\x9F"));
    EXPECT_EQ(out.bytes, oracle::fromUtf8("\xE2\x82\xAC", "UTF-32LE"));
    // Flushing ends what is held.
    EXPECT_TRUE(out.flush());
    EXPECT_TRUE(out.putCodepoint(0xDC00));
    EXPECT_EQ(out.bytes, oracle::fromUtf8("\xE2\x82\xAC\xEF\xBF\xBD\xEF\xBF\xBD", "UTF-32LE"));
    EXPECT_EQ(out.invalidSequences(), 2u);

    out.failAfter = 2;
    errno = 0;
    EXPECT_FALSE(out.put("a"));
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(out.format("%d", 1));
    EXPECT_FALSE(out.format_unsigned(1));
}

}  // namespace
