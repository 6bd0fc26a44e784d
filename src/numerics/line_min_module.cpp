#include "numerics/line_min_module.hpp"

#include "base/io_module.hpp"
#include "numerics/fitpoly.hpp"

#include <cmath>
#include <numbers>
#include <string>

namespace lyrt {

namespace {

// The data of a failed cubic, for the error report.
struct cubic_data {
    const char* label; // "f(x1=" and the like
    double x, f;
    bool has_slope;
    double df;
};

// The common end of the cubic fits: the extremum with a positive curvature.
void cubic_minimum(std::span<const cubic_data> data, double& x_min, double& f_min,
                   std::array<double, 4>& c, int& error, bool print_extrema) {
    error = 0;
    const double a = c[3], b = c[2], cc = c[1], d = c[0];
    const double disc = 4.0 * (b * b - 3.0 * a * cc);
    if (disc < 0.0) {
        unit_write(error_unit, "minum_cubic : Cannot find extremas !");
        for (const cubic_data& p : data) {
            if (p.has_slope)
                write_free(error_unit, {p.label, p.x, ")=", p.f, " df(x1)=", p.df});
            else
                write_free(error_unit, {p.label, p.x, ")=", p.f});
        }
        unit_write(error_unit, "f(x)=a*x**3+b*x**2+c*x+d");
        write_free(error_unit, {"a=", a});
        write_free(error_unit, {"b=", b});
        write_free(error_unit, {"c=", cc});
        write_free(error_unit, {"d=", d});
        error = 1;
        return;
    }
    const double root = std::sqrt(disc);
    const double xa = (-2.0 * b - root) / (6.0 * a), xb = (root - 2.0 * b) / (6.0 * a);
    if (print_extrema) write_free(error_unit, {"x_1=", xa, "x_2=", xb});
    if (6.0 * a * xa + 2.0 * b > 0.0)
        x_min = xa;
    else if (6.0 * a * xb + 2.0 * b > 0.0)
        x_min = xb;
    else
        unit_write(error_unit, "minum_cubic : 2nd derivative < 0 at both extrema !");
    f_min = poly(x_min, c);
}

// The cubic through four conditions: rows of values (x^3 x^2 x 1) and slopes.
void solve_cubic(const std::array<std::array<double, 4>, 4>& rows, const std::array<double, 4>& rhs,
                 std::array<double, 4>& c) {
    std::vector<double> m(16), b(rhs.begin(), rhs.end());
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            m[static_cast<std::size_t>(i + 4 * j)] =
                rows[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
    gaussj(m, 4, b, 1);
    // Unknowns in the order a, b, c, d; stored by increasing degree.
    for (int k = 0; k < 4; ++k) c[static_cast<std::size_t>(3 - k)] = b[static_cast<std::size_t>(k)];
}

std::array<double, 4> value_row(double x) {
    return {x * x * x, x * x, x, 1.0};
}
std::array<double, 4> slope_row(double x) {
    return {3.0 * x * x, 2.0 * x, 1.0, 0.0};
}

} // namespace

double poly(double x, std::span<const double> c) {
    double s = 0.0;
    for (std::size_t k = c.size(); k-- > 0;) s = s * x + c[k];
    return s;
}

double poly_der(double x, std::span<const double> c) {
    double s = 0.0;
    for (std::size_t k = c.size(); k-- > 1;) s = s * x + static_cast<double>(k) * c[k];
    return s;
}

void poly_and_der(double x, std::span<const double> c, double& f, double& df) {
    f = 0.0;
    df = 0.0;
    for (std::size_t k = c.size(); k-- > 0;) {
        df = df * x + f;
        f = f * x + c[k];
    }
}

void min_quadratic_two_pts(double x1, double x2, double f1, double f2, double df1, double& x_min,
                           double& f_min, std::array<double, 3>& c) {
    const double h = x2 - x1;
    const double a = ((f2 - f1) - df1 * h) / (h * h);
    const double b = df1 - 2.0 * a * x1;
    c = {f1 - a * x1 * x1 - b * x1, b, a};
    x_min = -0.5 * b / a;
    f_min = x_min * (a * x_min + b) + c[0];
}

void min_quadratic_three_pts(double x1, double x2, double x3, double f1, double f2, double f3,
                             double& x_min, double& f_min, std::array<double, 3>& c) {
    const double s12 = (f2 - f1) / (x2 - x1), s13 = (f3 - f1) / (x3 - x1);
    const double a = (s13 - s12) / (x3 - x2);
    const double b = s12 - a * (x1 + x2);
    c = {f1 - a * x1 * x1 - b * x1, b, a};
    x_min = -0.5 * b / a;
    f_min = x_min * (a * x_min + b) + c[0];
}

void min_cubic_two_pts(double x1, double x2, double f1, double f2, double df1, double df2,
                       double& x_min, double& f_min, std::array<double, 4>& c, int& error) {
    solve_cubic({value_row(x1), value_row(x2), slope_row(x1), slope_row(x2)}, {f1, f2, df1, df2},
                c);
    const cubic_data data[2] = {{"f(x1=", x1, f1, true, df1}, {"f(x2=", x2, f2, true, df2}};
    cubic_minimum(data, x_min, f_min, c, error, false);
}

void min_cubic_three_pts(double x1, double x2, double x3, double f1, double f2, double f3,
                         double df1, double& x_min, double& f_min, std::array<double, 4>& c,
                         int& error) {
    solve_cubic({value_row(x1), value_row(x2), value_row(x3), slope_row(x1)}, {f1, f2, f3, df1}, c);
    const cubic_data data[3] = {
        {"f(x1=", x1, f1, true, df1}, {"f(x2=", x2, f2, false, 0}, {"f(x3=", x3, f3, false, 0}};
    cubic_minimum(data, x_min, f_min, c, error, true);
}

void min_cubic_four_pts(double x1, double x2, double x3, double x4, double f1, double f2, double f3,
                        double f4, double& x_min, double& f_min, std::array<double, 4>& c,
                        int& error) {
    solve_cubic({value_row(x1), value_row(x2), value_row(x3), value_row(x4)}, {f1, f2, f3, f4}, c);
    const cubic_data data[4] = {{"f(x1=", x1, f1, false, 0},
                                {"f(x2=", x2, f2, false, 0},
                                {"f(x3=", x3, f3, false, 0},
                                {"f(x4=", x4, f4, false, 0}};
    cubic_minimum(data, x_min, f_min, c, error, false);
}

void find_poly_extremas_ana(std::span<const double> c, std::vector<double>& x, int& n_roots) {
    // The monic cubic of the quartic's derivative, in Cardano's reduced form.
    const double p2 = 0.75 * c[3] / c[4], p1 = 0.5 * c[2] / c[4], p0 = 0.25 * c[1] / c[4];
    const double q = (9.0 * p2 * p1 - 27.0 * p0 - 2.0 * p2 * p2 * p2) * 0.018518518518518517;
    const double r = (3.0 * p1 - p2 * p2) * 0.1111111111111111;
    const double d = r * r * r + q * q;
    const double sixth = 0.16666666666666666;
    x.assign(3, 0.0);
    if (d > 0.0) {
        // As the routine has always done it: the sixth root where a cube root belongs.
        const double s = std::sqrt(d);
        const auto root = [&](double v) { return std::copysign(std::pow(std::fabs(v), sixth), v); };
        x[0] = root(q + s) + root(q - s) - p2 / 3.0;
        n_roots = 1;
        x.resize(1);
        return;
    }
    const double r6 = std::pow(q * q - d, sixth);
    double theta = q != 0.0 ? std::atan(std::sqrt(-d) / std::fabs(q)) : 0.5 * std::numbers::pi;
    if (q < 0.0) theta = std::numbers::pi - theta;
    const double cs = std::cos(theta / 3.0), sn = std::sin(theta / 3.0);
    x[0] = 2.0 * r6 * cs - p2 / 3.0;
    x[1] = -r6 * cs - p2 / 3.0 - std::sqrt(3.0) * r6 * sn;
    x[2] = -r6 * cs - p2 / 3.0 + std::sqrt(3.0) * r6 * sn;
    n_roots = 3;
}

} // namespace lyrt
