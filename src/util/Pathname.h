#pragma once
// A path: a Str with the path rules of one POSIX system. A Pathname only
// names; it is never opened.

#include "util/Str.h"

class Pathname : public Str {
public:
    using Str::Str;
    Pathname() = default;
    Pathname(const Str& s) : Str(s) {}
    Pathname(Str&& s) noexcept : Str(std::move(s)) {}

    static const Pathname cur;     // "."
    static const Pathname parent;  // ".."

    // Access for the effective user: read 4, write 2, both 6, and execute 7.
    bool r_ok() const { return accessOk(4); }
    bool w_ok() const { return accessOk(2); }
    bool rw_ok() const { return accessOk(6); }
    bool rwx_ok() const { return accessOk(7); }

private:
    bool accessOk(int mode) const;
};
