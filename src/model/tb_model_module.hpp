// The tight-binding model: species and their orbitals, the parameters of every
// ordered species pair, the radial functions of the Slater-Koster integrals and
// of the pair potential, and the environment-dependent on-site energies.
//
// The parameter file is in Rydberg and Bohr; everything stored after reading is
// in eV and Angstrom.
#pragma once

#include "base/farray.hpp"
#include "model/ao_module.hpp"
#include "model/sk_module.hpp"
#include "system/atomic_type_module.hpp"
#include "system/nn_module.hpp"

#include <string_view>
#include <vector>

namespace lyrt {

struct ions_type;

// On-site polynomial of one orbital class: a + b rho^(2/3) + c rho^(4/3) + d rho^2.
struct onsite_abcd_type {
    double a = 0.0, b = 0.0, c = 0.0, d = 0.0; // eV
};

// All parameters of an ordered species pair (a, b).
struct offsite_param_type {
    ao_type ao1, ao2; // orbital sets of species a and b
    int type1 = 0, type2 = 0;
    int insul = 0; // 1: overlap with a constant term (same species, token letter 7)
    int spin = 1;
    double lambda = 0.0;  // decay of the on-site density, 1/Angstrom^(1/2) (squared in use)
    double lambda2 = 0.0; // lambda squared, 1/Angstrom
    onsite_abcd_type s, p, d_t3g, d_eg;
    sk_param_type h_a, h_b, h_c, h_d; // H: a, b (per A), c (per A^2), exponent d (per A)
    sk_param_type s_a, s_b, s_c, s_d; // S: the same, or the constant-term form with insul
    double r0 = 0.0, l0 = 0.0; // centre (5 widths inside the reach) and width of the cut-off, A
    double core_ri = 0.0, core_ro = 0.0; // inner and outer radius of the pair potential, A
    double r_cut = 0.0;                  // reach of this pair, A
};

struct tb_model_type {
    int max_no = 0;             // largest orbital count of any species
    bool non_orthogonal = true; // an overlap matrix exists
    bool pair_pot = false;      // core-repulsion pair potential in use
    bool classical = false;     // no electrons: a purely classical potential
    bool same_orbitals = false; // every species has max_no orbitals
    bool on_site_env = true;    // environment-dependent on-site terms (dh_aa kept)
    int n_species = 0;
    int n_pairs = 0;
    farray<int, 2> pair_index; // (n_species, n_species): place of an ordered pair in param
    double r_cut = 0.0;        // largest reach of all pairs, Angstrom
    std::vector<offsite_param_type> param;      // 1..n_pairs at [0..n_pairs-1]
    std::vector<atomic_type>* atomic = nullptr; // the species of the ion store
    farray<double, 1> e_atom;                   // energy of the isolated atom, eV
    bool pair_pot_used = false;                 // keyword pair_pot_used (defaults to pair_pot)
};

inline offsite_param_type& pair_param(tb_model_type& m, int a, int b) {
    return m.param[static_cast<std::size_t>(m.pair_index(a, b) - 1)];
}
inline const offsite_param_type& pair_param(const tb_model_type& m, int a, int b) {
    return m.param[static_cast<std::size_t>(m.pair_index(a, b) - 1)];
}

// ---- parameter file ---------------------------------------------------------------
// Reads the file for the species of the positions file (whose count must agree);
// species records are identified by their mass and completed from the file.
void tb_model_read_param(std::vector<atomic_type>& species, tb_model_type& tb_model,
                         std::string_view file_name, int n_species_of_ions);
void correct_units(offsite_param_type& p);
void init_model(tb_model_type& tb_model);
void tb_init_atm_energies(tb_model_type& tb_model);
void tb_model_print_param(const tb_model_type& tb_model, int unit);
void tb_model_bcast(tb_model_type& tb_model);

// ---- model functions (r in Angstrom) -----------------------------------------------
double f_cut(double r, double r0, double l);
double df_cut(double r, double r0, double l);
double f_cut_smooth(double r, double r0, double l);
double f_cut_smooth_and_d(double r, double r0, double l, double& d);
double sk_param_of_r(double a, double b, double c, double d, double r0, double l, double r);
double sk_param_of_r_insul(double delta, double a, double b, double c, double d, double r0,
                           double l, double r);
double bsk_param_of_r(double a, double b, double c, double d, double r0, double l, double r);
double pair_pot(const offsite_param_type& p, double r);
double pair_pot_derivative(const offsite_param_type& p, double r);
double sum_pair_pot(double x, double sum);
double sum_pair_pot_derivative();
// All integrals of a pair into x(14); a is the first of four records a, b, c, d.
void calc_x_ij_sk_param(double* x, const sk_param_type* a, double r0, double l, double r,
                        const ao_type& ao1, const ao_type& ao2);
void calc_x_ij_sk_param_insul(double* x, const sk_param_type* a, double r0, double l, double r,
                              const ao_type& ao1, const ao_type& ao2);
void calc_dx_ij_sk_param(double* dx, const sk_param_type* a, double r0, double l, double r,
                         const ao_type& ao1, const ao_type& ao2);
void calc_dx_ij_sk_param_insul(double* dx, const sk_param_type* a, double r0, double l, double r,
                               const ao_type& ao1, const ao_type& ao2);
void calc_h_ij_sk_param(const offsite_param_type& p, double* x, double r);
void calc_s_ij_sk_param(const offsite_param_type& p, double* x, double r);
void calc_dh_ij_sk_param(const offsite_param_type& p, double* dx, double r);
void calc_ds_ij_sk_param(const offsite_param_type& p, double* dx, double r);

// ---- on-site terms -----------------------------------------------------------------
// rho(b, i, 1): density at ion i from ions of species b (the last index is the
// spin, always 1). drho(:, b, i): derivative of rho(b, i) by the position of ion
// i; drho(:, n_species + jn, i): derivative of the density at the jn-th neighbour
// due to the species of i, by the position of i. sig_rho(c, b, i): the strain
// products u_a g v_b in the order xx, yy, zz, xy, yz, xz (minus the strain
// derivative of rho). The spin index of drho and sig_rho is left out.
void init_on_site(const tb_model_type& tb_model, const ions_type& ions, const nn_list_type& ic_list,
                  double r_cut);
void init_on_site_grad(const tb_model_type& tb_model, const ions_type& ions,
                       const nn_list_type& ic_list, double r_cut);
void calc_h_ii_sk_param(const offsite_param_type& p, double* h_diag, int i);
// The derivative of the diagonal energies: k = 0 of ion i's own by its position;
// k > 0 of those of neighbour j (entry k of i's list, possibly an image of i) by the
// position of i; k < 0 of i's own by the strain components -k (sig_rho).
void calc_dh_ii_sk_param(const offsite_param_type& p, double* dh_diag, int ld, int i, int j, int k);
void calc_on_site_density();
const farray<double, 3>& on_site_rho();
const farray<double, 3>& on_site_drho();
const farray<double, 3>& on_site_sig_rho();
void on_site_reset();

} // namespace lyrt
