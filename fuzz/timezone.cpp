// Zone loading on arbitrary bytes: the first byte chooses the reader (even:
// TZif data, odd: a POSIX TZ string), the rest is its input. Loading must
// not crash or read outside the input; a loaded zone keeps its table in
// order, its conversions land on real instants, and its serialized form
// revives into a zone that serializes the same.
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzCheck.h"
#include "util/DateTime.h"
#include "util/Timezone.h"

namespace {

Str joined(const StrVector& lines) {
    Str s;
    for (const Str& l : lines) s += l + "\n";
    return s;
}

void checkConversions(const Timezone& tz, long t) {
    const uint32_t i = tz.searchAt(t);
    FUZZ_CHECK(tz.timecnt() == 0 || i < tz.timecnt());
    if (tz.timecnt() != 0 && i > 0) FUZZ_CHECK(tz.transitionTime(i) <= t);
    if (i + 1 < tz.timecnt()) FUZZ_CHECK(tz.transitionTime(i + 1) > t);
    StructTmInTimezone s(&tz);
    if (!s.fromUnixTime(t)) return;
    FUZZ_CHECK(s.tm_sec >= 0 && s.tm_sec <= 60 && s.tm_min >= 0 && s.tm_min < 60);
    FUZZ_CHECK(s.tm_hour >= 0 && s.tm_hour < 24 && s.tm_mday >= 1 && s.tm_mday <= 31);
    StructTmInTimezone back = s;
    const long x = back.toUnixTime();
    if (x == -1) return;
    // Whatever instant the reverse search picks must show the same wall time.
    StructTmInTimezone again(&tz);
    if (!again.fromUnixTime(x)) return;
    FUZZ_CHECK(again.tm_year == s.tm_year && again.tm_yday == s.tm_yday);
    FUZZ_CHECK(again.tm_hour == s.tm_hour && again.tm_min == s.tm_min && again.tm_sec == s.tm_sec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        // Ruleless POSIX strings take the built-in rules, not a disk file.
        setTimezoneSystemPaths(Pathname("/nonexistent"), Pathname("/nonexistent"));
        return true;
    }();
    (void)once;
    if (size == 0) return 0;
    auto tz = std::make_unique<Timezone>();
    const size_t n = size - 1;
    bool ok;
    if (data[0] & 1) {
        if (n > 256) return 0;
        const Str text(reinterpret_cast<const char*>(data + 1), n);
        ok = tz->fromPosixString(text.c_str());
    } else {
        std::unique_ptr<char[]> copy(new char[n]);  // exactly n bytes: overreads are caught
        if (n != 0) memcpy(copy.get(), data + 1, n);
        ok = tz->fromZoneinfoData(copy.get(), n, true);
    }
    if (!ok) return 0;

    FUZZ_CHECK(tz->timecnt() <= Timezone::MAX_TIMES && tz->typecnt() <= Timezone::MAX_TYPES);
    for (uint32_t i = 1; i < tz->timecnt(); i++) {
        FUZZ_CHECK(tz->transitionTime(i - 1) <= tz->transitionTime(i));
    }
    const long probes[] = {LONG_MIN, -86400, -1, 0, 1700000000, 4102444800, LONG_MAX};
    for (long t : probes) checkConversions(*tz, t);
    for (uint32_t i = 0; i < tz->timecnt() && i < 64; i++) {
        checkConversions(*tz, long(tz->transitionTime(i)));
        checkConversions(*tz, long(tz->transitionTime(i)) - 1);
    }
    (void)tz->estimatedTzVariable(1700000000, true);

    StrVector lines;
    tz->serialize(lines, 30);
    bool revivable = false;
    for (const Str& l : lines) revivable = revivable || l[0] == '@' || l[0] == 'C';
    auto revived = std::make_unique<Timezone>();
    const bool back = revived->setFromSerializedData(lines);
    if (!revivable) return 0;
    FUZZ_CHECK(back);
    StrVector again;
    revived->serialize(again, 30);
    FUZZ_CHECK(joined(again) == joined(lines));
    return 0;
}
