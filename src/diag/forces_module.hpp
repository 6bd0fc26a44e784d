// Forces (and stress) for the present ground state, whatever the solver.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/box_module.hpp"

#include <optional>

namespace lyrt {

void forces_calc(hamiltonian_type& ham, ions_type& ions, box_type& box, const i_algo_type& i_algo,
                 elec_state_type& elec, const elec_algo_type& elec_algo,
                 std::optional<double> fboost = std::nullopt);
// Pair forces added to ions.f; with sig, the pair stress sum (before the volume).
void calc_classical_forces(const box_type& box, ions_type& ions, const tb_model_type& model,
                           farray<double, 2>* sig = nullptr);
void calc_classical_stress(const box_type& box, const ions_type& ions, const tb_model_type& model,
                           farray<double, 2>& sig);
void print_ionic_forces(const ions_type& ions, int unit);

} // namespace lyrt
