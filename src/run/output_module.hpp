// What a user reads: the definition of the system at the start, the status
// report of each output step, the per-step data files, the final configuration.
#pragma once

#include "diag/electrons_module.hpp"
#include "system/box_module.hpp"

#include <string_view>

namespace lyrt {

// The definition block, from the global records of the run.
void print_system_def(int unit);
// The report after a step (and, with ions_state.final_call set, the final one).
// elec is null for a classical model.
void print_system_status(box_type& box, ions_state_type& ions_state, const i_algo_type& i_algo,
                         elec_state_type* elec, const elec_algo_type& elec_algo,
                         const tb_model_type& tb_model, int unit);
void print_ene(const ions_state_type& ions_state, const i_algo_type& i_algo,
               const elec_state_type* elec, const elec_algo_type& elec_algo,
               const tb_model_type& tb_model, int unit);
void energy_summary(const ions_state_type& ions_state, const i_algo_type& i_algo);
// The density of states of the solved structure into its data file (all processes
// take part, the master writes); a solver without levels or a band path writes none.
void save_dos_file(const box_type& box, elec_state_type* elec, const elec_algo_type& elec_algo,
                   hamiltonian_type& ham);
// Numbered copies name.001, name.002, ... of a file, the newest as .001.
void archive_file(std::string_view name, int n);

} // namespace lyrt
