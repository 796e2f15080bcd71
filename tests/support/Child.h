#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace vidapp::test {

// How a child process ended and what it wrote.
struct ChildResult {
    bool exited = false;   // ended through exit() or _exit()
    int exitCode = -1;     // valid when exited
    int signal = 0;        // the signal that ended it; 0 when it exited
    bool timedOut = false; // wait() hit its deadline and killed it with SIGKILL
    std::string out;       // everything written on standard output
    std::string err;       // everything written on standard error

    // Exit code, signal and both outputs, for assertion messages.
    std::string describe() const;
};

struct ChildOptions {
    std::vector<std::string> setEnvironment;   // "NAME=value", added or replacing
    std::vector<std::string> unsetEnvironment; // names removed
    std::string workingDirectory;              // empty: the test's own
    // The child gets SIGKILL when the thread that started it ends; start it from the test's own
    // thread (or clear this) when a helper thread starts it.
    bool killWithParent = true;
};

// A child process of a test, with standard output and standard error captured through pipes and
// standard input on /dev/null. It runs in its own process group. An owned reader thread
// ("child-reader") drains both pipes while it runs, so a chatty child never blocks, and reaps it
// (through a pidfd) as soon as it ends. The owner's thread starts, signals and waits; out(), err()
// and the waitFor functions may be called from any thread (captured text is under `mutex`).
// The destructor kills a child that is still running and joins the reader.
class Child {
public:
    // Starts an executable: argv[0] is its path. Throws std::runtime_error when the pipes or the
    // fork fail; a failing exec shows as exit code 127 with the reason on standard error.
    explicit Child(const std::vector<std::string>& argv, const ChildOptions& options = {});

    // Forks and runs body in the child, which then ends with body's result as its exit code
    // (112 and a line on standard error when body throws). Assertions inside body do not reach
    // the test: report through the exit code and the output. Fork only while the test process has
    // no other threads of its own (or knows they hold no locks the child needs).
    explicit Child(const std::function<int()>& body, const ChildOptions& options = {});

    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return childPid; }

    // Sends sig to the child (not to its process group); false when it has already been reaped.
    bool signal(int sig);

    // Waits until text containing part has appeared on standard output (or error). False at the
    // deadline or when the child ended without writing it.
    bool waitForOutput(const std::string& part, std::chrono::milliseconds timeout);
    bool waitForError(const std::string& part, std::chrono::milliseconds timeout);

    std::string out() const;
    std::string err() const;
    bool running() const;

    // Waits for the child to end. At the deadline it kills the whole process group with SIGKILL
    // and reports timedOut. May be called again; later calls return the same result at once.
    ChildResult wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));

private:
    void start(const std::vector<std::string>* argv, const std::function<int()>* body, const ChildOptions& options);
    void readLoop(int outFd, int errFd);
    bool waitForText(std::string ChildResult::*stream, const std::string& part, std::chrono::milliseconds timeout);

    pid_t childPid = -1;
    int pidFd = -1;
    std::thread reader;

    mutable std::mutex mutex; // guards result and ended
    std::condition_variable changed;
    ChildResult result;
    bool ended = false;
};

// Runs an executable to its end and returns what it did.
ChildResult runProgram(const std::vector<std::string>& argv, const ChildOptions& options = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Runs body in a forked child to its end (see Child).
ChildResult runInChild(const std::function<int()>& body, const ChildOptions& options = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(30));

} // namespace vidapp::test
