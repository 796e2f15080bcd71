#pragma once

#include <atomic>

namespace OVRA {

// The CPU profiler switched by an operator through the debug flag word: the profiler-start command
// starts a run writing "tmp/profile_app_video_interface_<local time>.log" under the working
// directory (creating "tmp" when missing), the profiler-stop command ends it. Starting clears a
// stale stop command and stopping clears the start command, so each run needs a fresh start.
//
// profile() is the body of the process's "profile" thread: it checks the commands once a second
// until stopProfile() is called from another thread (the wait is interrupted at once) and ends a
// run still under way before it returns. profilePass() is one such check. Only one thread may run
// profile() or profilePass() at a time.

// True while no profiling run is under way.
extern std::atomic<bool> isProfile;

void profile();
// Asks profile() to return; a request made before profile() runs ends its first wait at once. The
// request is used up when profile() returns.
void stopProfile();
// One pass of the checks on one reading of the word: start a run on the start command while idle,
// then end it on the stop command while one is under way.
void profilePass();
} // namespace OVRA
