#pragma once
// Which threads did I/O on sockets: read, readv, recv, write, writev, send
// and sendmsg are interposed (in the binary that links this), and the
// kernel thread id of every call on a socket is kept.
#include <sys/types.h>

#include <set>

namespace socketwitness {

// Records the calling thread when `fd` is a socket.
void note(int fd);
void reset();
std::set<pid_t> threads();

}  // namespace socketwitness
