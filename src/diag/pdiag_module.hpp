// The dense path over several processes: H and S block-cyclic on a BLACS grid,
// the generalized eigenproblem of the needed states by ELPA's one-stage solver
// (ScaLAPACK's pdsygvx / pdsyevx the fallback), and what the run takes from the
// distributed eigenvectors: the density-matrix blocks of the forces, the stress
// and the Mulliken projections, each by local contraction and a global sum.
//
// The block Hamiltonian is held whole on every process (its assembly is linear in
// the ion count); the eigenvalues come back to every process, so occupations,
// Fermi level and band energy are formed everywhere alike. A run on one process
// (or a build without LYRT_MPI) never comes here.
#pragma once

#include "diag/eig_state_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/scc_model_module.hpp"

namespace lyrt {

// true when eig's dense matrices are distributed over the processes.
inline bool eig_distributed(const eig_state_type& eig) {
    return eig.d.ctxt >= 0;
}

// Sets up the grid, the descriptors and the local pieces of H, S (non-orthogonal)
// and the eigenvectors when the run has two processes or more; otherwise nothing.
void pdiag_setup(eig_state_type& eig, int n_dim, bool non_orth);

// The local pieces of H (with the charge terms when scc is given) and S from the
// blocks of ham.
void get_hs_ij_dist(const hamiltonian_type& ham, eig_state_type& eig, const scc_type* scc);

// Solves for the lowest n_wanted states: eigenvalues into eig.ework(1..n_wanted) on
// every process, eigenvectors (vectors true) into eig.z_loc. The local H and S
// are destroyed.
void pdiag_solve(eig_state_type& eig, bool non_orth, bool vectors, int n_wanted);

// The solver that pdiag_solve uses: 0 ELPA (falling back to ScaLAPACK when ELPA
// refuses), 1 ScaLAPACK alone. Returns the solver of the last solve.
void pdiag_set_solver(int code);
int pdiag_last_solver();
constexpr int pdiag_elpa = 0, pdiag_scalapack = 1;

// dm(block) = sum_j w(j) z(a, j) z(b, j) over the first n_w states, in the layout of
// ham's blocks, and dm_diag(r) the diagonal, on every process.
void setup_dh_dm_dist(const hamiltonian_type& ham, const eig_state_type& eig, const double* w,
                      int n_w, farray<double, 2>& dm, farray<double, 1>* dm_diag);

// S z of the solved states into eig.sz_loc (non-orthogonal model), once per solve,
// for the projections below.
void pdiag_form_s_z(const hamiltonian_type& ham, eig_state_type& eig);

// out(a) += sum_j w(j) sum over the orbitals mu of ion a of z(mu, j) (S z)(mu, j): the
// Mulliken projection of the weighted states on each ion.
void eig_calc_local_proj_dist(const hamiltonian_type& ham, const eig_state_type& eig,
                              const farray<double, 1>& w, farray<double, 1>& out);

// Column j of the eigenvectors, whole, on process 0 (col must hold n_dim reals there).
void eig_gather_column(const eig_state_type& eig, int j, double* col);

} // namespace lyrt
