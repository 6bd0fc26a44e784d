// Requests to end a run early, at the end of the ionic step in progress: SIGTERM
// or SIGINT (what a batch system sends before it kills a job, or Ctrl-C), or the
// wall-time limit of the run. The run then ends as after its last step, with the
// final report, POSCONT and the timing lines, and a non-zero exit status.
#pragma once

#include <string>

namespace lyrt {

constexpr int stop_none = 0;
constexpr int stop_by_signal = 1;    // SIGTERM or SIGINT arrived
constexpr int stop_by_wall_time = 2; // the next step would pass max_wall_time

// Exit status of a run that ended early at a step boundary (a fatal stop is 1).
constexpr int exit_interrupted = 2;

// Installs the handlers and takes the run's start time. A second signal while the
// first is still pending ends the process at once, as without the handlers.
void stop_install_handlers();

// Whether the run must end now, after steps_done steps of a loop that began at
// loop_start (wall seconds): a signal arrived, or the start of the run plus
// max_wall_time (seconds; not above 0: no limit) comes before the end of one more
// step of the mean length so far.
int stop_check(double now, double loop_start, int steps_done, double max_wall_time);

// The sentence that says why the run ended early.
std::string stop_reason(int request);

} // namespace lyrt
