// An outside program on the installed library: strings, a file mutex, a path.
#include <cstdio>

#include "libzero/filemutex.h"
#include "util/Pathname.h"
#include "util/StrVector.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    StrVector parts;
    const Str text("alpha,beta,,gamma");
    mem_split_into_nonempty(&parts, text.data(), text.size(), ',');
    Str joined;
    parts.joinInto(joined, '+');

    filemutex_init_contents("consumer");
    const int locked = filemutex_lock(argv[1]);
    const int again = filemutex_lock(argv[1]);
    const int unlocked = filemutex_unlock(argv[1]);
    printf("%s %d %d %d %d\n", joined.c_str(), Pathname(argv[1]).rw_ok(), locked, again, unlocked);
    return 0;
}
