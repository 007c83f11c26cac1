// AppendStr when memory runs out: every allocation an operation makes is
// failed in turn, and the buffer must be as it was (or, for the moves, no
// byte lost between the two), usable afterwards, and leak nothing.

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>

#include "support/FailingNew.h"
#include "util/AppendStr.h"

namespace {

constexpr size_t CHUNK = AppendStr::CHUNK_SIZE;

std::string text(const AppendStr& s) { return Str::from(s); }

using Step = std::function<void(AppendStr&)>;

// `op` on `prefill` bytes, each of its allocations failed in turn: the buffer
// must be as it was, and go on working.
void failEachAllocation(size_t prefill, const Step& op) {
    failingnew::failEachAllocation<AppendStr>(
        [&](AppendStr& s) { s.append(prefill, 'p'); }, op, text,
        [](AppendStr& s, const std::string& before, long n) {
            ASSERT_EQ(text(s), before) << "allocation " << n;
            s.append("usable", 6);
            ASSERT_EQ(text(s).substr(text(s).size() - 6), "usable");
        });
}

TEST(AppendStrOutOfMemory, AppendsLeaveTheBufferAsItWas) {
    const std::string big(5 * CHUNK + 17, 'b');
    const std::pair<size_t, Step> cases[] = {
        {2 * CHUNK + 100, [&](AppendStr& s) { s.append(big.data(), big.size()); }},
        {2 * CHUNK + 100, [](AppendStr& s) { s.append(40000, 'c'); }},
        {2 * CHUNK + 100, [](AppendStr& s) { s.reserve(20 * CHUNK); }},
        // Across a boundary, a number goes through the two-chunk path.
        {CHUNK - 3, [](AppendStr& s) { s.append_int64(INT64_MIN); }},
        {CHUNK, [](AppendStr& s) { s.push_back('x'); }},
        // Growth of the chunk array itself (16 chunks, then 32).
        {16 * CHUNK, [](AppendStr& s) { s.push_back('x'); }},
    };
    for (const auto& [prefill, op] : cases) failEachAllocation(prefill, op);
}

// Operations made of several appends take back what they added when a later
// one fails: no half escape, number or format is left behind.
TEST(AppendStrOutOfMemory, EveryGrowingOperationIsAllOrNothing) {
    // Inputs long enough to cross chunks, with something to escape throughout.
    std::string mixed;
    for (int i = 0; i < 3000; ++i) mixed += "a\"<&>'\r\n\x01 /\xE2\x80\xA8";
    const XmlEscaping xml(XML_ESCAPE_DOUBLE_QUOTE | XML_ESCAPE_CONTROL_AS_CHARREF);
    const char* m = mixed.data();
    const size_t n = mixed.size();
    const std::pair<const char*, Step> ops[] = {
        {"json", [&](AppendStr& s) { s.appendJsonEscaped(m, n); }},
        {"xml", [&](AppendStr& s) { s.appendXmlEscaped(m, n, xml); }},
        {"html", [&](AppendStr& s) { s.appendHtmlEscaped(m, n); }},
        {"uri", [&](AppendStr& s) { s.appendUriEscaped(m, n); }},
        {"csv", [&](AppendStr& s) { s.appendCsvEscaped(m, n, CsvEscaping(1)); }},
        {"control", [&](AppendStr& s) { s.appendDroppingControlCharacters(m, n); }},
        {"query", [&](AppendStr& s) { s._append_one_uri_query_param(m, n, "v", 1); }},
        {"base64",
         [&](AppendStr& s) {
             AppendStr::Base64EncodeState st;
             s.appendBase64Escaped(st, m, n);
         }},
        {"double", [](AppendStr& s) { s.append_double(1e300); }},
        {"format", [&](AppendStr& s) { s.appendFormat("%s|%0*d", mixed.c_str(), 9000, 7); }},
    };
    for (const auto& [name, op] : ops) {
        SCOPED_TRACE(name);
        failEachAllocation(CHUNK - 2, op);  // the first allocation after a partial write
    }
}

TEST(AppendStrOutOfMemory, ReleasingNeverAllocates) {
    AppendStr s;
    for (int i = 0; i < 40; ++i) s.append(CHUNK / 2 + 1, 'r');
    failingnew::failAt(1);
    s.resize(CHUNK + 1);
    s.clear();
    const long calls = failingnew::calls();
    failingnew::failAt(0);
    EXPECT_EQ(calls, 0);
    // The kept chunks serve the same size again without allocating.
    failingnew::failAt(1);
    EXPECT_NO_THROW(s.append(20 * CHUNK, 'r'));
    failingnew::failAt(0);
}

TEST(AppendStrOutOfMemory, DestructiveAppendLosesNoByte) {
    for (long n = 1;; ++n) {
        AppendStr a, b;
        a.append(100, 'a');  // a short last chunk: the bytes must move
        for (int i = 0; i < 6; ++i) b.append(CHUNK, char('0' + i));
        const std::string both = text(a) + text(b);
        failingnew::failAt(n);
        bool failed = false;
        try {
            a.appendDestructive(&b);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        failingnew::failAt(0);
        ASSERT_EQ(text(a) + text(b), both) << "failing allocation " << n;
        if (!failed) break;
    }
}

TEST(AppendStrOutOfMemory, GzipTrimsAndRaises) {
    const std::string data(100000, 'z');
    bool sawFailure = false;
    for (long n = 1; n < 50 && !sawFailure; ++n) {
        AppendStr copy;
        copy.append("earlier bytes");
        failingnew::failAt(n);
        try {
            AppendStrGzipState fresh(6, 15, 8, 0);
            fresh.startFile(&copy);
            fresh.gzip(data.data(), data.size(), &copy);
            fresh.endFile(&copy);
        } catch (const std::bad_alloc&) {
            sawFailure = true;
            // No empty chunk is left at the end.
            ASSERT_TRUE(copy.empty() || copy.iovec().back().iov_len > 0);
        }
        failingnew::failAt(0);
    }
    EXPECT_TRUE(sawFailure);
}

}  // namespace
