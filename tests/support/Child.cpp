#include "tests/support/Child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/SystemCall.h"

extern char** environ;

namespace vidapp::test {

namespace {

constexpr int EXEC_FAILED = 127;
constexpr int BODY_THREW = 112;

std::string environmentName(const std::string& entry) {
    return entry.substr(0, entry.find('='));
}

std::vector<std::string> childEnvironment(const ChildOptions& options) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    auto remove = [&environment](const std::string& name) {
        std::erase_if(environment, [&name](const std::string& entry) { return environmentName(entry) == name; });
    };
    for (const std::string& name : options.unsetEnvironment) {
        remove(name);
    }
    for (const std::string& entry : options.setEnvironment) {
        remove(environmentName(entry));
        environment.push_back(entry);
    }
    return environment;
}

void writeAll(int fd, const char* text) {
    std::size_t left = std::strlen(text);
    while (left > 0) {
        const ssize_t written = OVRA::retryOnEintr([&] { return ::write(fd, text, left); });
        if (written <= 0) {
            return;
        }
        text += written;
        left -= static_cast<std::size_t>(written);
    }
}

// Runs in the child between fork and exec (or body): only calls that are safe after a fork.
void prepareChild(const ChildOptions& options, pid_t parent, int outFd, int errFd) {
    (void)setpgid(0, 0);
    if (options.killWithParent) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(EXEC_FAILED);
        }
    }
    const int input = open("/dev/null", O_RDONLY);
    if (input >= 0 && input != STDIN_FILENO) {
        (void)dup2(input, STDIN_FILENO);
        (void)close(input);
    }
    (void)dup2(outFd, STDOUT_FILENO);
    (void)dup2(errFd, STDERR_FILENO);
    if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0) {
        writeAll(STDERR_FILENO, "Child: chdir failed\n");
        _exit(EXEC_FAILED);
    }
}

// Appends what the pipe holds now; false once it reached end of file (then fd is closed and -1).
void drain(int& fd, std::string& into, std::mutex& mutex) {
    char buffer[4096];
    for (;;) {
        const ssize_t n = OVRA::retryOnEintr([&] { return ::read(fd, buffer, sizeof buffer); });
        if (n > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            into.append(buffer, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            return;
        }
        (void)close(fd);
        fd = -1;
        return;
    }
}

} // namespace

std::string ChildResult::describe() const {
    std::ostringstream text;
    if (timedOut) {
        text << "timed out; ";
    }
    if (exited) {
        text << "exit code " << exitCode;
    } else {
        text << "signal " << signal << " (" << strsignal(signal) << ")";
    }
    text << "\n--- stdout ---\n" << out << "\n--- stderr ---\n" << err;
    return text.str();
}

Child::Child(const std::vector<std::string>& argv, const ChildOptions& options) {
    start(&argv, nullptr, options);
}

Child::Child(const std::function<int()>& body, const ChildOptions& options) {
    start(nullptr, &body, options);
}

void Child::start(const std::vector<std::string>* argv, const std::function<int()>* body, const ChildOptions& options) {
    if (argv != nullptr && argv->empty()) {
        throw std::invalid_argument("Child: empty argv");
    }
    // Everything the child needs is built before the fork.
    std::vector<std::string> environment = childEnvironment(options);
    std::vector<char*> environmentPointers;
    for (std::string& entry : environment) {
        environmentPointers.push_back(entry.data());
    }
    environmentPointers.push_back(nullptr);
    std::vector<std::string> arguments = argv != nullptr ? *argv : std::vector<std::string>{};
    std::vector<char*> argumentPointers;
    for (std::string& argument : arguments) {
        argumentPointers.push_back(argument.data());
    }
    argumentPointers.push_back(nullptr);
    const std::string execFailed = arguments.empty() ? std::string() : "Child: exec " + arguments[0] + " failed: ";

    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("Child: pipe2 failed: ") + std::strerror(errno));
    }
    if (pipe2(errPipe, O_CLOEXEC) != 0) {
        const int error = errno;
        (void)close(outPipe[0]);
        (void)close(outPipe[1]);
        throw std::runtime_error(std::string("Child: pipe2 failed: ") + std::strerror(error));
    }
    auto closeAll = [&] {
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) {
            (void)close(fd);
        }
    };

    // Whatever the test has buffered must not be written a second time by a forked child.
    (void)std::fflush(nullptr);
    const pid_t parent = getpid();
    childPid = fork();
    if (childPid < 0) {
        const int error = errno;
        closeAll();
        throw std::runtime_error(std::string("Child: fork failed: ") + std::strerror(error));
    }
    if (childPid == 0) {
        prepareChild(options, parent, outPipe[1], errPipe[1]);
        if (argv != nullptr) {
            execve(argumentPointers[0], argumentPointers.data(), environmentPointers.data());
            writeAll(STDERR_FILENO, execFailed.c_str());
            writeAll(STDERR_FILENO, strerrordesc_np(errno));
            writeAll(STDERR_FILENO, "\n");
            _exit(EXEC_FAILED);
        }
        closeAll();
        for (const std::string& name : options.unsetEnvironment) {
            (void)unsetenv(name.c_str());
        }
        for (const std::string& entry : options.setEnvironment) {
            const std::size_t equals = entry.find('=');
            (void)setenv(entry.substr(0, equals).c_str(), equals == std::string::npos ? "" : entry.c_str() + equals + 1,
                         1);
        }
        int code = BODY_THREW;
        try {
            code = (*body)();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "Child: body threw: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "Child: body threw\n");
        }
        (void)std::fflush(nullptr);
        _exit(code);
    }

    (void)close(outPipe[1]);
    (void)close(errPipe[1]);
    pidFd = static_cast<int>(syscall(SYS_pidfd_open, childPid, 0));
    if (pidFd < 0) {
        const int error = errno;
        (void)kill(childPid, SIGKILL);
        (void)waitpid(childPid, nullptr, 0);
        (void)close(outPipe[0]);
        (void)close(errPipe[0]);
        throw std::runtime_error(std::string("Child: pidfd_open failed: ") + std::strerror(error));
    }
    (void)fcntl(outPipe[0], F_SETFL, O_NONBLOCK);
    (void)fcntl(errPipe[0], F_SETFL, O_NONBLOCK);
    reader = std::thread([this, outFd = outPipe[0], errFd = errPipe[0]] { readLoop(outFd, errFd); });
    (void)pthread_setname_np(reader.native_handle(), "child-reader");
}

void Child::readLoop(int outFd, int errFd) {
    for (;;) {
        pollfd fds[3] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}, {pidFd, POLLIN, 0}};
        if (OVRA::retryOnEintr([&] { return ::poll(fds, 3, -1); }) < 0) {
            break;
        }
        if (fds[0].revents != 0) {
            drain(outFd, result.out, mutex);
        }
        if (fds[1].revents != 0) {
            drain(errFd, result.err, mutex);
        }
        if (fds[0].revents != 0 || fds[1].revents != 0) {
            changed.notify_all();
        }
        if (fds[2].revents != 0) {
            break;
        }
    }
    int status = 0;
    const pid_t reaped = OVRA::retryOnEintr([&] { return ::waitpid(childPid, &status, 0); });
    // Everything the child wrote is in the pipes now; a grandchild holding them open is not waited for.
    if (outFd >= 0) {
        drain(outFd, result.out, mutex);
    }
    if (errFd >= 0) {
        drain(errFd, result.err, mutex);
    }
    for (int fd : {outFd, errFd}) {
        if (fd >= 0) {
            (void)close(fd);
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (reaped == childPid && WIFEXITED(status)) {
            result.exited = true;
            result.exitCode = WEXITSTATUS(status);
        } else if (reaped == childPid && WIFSIGNALED(status)) {
            result.signal = WTERMSIG(status);
        }
        ended = true;
    }
    changed.notify_all();
}

Child::~Child() {
    if (reader.joinable()) {
        (void)wait(std::chrono::milliseconds(0));
    }
    if (pidFd >= 0) {
        (void)close(pidFd);
    }
}

bool Child::signal(int sig) {
    return pidFd >= 0 && syscall(SYS_pidfd_send_signal, pidFd, sig, nullptr, 0) == 0;
}

bool Child::running() const {
    std::lock_guard<std::mutex> lock(mutex);
    return !ended;
}

std::string Child::out() const {
    std::lock_guard<std::mutex> lock(mutex);
    return result.out;
}

std::string Child::err() const {
    std::lock_guard<std::mutex> lock(mutex);
    return result.err;
}

bool Child::waitForText(std::string ChildResult::*stream, const std::string& part, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [&] { return ended || (result.*stream).find(part) != std::string::npos; });
    return (result.*stream).find(part) != std::string::npos;
}

bool Child::waitForOutput(const std::string& part, std::chrono::milliseconds timeout) {
    return waitForText(&ChildResult::out, part, timeout);
}

bool Child::waitForError(const std::string& part, std::chrono::milliseconds timeout) {
    return waitForText(&ChildResult::err, part, timeout);
}

ChildResult Child::wait(std::chrono::milliseconds timeout) {
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, timeout, [this] { return ended; })) {
            result.timedOut = true;
            (void)kill(-childPid, SIGKILL);
            (void)signal(SIGKILL);
            changed.wait(lock, [this] { return ended; });
        }
    }
    if (reader.joinable()) {
        reader.join();
    }
    std::lock_guard<std::mutex> lock(mutex);
    return result;
}

ChildResult runProgram(const std::vector<std::string>& argv, const ChildOptions& options,
                       std::chrono::milliseconds timeout) {
    Child child(argv, options);
    return child.wait(timeout);
}

ChildResult runInChild(const std::function<int()>& body, const ChildOptions& options,
                       std::chrono::milliseconds timeout) {
    Child child(body, options);
    return child.wait(timeout);
}

} // namespace vidapp::test
