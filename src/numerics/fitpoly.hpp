// Least-squares polynomials: the fit of the force and stress self-tests, with its
// evaluation and derivatives. Coefficients are in increasing degree: c[k]
// multiplies x^k.
#pragma once

#include <complex>
#include <span>
#include <vector>

namespace lyrt {

// The polynomial of the given degree closest to the points (x, y) in the least
// squares (all weights 1): its coefficients, those of its first and second
// derivative; returns the chi-square, the sum of the squared residuals.
double fitpoly(int n_points, const double* x, const double* y, int degree,
               std::vector<double>& coeffs, std::vector<double>& d1, std::vector<double>& d2);
// Horner's rule.
double evalpoly(double x, std::span<const double> c);
std::complex<double> evalpoly_c(std::complex<double> z, std::span<const double> c);
// The coefficients of the derivative (one fewer; a constant gives the empty list).
void derivatepoly(std::span<const double> c, std::vector<double>& d);
// Solves a x = b in place for m right-hand sides (columns of b, n x m, column-major;
// a is n x n) by Gauss-Jordan elimination with full pivoting; a becomes its inverse.
// Returns false for a singular matrix.
bool gaussj(std::vector<double>& a, int n, std::vector<double>& b, int m);

} // namespace lyrt
