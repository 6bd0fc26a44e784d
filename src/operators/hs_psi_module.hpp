// Products of the sparse block H or S of a hamiltonian with orbital matrices.
#pragma once

#include "model/hamiltonian_module.hpp"
#include "operators/x_psi_module.hpp"

namespace lyrt {

// The layout of a hamiltonian's blocks for the kernels, over the block matrix m
// (ham.h_ab, ham.s_ab or a column of the gradient arrays).
x_psi_layout hs_layout(const hamiltonian_type& ham, const farray<double, 2>& m);
x_psi_layout hs_layout(const hamiltonian_type& ham, const farray<const double, 2>& m);

// y = M x for any block matrix of the hamiltonian's layout; y is overwritten.
void hs_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& m,
                 const farray<double, 2>& x, farray<double, 2>& y);
void hs_psi_r(const hamiltonian_type& ham, const farray<double, 2>& m, const double* x, int ldx,
              double* y, int ldy, int n_col);
void hs_psi_cheby_r(const hamiltonian_type& ham, const farray<double, 2>& m, const double* x,
                    int ldx, const double* z, int ldz, double* y, int ldy, int n_col);
// y = H x, y = S x (orbital matrices or one vector).
void h_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& x, farray<double, 2>& y);
void s_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& x, farray<double, 2>& y);
void h_psi_one(const hamiltonian_type& ham, const farray<double, 1>& x, farray<double, 1>& y);
void s_psi_one(const hamiltonian_type& ham, const farray<double, 1>& x, farray<double, 1>& y);
// y = H x - z, one step of a Chebyshev recurrence.
void h_psi_cheby_rmat(const hamiltonian_type& ham, const farray<double, 2>& x,
                      const farray<double, 2>& z, farray<double, 2>& y);
// The gradient blocks of local ion il in all three directions on the orbitals x:
// out(a, col, d) = 2 sum over the neighbour blocks of the block product.
void dh_psi_fast(const hamiltonian_type& ham, int il, const farray<double, 2>& x,
                 farray<double, 3>& out);
void ds_psi_fast(const hamiltonian_type& ham, int il, const farray<double, 2>& x,
                 farray<double, 3>& out);
// Seconds spent in the products so far.
double hs_psi_time();

} // namespace lyrt
