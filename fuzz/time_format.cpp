// The time format engine on arbitrary formats and texts: the input is a
// format, a NUL, and a text to read against it. Compiling, parsing and
// rendering must not crash or read outside what they were given; a parse
// stops inside the text, the calendar helpers take what it found, and a
// rendering stays near what the atoms ask for.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzCheck.h"
#include "util/DateTime.h"

namespace {

struct Moment {
    long t;
    unsigned long usec;
};

// Epoch, just before it (a negative time with a fraction), a leap day, the
// turn of an ISO year and the last second the calendar takes.
const Moment kMoments[] = {
    {0, 0}, {-2, 750000}, {951825600, 123456}, {1609631999, 999999}, {32503679999, 1},
};

// Exactly n bytes on the heap, so that a read past either end is caught.
std::unique_ptr<char[]> heapCopy(const uint8_t* p, size_t n) {
    std::unique_ptr<char[]> copy(new char[n]);
    if (n) memcpy(copy.get(), p, n);
    return copy;
}

// The most a rendering can write: literals as they are, each conversion its
// width or the longest field (a zone name, an epoch, a spelled-out name).
uint64_t renderBound(const TimeFormat& f) {
    uint64_t bound = 0;
    for (const TimeFormat::atom* a = f.atomsBegin(); a != f.atomsEnd(); ++a) {
        const bool literal = a->what == TimeFormat::LITERAL || a->what == TimeFormat::LITERAL_WS;
        bound += literal ? a->width : std::max<uint64_t>(a->width, 80);
    }
    return bound;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* nul = static_cast<const uint8_t*>(memchr(data, 0, size));
    const size_t formatLength = nul ? static_cast<size_t>(nul - data) : size;
    const size_t textLength = nul ? size - formatLength - 1 : 0;
    const auto format = heapCopy(data, formatLength);
    const auto text = heapCopy(data + formatLength + (nul ? 1 : 0), textLength);

    TimeFormat f;
    if (!f.setFtime(format.get(), formatLength)) {
        FUZZ_CHECK(!f.valid());
        return 0;
    }
    FUZZ_CHECK(f.valid());

    TimeFormatRawParseResult r;
    const char* begin = text.get();
    const char* end = begin + textLength;
    const char* stop = f.rawParse(&r, begin, end);
    FUZZ_CHECK(stop == nullptr || (stop >= begin && stop <= end));
    if (stop) {
        // The calendar helpers take whatever fields a text held.
        int year;
        int64_t midnight;
        (void)r.fullYear(&year);
        (void)r.dayStartTime(&midnight);
        const int wday = r.computedWday();
        FUZZ_CHECK(wday >= -1 && wday <= 6);
        TimeFormatRawParseResult fromWeek = r;
        if (fromWeek.computeYdayFromYweek()) FUZZ_CHECK(fromWeek.mdayValidForMonth());
        TimeFormatRawParseResult fromYday = r;
        (void)fromYday.computeMmddFromYday();
    }

    const uint64_t bound = renderBound(f);
    for (const Moment& m : kMoments) {
        GmtStructTm g;
        FUZZ_CHECK(g.GMT_fromUnixTime(m.t));
        Str out;
        f.render(out, g, m.usec, &TimeFormat::gmt_ops);
        FUZZ_CHECK(out.size() <= bound);
    }
    return 0;
}
