// Contraction of a block density matrix with the gradient blocks of H or S into
// forces, with the factor of boosted dynamics on the boosted ions.
#pragma once

#include "model/hamiltonian_module.hpp"

namespace lyrt {

// forces(x, i) -= 2 f sum over the neighbour blocks of dm . dh(x), f = factor *
// boost on boosted ions and factor otherwise; with dm_diag and dh_aa also the
// on-site terms (without the 2).
void acum_dm_boost_r(const hamiltonian_type& ham, double factor, farray<double, 2>& forces,
                     const farray<double, 2>& dm, const farray<double, 3>& dh, double boost,
                     const farray<bool, 1>* boost_active, const farray<double, 1>* dm_diag,
                     const farray<double, 3>* dh_aa);

} // namespace lyrt
