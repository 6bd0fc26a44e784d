// The orbital minimiser as a run reaches it: the gap of the first step sets eta when
// the input gives none, the orbitals of the last step start the next, and a
// minimisation that runs away stops the run instead of reporting a wrong energy.
#pragma once

#include "base/algo_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/scc_model_module.hpp"
#include "orbital/cg_state_module.hpp"
#include "system/ions_module.hpp"

namespace lyrt {

// The levels of the present H (and S) by dense diagonalisation, ascending, eV.
std::vector<double> orbital_dense_levels(const hamiltonian_type& ham);

// eta for the first minimisation: in the middle of the gap between level n_occ and
// n_occ + 1 of `levels` when the input gave none, the input's value otherwise (a
// warning when it lies outside the gap). A spectrum without a gap is refused.
double orbital_place_eta(const std::vector<double>& levels, int n_occ, const elec_algo_type& ea);

// The ground state of the present positions by conjugate gradients on the orbitals
// (H already built): returns the band energy with the free-atom energies, as the
// minimiser gives it; the net charges go to ions.qion with charges on.
// With code 0 after the first (minimised) step, one Car-Parrinello step of the
// orbitals instead: the energy of the moved orbitals, and their fictitious kinetic
// energy in e_fict (0 otherwise).
double orbital_ground_state(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                            elec_algo_type& elec_algo, ions_type& ions, bool calc_elocal,
                            double& e_fict);

} // namespace lyrt
