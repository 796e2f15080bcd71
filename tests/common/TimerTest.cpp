#include "common/Timer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <semaphore>
#include <stdexcept>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"

using namespace std::chrono_literals;
using OVRA::Timer;
using vidapp::test::expectFailure;

constexpr std::int64_t MS = 1'000'000;

static std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Records the deadline, start and end of every run (read them once the timer has stopped); the
// body, if any, runs in between on the timer thread. A body that throws leaves its run without an end.
struct RecordingTask : OVRA::Task {
    struct Run {
        std::int64_t deadline, start, end;
    };
    using Body = std::function<void(RecordingTask& self, std::size_t run)>;
    explicit RecordingTask(Body runBody = nullptr) : body(std::move(runBody)) {}
    void run() override {
        runs.push_back(Run{nextExecutionTime, nowNs(), 0});
        started.release();
        if (body) {
            body(*this, runs.size() - 1);
        }
        runs.back().end = nowNs();
        ended.release();
    }
    // Waits until count more runs have ended (or only started).
    bool waitForRuns(std::size_t count, bool end = true, std::chrono::seconds timeout = 10s) {
        while (count > 0 && (end ? ended : started).try_acquire_for(timeout)) {
            --count;
        }
        return count == 0;
    }
    Body body;
    std::counting_semaphore<> started{0};
    std::counting_semaphore<> ended{0};
    std::vector<Run> runs;
};

class TimerTest : public ::testing::Test {
protected:
    // Before any timer, so that the timer threads only ever see the private log word.
    vidapp::test::LogCapture log;
};

TEST_F(TimerTest, TasksWithEqualDeadlinesRunInTheOrderTheyWereScheduled) {
    // A fixed-rate deadline is the previous deadline plus the period: setting it from inside a
    // run is the one way to give several tasks the very same next deadline.
    const std::int64_t commonDeadline = nowNs() + 400 * MS;
    const auto body = [&](RecordingTask& self, std::size_t run) {
        self.nextExecutionTime = run == 0 ? commonDeadline - 20 * MS : self.nextExecutionTime;
    };
    RecordingTask tasks[] = {RecordingTask(body), RecordingTask(body), RecordingTask(body)};
    Timer timer("Equal");
    for (auto& task : tasks) {
        timer.scheduleFixedRatePeriodic(&task, 20);
    }
    ASSERT_TRUE(tasks[2].waitForRuns(2));
    timer.stopTimer();
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(tasks[i].runs[1].deadline, commonDeadline);
        EXPECT_GT(tasks[i].runs[1].start, i == 0 ? 0 : tasks[i - 1].runs[1].start) << "task " << i;
    }
}

TEST_F(TimerTest, FixedDelayCountsFromTheEndOfARunAndFixedRateFromTheDeadline) {
    constexpr std::int64_t RUNS = 16;
    const auto slowBody = [](auto&, std::size_t) { std::this_thread::sleep_for(30ms); };
    RecordingTask delayTask(slowBody);
    RecordingTask rateTask(slowBody);
    Timer timer("Periodic");
    const std::int64_t scheduled = nowNs();
    timer.scheduleFixedDelayPeriodic(&delayTask, 100);
    timer.scheduleFixedRatePeriodic(&rateTask, 100);
    ASSERT_TRUE(delayTask.waitForRuns(RUNS, true, 30s));
    ASSERT_TRUE(rateTask.waitForRuns(RUNS, true, 30s));
    timer.stopTimer();
    for (std::size_t i = 1; i < RUNS; ++i) {
        EXPECT_GE(delayTask.runs[i].start - delayTask.runs[i - 1].end, 100 * MS) << "run " << i;
        EXPECT_GE(rateTask.runs[i].start, scheduled + static_cast<std::int64_t>(i + 1) * 100 * MS) << "run " << i;
    }
    // On average: a whole run plus the delay per fixed-delay period, 100 ms per fixed-rate one.
    EXPECT_LT(delayTask.runs[RUNS - 1].start - delayTask.runs[0].start, (RUNS - 1) * 200 * MS);
    EXPECT_LT(rateTask.runs[RUNS - 1].start - rateTask.runs[0].start, (RUNS - 1) * 120 * MS);
}

TEST_F(TimerTest, AnOverrunningFixedRateTaskCatchesUpWithoutSkippingARun) {
    // Four runs of 250 ms on a 100 ms grid leave runs 5 to 11 overdue when the fourth ends.
    RecordingTask task([](auto&, std::size_t run) { std::this_thread::sleep_for(run < 4 ? 250ms : 0ms); });
    Timer timer("CatchUp");
    timer.scheduleFixedRatePeriodic(&task, 100);
    ASSERT_TRUE(task.waitForRuns(13, true, 30s));
    timer.stopTimer();
    for (std::size_t i = 1; i < 13; ++i) {
        EXPECT_EQ(task.runs[i].deadline - task.runs[i - 1].deadline, 100 * MS) << "run " << i;
        EXPECT_GE(task.runs[i].start, task.runs[i].deadline) << "run " << i;
    }
    // The backlog runs back to back: waiting a period between them would take 600 ms.
    ASSERT_LT(task.runs[9].deadline, task.runs[3].end);
    EXPECT_LT(task.runs[9].start - task.runs[3].end, 300 * MS);
}

TEST_F(TimerTest, ACancelDuringARunLetsItFinishAndStopsTheTask) {
    std::binary_semaphore release{0};
    RecordingTask task([&](auto&, std::size_t) { (void)release.try_acquire_for(10s); });
    RecordingTask marker;
    Timer timer("Cancel");
    timer.scheduleFixedRatePeriodic(&task, 20);
    ASSERT_TRUE(task.waitForRuns(1, false));
    timer.cancelTask(&task);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    release.release();
    // A rescheduled 20 ms fixed-rate task would be overdue and run before this marker.
    timer.scheduleOnce(&marker, 100);
    ASSERT_TRUE(marker.waitForRuns(1));
    timer.stopTimer();
    EXPECT_EQ(task.runs.size(), 1U);
}

TEST_F(TimerTest, SchedulingErrorsCarryTheirCodesAndTexts) {
    RecordingTask task;
    // Over 15 characters the system refuses the thread name; the timer works all the same.
    Timer timer("AVeryLongTimerName");
    expectFailure<OVRA::InvalidArgumentException>([&] { timer.schedule(OVRA::ONCE, nullptr, 0); }, 1071,
                                                  "Timer.schedule(): taskPtr is a null pointer");
    expectFailure<OVRA::InvalidArgumentException>([&] { timer.cancelTask(nullptr); }, 1071,
                                                  "cancelTask(): taskPtr is a null pointer");
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 0); }, 2600,
                                        "Timer.schedule(): task should have non-zero period");
    timer.scheduleFixedDelayPeriodic(&task, 3600'000);
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 10); }, 2601,
                                        "Timer.schedule(): Task already scheduled");
    timer.cancelTask(&task);
    timer.scheduleOnce(&task, 3600'000);
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_SCHEDULED) << "a cancelled task may be scheduled again";
    timer.stopTimer();
    EXPECT_EQ(task.taskState.load(), OVRA::TASK_CANCELLED);
    expectFailure<OVRA::TimerException>([&] { timer.scheduleOnce(&task, 10); }, 2602,
                                        "Timer.schedule(): cannot schedule tasks on stopped Timer");
}

TEST_F(TimerTest, TaskExceptionsAreLoggedAndAForgottenStopTimerIsLogged1072) {
    RecordingTask failing([](auto&, std::size_t) { throw OVRAException(77, "status task failed"); });
    RecordingTask failingStd([](auto&, std::size_t) { throw std::runtime_error("out of range"); });
    RecordingTask healthy;
    auto timer = std::make_unique<Timer>("TimerRun");
    timer->scheduleFixedRatePeriodic(&failing, 20);
    timer->scheduleOnce(&failingStd, 20);
    timer->scheduleOnce(&healthy, 60);
    ASSERT_TRUE(failing.waitForRuns(3, false));
    ASSERT_TRUE(healthy.waitForRuns(1));
    timer.reset();
    EXPECT_GE(log.countErrors(77), 3U) << log.dump();
    EXPECT_TRUE(log.contains("vidapp: Timer.run(): running task exception: status task failed")) << log.dump();
    EXPECT_EQ(log.countErrors(1045), 1U) << log.dump();
    EXPECT_TRUE(log.contains("Timer.run(): running task exception: out of range"));
    // A task that threw is treated as if it had returned.
    EXPECT_EQ(failingStd.taskState.load(), OVRA::TASK_EXECUTED);
    EXPECT_EQ(healthy.taskState.load(), OVRA::TASK_EXECUTED);
    // The destructor still stopped the timer, which cancelled the listed periodic task.
    EXPECT_EQ(log.countErrors(1072), 1U);
    EXPECT_TRUE(log.contains("~Timer 'TimerRun': stopTimer() should be called explicitly"));
    EXPECT_EQ(failing.taskState.load(), OVRA::TASK_CANCELLED);
    Timer("Stopped").stopTimer();
    EXPECT_EQ(log.countErrors(1072), 1U);
}
