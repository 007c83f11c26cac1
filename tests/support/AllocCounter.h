#pragma once
// Counts heap allocations made by any code in the process while a scope is
// open, for tests that promise "no allocation here".

#include <atomic>

namespace alloccounter {

// False where counting cannot work (an allocator we cannot see into).
bool available();

class Scope {
public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    long allocations() const;

private:
    long _start;
};

}  // namespace alloccounter
