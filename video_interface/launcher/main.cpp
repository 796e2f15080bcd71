// vidapp as operators and service managers start it. Loading the process's libraries takes a few
// hundred milliseconds, during which a stop signal would kill it before it could block them and
// leave its stop steps undone. This small program, which loads nothing but the C library, blocks
// the stop signals and ignores SIGPIPE at once and then becomes the process proper: the blocked mask
// and the ignored SIGPIPE survive exec, and the pid, the arguments and the name "vidapp" stay.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

int main(int /*argc*/, char* argv[]) {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);

    // The process lies beside this program in the build tree and in the installed tree alike.
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) {
        std::fprintf(stderr, "vidapp: cannot find the program's own path: %s\n", std::strerror(errno));
        return 1;
    }
    path[length] = '\0';
    char* directoryEnd = std::strrchr(path, '/');
    const int written =
        std::snprintf(directoryEnd + 1, sizeof(path) - static_cast<std::size_t>(directoryEnd + 1 - path), "%s",
                      VIDAPP_PROCESS_RELATIVE_PATH);
    if (written < 0 || directoryEnd + 1 + written >= path + sizeof(path)) {
        std::fprintf(stderr, "vidapp: the program's path is too long\n");
        return 1;
    }
    execv(path, argv);
    std::fprintf(stderr, "vidapp: cannot start %s: %s\n", path, std::strerror(errno));
    return 1;
}
