// Uniform and Gaussian random numbers: one stream per run, the universal
// generator of Marsaglia and Zaman in its RANMAR form.
#pragma once

#include "base/farray.hpp"

#include <optional>
#include <span>

namespace lyrt {

// Restarts the stream. Absent seeds come from the clock; legal seeds are
// 0..31328 and 0..30081.
void init_random(std::optional<int> seed_1 = std::nullopt,
                 std::optional<int> seed_2 = std::nullopt);
double random(); // uniform in [0, 1); starts from seeds 1802, 9373 if needed
void random_vec(std::span<double> v);
void random_mat(farray<double, 2>& m);
double random_norm(); // Gaussian, mean 0, variance 1 (polar method)
void random_pair(double& x, double& y, double sigma_x, double sigma_y, double c_xy);
void random_reset(); // back to the state before any init_random
// The whole state of the stream as numbers (a restart file carries them, so that a
// continued run draws what the uninterrupted one would have drawn), and back.
constexpr int random_state_size = 104;
void random_get_state(std::span<double> state);
void random_set_state(std::span<const double> state);

} // namespace lyrt
