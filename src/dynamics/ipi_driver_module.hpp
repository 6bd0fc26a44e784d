// The run as a persistent client of an i-PI server (driver = ipi): the set-up of
// the run (species, model, options, solver records) is made once from INLYRT,
// POSLYRT and TBPARAM; then for every cell and positions the server sends, the
// neighbour lists, the ground state, the forces and the virial are computed and
// sent back, each point starting from the solver's last state (charges, the
// block-sparse solver's inverse square root). The report lists each point; the
// data files get a line per point as in dynamics.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/box_module.hpp"

namespace lyrt {

void ions_ipi_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                   elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);

} // namespace lyrt
