#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace vidapp::test {

// The objects in /dev/shm (the sandbox's private one in tests).
std::set<std::string> shmObjects();

// Descriptors open in this process.
std::size_t openDescriptors();

} // namespace vidapp::test
