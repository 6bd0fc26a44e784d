// The unconstrained orbital functional E(P) = 2 Tr[(2 I - S) H], S = P' S0 P and
// H = P' H0 P, with H0 = H - eta S0 and, with charge self-consistency, the
// charge term of the Mulliken populations: its value and gradient, its exact
// polynomial along a search line, the forces and the energies per ion.
//
// The minimum over the n_occ columns of P is reached at orthonormal orbitals
// spanning the occupied subspace, for eta between the highest occupied and the
// lowest empty level; no orthogonality constraint is imposed. All energies eV.
#pragma once

#include "model/scc_model_module.hpp"
#include "orbital/cg_state_module.hpp"

#include <vector>

namespace lyrt {

// Fills s_dm, q_dm, h_psi, h_dm, hq_psi, sh_psi and grad (= -1/2 dE/dP) for the
// present orbitals and returns the energy. With charges, q receives the net
// charges (population minus neutral count) and scc.qaux and scc.heff follow them;
// otherwise scc.heff must hold H - eta S0 (setup_heff).
double calc_gradient(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double eta,
                     farray<double, 1>& q);
// poly(1..) of the energy along P + l dir (poly(0), the energy at l = 0, is the
// caller's): a quartic, or of degree 8 with charge self-consistency.
void calc_line_poly(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double eta,
                    std::vector<double>& poly);
// The charge terms of the line polynomial, degrees 2 to 8.
void calc_line_poly_scc(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                        std::vector<double>& poly);
// The smallest positive stationary point of poly below its value at 0; 0 when
// there is none or it lies beyond 10.
void solve_line_min(const std::vector<double>& poly, std::vector<double>& extrema, double& lambda);
// The energy per ion, added to elocal; the values sum to the energy.
void calc_elocal_cg(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double eta,
                    const farray<double, 1>& q, farray<double, 1>& elocal);
// One purification step psi = 1.5 psi - 0.5 psi S.
void purify_cg_state(cg_state_type& cg, const hamiltonian_type& ham);
// Electrons of the orbitals: sum of the charges plus the neutral count, or 2 Tr[Q S].
double charge_total(const cg_state_type& cg, const scc_type& scc, const farray<double, 1>& q);
// Forces of the minimised functional (the gradient blocks must be current),
// written into forces_out (3, n_ions), eV/Angstrom; boost scales the boosted ions.
void forces_cg_min(hamiltonian_type& ham, farray<double, 2>& forces_out, cg_state_type& cg,
                   scc_type& scc, double eta, double boost, const farray<bool, 1>* boost_active);
// Frees the block density matrices kept between force calls.
void unconst_ftn_reset();

} // namespace lyrt
