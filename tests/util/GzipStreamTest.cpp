// Gzip streams: interoperability with gzip(1) both ways, headers split at
// every byte, truncation at every byte, timeouts and failed writes.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <random>
#include <string>
#include <thread>

#include "support/TestSupport.h"
#include "util/GzipStream.h"

namespace {

using namespace std::string_literals;
using testsupport::ScratchDir;

// Compressed bytes from memory, handed out in pieces of at most `step`
// bytes, and split at `cut` once.
class MemoryGzipReader : public ReadableGzipStream {
public:
    explicit MemoryGzipReader(std::string data, size_t step = SIZE_MAX, size_t bufsiz = 4096)
        : ReadableGzipStream(bufsiz), _data(std::move(data)), _step(step) {}
    size_t cut = 0;

protected:
    ssize_t read_stream(void* buf, size_t size, Interval) override {
        size_t n = std::min({size, _step, _data.size() - _pos});
        if (cut > _pos && cut < _pos + n) n = cut - _pos;
        memcpy(buf, _data.data() + _pos, n);
        _pos += n;
        return static_cast<ssize_t>(n);
    }

private:
    std::string _data;
    size_t _step;
    size_t _pos = 0;
};

// Reads everything; the last result (0 at a clean end, else -1 or -2) and
// errno with it.
struct ReadResult {
    std::string text;
    ssize_t last = 0;
    int error = 0;
};
ReadResult readAll(ReadableGzipStream& in, size_t chunk = 1000,
                   Interval timeout = Interval::unbounded()) {
    ReadResult r;
    std::string buf(chunk, '\0');
    while ((r.last = in.read(buf.data(), buf.size(), timeout)) > 0) r.text.append(buf, 0, r.last);
    r.error = r.last < 0 ? errno : 0;
    return r;
}
ReadResult readAll(const std::string& gz, size_t chunk = 1000) {
    MemoryGzipReader in(gz);
    return readAll(in, chunk);
}

// Output into a string; after `failAfterCalls` successful calls, write_stream fails
// once with EIO and then works again.
class StringGzipWriter : public WritableGzipStream {
public:
    explicit StringGzipWriter(int level = 6, size_t bufsiz = 4096)
        : WritableGzipStream(level, bufsiz, Timeval(1700000000, 0)) {}
    std::string out;
    int failAfterCalls = -1;
    size_t maxPerCall = SIZE_MAX;

protected:
    ssize_t write_stream(const void* data, size_t length) override {
        if (failAfterCalls == 0) {
            failAfterCalls = -1;
            errno = EIO;
            return -1;
        }
        if (failAfterCalls > 0) --failAfterCalls;
        const size_t n = std::min(length, maxPerCall);
        out.append(static_cast<const char*>(data), n);
        return static_cast<ssize_t>(n);
    }
};

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

std::string textOf(size_t n) {
    std::string s;
    for (int i = 0; s.size() < n; ++i)
        s += "line " + std::to_string(i * 7919) + ": the quick fox\n";
    return s.substr(0, n);
}

std::string gzipCommand(const std::string& args, const std::string& input) {
    ScratchDir dir;
    testsupport::writeFile(dir / "in", input);
    auto r = testsupport::runProcess({"/bin/sh", "-c", "gzip " + args + " < '" + dir / "in" + "'"});
    EXPECT_EQ(r.exitStatus, 0) << "gzip " << args << ": " << r.err;
    return r.out;
}

std::string compressHere(const std::string& data, int level = 6) {
    StringGzipWriter w(level);
    EXPECT_TRUE(w.write(data.data(), data.size()));
    EXPECT_TRUE(w.finish());
    return w.out;
}

// ---------------------------------------------------------------- interoperability

TEST(GzipInterop, BothWaysAtEveryLevel) {
    for (const std::string& data : {""s, "x"s, textOf(300000), randomBytes(100000, 1)}) {
        for (int level : {1, 6, 9}) {
            SCOPED_TRACE(testing::Message() << data.size() << " bytes, level " << level);
            const std::string gz = compressHere(data, level);
            ASSERT_TRUE(gzipCommand("-dc", gz) == data);
            // Header: no flags, our time, XFL as gzip writes it, Unix.
            const char xfl = level == 9 ? 2 : level == 1 ? 4 : 0;
            EXPECT_EQ(gz.substr(0, 10), "\x1F\x8B\x08\x00\x00\xF1\x53\x65"s + xfl + '\x03');
            const ReadResult r = readAll(gzipCommand("-c -" + std::to_string(level), data), 777);
            EXPECT_EQ(r.last, 0) << strerror(r.error);
            ASSERT_TRUE(r.text == data);
        }
    }
}

TEST(GzipInterop, DescriptorWriterIsFinishedByItsDestructorAndFailsOnAFullDisk) {
    ScratchDir dir;
    const std::string data = textOf(200000);
    {
        ScopedFileDescriptor out{
            FileDescriptor(Pathname(dir / "ours.gz").openCreateOrReplace(Pathname::CREATE_NORMAL))};
        WritableGzipFileDescriptor w(out, 9, 512);
        for (size_t i = 0; i < data.size(); i += 1000)
            ASSERT_TRUE(w.write(data.data() + i, std::min<size_t>(1000, data.size() - i)));
    }
    EXPECT_TRUE(gzipCommand("-dc", testsupport::readFile(dir / "ours.gz")) == data);

    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    WritableGzipFileDescriptor w(FileDescriptor(full), 6, 16);
    const std::string noise = randomBytes(300000, 4);
    EXPECT_FALSE(w.write(noise.data(), noise.size()));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(w.broken());
    EXPECT_FALSE(w.finish());
    EXPECT_EQ(errno, EIO);
    close(full);
}

// ---------------------------------------------------------------- headers and members

// Optional fields made by hand in front of a member gzip(1) made, each
// header split at every byte and fed byte by byte.
TEST(GzipHeader, OptionalFieldsSplitAtEveryByte) {
    using D = DecompressingGzipStream;
    const std::string data = textOf(5000), member = gzipCommand("-cn", data);
    const std::pair<int, std::string> headers[] = {
        {D::FLAG_HAS_EXTRA_FIELD | D::FLAG_HAS_ORIG_NAME | D::FLAG_HAS_COMMENT |
             D::FLAG_HAS_HEAD_CRC,
         "\x05\0AB\x01\0Z"s},                // XLEN 5, one subfield
        {D::FLAG_HAS_EXTRA_FIELD, "\0\0"s},  // an empty extra field skips nothing
        {D::FLAG_HAS_COMMENT | D::FLAG_HAS_HEAD_CRC, ""},
        {D::FLAG_HAS_ORIG_NAME, ""},
        {1, ""},  // FTEXT is only a hint
    };
    for (const auto& [flags, extra] : headers) {
        SCOPED_TRACE(flags);
        std::string gz = member.substr(0, 3) + char(flags) + member.substr(4, 6) + extra;
        if (flags & D::FLAG_HAS_ORIG_NAME) gz += "name.txt\0"s;
        if (flags & D::FLAG_HAS_COMMENT) gz += "a comment\0"s;
        if (flags & D::FLAG_HAS_HEAD_CRC) {
            const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(gz.data()), uInt(gz.size()));
            gz += std::string{char(crc & 0xFF), char((crc >> 8) & 0xFF)};
        }
        const size_t headerEnd = gz.size();
        gz += member.substr(10);
        ASSERT_TRUE(gzipCommand("-dc", gz) == data) << "gzip(1) finds it well formed";
        for (size_t cut = 1; cut <= headerEnd + 1; ++cut) {
            MemoryGzipReader in(gz);
            in.cut = cut;
            ASSERT_TRUE(readAll(in).text == data) << "split at " << cut;
        }
    }
}

TEST(GzipHeader, BytesThatCannotBeGzipAreENOEXEC) {
    const std::string good = gzipCommand("-cn", "payload");
    // The magic, the method, each reserved flag, a reserved block type.
    const std::pair<size_t, char> cases[] = {{0, 0x1E}, {1, 0x00},       {2, 7},    {3, 0x20},
                                             {3, 0x40}, {3, char(0x80)}, {10, 0x07}};
    for (const auto& [at, byte] : cases) {
        std::string bad = good;
        bad[at] = byte;
        const ReadResult r = readAll(bad);
        EXPECT_EQ(r.last, -1) << "byte " << at << " = " << int(byte);
        EXPECT_EQ(r.error, ENOEXEC) << "byte " << at << " = " << int(byte);
    }
    // Anything after a member but another member is not gzip either. The
    // error comes at once, so the member is read in a call of its own.
    const ReadResult r = readAll(good + std::string(4, '\0'), 7);
    EXPECT_EQ(r.text, "payload");
    EXPECT_EQ(r.error, ENOEXEC);
}

TEST(GzipMembers, ConcatenatedMembersReadAsOneStream) {
    const std::string a = textOf(70000), b = randomBytes(30000, 2);
    const std::string gz = gzipCommand("-c1", a) + compressHere("", 6) + compressHere(b, 9);
    for (size_t step : {size_t(1), size_t(7), size_t(4096), SIZE_MAX}) {
        MemoryGzipReader in(gz, step);
        const ReadResult r = readAll(in, 4093);
        EXPECT_EQ(r.last, 0) << step;
        ASSERT_TRUE(r.text == a + b) << step;
    }
}

// Every cut of a two-member file: a clean end exactly at a member's end,
// ENOEXEC anywhere else; the bytes before the cut are delivered either way.
// The trailers are skipped unchecked.
TEST(GzipMembers, TruncationAtEveryByte) {
    const std::string a = "first member ", b = "second";
    const std::string first = compressHere(a, 6);
    std::string gz = first + compressHere(b, 6);
    for (size_t i = gz.size() - 8; i < gz.size(); ++i) gz[i] = char(~gz[i]);
    for (size_t cut = 0; cut <= gz.size(); ++cut) {
        const ReadResult r = readAll(gz.substr(0, cut), 3);
        const bool clean = cut == 0 || cut == first.size() || cut == gz.size();
        EXPECT_EQ(r.last, clean ? 0 : -1) << cut;
        EXPECT_EQ(r.error, clean ? 0 : ENOEXEC) << cut;
        EXPECT_EQ(r.text, (a + b).substr(0, r.text.size())) << cut;
        EXPECT_GE(r.text.size(), cut >= first.size() ? a.size() : 0) << cut;
    }
    EXPECT_EQ(readAll(gz).text, a + b);
}

// ---------------------------------------------------------------- timeouts

TEST(GzipRead, TimeoutGivesWhatCameOrMinusTwo) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    const std::string text = textOf(10000), gz = compressHere(text, 6);
    const size_t half = gz.size() / 2;
    ReadableGzipFileDescriptor in{FileDescriptor(p[0])};
    char buf[65536];
    EXPECT_EQ(in.read(buf, sizeof buf, Interval(30)), -2);

    // Half the stream: what it decodes to comes back at once, then the wait.
    ASSERT_EQ(write(p[1], gz.data(), half), ssize_t(half));
    EXPECT_GT(in.read(buf, 1, Interval(5000)), 0);
    ReadResult r = readAll(in, sizeof buf, Interval(30));
    EXPECT_EQ(r.last, -2);
    EXPECT_GT(r.text.size(), 0u);
    const std::string got = buf[0] + r.text;

    std::thread writer([&] {
        EXPECT_EQ(write(p[1], gz.data() + half, gz.size() - half), ssize_t(gz.size() - half));
        close(p[1]);
    });
    r = readAll(in, sizeof buf, Interval(5000));
    writer.join();
    EXPECT_EQ(r.last, 0);
    EXPECT_TRUE(got + r.text == text);
    close(p[0]);
}

// ---------------------------------------------------------------- writing

// What sync() wrote is readable at once; startNewFile() begins a member
// that gzip(1) concatenates; a second finish() adds nothing.
TEST(GzipWrite, SyncAndNewMembers) {
    const std::string a = textOf(70000), b = randomBytes(30000, 2);
    StringGzipWriter w;
    ASSERT_TRUE(w.write(a.data(), a.size()));
    ASSERT_TRUE(w.sync());
    const ReadResult partial = readAll(w.out);
    EXPECT_TRUE(partial.text == a);
    EXPECT_EQ(partial.error, ENOEXEC) << "the unfinished member is a truncated file";

    ASSERT_TRUE(w.startNewFile(Timeval(86400, 0)));
    ASSERT_TRUE(w.write(b.data(), b.size()));
    ASSERT_TRUE(w.finish());
    ASSERT_TRUE(w.finish());
    EXPECT_TRUE(gzipCommand("-dc", w.out) == a + b);
    MemoryGzipReader in(w.out);
    EXPECT_TRUE(readAll(in).text == a + b);
    EXPECT_EQ(in.modificationTime(), 86400u);
}

TEST(GzipWrite, AFailedWriteOutIsRetriedOrRefused) {
    const std::string data = randomBytes(50000, 3);
    // All input taken, the output waiting in a large buffer: finish() fails
    // part-way through writing out, and a second finish() completes it.
    for (int failAt : {0, 1, 5}) {
        StringGzipWriter w(6, 1 << 20);
        w.maxPerCall = 4099;
        ASSERT_TRUE(w.write(data.data(), data.size()));
        w.failAfterCalls = failAt;
        EXPECT_FALSE(w.finish());
        EXPECT_EQ(errno, EIO);
        ASSERT_TRUE(w.finish()) << failAt;
        EXPECT_TRUE(readAll(w.out).text == data) << failAt;
    }
    // Failing while input was left over (more than deflate's window holds):
    // that input would be missing from the member, so the stream refuses
    // all further work.
    const std::string big = randomBytes(300000, 5);
    StringGzipWriter w(6, 64);
    w.failAfterCalls = 3;
    EXPECT_FALSE(w.write(big.data(), big.size()));
    EXPECT_TRUE(w.broken());
    EXPECT_FALSE(w.write("x", 1));
    EXPECT_FALSE(w.finish());
    EXPECT_FALSE(w.startNewFile(Timeval()));
    const ReadResult r = readAll(w.out);
    EXPECT_EQ(r.error, ENOEXEC);  // what went out is a truncated member
    EXPECT_TRUE(r.text == big.substr(0, r.text.size()));
}

TEST(GzipWrite, BadSettingsAreRefused) {
    struct Writer : WritableGzipStream {
        Writer(int level, int bits) : WritableGzipStream(level, 64, bits) {}
        ssize_t write_stream(const void*, size_t n) override { return ssize_t(n); }
    };
    for (const auto& [level, bits] : {std::pair(10, 15), {-2, 15}, {6, 8}, {6, -15}})
        EXPECT_THROW(Writer(level, bits), ZlibException) << level << " " << bits;
    EXPECT_NO_THROW(Writer(6, 9));
    EXPECT_DEATH(StringGzipWriter(6, 9), "_buf.siz >= 10");
    EXPECT_DEATH(MemoryGzipReader("", 1, 0), "bufsiz > 0");
}

}  // namespace
