// The electronic state of a run: dimensions and the records of the solvers.
#pragma once

#include "base/algo_module.hpp"
#include "diag/eig_state_module.hpp"
#include "model/scc_model_module.hpp"
#include "system/kpt_module.hpp"

#include <string_view>

namespace lyrt {

struct cg_state_type;  // orbital minimiser
struct kpm_state_type; // kernel polynomial method
struct ls_state_type;  // block-sparse density matrix

struct elec_state_type {
    int n_dim = 0;     // total orbitals
    int n_states = 0;  // states kept
    double n_el = 0.0; // electrons
    double e = 0.0;    // electronic energy of the last ground state, eV (atoms subtracted)
    eig_state_type* eig = nullptr; // solver codes 2 and 3
    cg_state_type* cg = nullptr;   // solver codes 0 and 1
    scc_type* scc = nullptr;       // charge self-consistency
    kpm_state_type* kpm = nullptr; // solver code 4
    ls_state_type* ls = nullptr;   // solver code 5
    const kpt_type* kpt = nullptr;
};

void elec_state_init(elec_state_type& elec, int n_dim, int n_states, double n_el,
                     const kpt_type& kpt);
void elec_save_state(elec_state_type& elec, const elec_algo_type& elec_algo, int unit,
                     std::string_view file);
void elec_load_state(elec_state_type& elec, const elec_algo_type& elec_algo, int unit,
                     std::string_view file);

} // namespace lyrt
