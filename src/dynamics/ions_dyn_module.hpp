// What a run does with the ions once the electronic system is set up.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/box_module.hpp"

namespace lyrt {

void ions_main_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                    elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
// One ground state, forces if asked for, one report.
void ions_static(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
double sum_local_energy(const ions_type& ions);

} // namespace lyrt
