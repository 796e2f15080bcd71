#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
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

namespace detail {

constexpr const char* DATAGRAM_MARK = "DATAGRAM ";

inline int sinkFailure(const char* what) {
    std::fprintf(stderr, "syslog sink: %s: %s\n", what, std::strerror(errno));
    return 90;
}

// A private /dev holding the few device nodes a process needs, so that /dev/log can be bound
// without touching the machine's /dev.
inline int privateDev() {
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) {
        return sinkFailure("unshare");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return sinkFailure("make / private");
    }
    const int oldDev = open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (oldDev < 0) {
        return sinkFailure("open /dev");
    }
    if (mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        return sinkFailure("mount tmpfs on /dev");
    }
    for (const char* node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string target = std::string("/dev/") + node;
        const int placeholder = open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
        if (placeholder < 0) {
            return sinkFailure("create device placeholder");
        }
        close(placeholder);
        const std::string source = "/proc/self/fd/" + std::to_string(oldDev) + "/" + node;
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            return sinkFailure("bind device node");
        }
    }
    close(oldDev);
    return 0;
}

inline int runSink(const std::function<void()>& act) {
    if (const int failed = privateDev(); failed != 0) {
        return failed;
    }
    const int sink = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sink < 0) {
        return sinkFailure("socket");
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (bind(sink, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return sinkFailure("bind /dev/log");
    }
    act();
    std::fflush(nullptr);
    char datagram[4096];
    for (;;) {
        const ssize_t n = recv(sink, datagram, sizeof datagram - 1, MSG_DONTWAIT);
        if (n < 0) {
            break;
        }
        std::printf("%s%.*s\n", DATAGRAM_MARK, static_cast<int>(n), datagram);
    }
    std::printf("PID %d\n", static_cast<int>(getpid()));
    close(sink);
    return 0;
}

// "<priority>" and the 15-character time stamp "Mmm dd hh:mm:ss", then "identity[pid]: message"
// (or "identity: message" without LOG_PID). A line of another form is kept whole as the message.
inline SyslogLine parseSyslogLine(const std::string& text) {
    constexpr std::size_t STAMP_LENGTH = 15;
    SyslogLine line;
    line.message = text;
    const std::size_t close = text.find('>');
    if (text.empty() || text[0] != '<' || close == std::string::npos) {
        return line;
    }
    const std::size_t identityStart = close + 1 + STAMP_LENGTH + 1;
    const std::size_t separator = text.find(": ", identityStart);
    if (identityStart >= text.size() || text[identityStart - 1] != ' ' || separator == std::string::npos) {
        return line;
    }
    std::string identity = text.substr(identityStart, separator - identityStart);
    const std::size_t bracket = identity.find('[');
    if (bracket != std::string::npos && identity.back() == ']') {
        line.pid = std::stoi(identity.substr(bracket + 1));
        identity.erase(bracket);
    }
    line.priority = std::stoi(text.substr(1, close - 1));
    line.identity = identity;
    line.message = text.substr(separator + 2);
    return line;
}

} // namespace detail

// Runs act in a forked child that has private mount and IPC namespaces and a fresh /dev with a
// datagram socket bound at /dev/log, and returns every line that reached the socket. The test
// process and the machine keep their own /dev. Needs the sandbox's privileges.
inline SyslogCapture captureSyslog(const std::function<void()>& act) {
    SyslogCapture capture;
    capture.child = runInChild([&act] { return detail::runSink(act); });
    const std::string& out = capture.child.out;
    std::size_t at = 0;
    while (at < out.size()) {
        const std::size_t end = out.find('\n', at);
        const std::string line = out.substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (line.rfind(detail::DATAGRAM_MARK, 0) == 0) {
            capture.lines.push_back(detail::parseSyslogLine(line.substr(std::strlen(detail::DATAGRAM_MARK))));
        } else if (line.rfind("PID ", 0) == 0) {
            capture.childPid = std::stoi(line.substr(4));
        }
        if (end == std::string::npos) {
            break;
        }
        at = end + 1;
    }
    return capture;
}

} // namespace vidapp::test
