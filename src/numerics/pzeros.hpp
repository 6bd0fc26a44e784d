// All zeros of a polynomial with complex coefficients by the simultaneous Aberth
// iteration with inclusion radii, started from circles of the upper convex hull
// of (i, log|a_i|); and the real stationary points of a real polynomial, which
// the line searches along an energy polynomial ask for.
//
// Coefficients are in increasing degree: poly[i] multiplies z^i, i = 0..n.
#pragma once

#include <complex>
#include <span>
#include <vector>

namespace lyrt {

using pz_complex = std::complex<double>;

// The zeros of sum_i poly[i] z^i (degree n, poly.size() = n + 1). eps, big and
// small are the machine's precision, largest and smallest numbers; at most
// nitmax passes. root[i], radius[i] (an inclusion radius, -1 for a root placed at
// the small or big limit), err[i] true for a root that did not converge; iter the
// passes made. apoly and apolyr are work arrays of n + 1. A zero leading or
// constant coefficient stops the run.
void polzeros(int n, std::span<const pz_complex> poly, double eps, double big, double small,
              int nitmax, std::span<pz_complex> root, std::span<double> radius, std::span<bool> err,
              int& iter, std::span<double> apoly, std::span<double> apolyr);

// Starting approximations on circles of the convex hull; nzeros counts the roots
// placed (all n unless some fall beyond big or below small).
void start(int n, std::span<const double> apoly, std::span<pz_complex> root,
           std::span<double> radius, int& nzeros, double small, double big, std::span<bool> err);

// One Newton correction corr = p(z)/p'(z) with the running error bound of the
// Horner sums; again false when |p(z)| lies within the bound (z has converged),
// and then radius is the inclusion radius n (|p| + bound) / |p'|.
void newton(int n, std::span<const pz_complex> poly, std::span<const double> apoly,
            std::span<const double> apolyr, pz_complex z, double small, double& radius,
            pz_complex& corr, bool& again);

// The Aberth correction of root j: sum over the other roots of 1 / (z_j - z_k).
void aberth(int n, int j, std::span<const pz_complex> root, pz_complex& abcorr);

// Upper convex hull of the points (i, a[i]), i = 0..n: h[i] true on the hull.
void cnvex(int n, std::span<const double> a, std::vector<bool>& h);

// The real stationary points of the real polynomial c (degree c.size() - 1 >= 2):
// the real zeros (|imaginary part| <= 1e-6) of its derivative, in the order the
// zero finder gives them. A real zero whose iteration failed stops the run.
void find_poly_extremas_iter(std::span<const double> c, std::vector<double>& x, int& n_roots);

} // namespace lyrt
