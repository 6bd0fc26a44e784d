#include "base/timing_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

#include <array>
#include <ctime>
#include <sys/time.h>

namespace lyrt {

namespace {
int clock_depth = 0;
// Slots 1..100; slot depth+1 is read after a stop, so one spare slot is kept.
std::array<double, max_clocks + 2> start_user{}, start_sys{}, stop_user{}, stop_sys{};
std::array<double, n_phases + 1> phase_wall{};
} // namespace

double utime() {
    return static_cast<double>(std::clock()) / 1000000.0;
}

double timeofday() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
}

void vtime(double& user, double& sys) {
    user = static_cast<double>(std::clock()) / 1000000.0;
    sys = user;
}

void start_clock() {
    ++clock_depth;
    if (clock_depth > max_clocks) {
        write_free(error_unit, {"Cannot have more than ", max_clocks, " timers"});
        plain_stop("Cannot have more than 100 timers");
    }
    vtime(start_user[clock_depth], start_sys[clock_depth]);
}

void stop_clock() {
    if (clock_depth == 0) {
        write_free(error_unit, {"There is no clock running ..."});
        return;
    }
    vtime(stop_user[clock_depth], stop_sys[clock_depth]);
    --clock_depth;
}

double get_timing() {
    double user, sys;
    vtime(user, sys);
    const int k = clock_depth + 1;
    return user + sys - start_user[k] - start_sys[k];
}

void print_timing(int unit) {
    const int k = clock_depth + 1;
    write_free(unit, {"CPU time : ", stop_user[k] - start_user[k]});
}

void timing_reset() {
    clock_depth = 0;
    start_user.fill(0.0);
    start_sys.fill(0.0);
    stop_user.fill(0.0);
    stop_sys.fill(0.0);
}

double phase_seconds(int phase) {
    return phase >= 1 && phase <= n_phases ? phase_wall[static_cast<std::size_t>(phase)] : 0.0;
}

void phase_reset() {
    phase_wall.fill(0.0);
}

phase_timer::~phase_timer() {
    // A clock in a team of threads is read by the clock around the team.
    if (phase >= 1 && phase <= n_phases && !in_thread_team())
        phase_wall[static_cast<std::size_t>(phase)] += timeofday() - start;
}

} // namespace lyrt
