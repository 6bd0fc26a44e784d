// Small numerical and system utilities shared by all units. The keyword reader
// get_keyword lives with the lexical library (base/dlexlib).
//
// Arrays are 1-based in the routines' descriptions; spans hold element 1 at [0].
// 3x3 matrices are nine doubles in column-major order: m(i,j) = m[(i-1) + 3(j-1)].
#pragma once

#include "base/allocate_module.hpp"
#include "base/dlexlib.hpp"

#include <cmath>
#include <span>
#include <string>
#include <string_view>

namespace lyrt {

// Thresholds written as single-precision literals (1e-6 as a float is not 1e-6).
constexpr double single_0_1 = 0.10000000149011612;
constexpr double single_0_6 = 0.6000000238418579;
constexpr double single_1e_6 = 9.999999974752427e-07;
constexpr double single_1e_8 = 9.99999993922529e-09;
constexpr double single_1e_10 = 1.000000013351432e-10;

int iscan(int value, std::span<const int> list); // 1-based position or -1
void ucase(std::string& s);
void lcase(std::string& s);

// ---- sorting ------------------------------------------------------------------

// Heap sorts of integers, ascending, in place; at least two elements.
// rsort's index receives the start position (1-based) of each sorted element.
void isort(std::span<int> a);
void rsort(std::span<int> a, std::span<int> index = {});

// ---- small matrices -----------------------------------------------------------

void cross_product(double* c, const double* a, const double* b);
double abs_vector(const double* v);
double det_2by2_val(double a, double b, double c, double d);
double det_2by2(const double* m);
double det_3by3(const double* m);
void inverse_matrix_3by3(double* inv, const double* m);

// ---- splines ------------------------------------------------------------------

// An end derivative at or above this value gives a natural end (the
// single-precision value of 0.99e30).
constexpr double spline_natural = 9.900000073412052e+29;

void spline(std::span<const double> x, std::span<const double> y, double yp1, double ypn,
            std::span<double> y2, double* y_min = nullptr, double* y_max = nullptr);
void splint(std::span<const double> xa, std::span<const double> ya, std::span<const double> y2a,
            double x, double& y);
void splintd(std::span<const double> xa, std::span<const double> ya, std::span<const double> y2a,
             double x, double& y, double& dy);

// ---- one-dimensional minimisation ---------------------------------------------

// Brackets a minimum of func, searching downhill from a to b; a and b may swap.
template <class F>
void mnbrak(double& ax, double& bx, double& cx, double& fa, double& fb, double& fc, F&& func) {
    const double gold = 1.618034, glimit = 100.0, tiny = 1e-20;
    fa = func(ax);
    fb = func(bx);
    if (fa < fb) {
        std::swap(ax, bx);
        std::swap(fa, fb);
    }
    cx = bx + gold * (bx - ax);
    fc = func(cx);
    while (fb >= fc) {
        const double r = (bx - ax) * (fb - fc);
        const double q = (bx - cx) * (fb - fa);
        const double den = std::copysign(std::max(std::fabs(q - r), tiny), q - r);
        double u = bx - ((bx - cx) * q - (bx - ax) * r) / (2.0 * den);
        const double ulim = bx + glimit * (cx - bx);
        double fu;
        if ((bx - u) * (u - cx) > 0.0) {
            fu = func(u);
            if (fu < fc) {
                ax = bx;
                fa = fb;
                bx = u;
                fb = fu;
                continue;
            }
            if (fu > fb) {
                cx = u;
                fc = fu;
                continue;
            }
            u = cx + gold * (cx - bx);
            fu = func(u);
        } else if ((cx - u) * (u - ulim) > 0.0) {
            fu = func(u);
            if (fu < fc) {
                bx = cx;
                cx = u;
                u = cx + gold * (cx - bx);
                fb = fc;
                fc = fu;
                fu = func(u);
            }
        } else if ((u - ulim) * (ulim - cx) >= 0.0) {
            u = ulim;
            fu = func(u);
        } else {
            u = cx + gold * (cx - bx);
            fu = func(u);
        }
        ax = bx;
        bx = cx;
        cx = u;
        fa = fb;
        fb = fc;
        fc = fu;
    }
}

// Golden section search in the bracket (ax, bx, cx); returns the minimum value
// and its place in xmin. tol is relative to the abscissas.
template <class F>
double golden(double ax, double bx, double cx, F&& func, double tol, double& xmin) {
    const double r = 0.61803399, c = 0.38196602;
    double x0 = ax, x3 = cx, x1, x2;
    if (std::fabs(bx - ax) >= std::fabs(cx - bx)) {
        x2 = bx;
        x1 = bx - c * (bx - ax);
    } else {
        x1 = bx;
        x2 = bx + c * (cx - bx);
    }
    double f1 = func(x1);
    double f2 = func(x2);
    while (std::fabs(x3 - x0) > tol * (std::fabs(x1) + std::fabs(x2))) {
        if (f1 > f2) {
            x0 = x1;
            x1 = x2;
            x2 = r * x2 + c * x3;
            f1 = f2;
            f2 = func(x2);
        } else {
            x3 = x2;
            x2 = x1;
            x1 = r * x1 + c * x0;
            f2 = f1;
            f1 = func(x1);
        }
    }
    if (f2 > f1) {
        xmin = x1;
        return f1;
    }
    xmin = x2;
    return f2;
}

// Free memory in kilobytes, probed by the largest block (below about 1 GB) that
// can be allocated, in steps of 1,024,000 bytes.
int free_mem();

} // namespace lyrt
