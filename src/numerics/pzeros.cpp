#include "numerics/pzeros.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/utility_module.hpp"

#include <cmath>
#include <numbers>

namespace lyrt {

namespace {

constexpr double growth = 3.799999952316284; // running-error growth per Horner step
constexpr double sigma_shift = 0.699999988079071;

// Cross product of (b - a) and (c - a) for the points (i, y[i]): positive when
// the path a -> b -> c turns left.
double turn(int ia, int ib, int ic, std::span<const double> y) {
    return (ib - ia) * (y[static_cast<std::size_t>(ic)] - y[static_cast<std::size_t>(ia)]) -
           (ic - ia) * (y[static_cast<std::size_t>(ib)] - y[static_cast<std::size_t>(ia)]);
}

} // namespace

void cnvex(int n, std::span<const double> a, std::vector<bool>& h) {
    // Monotone chain: a point stays on the upper hull while the path turns right.
    h.assign(static_cast<std::size_t>(n) + 1, false);
    std::vector<int> hull;
    for (int i = 0; i <= n; ++i) {
        while (hull.size() >= 2 && turn(hull[hull.size() - 2], hull.back(), i, a) >= 0.0)
            hull.pop_back();
        hull.push_back(i);
    }
    for (int i : hull) h[static_cast<std::size_t>(i)] = true;
}

void start(int n, std::span<const double> apoly, std::span<pz_complex> root,
           std::span<double> radius, int& nzeros, double small, double big, std::span<bool> err) {
    const double xsmall = std::log(small), xbig = std::log(big);
    std::vector<double> a(static_cast<std::size_t>(n) + 1);
    for (int i = 0; i <= n; ++i) {
        const double m = apoly[static_cast<std::size_t>(i)];
        a[static_cast<std::size_t>(i)] = m != 0.0 ? std::log(m) : -1e30;
    }
    std::vector<bool> h;
    cnvex(n, a, h);
    const double pi2 = 2.0 * std::numbers::pi;
    const double th = pi2 / n;
    nzeros = 0;
    for (std::size_t k = 0; k < radius.size(); ++k) radius[k] = 0.0;
    for (std::size_t k = 0; k < err.size(); ++k) err[k] = true;
    int iold = 0;
    for (int i = 1; i <= n; ++i) {
        if (!h[static_cast<std::size_t>(i)]) continue;
        // Roots iold+1 .. i lie on a circle of modulus (|a_iold| / |a_i|)^(1 / (i - iold)).
        const int count = i - iold;
        const double temp =
            (a[static_cast<std::size_t>(iold)] - a[static_cast<std::size_t>(i)]) / count;
        double r = 0.0;
        bool placed = false;
        if (temp < xsmall) {
            r = 0.0;
            placed = true;
        } else if (temp > xbig) {
            r = big;
            placed = true;
        } else {
            r = std::exp(temp);
        }
        const double ang = pi2 / count;
        for (int j = 1; j <= count; ++j) {
            const auto jj = static_cast<std::size_t>(iold + j - 1);
            const double phase = ang * j + th * i + sigma_shift;
            root[jj] = pz_complex(r * std::cos(phase), r * std::sin(phase));
            if (placed) {
                radius[jj] = -1.0;
                err[jj] = false;
                ++nzeros;
            }
        }
        iold = i;
    }
}

void newton(int n, std::span<const pz_complex> poly, std::span<const double> apoly,
            std::span<const double> apolyr, pz_complex z, double small, double& radius,
            pz_complex& corr, bool& again) {
    const auto at = [](auto s, int i) { return s[static_cast<std::size_t>(i)]; };
    const double az = std::abs(z);
    if (az <= 1.0) {
        // Horner on p(z) with its error bound.
        pz_complex p = at(poly, n), dp = p;
        double absp = at(apoly, n);
        for (int i = n - 1; i >= 1; --i) {
            p = p * z + at(poly, i);
            dp = dp * z + p;
            absp = absp * az + at(apoly, i);
        }
        p = p * z + at(poly, 0);
        absp = absp * az + at(apoly, 0);
        again = std::abs(p) > absp;
        const double adp = std::abs(dp);
        if (!again) {
            radius = adp > small ? n * (std::abs(p) + absp) / adp : radius;
            corr = 0.0;
            return;
        }
        corr = adp > small ? p / dp : pz_complex(0.0, 0.0);
        return;
    }
    // |z| > 1: Horner on the reversed polynomial q(w) = w^n p(1/w), w = 1/z, where
    // p/p' = 1 / (w (n - w q'/q)).
    const pz_complex w = 1.0 / z;
    const double aw = 1.0 / az;
    pz_complex q = at(poly, 0), dq = q;
    double absq = at(apolyr, n);
    for (int i = n - 1; i >= 1; --i) {
        q = q * w + at(poly, n - i);
        dq = dq * w + q;
        absq = absq * aw + at(apolyr, i);
    }
    q = q * w + at(poly, n);
    absq = absq * aw + at(apolyr, 0);
    again = std::abs(q) > absq;
    const pz_complex den = w * (static_cast<double>(n) - w * dq / q);
    const bool usable = std::abs(q) > small && std::abs(den) > small;
    corr = usable ? 1.0 / den : pz_complex(0.0, 0.0);
    if (!again && usable) radius = n * std::abs(corr) * (std::abs(q) + absq) / std::abs(q);
}

void aberth(int n, int j, std::span<const pz_complex> root, pz_complex& abcorr) {
    abcorr = 0.0;
    const pz_complex zj = root[static_cast<std::size_t>(j)];
    for (int k = 0; k < n; ++k) {
        if (k == j) continue;
        const pz_complex d = zj - root[static_cast<std::size_t>(k)];
        if (d != pz_complex(0.0, 0.0)) abcorr += 1.0 / d;
    }
}

void polzeros(int n, std::span<const pz_complex> poly, double eps, double big, double small,
              int nitmax, std::span<pz_complex> root, std::span<double> radius, std::span<bool> err,
              int& iter, std::span<double> apoly, std::span<double> apolyr) {
    const auto un = static_cast<std::size_t>(n);
    if (std::abs(poly[un]) == 0.0) plain_stop("Inconsistent data: the leading coefficient is zero");
    if (std::abs(poly[0]) == 0.0) plain_stop("The constant term is zero: deflate the polynomial");
    double amax = 0.0;
    for (std::size_t i = 0; i <= un; ++i) {
        apoly[i] = std::abs(poly[i]);
        amax = std::max(amax, apoly[i]);
    }
    if (amax >= big / (n + 1)) {
        warning_error("WARNING: COEFFICIENTS TOO BIG, OVERFLOW IS LIKELY", "polzeros", "pzeros");
        write_free(report_unit, {"WARNING: COEFFICIENTS TOO BIG, OVERFLOW IS LIKELY"});
    }
    int nzeros = 0;
    start(n, apoly, root, radius, nzeros, small, big, err);
    // Running error bounds of the Horner sums, for p and for the reversed polynomial.
    for (std::size_t i = 0; i <= un; ++i) {
        apolyr[un - i] = eps * apoly[i] * (growth * static_cast<double>(un - i) + 1.0);
        apoly[i] = eps * apoly[i] * (growth * static_cast<double>(i) + 1.0);
    }
    if (apoly[0] == 0.0 || apoly[un] == 0.0) {
        for (const char* line : {"WARNING: THE COMPUTATION OF SOME INCLUSION RADIUS",
                                 "MAY FAIL. THIS IS REPORTED BY RADIUS=0"}) {
            warning_error(line, "polzeros", "pzeros");
            write_free(report_unit, {line});
        }
    }
    for (iter = 1; iter <= nitmax; ++iter) {
        for (int i = 0; i < n; ++i) {
            const auto ui = static_cast<std::size_t>(i);
            if (!err[ui]) continue;
            pz_complex corr, abcorr;
            bool again = true;
            newton(n, poly, apoly, apolyr, root[ui], small, radius[ui], corr, again);
            err[ui] = again;
            if (again) {
                aberth(n, i, root, abcorr);
                root[ui] -= corr / (1.0 - corr * abcorr);
            } else if (++nzeros == n) {
                return;
            }
        }
    }
    iter = nitmax;
}

void find_poly_extremas_iter(std::span<const double> c, std::vector<double>& x, int& n_roots) {
    const int n = static_cast<int>(c.size()) - 1;
    // The derivative, made monic.
    const double scale = 1.0 / (n * c[static_cast<std::size_t>(n)]);
    std::vector<pz_complex> dp(static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i)
        dp[static_cast<std::size_t>(i - 1)] =
            pz_complex(i * scale * c[static_cast<std::size_t>(i)], 0.0);
    const int m = n - 1;
    std::vector<pz_complex> root(static_cast<std::size_t>(m));
    std::vector<double> radius(static_cast<std::size_t>(m)), apoly(static_cast<std::size_t>(n)),
        apolyr(static_cast<std::size_t>(n));
    farray<bool, 1> err;
    err.allocate({1}, {m});
    bool* err_data = err.data();
    int iter = 0;
    polzeros(m, dp, 2.220446049250313e-16, 1.7976931348623157e+308, 2.2250738585072014e-308, 30,
             root, radius, std::span<bool>(err_data, static_cast<std::size_t>(m)), iter, apoly,
             apolyr);
    x.clear();
    n_roots = 0;
    for (int i = 0; i < m; ++i) {
        const pz_complex r = root[static_cast<std::size_t>(i)];
        if (debug == 1) write_free(stdout_unit, {i + 1, r.real(), r.imag()});
        if (std::fabs(r.imag()) > single_1e_6) continue;
        if (err_data[i]) {
            unit_write(error_unit, "Problems finding root of E(l), STOPPING");
            plain_stop("Problems finding root of E(l), STOPPING");
        }
        x.push_back(r.real());
        ++n_roots;
    }
}

} // namespace lyrt
