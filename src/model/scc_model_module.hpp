// Charge self-consistency of Hubbard type: each ion's net charge q shifts its
// on-site energies by U q, and a double-counting term enters the energy.
#pragma once

#include "base/algo_module.hpp"
#include "base/farray.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/ions_module.hpp"

#include <vector>

namespace lyrt {

struct scc_type {
    const ions_type* ions = nullptr;
    bool used = false;            // elec_algo%scc_used
    double q_total = 0.0;         // sum of qi0: electrons of the neutral system
    farray<double, 1> qi0;        // neutral charge of each ion (valence electrons)
    farray<double, 1> qaux;       // U q of each ion, eV
    farray<double, 1> uu;         // Hubbard parameter of each ion's species, eV
    farray<double, 1> qi_1, qi_2; // population and local-energy accumulators
    farray<double, 1> qi_3, qi_4, qaux_1, qaux_2, qaux_3, qaux_4; // orbital-solver samples
    farray<double, 2> heff; // effective Hamiltonian of the orbital solver
    farray<double, 1> heff_diag;
};

// orbital_solver: the further sample arrays of the orbital minimiser are wanted.
void scc_model_init(scc_type& scc, const ions_type& ions, bool used, bool orbital_solver);
void scc_model_fine(scc_type& scc);
// qaux(i) = uu(i) q(i).
void cal_charge_aux(const scc_type& scc, const farray<double, 1>& q, farray<double, 1>& qaux);
// Double-counting energy of the charges q with the chemical potential x, eV.
double get_scc_detot(const scc_type& scc, double x, const farray<double, 1>& q);
void get_scc_deloc(const scc_type& scc, double x, const farray<double, 1>& q,
                   farray<double, 1>& e_local);
// The effective Hamiltonian of the orbital minimiser in the block layout of H:
// heff = H - eta S (setup_heff), and with the charge term of the present qaux
// (setup_scc_heff) heff = H + (0.5 (qaux(i) + qaux(j)) - eta) S for the block of
// ions i and j. The charge term is the derivative of sum_i qaux(i) N_i for the
// Mulliken populations N_i of a non-orthogonal basis; in an orthogonal model it is
// the shift qaux(i) of the on-site energies of ion i. eta in eV.
void setup_heff(const hamiltonian_type& ham, scc_type& scc, double eta);
void setup_scc_heff(const hamiltonian_type& ham, scc_type& scc, double eta);
// The gradient blocks of H (by positions or by strain) become those of the
// effective Hamiltonian of the present charges: dh_ab += (0.5 (qaux(i) +
// qaux(j)) - eta) ds_ab on every block (the own block carries the images of a
// strained cell); the charges are held fixed, as
// the energy is stationary in them at self-consistency.
void modify_dh_ab(hamiltonian_type& ham, const scc_type& scc, double eta);
// Anderson's multisecant mixing of the charges (Broyden's second method): the
// next input charges x + beta r - sum_j g_j (dx_j + beta dr_j), with r = q_out - q_in
// the residual and g the least-squares fit of r by the residual changes dr_j of
// the last passes (at most 8). Linear mixing is the case without history. Sums of
// charges are kept: every residual sums to zero.
struct scc_mixer_type {
    double beta = 0.1;
    std::vector<double> x_prev, r_prev;
    std::vector<std::vector<double>> dx, dr;
};
void scc_mixer_mix(scc_mixer_type& m, std::vector<double>& x, const std::vector<double>& r);
// The net charges of the output (populations in scc.qi_1) against those of the
// input (ions.qion), then the input of the next pass by the chosen mixer (linear,
// or the multisecant one in m), and qaux; returns the largest change.
double scc_mix_charges(ions_type& ions, scc_type& scc, const elec_algo_type& elec_algo,
                       scc_mixer_type& m);

// Hooks of a distance-dependent charge model; U stays on-site here.
void calc_gamma(scc_type& scc);
void add_forces_scc(const scc_type& scc);

} // namespace lyrt
