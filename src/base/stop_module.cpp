#include "base/stop_module.hpp"

#include "base/timing_module.hpp"

#include <csignal>

namespace lyrt {

namespace {

volatile std::sig_atomic_t received = 0;
double run_start = 0.0;

extern "C" void on_stop_signal(int sig) {
    if (received != 0) {
        // Asked twice: the user means it.
        std::signal(sig, SIG_DFL);
        std::raise(sig);
        return;
    }
    received = sig;
}

} // namespace

void stop_install_handlers() {
    run_start = timeofday();
    received = 0;
    std::signal(SIGTERM, on_stop_signal);
    std::signal(SIGINT, on_stop_signal);
}

int stop_check(double now, double loop_start, int steps_done, double max_wall_time) {
    if (received != 0) return stop_by_signal;
    if (max_wall_time > 0.0 && steps_done > 0) {
        const double mean = (now - loop_start) / steps_done;
        // Without the handlers (a loop driven by a test) the loop's start stands in.
        const double start = run_start > 0.0 ? run_start : loop_start;
        if (now + mean > start + max_wall_time) return stop_by_wall_time;
    }
    return stop_none;
}

std::string stop_reason(int request) {
    if (request == stop_by_signal) {
        const char* name =
            received == SIGINT ? "SIGINT" : (received == SIGTERM ? "SIGTERM" : "a signal");
        return std::string("the run was interrupted by ") + name;
    }
    if (request == stop_by_wall_time)
        return "the run was ended by max_wall_time: the next step would pass it";
    return "";
}

} // namespace lyrt
