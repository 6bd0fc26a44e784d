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

// The kernel polynomial forces of one chunk of local ions il_first .. il_first +
// n_chunk - 1, whose orbitals are the columns of w (leading dimension ldw, the
// columns of each ion after those of the one before): forces(x, i) -= 2 sum over
// the neighbour blocks k >= 2 of ion i of w(rows of k, columns of i) . dh(x).
void acum_dmu_dr(const hamiltonian_type& ham, const double* w, int ldw, int il_first, int n_chunk,
                 farray<double, 2>& forces);
// The on-site terms: forces(x, i) -= sum over the blocks j of ion i (its own
// included) of w_diag(orbitals of j) . dh_aa(block j of i, x).
void acum_dmu_dr_ons(const hamiltonian_type& ham, const farray<double, 1>& w_diag,
                     farray<double, 2>& forces);

} // namespace lyrt
