#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OVRA {

enum TaskType_e : std::uint8_t {
    FIXED_DELAY_PERIODIC = 0, // next deadline: end of the run plus the period
    FIXED_RATE_PERIODIC = 1,  // next deadline: previous deadline plus the period
    ONCE = 2,
};

enum TaskState_e : std::uint8_t {
    TASK_NEW = 0, // never scheduled
    TASK_SCHEDULED = 1,
    TASK_RUNNING = 2,
    TASK_CANCELLED = 3,
    TASK_EXECUTED = 4, // a ONCE task that ran to its end
};

// A piece of work that a Timer runs on its own thread. The object belongs to the caller and must
// outlive its time in the timer (scheduled or running): the timer keeps only a pointer.
// taskState and taskType may be read from any thread; nextExecutionTime and periodMs are written
// only under the owning timer's mutex (or by the task itself while it runs).
class Task {
public:
    Task() = default;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    virtual void run() = 0;
    virtual ~Task();

    std::atomic<TaskState_e> taskState{TASK_NEW};
    std::atomic<TaskType_e> taskType{FIXED_DELAY_PERIODIC};
    std::int64_t nextExecutionTime = 0; // ns of the system clock
    std::uint64_t periodMs = 0;
};

// Runs tasks on one dedicated thread, named after the timer, at absolute deadlines of the system
// (wall) clock: stepping the clock moves every pending deadline with it. Tasks due at the same
// nanosecond run in the order they were scheduled. schedule, cancelTask and stopTimer may be
// called from any thread, a task's own run() included (but not stopTimer, which would join the
// calling thread). Tasks run without the mutex held; an exception from a task is logged and the
// task is treated as if it had returned. The worker sleeps on a condition variable and is woken
// by every change of the list and by stopTimer.
class Timer {
public:
    // Starts the worker thread at once. A name longer than 15 characters leaves it unnamed.
    explicit Timer(const std::string& name);
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    // Logs error 1072 unless stopTimer() was called, then stops and joins.
    ~Timer();

    // Each runs the task first periodMs after the call. Errors as for schedule().
    void scheduleOnce(Task* task, std::uint64_t delayMs);
    void scheduleFixedDelayPeriodic(Task* task, std::uint64_t periodMs);
    void scheduleFixedRatePeriodic(Task* task, std::uint64_t periodMs);
    // Throws InvalidArgumentException 1071 for a null task, TimerException 2600 for a zero period,
    // 2602 once the timer is stopped and 2601 when the task is already scheduled. A running,
    // cancelled or finished task may be scheduled again.
    void schedule(TaskType_e type, Task* task, unsigned long periodMs);
    // Takes the task out of the list and marks it cancelled; a run in progress finishes and is
    // not followed by another. Throws InvalidArgumentException 1071 for a null task.
    void cancelTask(Task* task);
    // Wakes and joins the worker (waiting for a running task), then cancels every listed task.
    // Idempotent; scheduling afterwards throws 2602.
    void stopTimer();

    const std::string& getName() const { return name; }

private:
    // All four are called with mutex held.
    void insertTask(Task* task);
    bool removeTask(Task* task);
    void reschedule(Task* task);
    void run();
    // One pass of the worker loop: waits for the front task and runs it when due.
    void serveNextTask();

    std::thread thread;
    std::atomic<bool> stopped{false};
    bool tasksChanged = false; // guarded by mutex
    std::vector<Task*> tasks;  // guarded by mutex; sorted by nextExecutionTime, earliest first
    std::condition_variable condition;
    std::mutex mutex;
    const std::string name;
};

} // namespace OVRA
