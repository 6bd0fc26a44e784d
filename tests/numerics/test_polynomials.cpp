// Polynomial tools: least-squares fits of polynomials whose coefficients are
// known, zeros and stationary points known in closed form, and Chebyshev series
// against the functions they stand for.
#include "base/error_module.hpp"
#include "base/farray.hpp"
#include "numerics/cheb_module.hpp"
#include "numerics/fitpoly.hpp"
#include "numerics/pzeros.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;

// An exact cubic sampled at the tiny steps of a self-test comes back to 1e-9,
// although its normal equations have a condition number near 1e20.
TEST(Polynomials, FitRecoversAnExactCubicAtTinySteps) {
    const std::vector<double> c = {-49.28, 0.731, -12.5, 310.0};
    std::vector<double> x, y;
    for (int s = -6; s <= 6; ++s) {
        x.push_back(2e-4 * s);
        y.push_back(evalpoly(x.back(), c));
    }
    std::vector<double> f, d1, d2;
    const double chi2 = fitpoly(static_cast<int>(x.size()), x.data(), y.data(), 3, f, d1, d2);
    ASSERT_EQ(f.size(), 4u);
    EXPECT_LT(chi2, 1e-20);
    EXPECT_NEAR(f[0], c[0], 1e-9 * std::fabs(c[0]));
    EXPECT_NEAR(f[1], c[1], 1e-9 * std::fabs(c[1]) + 1e-9);
    // The slope at 0 is what the force test reads; the curvature what the stress test reads.
    ASSERT_EQ(d1.size(), 3u);
    EXPECT_NEAR(evalpoly(0.0, d1), c[1], 1e-6);
    EXPECT_NEAR(evalpoly(0.0, d2), 2 * c[2], 1e-3);
    // A quartic through data with noise: the residuals are its chi-square.
    std::vector<double> noisy = y;
    for (std::size_t k = 0; k < noisy.size(); ++k) noisy[k] += (k % 2 ? 1e-6 : -1e-6);
    const double chi_noisy =
        fitpoly(static_cast<int>(x.size()), x.data(), noisy.data(), 4, f, d1, d2);
    double by_hand = 0.0;
    for (std::size_t k = 0; k < x.size(); ++k) by_hand += std::pow(noisy[k] - evalpoly(x[k], f), 2);
    EXPECT_NEAR(chi_noisy, by_hand, 1e-24);
    EXPECT_GT(chi_noisy, 1e-13);
}

// Zeros of products of known factors, real and complex.
TEST(Polynomials, ZerosOfKnownFactors) {
    const double eps = 2.220446049250313e-16, big = 1.7976931348623157e+308,
                 small = 2.2250738585072014e-308;
    struct case_t {
        std::vector<pz_complex> poly;
        std::vector<pz_complex> zeros;
    };
    const pz_complex i(0.0, 1.0);
    const std::vector<case_t> cases = {// (z - 1)(z + 2)(z - 3.5) = z^3 - 2.5 z^2 - 5.5 z + 7
                                       {{7.0, -5.5, -2.5, 1.0}, {1.0, -2.0, 3.5}},
                                       // (z^2 + 1)(z - 2)(z + 0.5) = z^4 - 1.5 z^3 - 1.5 z - 1
                                       {{-1.0, -1.5, 0.0, -1.5, 1.0}, {i, -i, 2.0, -0.5}},
                                       // Moduli far apart: (z - 1e-3)(z - 1e3)
                                       {{1.0, -1000.001, 1.0}, {1e-3, 1e3}}};
    for (const auto& cs : cases) {
        const int n = static_cast<int>(cs.poly.size()) - 1;
        std::vector<pz_complex> root(static_cast<std::size_t>(n));
        std::vector<double> radius(root.size()), apoly(cs.poly.size()), apolyr(cs.poly.size());
        farray<bool, 1> err;
        err.allocate({1}, {n});
        int iter = 0;
        polzeros(n, cs.poly, eps, big, small, 30, root, radius,
                 std::span<bool>(err.data(), static_cast<std::size_t>(n)), iter, apoly, apolyr);
        EXPECT_LE(iter, 12) << "degree " << n;
        for (const pz_complex& z : cs.zeros) {
            double best = 1e300;
            std::size_t at = 0;
            for (std::size_t k = 0; k < root.size(); ++k)
                if (std::abs(root[k] - z) < best) {
                    best = std::abs(root[k] - z);
                    at = k;
                }
            EXPECT_LT(best, 1e-10 * (1 + std::abs(z))) << z;
            EXPECT_FALSE(err.data()[at]) << z;
            // The inclusion radius holds the true zero.
            EXPECT_LE(best, radius[at] + 1e-15) << z;
        }
    }
}

// T_k(x) by the trigonometric form, independent of the recurrences of the unit.
double cheb_t(int k, double x) {
    return std::cos(k * std::acos(std::max(-1.0, std::min(1.0, x))));
}

double cheb_sum(const std::vector<double>& c, double x) {
    double s = 0.0;
    for (std::size_t k = 0; k < c.size(); ++k) s += c[k] * cheb_t(static_cast<int>(k), x);
    return s;
}

// The Fermi function of a narrow width from the estimated number of terms, anywhere
// on the interval; the split into products with T_q gives the same series; the
// traces of the split's products give those of every term; and the node weights
// give the trace of a function of a "matrix" (a list of levels).
TEST(Polynomials, ChebyshevSeriesOfTheFermiFunction) {
    const double w = 0.01, tol = 1e-10;
    const int m = cheb_fermi_terms(w, tol);
    EXPECT_GT(m, 500);
    EXPECT_LT(m, 1000);
    for (const double mu : {0.0, 0.63, -0.97}) {
        const auto fermi = [&](double x) { return 1.0 / (1.0 + std::exp((x - mu) / w)); };
        std::vector<double> c;
        cheb_coefficients(fermi, 2 * m, m, c);
        double err = 0.0;
        for (int i = 0; i <= 400; ++i) {
            const double x = -1.0 + i / 200.0;
            err = std::max(err, std::fabs(cheb_sum(c, x) - fermi(x)));
        }
        EXPECT_LT(err, 1e-9) << "mu " << mu;
    }
    const int q = 7, terms = 5 * q;
    std::vector<double> c(terms), d, levels;
    for (int k = 0; k < terms; ++k)
        c[static_cast<std::size_t>(k)] = std::sin(1.3 * k + 0.4) / (1 + k);
    cheb_split(c, q, d);
    for (const double x : {-0.93, -0.2, 0.31, 0.999}) {
        double s = 0.0;
        for (int a = 0; a < terms / q; ++a) {
            double b = 0.0;
            for (int j = 0; j < q; ++j) b += d[static_cast<std::size_t>(a * q + j)] * cheb_t(j, x);
            s += cheb_t(a, cheb_t(q, x)) * b;
        }
        EXPECT_NEAR(s, cheb_sum(c, x), 1e-12) << x;
    }
    for (int i = 0; i < 9; ++i) levels.push_back(std::sin(2.1 * i + 0.3));
    std::vector<double> t(terms, 0.0), tau;
    for (int m2 = 0; m2 < terms; ++m2)
        for (const double e : levels)
            t[static_cast<std::size_t>(m2)] += cheb_t(m2 / q * q, e) * cheb_t(m2 % q, e);
    cheb_traces(t, q, tau);
    for (int m2 = 0; m2 < terms; ++m2) {
        double direct = 0.0;
        for (const double e : levels) direct += cheb_t(m2, e);
        EXPECT_NEAR(tau[static_cast<std::size_t>(m2)], direct, 1e-11) << m2;
    }
    std::vector<double> wt;
    cheb_node_weights(tau, 2 * terms, wt);
    double quad = 0.0, exact = 0.0;
    for (int i = 0; i < 2 * terms; ++i)
        quad += std::exp(cheb_node(i, 2 * terms)) * wt[static_cast<std::size_t>(i)];
    for (const double e : levels) exact += std::exp(e);
    EXPECT_NEAR(quad, exact, 1e-12);
}

class PolynomialStops : public lyrt_test::program_test {};

TEST_F(PolynomialStops, ZeroConstantTermStopsTheRun) {
    std::vector<double> x;
    int n = 0;
    // E' has no constant term: E = l^3 + l^2 (a stationary point at 0).
    EXPECT_THROW(find_poly_extremas_iter(std::vector<double>{1.0, 0.0, 1.0, 1.0}, x, n),
                 fatal_stop);
}

} // namespace
