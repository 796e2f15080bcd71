#include "tests/support/ProcessState.h"

#include <dirent.h>

namespace vidapp::test {

namespace {

template <typename Visit> void forEachEntry(const char* path, Visit&& visit) {
    if (DIR* dir = ::opendir(path)) {
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') {
                visit(entry->d_name);
            }
        }
        ::closedir(dir);
    }
}

} // namespace

std::set<std::string> shmObjects() {
    std::set<std::string> names;
    forEachEntry("/dev/shm", [&](const char* name) { names.insert(name); });
    return names;
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    // The directory stream's own descriptor is counted too, the same way every time.
    forEachEntry("/proc/self/fd", [&](const char*) { ++count; });
    return count;
}

} // namespace vidapp::test
