// Log lines of any bytes (invalid UTF-8, NULs, very long lines) through the
// timestamp search: nothing crashes; a fresh parser finds the same time on
// a line whether or not it keeps history; a stream of the lines keeps its
// times within what the window allows.
#include <cstdint>
#include <vector>

#include "FuzzCheck.h"
#include "util/DateParser.h"
#include "util/Logger.h"

namespace {

const Timeval kNow(1700000000, 0);

struct Quiet : DateParser {
    explicit Quiet(bool cache) : DateParser(cache) { guesser().setTZ("UTC"); }
    bool isLoggingEnabled(message_type_t, int) override { return false; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    std::vector<StrSegment> lines;
    size_t at = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i == size || text[i] == '\n') {
            lines.emplace_back(text + at, i - at);
            at = i + 1;
        }
    }
    Quiet stream(true);
    for (const StrSegment& line : lines) {
        Quiet cached(true), uncached(false);
        Timeval a, b;
        const bool okA = cached.parseDate(a, line, kNow);
        const bool okB = uncached.parseDate(b, line, kNow);
        FUZZ_CHECK(okA == okB);
        FUZZ_CHECK(!okA || a == b);
        FUZZ_CHECK(!okA || cached.guesser().withinPermittedTimeRange(a));

        Timeval t;
        int ds, de, ts, te;
        if (stream.parseDate(t, line, kNow, ds, de, ts, te, nullptr) && ts >= 0) {
            FUZZ_CHECK(ts <= te && static_cast<size_t>(te) <= line.size());
            FUZZ_CHECK(ds < 0 || (ds <= de && static_cast<size_t>(de) <= line.size()));
        }
        stream.hasTime(line);
    }
    return 0;
}
