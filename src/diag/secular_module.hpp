// The outer electronic loop of diagonalisation: dense H and S, eigenstates,
// occupations and energies, charges and local energies, and the mixing of the
// charges while self-consistency is on.
#pragma once

#include "base/algo_module.hpp"
#include "diag/eig_state_module.hpp"

namespace lyrt {

// hs_mode 'c': dense blocks straight from the atoms; any other: the sparse
// Hamiltonian, expanded. jobz 'v': eigenvectors wanted.
void solve_secular_eqn(hamiltonian_type& ham, ions_type& ions, const box_type& box,
                       eig_state_type& eig, scc_type& scc, const elec_algo_type& elec_algo,
                       char hs_mode, char jobz, bool calc_elocal, farray<double, 1>& elocal);

// Passes of the last call, and whether its charges met both tolerances.
int solve_secular_eqn_passes();
bool solve_secular_eqn_converged();

} // namespace lyrt
