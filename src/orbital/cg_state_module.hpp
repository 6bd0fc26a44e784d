// The state of the orbital minimiser: a set of non-orthogonal occupied orbitals
// (one column each over all orbitals of the basis), the search direction and
// gradient, the small orbital-by-orbital matrices, and the algebra between them.
//
// Orbital matrices have n_dim rows, ion blocks of orbitals in the layout of the
// hamiltonian, and n_occ columns. No localisation cut is in force: every orbital
// spans all rows.
#pragma once

#include "base/farray.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/matrix_module.hpp"
#include "parallel/pdist_module.hpp"

#include <string_view>

namespace lyrt {

struct cg_state_type {
    matrix_desc_type psi_desc; // all orbital matrices
    matrix_desc_type dm_desc;  // all orbital-by-orbital matrices (n_occ x n_occ)
    farray<double, 2> psi;     // the orbitals P
    farray<double, 2> psi_old; // the orbitals before the last step
    farray<double, 2> q_psi;   // P Q
    farray<double, 2> aux_psi; // scratch, allocated when first needed
    farray<double, 2> grad;    // -1/2 dE/dP, the downhill direction
    farray<double, 2> grad_old;
    farray<double, 2> dir;                    // conjugate search direction D
    farray<double, 2> s_psi;                  // S0 P (non-orthogonal model)
    farray<double, 2> h_psi;                  // H0 P, H0 the Hamiltonian in effect
    farray<double, 2> hq_psi;                 // H0 P Q; H0 D during the line polynomial
    farray<double, 2> sh_psi;                 // S0 P h (or P h); S0 D during the line polynomial
    farray<double, 2> s_dm;                   // P' S0 P
    farray<double, 2> h_dm;                   // P' H0 P, eV
    farray<double, 2> q_dm;                   // Q = 2 I - S
    farray<double, 2> aux_dm;                 // scratch, allocated when first needed
    farray<double, 2> a_dm, b_dm, c_dm, d_dm; // line coefficients A, B, C, G
    // Orbitals of the charge terms of the line polynomial, allocated on demand.
    farray<double, 2> aux_orb_1, aux_orb_2, aux_orb_3, aux_orb_4, aux_orb_5;
    // Storage behind the descriptors: ions (rows), occupied orbitals (columns).
    int n_occ = 0;
    bool started = false; // a run's first minimisation has been done
    bool non_orthogonal = false;
    pdist_type row_pdist, col_pdist;
};

// Sets up the orbital state for n_occ occupied orbitals over the blocks of the
// hamiltonian's ions. lo_rad and nh are taken and not used (no localisation).
// start is the keyword elec_start: 1 means the orbitals will be read; any other
// value calls cg_state_init.
void cg_state_allocate(cg_state_type& cg, const hamiltonian_type& ham, int n_occ, double lo_rad,
                       int nh, int start);
void cg_state_deallocate(cg_state_type& cg);
void check_aux_orbital(cg_state_type& cg);
// Starting orbitals: 0 random, 3 one orbital per ion, 4 pairs of sp3-like columns.
void cg_state_init(cg_state_type& cg, const hamiltonian_type& ham, int start);
// The orbital file on the given unit: one direct-access record per column.
void cg_state_write(cg_state_type& cg, int unit, std::string_view file_name);
void cg_state_read(cg_state_type& cg, int unit, std::string_view file_name);

// psi_old = psi; grad, grad_old, dir = 0.
void reset_cg_state(cg_state_type& cg);
// step 0: grad_old = grad, dir = grad; step > 0: dir = grad + x dir, grad_old = grad;
// step < 0: psi_old = psi, psi = psi_old + x dir.
void update_cg_state(cg_state_type& cg, double x, int step);
// One Verlet step of the orbitals with coeff = 4 dt^2 / emass.
void update_cp_state(cg_state_type& cg, double coeff);

// ---- orbital algebra -------------------------------------------------------------
// dm = a' b; with symm 'S' or 's' dm becomes dm + dm'.
void calc_dm_ab(const cg_state_type& cg, const farray<double, 2>& a, const farray<double, 2>& b,
                farray<double, 2>& dm, char symm = ' ');
void symm_dm(farray<double, 2>& dm);
void calc_dm_aa(const cg_state_type& cg, const farray<double, 2>& a, farray<double, 2>& dm);
// Q = 2 I - S.
void calc_q_dm(const cg_state_type& cg, const farray<double, 2>& s_dm, farray<double, 2>& q_dm);
// b = a dm.
void wf_mult_dm_ab(const cg_state_type& cg, const farray<double, 2>& a, const farray<double, 2>& dm,
                   farray<double, 2>& b);
// a = a dm (through aux_psi).
void wf_mult_dm_aa(cg_state_type& cg, farray<double, 2>& a, const farray<double, 2>& dm);
// b = x (a dm) + (1 - x) a.
void wf_mult_dm_ab_xx(const cg_state_type& cg, const farray<double, 2>& a,
                      const farray<double, 2>& dm, farray<double, 2>& b, double x);
// grad = 2 (b - a).
void sum_gradient(cg_state_type& cg, const farray<double, 2>& a, const farray<double, 2>& b);
// b = X a for a block matrix X of the hamiltonian's layout.
void hs_psi_cg(const hamiltonian_type& ham, const cg_state_type& cg, const farray<double, 2>& a,
               const farray<double, 2>& x, farray<double, 2>& b);
// Sum over all elements of a(i,j) b(i,j): Tr[a b] for symmetric a and b.
double trace_abdm(const cg_state_type& cg, const farray<double, 2>& a, const farray<double, 2>& b);
double trace_dm(const cg_state_type& cg, const farray<double, 2>& a);
// q(i) = 2 sum over the orbitals o of ion i and the columns k of a(o,k) b(o,k):
// the Mulliken populations of the density 2 P Q P' with a = P Q and b = S0 P
// (non-orthogonal, flag true) or b = P.
void project_on_atom_gen(const hamiltonian_type& ham, const cg_state_type& cg, bool flag,
                         const farray<double, 2>& a, const farray<double, 2>& b,
                         farray<double, 1>& q);
void project_on_atom_orth(const hamiltonian_type& ham, const cg_state_type& cg,
                          const farray<double, 2>& a, const farray<double, 2>& b,
                          farray<double, 1>& q);
void project_on_atom_nonorth(const hamiltonian_type& ham, const cg_state_type& cg,
                             const farray<double, 2>& a, const farray<double, 2>& b,
                             farray<double, 1>& q);
// The populations of the present orbitals (q_psi and s_psi must be current).
void calc_atomic_charge(const hamiltonian_type& ham, const cg_state_type& cg, farray<double, 1>& q);
// Sum over ions of a(i) b(i).
double qsum(const cg_state_type& cg, const farray<double, 1>& a, const farray<double, 1>& b);

// The block density matrix of the orbital sets a and b in the layout of the
// gradient blocks: dh_dm(element (o, o', k), i) = sum over columns m of
// a(o', m) b(o, m), o of ion i and o' of its k-th block; dm_diag, when given,
// receives the diagonal sum over m of a(o, m) b(o, m) of every orbital.
void setup_dh_dm(const hamiltonian_type& ham, const cg_state_type& cg, const farray<double, 2>& a,
                 const farray<double, 2>& b, farray<double, 2>& dh_dm,
                 farray<double, 1>* dm_diag = nullptr);

} // namespace lyrt
