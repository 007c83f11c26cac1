#pragma once
// An EventLoop served by a Thread of its own for the length of a test.
#include <gtest/gtest.h>

#include <exception>
#include <functional>

#include "util/EventLoop.h"

namespace testsupport {

class LoopThread : public Thread {
public:
    explicit LoopThread(EventLoop& loop, const char* name = "LoopThread")
        : Thread("%s", name), _loop(loop) {}
    ~LoopThread() override { stop(); }

    void start() { _loop.startThreadAndLoop(this); }
    // Idempotent: terminates the loop and joins.
    void stop() {
        if (_joined) return;
        _joined = true;
        _loop.terminate();
        join();
    }
    void main() override {
        try {
            _loop.run();
        } catch (...) {
            _thrown = std::current_exception();
        }
    }
    std::exception_ptr thrown() const { return _thrown; }

private:
    EventLoop& _loop;
    bool _joined = false;
    std::exception_ptr _thrown;
};

}  // namespace testsupport
