// A pattern and a subject, separated by the first zero byte. Whatever they
// are: compiling fails only by RegexException; a match lies inside the
// subject with its groups inside the match's reach; a full match agrees
// with mem_regexmatch; replacing every match ends, and erasing never grows
// the text; and escaped valid UTF-8 matches exactly itself.
#include <cstdint>
#include <cstring>

#include "FuzzCheck.h"
#include "util/Regex.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const char* zero = static_cast<const char*>(memchr(text, 0, size));
    const size_t patternLength = zero != nullptr ? size_t(zero - text) : size;
    const StrSegment subject =
        zero != nullptr ? StrSegment(zero + 1, size - patternLength - 1) : StrSegment();
    if (subject.size() > 512) return 0;

    Regex re;
    try {
        re.init(text, patternLength);
    } catch (const RegexException&) {
        return 0;
    }
    RegexMatch m;
    // Bounded, so that catastrophic backtracking ends quickly.
    m.setLimits({100000, 1000});
    StrSegment rest;
    if (re.matchBase(subject.data(), subject.size(), &m, &rest, Regex::MATCH_NORMAL)) {
        FUZZ_CHECK(mem_is_valid_utf8(subject.data(), subject.size()));
        FUZZ_CHECK(m.size() == re.getCaptureGroupCount() + 1u);
        FUZZ_CHECK(m.matchStart() + m.matchLength() <= subject.size());
        FUZZ_CHECK(rest.data() == subject.data() + m.matchStart() + m.matchLength());
        for (unsigned g = 0; g < m.size(); ++g) {
            if (!m.isGroupSet(g)) continue;
            // Lookarounds may set a group outside the match, but never past the text.
            FUZZ_CHECK(m.getGroupMatchEnd(g) <= subject.size());
        }
        if (m.limitExceeded() == 0 &&
            re.matchBase(subject.data(), subject.size(), &m, nullptr, Regex::MATCH_FULL)) {
            if (re._getImpl()->_full_re.code != nullptr) {
                FUZZ_CHECK(
                    mem_regexmatch(re, subject.data(), subject.size(), MEM_REGEXMATCH_FULL) == 0);
            }
        }
        if (patternLength < 16) {
            Str erased(subject);
            erased.eraseAll(re);
            FUZZ_CHECK(erased.size() <= subject.size());
        }
    } else if (m.limitExceeded() == 0 && mem_is_valid_utf8(subject.data(), subject.size())) {
        FUZZ_CHECK(mem_regexmatch(re, subject.data(), subject.size(), MEM_REGEXMATCH_PLAIN) == -1);
    }

    if (mem_is_valid_utf8(subject.data(), subject.size())) {
        const Regex literal(Regex::escapeMetaChars(subject.data(), subject.size()));
        FUZZ_CHECK(literal.fullyMatches(subject));
    }
    return 0;
}
