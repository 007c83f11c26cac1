#include "util/ByteRingBuffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>

namespace {

// Every operation against a deque, on a ring small enough to wrap often.
TEST(ByteRingBuffer, RandomOperationsMatchADeque) {
    ByteRingBuffer<16> ring;
    std::deque<char> model;
    std::mt19937 rng(7);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    for (int step = 0; step < 20000; step++) {
        char buf[40];
        const size_t n = rng() % 20;
        switch (rng() % 6) {
            case 0: {
                for (size_t i = 0; i < n; i++) buf[i] = char('a' + rng() % 26);
                const size_t put = ring.write(buf, n);
                ASSERT_EQ(put, std::min(n, 16 - model.size()));
                model.insert(model.end(), buf, buf + put);
                break;
            }
            case 1:
            case 2: {
                const bool consume = rng() % 2 == 0;
                const size_t got = consume ? ring.read(buf, n) : ring.peek(buf, n);
                ASSERT_EQ(got, std::min(n, model.size()));
                ASSERT_EQ(std::string(buf, got), std::string(model.begin(), model.begin() + got));
                if (consume) model.erase(model.begin(), model.begin() + got);
                break;
            }
            case 3: {
                const char c = char('a' + rng() % 26);
                const auto it = std::find(model.begin(), model.end(), c);
                ASSERT_EQ(ring.find(c), it == model.end() ? -1 : it - model.begin());
                break;
            }
            case 4: {
                // Through a pipe: out of the ring and back in.
                const size_t before = model.size();
                ASSERT_EQ(ring.writeTo(fds[1]), ssize_t(before));
                ASSERT_TRUE(ring.empty());
                ASSERT_EQ(ring.readFrom(fds[0]), ssize_t(before == 0 ? -1 : before))
                    << "an empty non-blocking pipe: EAGAIN";
                break;
            }
            default:
                ring.consume(n);
                model.erase(model.begin(), model.begin() + std::min(n, model.size()));
        }
        ASSERT_EQ(ring.bytesAvailable(), model.size());
        ASSERT_EQ(ring.full(), model.size() == 16);
        ASSERT_EQ(ring.writePosition() - ring.readPosition(), model.size());
    }
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
