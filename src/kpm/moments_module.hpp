// Chebyshev moments mu(n) = Tr T_n(H~), n = 0..M, of the scaled Hamiltonian held
// as H' = 2 H~, and the gradients of the moments contracted into forces.
//
// The trace is exact: it runs over all unit vectors, a chunk of kpm_block_size
// ions (their orbitals) at a time. The doubling identities
//   mu(2k) = 2 sum <t_k|t_k> - mu(0),  mu(2k+1) = 2 sum <t_k+1|t_k> - mu(1)
// with t_k = T_k(H~) e give M moments for about M/2 products.
#pragma once

#include "kpm/kpm_module.hpp"

namespace lyrt {

// The general route: any orbital counts, three rotating orbital blocks.
void calc_mu(const hamiltonian_type& h, kpm_state_type& ks);
// Models with 4, 5, 6 or 9 orbitals on every ion: the whole recurrence of a chunk
// in one array c(row, column, time) run by the unrolled kernels.
void calc_mu_new_four(const hamiltonian_type& h, kpm_state_type& ks);
void calc_mu_new_five(const hamiltonian_type& h, kpm_state_type& ks);
void calc_mu_new_six(const hamiltonian_type& h, kpm_state_type& ks);
void calc_mu_new_nine(const hamiltonian_type& h, kpm_state_type& ks);
// mu(n) = sum over the eigenvalues e of cos(n arccos((e - b) / a)), n = 0..M.
void calc_mu_exact(const kpm_state_type& ks, const farray<double, 1>& eigenvalues,
                   farray<double, 1>& mu, double a, double b);
// Rate of the last moment recurrence: floating-point operations, seconds and
// bytes it streamed (blocks of H and the three time slices of each step).
struct kpm_moment_rate_type {
    double flops = 0.0, seconds = 0.0, bytes = 0.0;
    int products = 0; // products of H' with a block of columns
};
kpm_moment_rate_type kpm_last_moment_rate();

// forces -= sum over n = 1..M of n de_dmu(n) times the contraction of U_{n-1}(H~)
// with the (scaled) gradient blocks of H: off-site blocks for the block and its
// transpose, on-site diagonals when the model has them.
void calc_dmu(const hamiltonian_type& h, farray<double, 2>& forces, const kpm_state_type& ks);

} // namespace lyrt
