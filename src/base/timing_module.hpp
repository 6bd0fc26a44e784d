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

} // namespace lyrt
