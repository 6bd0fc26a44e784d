// The door through which every ion loop asks for the electronic ground state.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/box_module.hpp"

namespace lyrt {

// Ground state for the present positions: ions_state.e_pot (electronic energy,
// atoms subtracted, plus the pair energy).
void gs_calc(box_type& box, ions_state_type& ions_state, elec_state_type& elec,
             elec_algo_type& elec_algo, hamiltonian_type& ham, bool calc_elocal);
// The classical pair energy, added to e_pot.
void gs_calc_classical_energy(const box_type& box, ions_state_type& ions_state,
                              const tb_model_type& model, bool calc_elocal,
                              farray<double, 1>& e_local);

} // namespace lyrt
