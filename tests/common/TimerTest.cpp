#include "common/Timer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"

namespace {

using vidapp::test::expectFailure;

using namespace std::chrono_literals;
using OVRA::Task;
using OVRA::Timer;

constexpr std::int64_t NS_PER_MS = 1'000'000;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Records every run: its start, its end and the deadline it ran for. The body, if any, runs on
// the timer thread with the run's index.
class RecordingTask : public Task {
public:
    struct Run {
        std::int64_t deadline;
        std::int64_t start;
        std::int64_t end;
    };

    explicit RecordingTask(std::function<void(std::size_t)> runBody = nullptr) : body(std::move(runBody)) {}

    void run() override {
        const std::int64_t start = nowNs();
        std::size_t index;
        {
            std::lock_guard<std::mutex> lock(mutex);
            index = runs.size();
            runs.push_back(Run{nextExecutionTime, start, 0});
        }
        // The record is complete before the body can throw.
        struct Finish {
            RecordingTask& task;
            std::size_t index;
            ~Finish() {
                {
                    std::lock_guard<std::mutex> lock(task.mutex);
                    task.runs[index].end = nowNs();
                }
                task.ended.notify_all();
            }
        } finish{*this, index};
        if (body) {
            body(index);
        }
    }

    bool waitForRuns(std::size_t count, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        return ended.wait_for(lock, timeout, [&] { return runs.size() >= count && runs[count - 1].end != 0; });
    }

    std::vector<Run> recorded() {
        std::lock_guard<std::mutex> lock(mutex);
        return runs;
    }

private:
    std::function<void(std::size_t)> body;
    std::mutex mutex;
    std::condition_variable ended;
    std::vector<Run> runs;
};

// A gate that a task waits at until the test opens it.
class Gate {
public:
    void open() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            opened = true;
        }
        changed.notify_all();
    }
    bool waitOpen(std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return opened; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool opened = false;
};

std::vector<std::string> threadNames() {
    std::vector<std::string> names;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(tasks)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name)) {
            names.push_back(name);
        }
    }
    closedir(tasks);
    return names;
}

bool hasThreadNamed(const std::string& name) {
    for (const auto& threadName : threadNames()) {
        if (threadName == name) {
            return true;
        }
    }
    return false;
}

class TimerTest : public ::testing::Test {
protected:
    // Before any timer, so that the timer threads only ever see the private log word.
    vidapp::test::LogCapture log;
};

TEST_F(TimerTest, TasksWithEqualDeadlinesRunInTheOrderTheyWereScheduled) {
    // A fixed-rate deadline is the previous deadline plus the period: setting it from inside a
    // run is the one way to give several tasks the very same next deadline.
    constexpr std::uint64_t PERIOD_MS = 20;
    const std::int64_t commonDeadline = nowNs() + 400 * NS_PER_MS;
    std::mutex orderMutex;
    std::vector<char> order;
    std::vector<std::unique_ptr<RecordingTask>> tasks;
    for (char id : {'a', 'b', 'c'}) {
        tasks.push_back(std::make_unique<RecordingTask>([&, id](std::size_t run) {
            std::lock_guard<std::mutex> lock(orderMutex);
            order.push_back(id);
            if (run == 0) {
                tasks[static_cast<std::size_t>(id - 'a')]->nextExecutionTime =
                    commonDeadline - static_cast<std::int64_t>(PERIOD_MS) * NS_PER_MS;
            }
        }));
    }
    Timer timer("Equal");
    for (auto& task : tasks) {
        timer.scheduleFixedRatePeriodic(task.get(), PERIOD_MS);
    }

    ASSERT_TRUE(tasks[2]->waitForRuns(2));
    timer.stopTimer();

    for (auto& task : tasks) {
        EXPECT_EQ(task->recorded()[1].deadline, commonDeadline);
    }
    const std::vector<char> expected{'a', 'b', 'c', 'a', 'b', 'c'};
    std::lock_guard<std::mutex> lock(orderMutex);
    EXPECT_EQ(std::vector<char>(order.begin(), order.begin() + 6), expected);
}

// Average distance between the starts of the first count runs, in ms.
double averagePeriodMs(const std::vector<RecordingTask::Run>& runs, std::size_t count) {
    return static_cast<double>(runs[count - 1].start - runs[0].start) / NS_PER_MS / static_cast<double>(count - 1);
}

TEST_F(TimerTest, FixedDelayCountsFromTheEndOfARunAndFixedRateFromTheDeadline) {
    constexpr std::size_t RUNS = 16;
    const auto slowBody = [](std::size_t) { std::this_thread::sleep_for(30ms); };
    RecordingTask delayTask(slowBody);
    RecordingTask rateTask(slowBody);
    Timer delayTimer("FixedDelay");
    Timer rateTimer("FixedRate");
    const std::int64_t scheduled = nowNs();
    delayTimer.scheduleFixedDelayPeriodic(&delayTask, 100);
    rateTimer.scheduleFixedRatePeriodic(&rateTask, 100);

    ASSERT_TRUE(delayTask.waitForRuns(RUNS, 30s));
    ASSERT_TRUE(rateTask.waitForRuns(RUNS, 30s));
    delayTimer.stopTimer();
    rateTimer.stopTimer();

    const auto delayRuns = delayTask.recorded();
    for (std::size_t i = 1; i < RUNS; ++i) {
        EXPECT_GE(delayRuns[i].start - delayRuns[i - 1].end, 100 * NS_PER_MS) << "run " << i;
    }
    const auto rateRuns = rateTask.recorded();
    for (std::size_t i = 0; i < RUNS; ++i) {
        EXPECT_GE(rateRuns[i].start, scheduled + static_cast<std::int64_t>(i + 1) * 100 * NS_PER_MS) << "run " << i;
    }
    // Each fixed-delay period holds a whole run, so it cannot be shorter than 130 ms; the fixed
    // rate keeps to 100 ms whatever the load delays single runs by.
    EXPECT_GE(averagePeriodMs(delayRuns, RUNS), 129.9);
    EXPECT_LT(averagePeriodMs(delayRuns, RUNS), 200.0);
    EXPECT_LT(averagePeriodMs(rateRuns, RUNS), 120.0);
}

TEST_F(TimerTest, AnOverrunningFixedRateTaskCatchesUpWithoutSkippingARun) {
    // Four runs of 250 ms on a 100 ms grid leave runs 5 to 11 overdue when the fourth ends.
    constexpr std::size_t SLOW_RUNS = 4;
    constexpr std::size_t RUNS = 13;
    RecordingTask task([](std::size_t run) {
        if (run < SLOW_RUNS) {
            std::this_thread::sleep_for(250ms);
        }
    });
    Timer timer("CatchUp");
    timer.scheduleFixedRatePeriodic(&task, 100);

    ASSERT_TRUE(task.waitForRuns(RUNS, 30s));
    timer.stopTimer();

    const auto runs = task.recorded();
    for (std::size_t i = 1; i < RUNS; ++i) {
        EXPECT_EQ(runs[i].deadline - runs[i - 1].deadline, 100 * NS_PER_MS) << "run " << i;
    }
    for (std::size_t i = 0; i < RUNS; ++i) {
        EXPECT_GE(runs[i].start, runs[i].deadline) << "run " << i;
    }
    // The backlog runs back to back: waiting a period between them would take 600 ms.
    const std::size_t lastOverdue = 9;
    ASSERT_LT(runs[lastOverdue].deadline, runs[SLOW_RUNS - 1].end);
    EXPECT_LT(runs[lastOverdue].start - runs[SLOW_RUNS - 1].end, 300 * NS_PER_MS);
}

TEST_F(TimerTest, ACancelDuringARunLetsItFinishAndStopsTheTask) {
    Gate started;
    Gate release;
    RecordingTask task([&](std::size_t) {
        started.open();
        release.waitOpen();
    });
    RecordingTask marker;
    Timer timer("Cancel");
    timer.scheduleFixedRatePeriodic(&task, 20);
    ASSERT_TRUE(started.waitOpen());

    timer.cancelTask(&task);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    release.open();
    ASSERT_TRUE(task.waitForRuns(1));
    // A rescheduled 20 ms fixed-rate task would be overdue and run before this marker.
    timer.scheduleOnce(&marker, 100);
    ASSERT_TRUE(marker.waitForRuns(1));
    timer.stopTimer();

    EXPECT_EQ(task.recorded().size(), 1U);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
}

TEST_F(TimerTest, SchedulingErrorsCarryTheirCodesAndTexts) {
    RecordingTask task;
    Timer timer("Errors");

    expectFailure<OVRA::InvalidArgumentException>([&] { timer.schedule(OVRA::ONCE, nullptr, 0); }, 1071,
                                                  "Timer.schedule(): taskPtr is a null pointer");
    expectFailure<OVRA::InvalidArgumentException>([&] { timer.cancelTask(nullptr); }, 1071,
                                                  "cancelTask(): taskPtr is a null pointer");
    for (const auto type : {OVRA::ONCE, OVRA::FIXED_DELAY_PERIODIC, OVRA::FIXED_RATE_PERIODIC}) {
        expectFailure<OVRA::TimerException>([&] { timer.schedule(type, &task, 0); }, 2600,
                                            "Timer.schedule(): task should have non-zero period");
    }
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_NEW);

    timer.scheduleFixedDelayPeriodic(&task, 3600'000);
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 10); }, 2601,
                                        "Timer.schedule(): Task already scheduled");
    timer.cancelTask(&task);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    timer.scheduleOnce(&task, 3600'000);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_SCHEDULED);

    timer.stopTimer();
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 10); }, 2602,
                                        "Timer.schedule(): cannot schedule tasks on stopped Timer");
    timer.stopTimer();
    EXPECT_TRUE(task.recorded().empty());
}

TEST_F(TimerTest, AOnceTaskRunsOnceAfterItsDelayAndEndsExecuted) {
    RecordingTask once;
    RecordingTask pending;
    Timer timer("Once");
    const std::int64_t scheduled = nowNs();
    timer.scheduleOnce(&once, 50);
    timer.scheduleOnce(&pending, 3600'000);

    ASSERT_TRUE(once.waitForRuns(1));
    timer.stopTimer();

    ASSERT_EQ(once.recorded().size(), 1U);
    EXPECT_GE(once.recorded()[0].start, scheduled + 50 * NS_PER_MS);
    // Stopping cancels what is still listed; the finished task is no longer there.
    EXPECT_EQ(once.taskState.load(), OVRA::TASK_EXECUTED);
    EXPECT_EQ(pending.taskState.load(), OVRA::TASK_CANCELLED);
}

TEST_F(TimerTest, ATaskMayRescheduleItselfFromItsOwnRun) {
    Timer timer("Again");
    RecordingTask task([&](std::size_t run) { timer.scheduleOnce(&task, run == 0 ? 10 : 3600'000); });
    RecordingTask marker;
    timer.scheduleOnce(&task, 10);
    ASSERT_TRUE(task.waitForRuns(2));
    // Once the later marker has run, the timer has finished with the task's second run.
    timer.scheduleOnce(&marker, 50);
    ASSERT_TRUE(marker.waitForRuns(1));

    EXPECT_EQ(task.taskState.load(), OVRA::TASK_SCHEDULED);
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 10); }, 2601,
                                        "Timer.schedule(): Task already scheduled");
    timer.stopTimer();
    EXPECT_EQ(task.recorded().size(), 2U);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
}

TEST_F(TimerTest, ExceptionsFromTasksAreLoggedAndTheTimerGoesOn) {
    RecordingTask failing([](std::size_t) { throw OVRAException(77, "status task failed"); });
    RecordingTask failingStd([](std::size_t) { throw std::runtime_error("out of range"); });
    RecordingTask healthy;
    Timer timer("Throwing");
    timer.scheduleFixedRatePeriodic(&failing, 20);
    timer.scheduleOnce(&failingStd, 20);
    timer.scheduleOnce(&healthy, 60);

    ASSERT_TRUE(failing.waitForRuns(3));
    ASSERT_TRUE(healthy.waitForRuns(1));
    ASSERT_TRUE(failingStd.waitForRuns(1));
    timer.stopTimer();

    EXPECT_GE(log.countErrors(77), 3U) << log.dump();
    EXPECT_TRUE(log.contains("Error Code:      77, Error Message:      vidapp: Timer.run(): running task "
                             "exception: status task failed"))
        << log.dump();
    EXPECT_EQ(log.countErrors(1045), 1U) << log.dump();
    EXPECT_TRUE(log.contains("Timer.run(): running task exception: out of range")) << log.dump();
    // A task that threw is treated as if it had returned.
    EXPECT_EQ(failingStd.taskState.load(), OVRA::TASK_EXECUTED);
}

TEST_F(TimerTest, DestroyingARunningTimerLogs1072AndStillStopsIt) {
    RecordingTask task;
    auto timer = std::make_unique<Timer>("Forgotten");
    timer->scheduleFixedRatePeriodic(&task, 10);
    ASSERT_TRUE(task.waitForRuns(1));

    timer.reset();

    EXPECT_EQ(log.countErrors(1072), 1U) << log.dump();
    EXPECT_TRUE(log.contains("~Timer 'Forgotten': stopTimer() should be called explicitly")) << log.dump();
    // stopTimer() ran (the listed task is cancelled) and joined: a joinable std::thread would
    // have ended the process.
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);

    log.clear();
    Timer("Stopped").stopTimer();
    EXPECT_EQ(log.countErrors(1072), 0U) << log.dump();
}

TEST_F(TimerTest, StopTimerReturnsPromptlyWhenTheNextDeadlineIsFarAway) {
    RecordingTask task;
    Timer timer("FarAway");
    timer.scheduleOnce(&task, 3600'000);

    const auto start = std::chrono::steady_clock::now();
    timer.stopTimer();

    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    EXPECT_TRUE(task.recorded().empty());
}

TEST_F(TimerTest, StopTimerWaitsForTheRunningTask) {
    Gate started;
    Gate release;
    RecordingTask task([&](std::size_t) {
        started.open();
        release.waitOpen();
    });
    Timer timer("Waiting");
    timer.scheduleOnce(&task, 10);
    ASSERT_TRUE(started.waitOpen());

    auto stopping = std::async(std::launch::async, [&] {
        timer.stopTimer();
        return task.recorded()[0].end != 0;
    });
    EXPECT_EQ(stopping.wait_for(100ms), std::future_status::timeout);
    release.open();

    EXPECT_TRUE(stopping.get());
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_EXECUTED);
}

TEST_F(TimerTest, TheWorkerThreadCarriesTheTimerName) {
    RecordingTask task;
    RecordingTask otherTask;
    Timer timer("TimerRun");
    // A name over 15 characters is refused by the system; the timer works all the same.
    Timer longNamed("AVeryLongTimerName");
    timer.scheduleOnce(&task, 1);
    longNamed.scheduleOnce(&otherTask, 1);
    ASSERT_TRUE(task.waitForRuns(1));
    ASSERT_TRUE(otherTask.waitForRuns(1));

    EXPECT_TRUE(hasThreadNamed("TimerRun"));
    EXPECT_FALSE(hasThreadNamed("AVeryLongTimerN"));
    timer.stopTimer();
    longNamed.stopTimer();
}

} // namespace
