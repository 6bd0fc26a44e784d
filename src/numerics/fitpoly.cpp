#include "numerics/fitpoly.hpp"

#include "base/error_module.hpp"

#include <cmath>
#include <utility>

namespace lyrt {

bool gaussj(std::vector<double>& a, int n, std::vector<double>& b, int m) {
    // Full pivoting: the normal equations of a fit at small steps are badly
    // conditioned, and the largest remaining element as pivot keeps them solvable.
    auto A = [&](int i, int j) -> double& {
        return a[static_cast<std::size_t>(i) + static_cast<std::size_t>(n) * j];
    };
    auto B = [&](int i, int j) -> double& {
        return b[static_cast<std::size_t>(i) + static_cast<std::size_t>(n) * j];
    };
    std::vector<int> indxc(static_cast<std::size_t>(n)), indxr(indxc.size()), ipiv(indxc.size(), 0);
    for (int i = 0; i < n; ++i) {
        double big = 0.0;
        int irow = -1, icol = -1;
        for (int j = 0; j < n; ++j) {
            if (ipiv[static_cast<std::size_t>(j)] == 1) continue;
            for (int k = 0; k < n; ++k)
                if (ipiv[static_cast<std::size_t>(k)] == 0 && std::fabs(A(j, k)) >= big) {
                    big = std::fabs(A(j, k));
                    irow = j;
                    icol = k;
                }
        }
        if (icol < 0 || big == 0.0) return false;
        ++ipiv[static_cast<std::size_t>(icol)];
        if (irow != icol) {
            for (int l = 0; l < n; ++l) std::swap(A(irow, l), A(icol, l));
            for (int l = 0; l < m; ++l) std::swap(B(irow, l), B(icol, l));
        }
        indxr[static_cast<std::size_t>(i)] = irow;
        indxc[static_cast<std::size_t>(i)] = icol;
        const double pivinv = 1.0 / A(icol, icol);
        A(icol, icol) = 1.0;
        for (int l = 0; l < n; ++l) A(icol, l) *= pivinv;
        for (int l = 0; l < m; ++l) B(icol, l) *= pivinv;
        for (int ll = 0; ll < n; ++ll) {
            if (ll == icol) continue;
            const double dum = A(ll, icol);
            A(ll, icol) = 0.0;
            for (int l = 0; l < n; ++l) A(ll, l) -= A(icol, l) * dum;
            for (int l = 0; l < m; ++l) B(ll, l) -= B(icol, l) * dum;
        }
    }
    for (int l = n - 1; l >= 0; --l) {
        const int r = indxr[static_cast<std::size_t>(l)], c = indxc[static_cast<std::size_t>(l)];
        if (r != c)
            for (int k = 0; k < n; ++k) std::swap(A(k, r), A(k, c));
    }
    return true;
}

double evalpoly(double x, std::span<const double> c) {
    double s = 0.0;
    for (std::size_t k = c.size(); k-- > 0;) s = s * x + c[k];
    return s;
}

std::complex<double> evalpoly_c(std::complex<double> z, std::span<const double> c) {
    std::complex<double> s = 0.0;
    for (std::size_t k = c.size(); k-- > 0;) s = s * z + c[k];
    return s;
}

void derivatepoly(std::span<const double> c, std::vector<double>& d) {
    d.assign(c.size() > 1 ? c.size() - 1 : 0, 0.0);
    for (std::size_t k = 1; k < c.size(); ++k) d[k - 1] = static_cast<double>(k) * c[k];
}

double fitpoly(int n_points, const double* x, const double* y, int degree,
               std::vector<double>& coeffs, std::vector<double>& d1, std::vector<double>& d2) {
    const int m = degree + 1;
    if (n_points < m)
        fatal_error("a fit of degree " + std::to_string(degree) + " needs " + std::to_string(m) +
                        " points or more",
                    n_points, "fitpoly", "fitpoly");
    // Normal equations over the powers of x.
    std::vector<double> a(static_cast<std::size_t>(m) * m, 0.0),
        b(static_cast<std::size_t>(m), 0.0);
    std::vector<double> powers(static_cast<std::size_t>(m));
    for (int p = 0; p < n_points; ++p) {
        double xp = 1.0;
        for (int k = 0; k < m; ++k) {
            powers[static_cast<std::size_t>(k)] = xp;
            xp *= x[p];
        }
        for (int j = 0; j < m; ++j) {
            b[static_cast<std::size_t>(j)] += y[p] * powers[static_cast<std::size_t>(j)];
            for (int k = 0; k < m; ++k)
                a[static_cast<std::size_t>(j) + static_cast<std::size_t>(m) * k] +=
                    powers[static_cast<std::size_t>(j)] * powers[static_cast<std::size_t>(k)];
        }
    }
    if (!gaussj(a, m, b, 1)) fatal_error("Singular Matrix in gaussj", m, "gaussj", "fitpoly");
    coeffs = b;
    derivatepoly(coeffs, d1);
    derivatepoly(d1, d2);
    double chi2 = 0.0;
    for (int p = 0; p < n_points; ++p) {
        const double r = y[p] - evalpoly(x[p], coeffs);
        chi2 += r * r;
    }
    return chi2;
}

} // namespace lyrt
