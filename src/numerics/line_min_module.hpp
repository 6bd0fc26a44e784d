// Minima of low-degree polynomials fitted through a few points of a function
// along a search line: the ionic relaxation takes the parabola through two
// values and a slope, the orbital minimiser the stationary points of its quartic.
// Coefficients are in increasing degree, c[k] for x^k.
#pragma once

#include <array>
#include <span>
#include <vector>

namespace lyrt {

// Parabola through f(x1), f(x2) and the slope df1 at x1; its stationary point
// (the maximum when the parabola opens downwards: no test is made).
void min_quadratic_two_pts(double x1, double x2, double f1, double f2, double df1, double& x_min,
                           double& f_min, std::array<double, 3>& c);
// Parabola through three values.
void min_quadratic_three_pts(double x1, double x2, double x3, double f1, double f2, double f3,
                             double& x_min, double& f_min, std::array<double, 3>& c);
// Cubics through two values and two slopes, three values and a slope, four values.
// error 1 when the cubic has no extremum (the data are written to the error unit);
// x_min is left as it came when neither extremum is a minimum.
void min_cubic_two_pts(double x1, double x2, double f1, double f2, double df1, double df2,
                       double& x_min, double& f_min, std::array<double, 4>& c, int& error);
void min_cubic_three_pts(double x1, double x2, double x3, double f1, double f2, double f3,
                         double df1, double& x_min, double& f_min, std::array<double, 4>& c,
                         int& error);
void min_cubic_four_pts(double x1, double x2, double x3, double x4, double f1, double f2, double f3,
                        double f4, double& x_min, double& f_min, std::array<double, 4>& c,
                        int& error);

double poly(double x, std::span<const double> c);     // value, by Horner
double poly_der(double x, std::span<const double> c); // first derivative, by Horner
void poly_and_der(double x, std::span<const double> c, double& f, double& df);

// Stationary points of a quartic in closed form (kept beside the iterative finder).
void find_poly_extremas_ana(std::span<const double> c, std::vector<double>& x, int& n_roots);

} // namespace lyrt
