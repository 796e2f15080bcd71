#include "common/SignalHandling.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "common/OVRAException.h"

namespace {

volatile std::sig_atomic_t handled = 0;
void countSignal(int) {
    handled = handled + 1;
}

std::string messageOf(const std::function<void()>& action, std::uint32_t& code) {
    try {
        action();
    } catch (const SignalHandlingException& e) {
        code = e.getCode();
        return e.what();
    }
    return "(nothing thrown)";
}

// Every case leaves the thread's mask, pending signals and SIGUSR1's action as it found them.
class SignalHandlingTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &savedMask), 0);
        ASSERT_EQ(sigaction(SIGUSR1, nullptr, &savedAction), 0);
        handled = 0;
    }

    void TearDown() override {
        sigset_t pending;
        sigpending(&pending);
        const timespec now{0, 0};
        while (sigtimedwait(&pending, nullptr, &now) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
        sigaction(SIGUSR1, &savedAction, nullptr);
    }

    static sigset_t setOf(std::initializer_list<int> signals) {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : signals) {
            sigaddset(&set, signal);
        }
        return set;
    }

    static bool blockedHere(int signal) {
        sigset_t current;
        pthread_sigmask(SIG_SETMASK, nullptr, &current);
        return sigismember(&current, signal) == 1;
    }

    sigset_t savedMask{};
    struct sigaction savedAction {};
};

TEST_F(SignalHandlingTest, SendSignalToAProcessThatHasGoneCountsAsSent) {
    const pid_t gone = fork();
    ASSERT_GE(gone, 0);
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    EXPECT_TRUE(OVRA::sendSignal(gone, SIGTERM));
}

TEST_F(SignalHandlingTest, SendSignalZeroOnlyChecks) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    EXPECT_TRUE(OVRA::sendSignal(getpid(), 0));
    sigset_t pending;
    sigpending(&pending);
    EXPECT_TRUE(sigisemptyset(&pending));
    EXPECT_EQ(handled, 0);
}

TEST_F(SignalHandlingTest, SendSignalWithAnInvalidNumberFails) {
    EXPECT_FALSE(OVRA::sendSignal(getpid(), 1000));
    EXPECT_EQ(OVRA::getErrno(), EINVAL);
    EXPECT_FALSE(OVRA::sendSignal(getpid(), -1));
}

TEST_F(SignalHandlingTest, SendSignalToItselfIsTakenBySigwaitinfo) {
    const sigset_t interrupt = setOf({SIGINT});
    OVRA::blockThreadSignals(interrupt);
    ASSERT_TRUE(OVRA::sendSignal(getpid(), SIGINT));

    siginfo_t info{};
    const timespec deadline{5, 0};
    ASSERT_EQ(sigtimedwait(&interrupt, &info, &deadline), SIGINT);
    EXPECT_EQ(info.si_pid, getpid());
    EXPECT_EQ(info.si_code, SI_USER);
}

TEST_F(SignalHandlingTest, InitSignalsMaskReplacesTheSetInOrder) {
    sigset_t set;
    sigfillset(&set);
    OVRA::initSignalsMask(set, {SIGINT, SIGTERM});
    EXPECT_EQ(sigismember(&set, SIGINT), 1);
    EXPECT_EQ(sigismember(&set, SIGTERM), 1);
    EXPECT_EQ(sigismember(&set, SIGHUP), 0);
    EXPECT_EQ(sigismember(&set, SIGUSR1), 0);

    OVRA::initSignalsMask(set, {});
    EXPECT_TRUE(sigisemptyset(&set));
}

TEST_F(SignalHandlingTest, InitSignalsMaskRejectsInvalidSignals) {
    for (const int invalid : {0, 1000, -3}) {
        SCOPED_TRACE(invalid);
        sigset_t set;
        std::uint32_t code = 0;
        EXPECT_EQ(messageOf([&] { OVRA::initSignalsMask(set, {invalid}); }, code),
                  "initSignalsMask(): sigaddset errno: 22 (Invalid argument)");
        EXPECT_EQ(code, 1007U);
    }
}

TEST_F(SignalHandlingTest, SignalsBeforeTheInvalidOneStayInTheSet) {
    sigset_t set;
    EXPECT_THROW(OVRA::initSignalsMask(set, {SIGINT, 1000, SIGTERM}), SignalHandlingException);
    EXPECT_EQ(sigismember(&set, SIGINT), 1);
    EXPECT_EQ(sigismember(&set, SIGTERM), 0);
}

TEST_F(SignalHandlingTest, InvalidHowIsRejected) {
    const sigset_t set = setOf({SIGUSR2});
    std::uint32_t code = 0;
    EXPECT_EQ(messageOf([&] { OVRA::setThreadSignalsMask(99, set); }, code),
              "setThreadSignalsMask(): pthread_sigmask errno: 22 (Invalid argument)");
    EXPECT_EQ(code, 1007U);
    EXPECT_FALSE(blockedHere(SIGUSR2));
}

TEST_F(SignalHandlingTest, BlockedSignalStaysPendingUntilTaken) {
    sigset_t set;
    OVRA::initSignalsMask(set, {SIGINT});
    OVRA::blockThreadSignals(set);
    ASSERT_TRUE(blockedHere(SIGINT));

    // Without the block this would end the test process.
    ASSERT_EQ(kill(getpid(), SIGINT), 0);
    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGINT), 1);

    siginfo_t info{};
    EXPECT_EQ(sigwaitinfo(&set, &info), SIGINT);
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGINT), 0);
}

TEST_F(SignalHandlingTest, ThreadsStartedLaterInheritTheBlock) {
    OVRA::blockThreadSignals(setOf({SIGINT, SIGTERM}));
    bool inheritedInt = false;
    bool inheritedTerm = false;
    std::thread later([&] {
        inheritedInt = blockedHere(SIGINT);
        inheritedTerm = blockedHere(SIGTERM);
    });
    later.join();
    EXPECT_TRUE(inheritedInt);
    EXPECT_TRUE(inheritedTerm);
}

TEST_F(SignalHandlingTest, MaskActsOnTheCallingThreadOnly) {
    bool blockedInOther = true;
    std::thread other([&] {
        OVRA::blockThreadSignals(setOf({SIGUSR2}));
        blockedInOther = blockedHere(SIGUSR2);
    });
    other.join();
    EXPECT_TRUE(blockedInOther);
    EXPECT_FALSE(blockedHere(SIGUSR2));
}

TEST_F(SignalHandlingTest, UnblockAndSetMask) {
    const sigset_t both = setOf({SIGUSR2, SIGHUP});
    OVRA::setThreadSignalsMask(SIG_BLOCK, both);
    OVRA::setThreadSignalsMask(SIG_UNBLOCK, setOf({SIGHUP}));
    EXPECT_TRUE(blockedHere(SIGUSR2));
    EXPECT_FALSE(blockedHere(SIGHUP));
    OVRA::setThreadSignalsMask(SIG_SETMASK, setOf({SIGHUP}));
    EXPECT_FALSE(blockedHere(SIGUSR2));
    EXPECT_TRUE(blockedHere(SIGHUP));
}

TEST_F(SignalHandlingTest, SetSignalActionInstallsTheHandler) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    OVRA::setSignalAction(SIGUSR1, action);
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(handled, 1);
}

TEST_F(SignalHandlingTest, SetSignalActionRejectsWhatCannotBeCaught) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    for (const int signal : {SIGKILL, SIGSTOP, 0, 1000}) {
        SCOPED_TRACE(signal);
        std::uint32_t code = 0;
        EXPECT_EQ(messageOf([&] { OVRA::setSignalAction(signal, action); }, code),
                  "setSignalAction(): sigaction errno: 22 (Invalid argument)");
        EXPECT_EQ(code, 1007U);
    }
}

} // namespace
