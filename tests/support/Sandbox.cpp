#include "tests/support/Sandbox.h"

#include <cstdlib>
#include <cstring>

namespace vidapp::test {

bool inSandbox() {
    const char* value = std::getenv("VIDAPP_SANDBOX");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

bool hasPrivateNfs() { return inSandbox() && std::getenv("VIDAPP_SANDBOX_NFS") != nullptr; }

} // namespace vidapp::test
