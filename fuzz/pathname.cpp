// Path algebra and the shell-word splitter on arbitrary bytes.
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "util/Pathname.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Pathname path(reinterpret_cast<const char*>(data), size);

    Pathname n(path);
    bool ok = n.normalize();
    // A normal path is a fixed point, and never holds "." or ".." elements
    // or doubled separators.
    Pathname again(n);
    FUZZ_CHECK(again.normalize());
    FUZZ_CHECK(again == n);
    FUZZ_CHECK(n.find("//") == Str::npos);
    FUZZ_CHECK(n.size() <= path.size());
    FUZZ_CHECK(ok || path.find("..") != Str::npos);

    Pathname clean(path);
    clean.removeDotDotSlash();
    PathnameVector elements;
    clean.splitOnSepInto(elements);
    for (auto& e : elements) FUZZ_CHECK(e != "..");

    Pathname leaf = path.toLeaf();
    FUZZ_CHECK(leaf == "/" || leaf.find('/') == Str::npos);
    Pathname parent = path.toParent();
    FUZZ_CHECK(parent.size() <= path.size());

    // Every quoted word splits back to itself.
    Pathname quoted = path.shellQuoted();
    Pathname arg;
    StrSegment rest;
    bool split = Pathname::splitArgShellQuoted(quoted.seg(), &arg, &rest);
    FUZZ_CHECK(split == !path.empty());
    FUZZ_CHECK(!split || (arg == path && rest._len == 0));

    // The splitter itself on raw text: it only ever moves forward.
    StrSegment text = path.seg();
    size_t rounds = 0;
    while (Pathname::splitArgShellQuoted(text, &arg, &text)) {
        FUZZ_CHECK(!arg.empty());
        FUZZ_CHECK(++rounds <= size);
    }
    return 0;
}
