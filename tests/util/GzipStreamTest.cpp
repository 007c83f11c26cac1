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

using testsupport::runProcess;
using testsupport::ScratchDir;
using testsupport::writeFile;

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
ReadResult readAll(ReadableGzipStream& in, size_t chunk = 1000) {
    ReadResult r;
    std::string buf(chunk, '\0');
    ssize_t n;
    while ((n = in.read(buf.data(), buf.size())) > 0) r.text.append(buf.data(), size_t(n));
    r.last = n;
    r.error = n < 0 ? errno : 0;
    return r;
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
    for (int i = 0; s.size() < n; ++i) {
        s += "line " + std::to_string(i) + ": the quick brown fox " +
             std::to_string(i * 7919 % 1000);
        s += '\n';
    }
    return s.substr(0, n);
}

std::string gzipCommand(const std::string& args, const std::string& input, const ScratchDir& dir) {
    writeFile(dir / "in", input);
    auto r = runProcess({"/bin/sh", "-c", "gzip " + args + " < '" + dir / "in" + "'"});
    EXPECT_EQ(r.exitStatus, 0) << "gzip " << args << ": " << r.err;
    return r.out;
}

std::string compressHere(const std::string& data, int level, size_t bufsiz = 4096) {
    StringGzipWriter w(level, bufsiz);
    EXPECT_TRUE(w.write(data.data(), data.size()));
    EXPECT_TRUE(w.finish());
    return w.out;
}

// The header fields after the fixed ten bytes, made by hand in front of a
// member gzip(1) made: every optional field, with a correct header CRC.
std::string withEveryOptionalField(const std::string& member) {
    std::string h = member.substr(0, 10);
    h[3] = char(DecompressingGzipStream::FLAG_HAS_EXTRA_FIELD |
                DecompressingGzipStream::FLAG_HAS_ORIG_NAME |
                DecompressingGzipStream::FLAG_HAS_COMMENT |
                DecompressingGzipStream::FLAG_HAS_HEAD_CRC);
    h += std::string(
        "\x05\x00"
        "AB\x01\x00Z",
        7);  // XLEN 5, one subfield
    h += std::string("name.txt\0", 9);
    h += std::string("a comment\0", 10);
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(h.data()), uInt(h.size()));
    h += char(crc & 0xFF);
    h += char((crc >> 8) & 0xFF);
    return h + member.substr(10);
}

// ---------------------------------------------------------------- interoperability

TEST(GzipInterop, BothWaysAtEveryLevel) {
    ScratchDir dir;
    const std::pair<const char*, std::string> samples[] = {{"empty", ""},
                                                           {"one byte", "x"},
                                                           {"text", textOf(300000)},
                                                           {"binary", randomBytes(100000, 1)}};
    for (const auto& [name, data] : samples) {
        for (int level : {1, 6, 9}) {
            SCOPED_TRACE(testing::Message() << name << " level " << level);
            const std::string gz = compressHere(data, level);
            ASSERT_TRUE(gzipCommand("-dc", gz, dir) == data);
            // Header: no flags, our time, XFL as gzip writes it, Unix.
            const char xfl = level == 9 ? 2 : level == 1 ? 4 : 0;
            EXPECT_EQ(gz.substr(0, 10),
                      std::string("\x1F\x8B\x08\x00\x00\xF1\x53\x65", 8) + xfl + '\x03');
            MemoryGzipReader in(gzipCommand("-c -" + std::to_string(level), data, dir));
            const ReadResult r = readAll(in, 777);
            EXPECT_EQ(r.last, 0) << strerror(r.error);
            ASSERT_TRUE(r.text == data);
        }
    }
}

TEST(GzipInterop, DescriptorWriterFinishedByItsDestructor) {
    ScratchDir dir;
    const std::string data = textOf(200000);
    const int out = open((dir / "ours.gz").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(out, 0);
    {
        WritableGzipFileDescriptor w(FileDescriptor(out), 9, 512);
        for (size_t i = 0; i < data.size(); i += 1000)
            ASSERT_TRUE(w.write(data.data() + i, std::min<size_t>(1000, data.size() - i)));
    }
    close(out);
    auto check = runProcess({"/bin/sh", "-c", "gzip -dc '" + dir / "ours.gz" + "'"});
    EXPECT_EQ(check.exitStatus, 0) << check.err;
    EXPECT_TRUE(check.out == data);
}

// ---------------------------------------------------------------- headers and members

TEST(GzipHeader, EveryOptionalFieldSplitAtEveryByte) {
    ScratchDir dir;
    const std::string data = textOf(5000);
    const std::string gz = withEveryOptionalField(gzipCommand("-cn", data, dir));
    // gzip(1) agrees the hand-made header is well formed.
    ASSERT_TRUE(gzipCommand("-dc", gz, dir) == data);

    const size_t headerEnd = 10 + 7 + 9 + 10 + 2;
    for (size_t cut = 1; cut <= headerEnd + 1; ++cut) {
        MemoryGzipReader in(gz);
        in.cut = cut;
        ASSERT_TRUE(readAll(in).text == data) << "split at " << cut;
    }
    MemoryGzipReader byteByByte(gz, 1);
    EXPECT_TRUE(readAll(byteByByte).text == data);
}

TEST(GzipHeader, StatesFollowTheFlags) {
    using D = DecompressingGzipStream;
    EXPECT_EQ(D::next_state_for_flags(0), D::HEADER_COMPLETE);
    EXPECT_EQ(D::next_state_for_flags(1), D::HEADER_COMPLETE);  // FTEXT is only a hint
    EXPECT_EQ(D::next_state_for_flags(2), D::AT_HEAD_CRC);
    EXPECT_EQ(D::next_state_for_flags(30), D::HEADER_EXTRA_LENGTH_LOW);
    EXPECT_EQ(D::next_state_for_flags(26), D::HEADER_NAME);
    EXPECT_EQ(D::next_state_for_flags(18), D::HEADER_COMMENT);

    // An empty extra field skips nothing; the time is little-endian.
    ZlibStream z;
    D machine(z);
    const uint8_t header[] = {31, 139, 8, 4, 0x78, 0x56, 0x34, 0x12, 0, 3, 0, 0};
    for (uint8_t b : header) ASSERT_TRUE(machine.feedGzipHeaderStateMachine(b));
    EXPECT_EQ(machine.headerState(), D::HEADER_COMPLETE);
    EXPECT_EQ(machine.modificationTime(), 0x12345678u);
}

TEST(GzipHeader, BytesThatCannotBeGzipAreENOEXEC) {
    ScratchDir dir;
    const std::string good = gzipCommand("-cn", "payload", dir);
    struct Case {
        const char* what;
        size_t at;
        char byte;
    };
    for (const Case& c :
         {Case{"first magic", 0, 0x1E}, Case{"second magic", 1, 0x00}, Case{"method", 2, 7},
          Case{"reserved flag 0x20", 3, 0x20}, Case{"reserved flag 0x40", 3, 0x40},
          Case{"reserved flag 0x80", 3, char(0x80)}, Case{"reserved block type", 10, 0x07}}) {
        std::string bad = good;
        bad[c.at] = c.byte;
        MemoryGzipReader in(bad);
        const ReadResult r = readAll(in);
        EXPECT_EQ(r.last, -1) << c.what;
        EXPECT_EQ(r.error, ENOEXEC) << c.what;
    }
    // Anything after a member but another member is not gzip either. The
    // error comes at once, so the member is read in a call of its own.
    MemoryGzipReader trailing(good + std::string(4, '\0'));
    const ReadResult r = readAll(trailing, 7);
    EXPECT_EQ(r.text, "payload");
    EXPECT_EQ(r.error, ENOEXEC);
}

TEST(GzipMembers, ConcatenatedMembersReadAsOneStream) {
    ScratchDir dir;
    const std::string a = textOf(70000), b = randomBytes(30000, 2);
    const std::string gz = gzipCommand("-c1", a, dir) + compressHere("", 6) + compressHere(b, 9);
    for (size_t step : {size_t(1), size_t(7), size_t(4096), SIZE_MAX}) {
        MemoryGzipReader in(gz, step);
        const ReadResult r = readAll(in, 4093);
        EXPECT_EQ(r.last, 0) << step;
        ASSERT_TRUE(r.text == a + b) << step;
    }

    // And members from startNewFile are what gzip -dc concatenates.
    StringGzipWriter w;
    ASSERT_TRUE(w.write(a.data(), a.size()));
    ASSERT_TRUE(w.startNewFile(Timeval(86400, 0)));
    ASSERT_TRUE(w.write(b.data(), b.size()));
    ASSERT_TRUE(w.finish());
    EXPECT_TRUE(gzipCommand("-dc", w.out, dir) == a + b);
    MemoryGzipReader in(w.out);
    EXPECT_TRUE(readAll(in).text == a + b);
    EXPECT_EQ(in.modificationTime(), 86400u);
}

// Every cut of a two-member file: a clean end exactly at a member's end,
// ENOEXEC anywhere else; the bytes before the cut are delivered either way.
TEST(GzipMembers, TruncationAtEveryByte) {
    const std::string a = "first member ", b = "second";
    const std::string first = compressHere(a, 6), gz = first + compressHere(b, 6);
    for (size_t cut = 0; cut <= gz.size(); ++cut) {
        MemoryGzipReader in(gz.substr(0, cut));
        const ReadResult r = readAll(in, 3);
        const bool clean = cut == 0 || cut == first.size() || cut == gz.size();
        EXPECT_EQ(r.last, clean ? 0 : -1) << cut;
        EXPECT_EQ(r.error, clean ? 0 : ENOEXEC) << cut;
        EXPECT_EQ(r.text, (a + b).substr(0, r.text.size())) << cut;
        EXPECT_GE(r.text.size(), cut >= first.size() ? a.size() : 0) << cut;
    }
}

TEST(GzipMembers, TheTrailerIsSkippedUnchecked) {
    std::string gz = compressHere("checked by nobody", 6);
    for (size_t i = gz.size() - 8; i < gz.size(); ++i) gz[i] = char(~gz[i]);
    MemoryGzipReader in(gz);
    const ReadResult r = readAll(in);
    EXPECT_EQ(r.last, 0);
    EXPECT_EQ(r.text, "checked by nobody");
}

// ---------------------------------------------------------------- timeouts

TEST(GzipRead, TimeoutGivesWhatCameOrMinusTwo) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    const std::string gz = compressHere(textOf(10000), 6);
    ReadableGzipFileDescriptor in{FileDescriptor(p[0])};
    char buf[65536];

    EXPECT_EQ(in.read(buf, sizeof buf, Interval(30)), -2);

    // Half the stream: what it decodes to comes back at once, then the wait.
    ASSERT_EQ(write(p[1], gz.data(), gz.size() / 2), ssize_t(gz.size() / 2));
    const ssize_t got = in.read(buf, sizeof buf, Interval(5000));
    EXPECT_GT(got, 0);
    std::string text(buf, size_t(std::max<ssize_t>(got, 0)));
    ssize_t n;
    while ((n = in.read(buf, sizeof buf, Interval(30))) > 0) text.append(buf, size_t(n));
    EXPECT_EQ(n, -2);

    std::thread writer([&] {
        EXPECT_EQ(write(p[1], gz.data() + gz.size() / 2, gz.size() - gz.size() / 2),
                  ssize_t(gz.size() - gz.size() / 2));
        close(p[1]);
    });
    while ((n = in.read(buf, sizeof buf, Interval(5000))) > 0) text.append(buf, size_t(n));
    writer.join();
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(text == textOf(10000));
    close(p[0]);
}

// ---------------------------------------------------------------- writing

TEST(GzipWrite, SyncMakesEverythingSoFarReadable) {
    StringGzipWriter w;
    ASSERT_TRUE(w.write("hello, ", 7));
    ASSERT_TRUE(w.sync());
    MemoryGzipReader partial(w.out);
    char buf[64];
    EXPECT_EQ(partial.read(buf, sizeof buf), 7);
    EXPECT_EQ(std::string(buf, 7), "hello, ");
    // The unfinished member is a truncated file.
    EXPECT_EQ(partial.read(buf, sizeof buf), -1);

    ASSERT_TRUE(w.write("world", 5));
    ASSERT_TRUE(w.finish());
    ASSERT_TRUE(w.finish());  // a second finish adds nothing
    MemoryGzipReader whole(w.out);
    EXPECT_EQ(readAll(whole).text, "hello, world");
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
        MemoryGzipReader in(w.out);
        EXPECT_TRUE(readAll(in).text == data) << failAt;
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
    MemoryGzipReader in(w.out);
    const ReadResult r = readAll(in);
    EXPECT_EQ(r.error, ENOEXEC);  // what went out is a truncated member
    EXPECT_TRUE(r.text == big.substr(0, r.text.size()));
}

TEST(GzipWrite, WriteOutFailureOnTheDescriptorIsFalse) {
    const int fd = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    WritableGzipFileDescriptor w(FileDescriptor(fd), 6, 16);
    const std::string data = randomBytes(300000, 4);
    EXPECT_FALSE(w.write(data.data(), data.size()));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(w.broken());
    EXPECT_FALSE(w.finish());
    EXPECT_EQ(errno, EIO);
    close(fd);
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
