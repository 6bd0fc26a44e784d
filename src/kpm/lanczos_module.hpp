// Extreme eigenvalues of the sparse tight-binding Hamiltonian, and the scaling of
// the Hamiltonian and of its gradient blocks into the interval of the Chebyshev
// expansion.
//
// The bounds come from a conjugate-gradient minimisation of the Rayleigh quotient
// (the lowest eigenvalue of H, then of -H); a Lanczos tridiagonalisation stands
// beside it. Scaling stores H' = 2 (H - b) / a, twice the Chebyshev variable, so
// that one product and one subtraction make a recurrence step.
#pragma once

#include "model/hamiltonian_module.hpp"

namespace lyrt {

// Both extreme eigenvalues of h_factor times the stored H (n_iter: iteration
// limit of each search). The Hamiltonian is left bit for bit as it was.
void find_energy_bounds(hamiltonian_type& h, int n_iter, double& e_min, double& e_max,
                        double h_factor);
// Lowest eigenvalue of h_factor times the stored H; n_iter in: the limit, out: the
// iterations used.
double find_energy_bounds_cg(const hamiltonian_type& h, int& n_iter, double h_factor);
// Lanczos with the eigenvalues of the tridiagonal matrix (dsterf); Krylov dimension
// min(max(n_iter, 10), n).
void find_energy_bounds_lan(const hamiltonian_type& h, int n_iter, double& e_min, double& e_max);

// a = 1.1 (e_max - e_min) / 2, b = (e_min + e_max) / 2. h_bar: subtract b S instead
// of b from the diagonal (a non-orthogonal model).
void scale_h_ab(hamiltonian_type& h, double e_min, double e_max, double& a, double& b, bool h_bar);
void rescale_h_ab(hamiltonian_type& h, double a, double b, bool h_bar);
// Gradient blocks of (H - b S) / a: off-site blocks and on-site diagonals alike.
void scale_dh_ab(hamiltonian_type& h, double e_min, double e_max, double& a, double& b, bool h_bar);
void rescale_dh_ab(hamiltonian_type& h, double a, double b, bool h_bar);

// Minimises (num0 + num1 l + num2 l^2) / (den0 + den1 l + den2 l^2) over l, starting
// from lambda; eps_of_x is that ratio with the coefficients of the last line_min.
void line_min(const double num[3], const double den[3], double& lambda);
double eps_of_x(double x);

} // namespace lyrt
