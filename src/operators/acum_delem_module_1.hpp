// Contractions of the states with gradient blocks in strain mode: three
// components of the stress at a time.
#pragma once

#include "model/hamiltonian_module.hpp"

namespace lyrt {

// sig3[d] += sum over states s of w[s] times
//   sum over ions i, orbitals a of i: dh_aa(a, i, d) psi(a, s)^2          (on-site, when given)
//   + factor * sum over the blocks (i, j) of psi(a of i, s) dh(a, b, d) psi(b of j, s).
// psi_t is psi transposed (states fastest: n_states x n_dim), w the weights of the
// states. Uniform models of 4, 5, 6 or 9 orbitals per ion take unrolled kernels.
void stress_diag_r(const hamiltonian_type& ham, const farray<double, 2>& psi_t, const double* w,
                   const farray<double, 3>& dh, const farray<double, 3>* dh_aa, double factor,
                   double* sig3);
// The same with the general loop alone (the reference of the kernels).
void stress_diag_r_general(const hamiltonian_type& ham, const farray<double, 2>& psi_t,
                           const double* w, const farray<double, 3>& dh,
                           const farray<double, 3>* dh_aa, double factor, double* sig3);

// The same three components from a density matrix already in the layout of the
// blocks (dm, with its diagonal dm_diag for the on-site gradients dh_aa):
// sig3(d) += sum over blocks of dh(., d) dm, plus the on-site part.
void stress_dm_r(const hamiltonian_type& ham, const farray<double, 2>& dm,
                 const farray<double, 1>* dm_diag, const farray<double, 3>& dh,
                 const farray<double, 3>* dh_aa, double* sig3);

// out(i) += factor times the Mulliken projection on ion i of a block density matrix
// dm (the layout of ham's blocks): the trace of its blocks with the overlap blocks,
// or the diagonal of the ion's own block in an orthogonal model.
void local_proj_dm_r(const hamiltonian_type& ham, const farray<double, 2>& dm, double factor,
                     farray<double, 1>& out);

} // namespace lyrt
