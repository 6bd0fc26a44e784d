// The electronic loop of the orbital minimiser: Polak-Ribiere conjugate gradients
// on the orbitals with an exact line search on the energy polynomial, or one
// Car-Parrinello step of the orbitals.
#pragma once

#include "base/algo_module.hpp"
#include "model/scc_model_module.hpp"
#include "orbital/cg_state_module.hpp"

namespace lyrt {

// Returns the energy (eV) of the last gradient. elec_algo.md selects the path: 1
// conjugate gradients, 0 one Car-Parrinello step (which returns no energy: 0). On
// the first step elec_algo.emass is converted to eV fs^2 / Angstrom^2, once. q
// receives the net charges of each ion with charge self-consistency.
double min_cg_wf(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                 elec_algo_type& elec_algo, bool first_step, bool calc_elocal,
                 farray<double, 1>& elocal, farray<double, 1>& q);
// Iterations of the last conjugate-gradient loop.
int min_cg_wf_iterations();

} // namespace lyrt
