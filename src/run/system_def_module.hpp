// The global records of a run. The main program fills them once, in the fixed
// order of the run sequence, and hands them to every unit as arguments.
#pragma once

#include "diag/electrons_module.hpp"
#include "kpm/kpm_module.hpp"
#include "linear/ls_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/tb_model_module.hpp"
#include "orbital/cg_state_module.hpp"
#include "parallel/pdist_module.hpp"
#include "run/input_module.hpp"
#include "system/box_module.hpp"
#include "system/kpt_module.hpp"

#include <string>

namespace lyrt {

// The global records of the run, in one record so that a routine's own
// arguments of the same names never hide them.
struct system_def_type {
    ions_type* ions = nullptr; // the ion store of the box, bound in init_system_ions
    box_type box;              // cell, cut-off, ions, image cells and sub-boxes
    ions_state_type ions_state;
    elec_state_type* elec_state = nullptr; // set by init_system_elec (none for a classical model)
    elec_state_type elec_state_record;     // what elec_state points to
    tb_model_type tb_model;
    hamiltonian_type ham;
    eig_state_type eig_state;
    kpm_state_type kpm_state;
    ls_state_type ls_state;
    cg_state_type cg_state;
    scc_type scc;
    kpt_type kpt;
    int n_states = 0;        // electronic states
    int n_basis = 0;         // basis functions
    int n_h_dup = 1;         // Hamiltonian duplication factor
    pdist_type ions_pdist;   // distribution of the ions (blocks)
    pdist_type states_pdist; // distribution of the electronic states
    elec_algo_type elec_algo;
    i_algo_type i_algo;
    std::string system_name;  // keyword system_name, 80 characters
    double n_electrons = 0.0; // keyword n_electrons, completed with the electrons
};
extern system_def_type sys;

// The whole set-up of a run from the files of the working folder: positions
// (POSLYRT) and the model (TBPARAM) before the keywords (INLYRT), whose defaults
// come from the model; then the ions, the k-points (KPTS) and the electrons.
void init_system();
// The ionic side of a ready system: pointers, random numbers, box, ion
// distribution, starting state of the ions and neighbour lists.
void init_system_ions();
// The electronic side: hamiltonian, electron count and states, solver records.
void init_system_elec();
// Basis functions, electrons and states from the ions, the model and the keywords.
void init_elec_dim(const ions_type& ions, const kpt_type& kpt, const tb_model_type& tb_model,
                   int& n_basis, int& n_states, double& n_electrons);

} // namespace lyrt
