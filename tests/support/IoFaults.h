#pragma once
// Fault injection for read(2), write(2) and writev(2) on one descriptor:
// each call on the armed descriptor takes the next step of a script, and
// calls beyond the script (and on every other descriptor) are real. Linked
// only into the binary that needs it.

#include <sys/types.h>

#include <vector>

namespace iofaults {

struct Step {
    enum Kind { REAL, SHORT, ZERO, FAIL } kind;
    size_t limit = 0;  // SHORT: at most this many bytes, for real
    int error = 0;     // FAIL: the errno
};

inline Step real() { return {Step::REAL}; }
inline Step shortBy(size_t limit) { return {Step::SHORT, limit}; }
inline Step zero() { return {Step::ZERO}; }
inline Step fail(int error) { return {Step::FAIL, 0, error}; }

// Arms `fd` with a script for reads and one for writes (write and writev
// share it), and resets the call counts.
void arm(int fd, std::vector<Step> reads, std::vector<Step> writes);
void disarm();

extern int readCalls;
extern int writeCalls;
extern int writevCalls;

}  // namespace iofaults
