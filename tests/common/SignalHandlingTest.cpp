#include "common/SignalHandling.h"

#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"

using vidapp::test::expectFailure;

static volatile std::sig_atomic_t handled = 0;

static bool blockedHere(int signal) {
    sigset_t current;
    pthread_sigmask(SIG_SETMASK, nullptr, &current);
    return sigismember(&current, signal) == 1;
}

TEST(SignalHandlingTest, SendSignalFailsOnlyOnBadNumbersAndABlockedSignalWaitsForSigwait) {
    EXPECT_TRUE(OVRA::sendSignal(INT_MAX, SIGTERM)) << "no such process: the target has gone";
    EXPECT_FALSE(OVRA::sendSignal(getpid(), 1000));
    sigset_t interrupt;
    OVRA::initSignalsMask(interrupt, {SIGINT});
    OVRA::blockThreadSignals(interrupt);
    EXPECT_TRUE(OVRA::sendSignal(getpid(), 0));
    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_TRUE(sigisemptyset(&pending)) << "signal 0 delivers nothing";
    ASSERT_TRUE(OVRA::sendSignal(getpid(), SIGINT)); // without the block this would end the test
    siginfo_t info{};
    const timespec deadline{5, 0};
    ASSERT_EQ(sigtimedwait(&interrupt, &info, &deadline), SIGINT);
    EXPECT_EQ(info.si_pid, getpid());
    OVRA::setThreadSignalsMask(SIG_UNBLOCK, interrupt);
    EXPECT_FALSE(blockedHere(SIGINT));
}

TEST(SignalHandlingTest, SetsAreRebuiltAndMasksActOnTheCallingThreadAndItsChildren) {
    sigset_t set;
    sigfillset(&set);
    OVRA::initSignalsMask(set, {});
    EXPECT_TRUE(sigisemptyset(&set));
    for (const int invalid : {0, 1000}) {
        SCOPED_TRACE(invalid);
        const auto init = [&] { OVRA::initSignalsMask(set, {SIGINT, invalid, SIGTERM}); };
        expectFailure<SignalHandlingException>(init, 1007, "initSignalsMask(): sigaddset errno: 22 (Invalid argument)");
        EXPECT_EQ(sigismember(&set, SIGINT), 1) << "signals before the invalid one stay";
        EXPECT_EQ(sigismember(&set, SIGTERM), 0);
    }
    OVRA::initSignalsMask(set, {SIGUSR2, SIGHUP});
    std::thread([&] {
        OVRA::blockThreadSignals(set);
        std::thread([] { EXPECT_TRUE(blockedHere(SIGUSR2) && blockedHere(SIGHUP)) << "inherited"; }).join();
        expectFailure<SignalHandlingException>([&] { OVRA::setThreadSignalsMask(99, set); }, 1007,
                                               "setThreadSignalsMask(): pthread_sigmask errno: 22 (Invalid argument)");
        OVRA::initSignalsMask(set, {SIGHUP});
        OVRA::setThreadSignalsMask(SIG_SETMASK, set);
        EXPECT_FALSE(blockedHere(SIGUSR2));
        EXPECT_TRUE(blockedHere(SIGHUP));
    }).join();
    EXPECT_FALSE(blockedHere(SIGHUP)) << "the test's own thread is untouched";
}

TEST(SignalHandlingTest, SetSignalActionInstallsTheHandlerOrRejectsTheSignal) {
    struct sigaction action {};
    action.sa_handler = [](int) { handled = handled + 1; };
    OVRA::setSignalAction(SIGUSR1, action);
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_EQ(handled, 1);
    for (const int signal : {SIGKILL, 0, 1000}) {
        SCOPED_TRACE(signal);
        expectFailure<SignalHandlingException>([&] { OVRA::setSignalAction(signal, action); }, 1007,
                                               "setSignalAction(): sigaction errno: 22 (Invalid argument)");
    }
}
