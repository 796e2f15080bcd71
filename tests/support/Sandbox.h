#pragma once

#include <gtest/gtest.h>

namespace vidapp::test {

// True inside scripts/sandbox: private IPC, network and mount namespaces with loopback up
// and a private tmpfs on /dev/shm.
bool inSandbox();
// True when the sandbox also gave /NFS a private tmpfs.
bool hasPrivateNfs();

} // namespace vidapp::test

// For tests that use the system's fixed names: outside the sandbox they would touch the machine.
#define VIDAPP_REQUIRE_SANDBOX()                                                                                       \
    do {                                                                                                               \
        if (!::vidapp::test::inSandbox()) {                                                                            \
            GTEST_SKIP() << "needs the private namespaces of scripts/sandbox (run it through ctest)";                  \
        }                                                                                                              \
    } while (false)

#define VIDAPP_REQUIRE_NFS()                                                                                           \
    do {                                                                                                               \
        if (!::vidapp::test::hasPrivateNfs()) {                                                                        \
            GTEST_SKIP() << "needs a private /NFS (run through ctest, which creates /NFS as root)";                    \
        }                                                                                                              \
    } while (false)
