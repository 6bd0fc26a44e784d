// The global records of a run. The main program fills them once, in the fixed
// order of the run sequence, and hands them to every unit as arguments.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/tb_model_module.hpp"
#include "parallel/pdist_module.hpp"
#include "run/input_module.hpp"
#include "system/box_module.hpp"
#include "system/kpt_module.hpp"

#include <string>

namespace lyrt {

extern ions_type* ions; // the ion store of the box, bound in init_system_ions
extern box_type box;    // cell, cut-off, ions, image cells and sub-boxes
extern ions_state_type ions_state;
extern elec_state_type* elec_state; // set by init_system_elec (none for a classical model)
extern tb_model_type tb_model;
extern hamiltonian_type ham;
extern eig_state_type eig_state;
extern scc_type scc;
extern kpt_type kpt;
extern int n_states;            // electronic states
extern int n_basis;             // basis functions
extern int n_h_dup;             // Hamiltonian duplication factor
extern pdist_type ions_pdist;   // distribution of the ions (blocks)
extern pdist_type states_pdist; // distribution of the electronic states
extern elec_algo_type elec_algo;
extern i_algo_type i_algo;
extern std::string system_name; // keyword system_name, 80 characters
extern double n_electrons;      // keyword n_electrons, completed with the electrons

// The ionic side of a ready system: pointers, random numbers, box, ion
// distribution, starting state of the ions and neighbour lists.
void init_system_ions();
// The electronic side: hamiltonian, electron count and states, solver records.
void init_system_elec();
// Basis functions, electrons and states from the ions, the model and the keywords.
void init_elec_dim(const ions_type& ions, const kpt_type& kpt, const tb_model_type& tb_model,
                   int& n_basis, int& n_states, double& n_electrons);

} // namespace lyrt
