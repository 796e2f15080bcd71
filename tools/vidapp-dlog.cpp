// vidapp-dlog: the operator's command line for the system-wide debug flag word. It switches
// logging on and off per application and level, and sets the one-shot commands (live stream,
// profiler, ...) that the running processes obey and clear.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "log/DynamicDebug.h"
#include "tools/FlagWordText.h"

namespace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_NOT_ATTACHED = 1;
constexpr int EXIT_USAGE = 2;

constexpr const char* USAGE = "usage: vidapp-dlog <command string>... | show | help | remove\n";

void printToolHelp() {
    std::printf("\n%s", USAGE);
    std::printf("  +<chars>   set the bits of each character      e.g. vidapp-dlog +12\n"
                "  -<chars>   clear the bits of each character    e.g. vidapp-dlog -B2\n"
                "  0          clear every flag and command\n"
                "  show       print the word and the names of the bits set\n"
                "  help       print this text\n"
                "  remove     detach and mark the segment for removal\n"
                "Several command strings are applied in order, then the word is shown.\n"
                "Characters: a-z bits 0-25, A-Z bits 26-51, 1-6 log levels error..profile,\n"
                "  # $ %% profiler start/stop/transfer, & ' hitch ball start/stop, ( delete all files,\n"
                "  ) * live stream start/stop, + , calibration start/stop, - . recording start/stop\n"
                "  (the last six also set or clear the profile level, bit 63).\n"
                "Exit status: 0 done, 1 the flag word cannot be attached, 2 usage error.\n");
}

bool isCommandString(const char* argument) {
    return argument[0] == '+' || argument[0] == '-' || argument[0] == '0';
}

int usageError(const char* reason) {
    std::fprintf(stderr, "vidapp-dlog: %s\n%s", reason, USAGE);
    return EXIT_USAGE;
}

bool attach() {
    if (initDLogInterface() != 1) {
        std::fprintf(stderr, "vidapp-dlog: cannot attach the debug flag word (System V key 0x%x, %zu bytes)\n",
                     DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t));
        return false;
    }
    return true;
}

int show() {
    if (showDebugFlags() != 1) {
        return EXIT_NOT_ATTACHED;
    }
    std::printf("%s", vidapp::tools::describeFlagWord(*shm_dlog_detail).c_str());
    (void)closeDLogInterface(true);
    return EXIT_OK;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return usageError("no command given");
    }
    // "--help" alone asks for the help; any other string that starts with '+', '-' or '0' is a
    // command string, "--B" (clear the recording start and B) included.
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") {
            if (argc > 2) {
                return usageError("'--help' takes no further arguments");
            }
            (void)printHelp();
            printToolHelp();
            return EXIT_OK;
        }
    }
    const std::string first = argv[1];
    if (first == "help" || first == "show" || first == "remove") {
        if (argc > 2) {
            return usageError(("'" + first + "' takes no further arguments").c_str());
        }
        if (first == "help") {
            (void)printHelp();
            printToolHelp();
            return EXIT_OK;
        }
        if (!attach()) {
            return EXIT_NOT_ATTACHED;
        }
        if (first == "show") {
            return show();
        }
        if (closeDLogInterface(false) != 1) {
            return EXIT_NOT_ATTACHED;
        }
        std::printf("Debug flag word removed (it goes when the last process detaches)\n");
        return EXIT_OK;
    }

    for (int i = 1; i < argc; ++i) {
        if (!isCommandString(argv[i])) {
            return usageError(("not a command string or keyword: '" + std::string(argv[i]) + "'").c_str());
        }
    }
    if (!attach()) {
        return EXIT_NOT_ATTACHED;
    }
    bool unaskedLiveStreamStart = false;
    for (int i = 1; i < argc; ++i) {
        const bool pendingBefore = vidapp::tools::isLiveStreamStartPending(*shm_dlog_detail);
        setDebugBits(argv[i]);
        const bool asked = argv[i][0] == '+' && std::strchr(argv[i], ')') != nullptr;
        const bool pendingAfter = vidapp::tools::isLiveStreamStartPending(*shm_dlog_detail);
        unaskedLiveStreamStart = pendingAfter && (unaskedLiveStreamStart || (!pendingBefore && !asked));
    }
    if (unaskedLiveStreamStart) {
        std::fprintf(stderr, "vidapp-dlog: warning: the profile level (6) and the letter a together are the "
                             "live-stream start command: vidapp will start the camera (clear one of them with -6 or "
                             "-a)\n");
    }
    return show();
}
