#include "common/Timer.h"

#include <chrono>
#include <exception>
#include <limits>
#include <pthread.h>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

namespace {

constexpr std::uint32_t NULL_ARGUMENT_ERROR = 1071;
constexpr std::uint32_t ZERO_PERIOD_ERROR = 2600;
constexpr std::uint32_t ALREADY_SCHEDULED_ERROR = 2601;
constexpr std::uint32_t STOPPED_TIMER_ERROR = 2602;
constexpr std::uint32_t GENERAL_EXCEPTION_ERROR = 1045;
constexpr std::uint32_t NOT_STOPPED_ERROR = 1072;

constexpr std::int64_t NS_PER_MS = 1'000'000;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// base + periodMs in ns; a period too long to represent puts the deadline at the end of time
// instead of wrapping into the past.
std::int64_t deadlineAfter(std::int64_t base, std::uint64_t periodMs) {
    constexpr std::int64_t LATEST = std::numeric_limits<std::int64_t>::max();
    if (periodMs > static_cast<std::uint64_t>(LATEST / NS_PER_MS)) {
        return LATEST;
    }
    const std::int64_t period = static_cast<std::int64_t>(periodMs) * NS_PER_MS;
    return base > LATEST - period ? LATEST : base + period;
}

std::chrono::system_clock::time_point toTimePoint(std::int64_t ns) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(ns)));
}

} // namespace

namespace OVRA {

Task::~Task() = default;

Timer::Timer(const std::string& timerName) : name(timerName) {
    thread = std::thread(&Timer::run, this);
}

Timer::~Timer() {
    if (!stopped.load()) {
        ovraLogImplementErrorPrintf(NOT_STOPPED_ERROR, "~Timer '%s': stopTimer() should be called explicitly",
                                    name.c_str());
        try {
            stopTimer();
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(GENERAL_EXCEPTION_ERROR, "~Timer '%s': %s", name.c_str(), e.what());
        }
    }
}

void Timer::scheduleOnce(Task* task, std::uint64_t delayMs) {
    schedule(ONCE, task, delayMs);
}

void Timer::scheduleFixedDelayPeriodic(Task* task, std::uint64_t periodMs) {
    schedule(FIXED_DELAY_PERIODIC, task, periodMs);
}

void Timer::scheduleFixedRatePeriodic(Task* task, std::uint64_t periodMs) {
    schedule(FIXED_RATE_PERIODIC, task, periodMs);
}

void Timer::schedule(TaskType_e type, Task* task, unsigned long periodMs) {
    if (task == nullptr) {
        throw InvalidArgumentException(NULL_ARGUMENT_ERROR, "Timer.schedule(): taskPtr is a null pointer");
    }
    if (periodMs == 0) {
        throw TimerException(ZERO_PERIOD_ERROR, "Timer.schedule(): task should have non-zero period");
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (stopped.load()) {
        throw TimerException(STOPPED_TIMER_ERROR, "Timer.schedule(): cannot schedule tasks on stopped Timer");
    }
    if (task->taskState.load() == TASK_SCHEDULED) {
        throw TimerException(ALREADY_SCHEDULED_ERROR, "Timer.schedule(): Task already scheduled");
    }
    task->nextExecutionTime = deadlineAfter(nowNs(), periodMs);
    task->taskState = TASK_SCHEDULED;
    task->taskType = type;
    task->periodMs = periodMs;
    insertTask(task);
    condition.notify_all();
}

void Timer::cancelTask(Task* task) {
    if (task == nullptr) {
        throw InvalidArgumentException(NULL_ARGUMENT_ERROR, "cancelTask(): taskPtr is a null pointer");
    }
    std::lock_guard<std::mutex> lock(mutex);
    removeTask(task);
    task->taskState = TASK_CANCELLED;
    condition.notify_all();
}

void Timer::stopTimer() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopped.load()) {
            return;
        }
        stopped = true;
        condition.notify_all();
    }
    if (thread.joinable()) {
        thread.join();
    }
    std::lock_guard<std::mutex> lock(mutex);
    for (Task* task : tasks) {
        task->taskState = TASK_CANCELLED;
    }
    tasks.clear();
}

void Timer::insertTask(Task* task) {
    auto position = tasks.begin();
    while (position != tasks.end() && task->nextExecutionTime >= (*position)->nextExecutionTime) {
        ++position;
    }
    tasks.insert(position, task);
    tasksChanged = true;
}

bool Timer::removeTask(Task* task) {
    for (auto position = tasks.begin(); position != tasks.end(); ++position) {
        if (*position == task) {
            tasks.erase(position);
            tasksChanged = true;
            return true;
        }
    }
    return false;
}

void Timer::reschedule(Task* task) {
    const std::int64_t base = task->taskType.load() == FIXED_RATE_PERIODIC ? task->nextExecutionTime : nowNs();
    task->nextExecutionTime = deadlineAfter(base, task->periodMs);
    task->taskState = TASK_SCHEDULED;
    insertTask(task);
}

void Timer::run() {
    (void)pthread_setname_np(pthread_self(), name.c_str());
    while (!stopped.load()) {
        try {
            serveNextTask();
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "Timer.run(): %s", e.what());
        } catch (const std::exception& e) {
            ovraLogImplementErrorPrintf(GENERAL_EXCEPTION_ERROR, "Timer.run(): general exception: %s", e.what());
        }
    }
}

void Timer::serveNextTask() {
    std::unique_lock<std::mutex> lock(mutex);
    condition.wait(lock, [this] { return stopped.load() || !tasks.empty(); });
    if (stopped.load()) {
        return;
    }
    if (tasksChanged) {
        tasksChanged = false;
        return;
    }

    Task* const task = tasks.front();
    const std::int64_t deadline = task->nextExecutionTime;
    while (true) {
        if (stopped.load()) {
            tasksChanged = false;
            return;
        }
        condition.wait_until(lock, toTimePoint(deadline));
        if (deadline <= nowNs()) {
            break;
        }
        if (tasksChanged) {
            tasksChanged = false;
            return;
        }
    }
    // The front may have been cancelled or overtaken at the very moment it fell due.
    if (tasksChanged || stopped.load()) {
        tasksChanged = false;
        return;
    }

    removeTask(task);
    task->taskState = TASK_RUNNING;
    lock.unlock();
    try {
        task->run();
    } catch (const OVRAException& e) {
        ovraLogImplementErrorPrintf(e.getCode(), "Timer.run(): running task exception: %s", e.what());
    } catch (const std::exception& e) {
        ovraLogImplementErrorPrintf(GENERAL_EXCEPTION_ERROR, "Timer.run(): running task exception: %s", e.what());
    }
    lock.lock();

    // Any other state was set during the run (cancelled, or scheduled anew) and is kept.
    if (task->taskState.load() == TASK_RUNNING) {
        if (task->taskType.load() == ONCE) {
            task->taskState = TASK_EXECUTED;
        } else {
            reschedule(task);
        }
    }
}

} // namespace OVRA
