// Clocks: processor time, wall time, and a nesting stopwatch of up to 100 levels.
#pragma once

namespace lyrt {

constexpr int max_clocks = 100;

double utime();                        // processor seconds since the process began
double timeofday();                    // wall seconds since the epoch
void vtime(double& user, double& sys); // processor seconds, the same value twice

void start_clock();
void stop_clock();
double get_timing();         // user + system now minus the start of the clock stopped last
void print_timing(int unit); // "CPU time : " of the clock stopped last
void timing_reset();

// Wall-clock seconds of the phases of an energy and force evaluation, summed over
// the calls since the last reset. The `timings` file keeps processor times (which
// sum over threads); these are read by the benchmark to set each phase against
// the eigensolver in wall time.
constexpr int phase_assembly = 1;  // H and S: the blocks and the dense matrices
constexpr int phase_eigen = 2;     // the eigensolver
constexpr int phase_gradients = 3; // the gradient blocks of H and S
constexpr int phase_density = 4;   // the density matrices of the forces
constexpr int phase_contract = 5;  // their contraction with the gradient blocks
constexpr int n_phases = 5;

double phase_seconds(int phase);
void phase_reset();

// Adds the wall time from its construction to its end to one phase.
struct phase_timer {
    int phase;
    double start;
    explicit phase_timer(int p) : phase(p), start(timeofday()) {}
    ~phase_timer();
    phase_timer(const phase_timer&) = delete;
    phase_timer& operator=(const phase_timer&) = delete;
};

} // namespace lyrt
