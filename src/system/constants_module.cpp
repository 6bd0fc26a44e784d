#include "system/constants_module.hpp"

#include "base/allocate_module.hpp"

#include <numbers>

namespace lyrt {

farray<double, 1> inv_n_pi;

void constants_init() {
    if (!inv_n_pi.allocated())
        ca_real_1d(inv_n_pi, 1, n_inv_n_pi, "inv_n_pi", "constants_init", "constants_module");
    for (int i = 1; i <= n_inv_n_pi; ++i) inv_n_pi(i) = 1.0 / (i * std::numbers::pi);
}

} // namespace lyrt
