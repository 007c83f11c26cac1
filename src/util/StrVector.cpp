#include "util/StrVector.h"

#include <algorithm>

#include "libzero/int-to-ascii.h"
#include "util/AppendStr.h"
#include "util/SimpleRandomNumber.h"

constinit const StrVector StrVector::EMPTY_STRVECTOR;

StrVector::StrVector(const char* first, ...) {
    va_list args;
    va_start(args, first);
    for (const char* s = first; s != nullptr; s = va_arg(args, const char*)) emplace_back(s);
    va_end(args);
}

void StrVector::append(const std::vector<StrSegment>& segments) {
    reserve(size() + segments.size());
    for (const StrSegment& s : segments) emplace_back(s._data, s._len);
}

void StrVector::appendDestructive(Str* s) {
    emplace_back();
    back().swap(*s);
}

void StrVector::appendDestructive(StrVector* source) {
    if (source == this) return;
    if (empty() && capacity() <= source->capacity()) {
        swap(*source);
        return;
    }
    reserve(size() + source->size());
    for (Str& s : *source) {
        emplace_back();
        back().swap(s);
    }
    source->clear();
}

bool StrVector::contains(const char* data, size_t length) const {
    for (const Str& s : *this) {
        if (mem_equals(s.data(), s.size(), data, length)) return true;
    }
    return false;
}

namespace {

// Room for the whole result first, so that the appends cannot fail midway.
template <class Vector, class Dest>
void joinSegments(const Vector& v, Dest& dest, const char* sep, size_t seplen) {
    uint64_t total = dest.size();
    for (const auto& s : v) total += s.size() + seplen;
    dest.reserve(total);
    bool first = true;
    for (const auto& s : v) {
        if (!first) dest.append(sep, seplen);
        dest.append(s.data(), s.size());
        first = false;
    }
}

}  // namespace

void StrVector::joinInto(Str& dest, char sep) const { joinSegments(*this, dest, &sep, 1); }

void StrVector::joinInto(Str& dest, const char* sep) const {
    joinSegments(*this, dest, sep, strlen(sep));
}

void StrVector::joinInto(AppendStr* dest, char sep) const { joinSegments(*this, *dest, &sep, 1); }

void StrVector::joinInto(AppendStr* dest, const char* sep) const {
    joinSegments(*this, *dest, sep, strlen(sep));
}

void StrVector::joinIntoAsEscapedSearchTerms(Str& dest, char sep) const {
    bool first = true;
    for (const Str& s : *this) {
        if (!first) dest.push_back(sep);
        dest.append(s.asEscapedSearchTerm());
        first = false;
    }
}

void StrVector::reverse() { std::reverse(begin(), end()); }

// Fisher-Yates over the thread's fast generator.
void StrVector::shuffle() {
    xorshift128plus_state* r = SimpleRandomNumber::perThread();
    for (size_t i = size(); i > 1; --i) {
        const size_t j = static_cast<size_t>(xorshift128plus_next(r) % i);
        if (j != i - 1) (*this)[i - 1].swap((*this)[j]);
    }
}

void StrVector::sort() {
    std::sort(begin(), end(), [](const Str& a, const Str& b) {
        return mem_compare_normal(a.data(), a.size(), b.data(), b.size()) < 0;
    });
}

void StrVector::dedup() {
    StrSet seen;
    dedup(seen);
}

void StrVector::dedup(StrSet& seen) {
    if (size() < 2) return;  // also with a shared history: a single value is not recorded
    size_t kept = 0;
    for (size_t i = 0; i < size(); ++i) {
        if (!seen.insert((*this)[i]).second) continue;
        if (kept != i) (*this)[kept].swap((*this)[i]);
        ++kept;
    }
    erase(begin() + static_cast<ptrdiff_t>(kept), end());
}

void StrVector::dedupAlreadySorted() { erase(std::unique(begin(), end()), end()); }

size_t StrVector::estimateHeapUsage() const {
    // An element held in the object counts its 15 bytes too.
    size_t bytes = capacity() * sizeof(Str);
    for (const Str& s : *this) bytes += s.capacity();
    return bytes;
}

Str StrVector::toString() const {
    Str out("{");
    char digits[20];
    for (size_t i = 0; i < size(); ++i) {
        if (i > 0) out.push_back(' ');
        out.push_back('[');
        out.std::string::append(digits, convertU64ToAscii(i, digits));
        out.std::string::append("]='", 3);
        out.std::string::append((*this)[i]);
        out.push_back('\'');
    }
    out.push_back('}');
    return out;
}

Str StrVector::toString_concise() const {
    Str out("[");
    for (size_t i = 0; i < size(); ++i) {
        const Str& s = (*this)[i];
        if (i > 0) out.push_back(' ');
        const bool quote = mem_contains_whitespace(s.data(), s.size());
        if (quote) out.push_back('\'');
        out.std::string::append(s);
        if (quote) out.push_back('\'');
    }
    out.push_back(']');
    return out;
}

void StrSegmentVector::append(const StrVector& v) {
    reserve(size() + v.size());
    for (const Str& s : v) emplace_back(s.data(), s.size());
}

void StrSegmentVector::joinInto(Str& dest, char sep) const { joinSegments(*this, dest, &sep, 1); }

void StrSegmentVector::joinInto(Str& dest, const char* sep) const {
    joinSegments(*this, dest, sep, strlen(sep));
}
