#include "numerics/cheb_module.hpp"

#include <cmath>
#include <numbers>

namespace lyrt {

double cheb_node(int i, int n) {
    return std::cos(std::numbers::pi * (i + 0.5) / n);
}

void cheb_coefficients(const std::function<double(double)>& g, int n, int m,
                       std::vector<double>& c) {
    c.assign(static_cast<std::size_t>(m), 0.0);
    for (int i = 0; i < n; ++i) {
        const double x = cheb_node(i, n), gx = g(x);
        // T_k(x) by the recurrence at this node.
        double t0 = 1.0, t1 = x;
        c[0] += gx;
        for (int k = 1; k < m; ++k) {
            c[static_cast<std::size_t>(k)] += gx * t1;
            const double t2 = 2.0 * x * t1 - t0;
            t0 = t1;
            t1 = t2;
        }
    }
    c[0] /= n;
    for (int k = 1; k < m; ++k) c[static_cast<std::size_t>(k)] *= 2.0 / n;
}

int cheb_fermi_terms(double w, double tol) {
    // The coefficients fall as rho^-m, rho the sum of the semi-axes of the largest
    // ellipse about [-1, 1] free of poles; the nearest poles sit at the middle.
    const double d = std::numbers::pi * w;
    const double rho = d + std::sqrt(1.0 + d * d);
    return static_cast<int>(std::ceil(std::log(1.0 / tol) / std::log(rho))) + 1;
}

void cheb_split(const std::vector<double>& c_in, int q, std::vector<double>& d) {
    // From the top: T_{aq+j} = 2 T_aq T_j - T_{aq-j} moves each term with j > 0 onto
    // the product and a lower term; T_aq itself is T_aq T_0.
    std::vector<double> c = c_in;
    d.assign(c.size(), 0.0);
    for (int m = static_cast<int>(c.size()) - 1; m >= 0; --m) {
        const int a = m / q, j = m % q;
        const double cm = c[static_cast<std::size_t>(m)];
        if (a == 0 || j == 0) {
            d[static_cast<std::size_t>(m)] += cm;
        } else {
            d[static_cast<std::size_t>(m)] += 2.0 * cm;
            c[static_cast<std::size_t>(a * q - j)] -= cm;
        }
    }
}

void cheb_traces(const std::vector<double>& t, int q, std::vector<double>& tau) {
    // Tr(T_aq T_j) = (tau_{aq+j} + tau_{aq-j}) / 2, solved upwards.
    tau.assign(t.size(), 0.0);
    for (int m = 0; m < static_cast<int>(t.size()); ++m) {
        const int a = m / q, j = m % q;
        const double tm = t[static_cast<std::size_t>(m)];
        tau[static_cast<std::size_t>(m)] =
            a == 0 || j == 0 ? tm : 2.0 * tm - tau[static_cast<std::size_t>(a * q - j)];
    }
}

void cheb_node_weights(const std::vector<double>& tau, int n, std::vector<double>& w) {
    w.assign(static_cast<std::size_t>(n), 0.0);
    const int m = static_cast<int>(tau.size());
    for (int i = 0; i < n; ++i) {
        const double x = cheb_node(i, n);
        double t0 = 1.0, t1 = x, s = tau[0];
        for (int k = 1; k < m; ++k) {
            s += 2.0 * t1 * tau[static_cast<std::size_t>(k)];
            const double t2 = 2.0 * x * t1 - t0;
            t0 = t1;
            t1 = t2;
        }
        w[static_cast<std::size_t>(i)] = s / n;
    }
}

} // namespace lyrt
