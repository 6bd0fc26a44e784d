// What an operator built on orthonormal vectors needs on a non-orthogonal basis:
// the Cholesky factor U of the overlap, S = U' U, and the change of basis x :=
// S^-1 x with it.
#pragma once

#include "model/hamiltonian_module.hpp"

namespace lyrt {

// Dense S of the hamiltonian into ham.u_ab, factored in place (upper triangle);
// the unit matrix for an orthogonal model.
void decompose_s(hamiltonian_type& ham);
// <x|S|y> of two vectors; the sum over the columns of two orbital matrices.
double overlap(const hamiltonian_type& ham, const farray<double, 1>& x, const farray<double, 1>& y);
double overlap_all(const hamiltonian_type& ham, const farray<double, 2>& x,
                   const farray<double, 2>& y);
// x := S^-1 x, for one vector or all columns.
void change_basis(const hamiltonian_type& ham, farray<double, 1>& x);
void change_basis_all(const hamiltonian_type& ham, farray<double, 2>& x);
// Compares the two forms on random data and prints the largest difference; returns it.
double test_change_basis(const hamiltonian_type& ham, int unit);

} // namespace lyrt
