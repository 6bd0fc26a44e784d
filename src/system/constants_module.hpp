// Tables of constants for the kernel polynomial method.
#pragma once

#include "numerics/farray.hpp"

namespace lyrt {

constexpr int n_inv_n_pi = 10000; // bounds the number of moments

// inv_n_pi(i) = 1 / (i pi), i = 1..10000; allocated by constants_init.
extern farray<double, 1> inv_n_pi;

void constants_init();

} // namespace lyrt
