#pragma once
// Counts the write() calls the process makes on one descriptor: write() is
// interposed for the whole test binary and passes every call on.
#include <atomic>

namespace testsupport {

class WriteCounter {
public:
    // Counts writes on `fd` from now until destruction; one at a time.
    explicit WriteCounter(int fd);
    ~WriteCounter();
    WriteCounter(const WriteCounter&) = delete;
    WriteCounter& operator=(const WriteCounter&) = delete;
    unsigned count() const;
};

}  // namespace testsupport
