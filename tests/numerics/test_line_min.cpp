// Minima of polynomials through points of polynomials whose minima are known.
#include "base/io_module.hpp"
#include "numerics/line_min_module.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class LineMin : public lyrt_test::program_test {};

TEST_F(LineMin, ParabolasThroughTheirOwnPoints) {
    // f = 3 (x - 0.7)^2 - 2: minimum -2 at 0.7.
    auto f = [](double x) { return 3.0 * (x - 0.7) * (x - 0.7) - 2.0; };
    auto df = [](double x) { return 6.0 * (x - 0.7); };
    double x_min = 0, f_min = 0;
    std::array<double, 3> c{};
    // From the start of a line search: x1 = 0, the energy and its slope there.
    min_quadratic_two_pts(0.0, 0.25, f(0.0), f(0.25), df(0.0), x_min, f_min, c);
    EXPECT_NEAR(x_min, 0.7, 1e-13);
    EXPECT_NEAR(f_min, -2.0, 1e-13);
    EXPECT_NEAR(c[2], 3.0, 1e-12);
    EXPECT_NEAR(c[0], f(0.0), 1e-13);
    min_quadratic_two_pts(0.2, 0.9, f(0.2), f(0.9), df(0.2), x_min, f_min, c); // x1 other than 0
    EXPECT_NEAR(x_min, 0.7, 1e-13);
    min_quadratic_three_pts(-1.0, 0.4, 2.5, f(-1.0), f(0.4), f(2.5), x_min, f_min, c);
    EXPECT_NEAR(x_min, 0.7, 1e-13);
    EXPECT_NEAR(f_min, -2.0, 1e-12);
    EXPECT_NEAR(c[1], -4.2, 1e-12);
}

TEST_F(LineMin, CubicsFindTheirMinimum) {
    // f = x^3 - 3x + 1: minimum at 1 (value -1), maximum at -1.
    const std::array<double, 4> exact = {1.0, -3.0, 0.0, 1.0};
    auto f = [&](double x) { return poly(x, exact); };
    auto df = [&](double x) { return poly_der(x, exact); };
    double x_min = 0, f_min = 0;
    std::array<double, 4> c{};
    int error = -1;
    min_cubic_two_pts(-0.5, 2.0, f(-0.5), f(2.0), df(-0.5), df(2.0), x_min, f_min, c, error);
    EXPECT_EQ(error, 0);
    EXPECT_NEAR(x_min, 1.0, 1e-12);
    EXPECT_NEAR(f_min, -1.0, 1e-12);
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(c[k], exact[k], 1e-12) << k;
    min_cubic_three_pts(-2.0, 0.0, 1.5, f(-2.0), f(0.0), f(1.5), df(-2.0), x_min, f_min, c, error);
    EXPECT_EQ(error, 0);
    EXPECT_NEAR(x_min, 1.0, 1e-12);
    min_cubic_four_pts(-2.0, -0.3, 0.9, 3.0, f(-2.0), f(-0.3), f(0.9), f(3.0), x_min, f_min, c,
                       error);
    EXPECT_EQ(error, 0);
    EXPECT_NEAR(x_min, 1.0, 1e-12);
    // A cubic without extremum (x^3 + x) is reported, and x_min stays as it came.
    x_min = 42.0;
    min_cubic_two_pts(0.0, 1.0, 0.0, 2.0, 1.0, 4.0, x_min, f_min, c, error);
    EXPECT_EQ(error, 1);
    EXPECT_EQ(x_min, 42.0);
    flush(error_unit);
    const std::string err = lyrt_test::read_text(dir / "ERRLYRT");
    EXPECT_NE(err.find("minum_cubic : Cannot find extremas !"), std::string::npos);
}

// A quartic whose derivative has three real zeros: the closed form finds them.
TEST_F(LineMin, ClosedFormStationaryPointsOfAQuartic) {
    // E' = 4 (l - 0.5)(l - 1.5)(l + 2) for E = l^4 - 6.5 l^2 + 6 l + 0.3.
    std::vector<double> x;
    int n = 0;
    find_poly_extremas_ana(std::vector<double>{0.3, 6.0, -6.5, 0.0, 1.0}, x, n);
    ASSERT_EQ(n, 3);
    std::sort(x.begin(), x.end());
    EXPECT_NEAR(x[0], -2.0, 1e-12);
    EXPECT_NEAR(x[1], 0.5, 1e-12);
    EXPECT_NEAR(x[2], 1.5, 1e-12);
}

} // namespace
