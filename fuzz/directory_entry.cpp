// The directory-entry filter and joining a parent with an entry name.
#include <dirent.h>

#include <cstdint>
#include <cstring>

#include "FuzzCheck.h"
#include "util/DirectoryDescriptor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    struct dirent d = {};
    size_t n = size < sizeof d.d_name - 1 ? size : sizeof d.d_name - 1;
    memcpy(d.d_name, data, n);
    const char* name = d.d_name;
    bool real = DirectoryEntry::_isRealEntry(name);
    FUZZ_CHECK(real == (name[0] != '\0' && name[0] != '/' && strcmp(name, ".") != 0 &&
                        strcmp(name, "..") != 0));
    Pathname p("/parent");
    p.buildFromParentAndLeaf(p, DirectoryEntry(&d));
    FUZZ_CHECK(p.size() == 8 + strlen(name));
    FUZZ_CHECK(p.toLeaf() == Pathname(name) || !real || strchr(name, '/') != nullptr);
    return 0;
}
