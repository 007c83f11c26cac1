#pragma once
// A replacement of the global operator new that fails on request, for tests
// of what code does when memory runs out. Link it into a binary of its own:
// it replaces allocation for the whole process.

namespace failingnew {

// The nth call of operator new from now on (1 is the next) throws
// std::bad_alloc; 0 disarms.
void failAt(long n);
// Calls of operator new since the last failAt.
long calls();

}  // namespace failingnew
