#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "tests/support/Child.h"

namespace vidapp::test {

// One line as the system log received it: "<priority>Mmm dd hh:mm:ss identity[pid]: message".
struct SyslogLine {
    int priority = -1;
    std::string identity;
    int pid = 0; // 0 when the line carries none
    std::string message;
};

struct SyslogCapture {
    ChildResult child;             // the child that logged; exit code 0 when the sink worked
    std::vector<SyslogLine> lines; // every datagram that reached /dev/log, in order
    int childPid = 0;
};

// Runs act in a forked child with private mount and IPC namespaces and a fresh /dev (keeping the few
// device nodes a process needs) with a datagram socket at /dev/log, and returns every line that
// reached it; a line of another form is kept whole as the message. Needs the sandbox's privileges.
inline SyslogCapture captureSyslog(const std::function<void()>& act) {
    SyslogCapture capture;
    capture.child = runInChild([&act] {
        int oldDev = -1;
        bool ready = unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     (oldDev = open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC)) >= 0 &&
                     mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") == 0;
        for (const char* node : {"null", "zero", "full", "random", "urandom", "tty"}) {
            const std::string target = std::string("/dev/") + node;
            const std::string source = "/proc/self/fd/" + std::to_string(oldDev) + "/" + node;
            const int placeholder = ready ? open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666) : -1;
            ready = placeholder >= 0 && close(placeholder) == 0 &&
                    mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
        }
        const int sink = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        if (!ready || bind(sink, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            std::fprintf(stderr, "syslog sink: setting up /dev/log failed: %s\n", std::strerror(errno));
            return 90;
        }
        close(oldDev);
        act();
        std::fflush(nullptr);
        char datagram[4096];
        for (ssize_t n; (n = recv(sink, datagram, sizeof datagram, MSG_DONTWAIT)) >= 0;) {
            std::printf("DATAGRAM %.*s\n", static_cast<int>(n), datagram);
        }
        std::printf("PID %d\n", static_cast<int>(getpid()));
        close(sink);
        return 0;
    });
    std::istringstream out(capture.child.out);
    for (std::string text; std::getline(out, text);) {
        char identity[256] = "";
        int priority = -1, pid = 0, end = 0;
        if (std::sscanf(text.c_str(), "PID %d", &capture.childPid) == 1 || text.rfind("DATAGRAM ", 0) != 0) {
            continue;
        }
        const bool parsed = std::sscanf(text.c_str(), "DATAGRAM <%d>%*15c %255[^[:]%n[%d]%n", &priority, identity, &end,
                                        &pid, &end) >= 2 &&
                            text.compare(static_cast<std::size_t>(end), 2, ": ") == 0;
        capture.lines.push_back(parsed ? SyslogLine{priority, identity, pid, text.substr(end + 2U)}
                                       : SyslogLine{-1, "", 0, text.substr(9)});
    }
    return capture;
}

} // namespace vidapp::test
