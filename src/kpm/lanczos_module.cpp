#include "kpm/lanczos_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/lapack_module.hpp"
#include "numerics/random_module.hpp"
#include "numerics/utility_module.hpp"
#include "operators/hs_psi_module.hpp"

#include <algorithm>
#include <cmath>
#include <string>

namespace lyrt {

namespace {

constexpr const char* mod = "lanczos_module";

// The six coefficients of the ratio that line_min minimises.
double ratio_num[3] = {0, 0, 0}, ratio_den[3] = {0, 0, 0};

double dot(const farray<double, 1>& x, const farray<double, 1>& y) {
    const int n = static_cast<int>(x.size()), one = 1;
    return ddot_(&n, x.data(), &one, y.data(), &one);
}

// y = factor H x.
void apply_h(const hamiltonian_type& h, double factor, const farray<double, 1>& x,
             farray<double, 1>& y) {
    h_psi_one(h, x, y);
    if (factor != 1.0)
        for (double& v : y) v *= factor;
}

// Negates every element of H in place; twice gives H back bit for bit.
void negate_h(hamiltonian_type& h) {
    for (double& v : h.h_ab) v = -v;
}

void check_h_bar(const hamiltonian_type& h, bool h_bar, const char* proc) {
    if (h.tb_model->non_orthogonal && !h_bar)
        fatal_error("calc_hbar not yet available", -1, proc, mod);
}

// Applies f(element, diagonal?) to the diagonal elements of each ion's own block.
template <class F>
void for_onsite_diagonal(const hamiltonian_type& h, F&& f) {
    const sparse_1d_matrix_desc_type& sd = h.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig), l0 = sd.ublock_offset(1, ig);
        for (int a = 0; a < no; ++a) f(l0 + a * (no + 1), il);
    }
}

} // namespace

void line_min(const double num[3], const double den[3], double& lambda) {
    for (int k = 0; k < 3; ++k) {
        ratio_num[k] = num[k];
        ratio_den[k] = den[k];
    }
    // A zero start leaves mnbrak no direction to search in.
    if (std::fabs(lambda) < 1e-12) lambda = 0.1;
    double ax = 0.0, bx = lambda, cx = 0.0, fa = 0.0, fb = 0.0, fc = 0.0;
    mnbrak(ax, bx, cx, fa, fb, fc, eps_of_x);
    double xmin = bx;
    golden(ax, bx, cx, eps_of_x, 1e-06, xmin);
    lambda = xmin;
}

double eps_of_x(double x) {
    const double num = ratio_num[0] + x * (ratio_num[1] + x * ratio_num[2]);
    const double den = ratio_den[0] + x * (ratio_den[1] + x * ratio_den[2]);
    return num / den;
}

double find_energy_bounds_cg(const hamiltonian_type& h, int& n_iter, double h_factor) {
    const char* proc = "find_energy_bounds_cg";
    const trace_guard trace(proc, mod);
    const long n = h.desc.n_row;
    farray<double, 1> x, xi, g, g0, d, hd;
    ca_real_1d(x, 1, n, "x", proc, mod);
    ca_real_1d(xi, 1, n, "xi", proc, mod);
    ca_real_1d(g, 1, n, "g", proc, mod);
    ca_real_1d(g0, 1, n, "g0", proc, mod);
    ca_real_1d(d, 1, n, "h", proc, mod);
    ca_real_1d(hd, 1, n, "hh", proc, mod);
    // A start with entries of both signs from the run's seeded stream: a vector of
    // one sign has little weight on the upper states of a bonding spectrum.
    random_vec(std::span<double>(x.data(), static_cast<std::size_t>(n)));
    for (double& v : x) v = 2.0 * v - 1.0;
    const double norm = std::sqrt(dot(x, x));
    for (double& v : x) v /= norm;
    apply_h(h, h_factor, x, xi);
    double xx = dot(x, x);
    double eps = dot(x, xi) / xx;
    for (long k = 1; k <= n; ++k) g(k) = -(xi(k) - eps * x(k)) / xx;
    double gg = dot(g, g);
    for (long k = 1; k <= n; ++k) d(k) = g(k);
    double lambda = 0.1, delta = 0.0;
    int iter = 1;
    for (;;) {
        apply_h(h, h_factor, d, hd);
        const double den[3] = {xx, 2.0 * dot(x, d), dot(d, d)};
        const double num[3] = {eps * xx, 2.0 * dot(d, xi), dot(d, hd)};
        line_min(num, den, lambda);
        // x moves along d; H x follows by linearity, without a further product.
        for (long k = 1; k <= n; ++k) {
            x(k) += lambda * d(k);
            xi(k) += lambda * hd(k);
        }
        xx = dot(x, x);
        const double eps_old = eps;
        eps = dot(x, xi) / xx;
        delta = eps_old - eps;
        if (iter > n_iter || delta < 1.000000013351432e-10) break;
        for (long k = 1; k <= n; ++k) {
            g0(k) = g(k);
            g(k) = -(xi(k) - eps * x(k)) / xx;
        }
        const double gg_old = gg;
        gg = dot(g, g);
        const double beta = (gg - dot(g, g0)) / gg_old; // Polak-Ribiere
        for (long k = 1; k <= n; ++k) d(k) = g(k) + beta * d(k);
        ++iter;
    }
    // A rise beyond the convergence tolerance means the search went wrong; a rise
    // of a few rounding units at convergence does not.
    if (delta < -1.000000013351432e-10) fatal_error("eps < 0.0", iter, proc, mod);
    n_iter = iter;
    for (auto* v : {&x, &xi, &g, &g0, &d, &hd}) cd_real_1d(*v, "cg work", proc, mod);
    return eps;
}

void find_energy_bounds(hamiltonian_type& h, int n_iter, double& e_min, double& e_max,
                        double h_factor) {
    const char* proc = "find_energy_bounds";
    const trace_guard trace(proc, mod);
    int iter = n_iter;
    e_min = find_energy_bounds_cg(h, iter, h_factor);
    if (i_am_master) write_free(report_unit, {"n_iter=", iter, "/", n_iter});
    negate_h(h);
    iter = n_iter;
    e_max = find_energy_bounds_cg(h, iter, h_factor);
    if (i_am_master) write_free(report_unit, {"n_iter=", iter, "/", n_iter});
    negate_h(h);
    e_max = -e_max;
}

void find_energy_bounds_lan(const hamiltonian_type& h, int n_iter, double& e_min, double& e_max) {
    const char* proc = "find_energy_bounds_lan";
    const trace_guard trace(proc, mod);
    if (h.tb_model->non_orthogonal) fatal_error("calc_hbar not yet available", -1, proc, mod);
    const int n = h.desc.n_row;
    const int m_max = std::min(std::max(n_iter, 10), n);
    farray<double, 1> c0, c1, c2, hc1, alpha, beta, eigen, beta_dum;
    for (auto* v : {&c0, &c1, &c2, &hc1}) ca_real_1d(*v, 1, n, "lanczos vector", proc, mod);
    for (auto* v : {&alpha, &beta, &eigen, &beta_dum})
        ca_real_1d(*v, 1, m_max + 1, "lanczos coefficients", proc, mod);
    random_vec(std::span<double>(c1.data(), static_cast<std::size_t>(n)));
    for (double& v : c1) v = 2.0 * v - 1.0;
    const double norm = std::sqrt(dot(c1, c1));
    for (double& v : c1) v /= norm;
    if (debug > 1) write_free(report_unit, {"|c_0|=", std::sqrt(dot(c1, c1))});
    c0.fill(0.0);
    double lo_old = 0.0, hi_old = 0.0;
    bool converged = false;
    e_min = e_max = 0.0;
    for (int m = 1; m <= m_max; ++m) {
        h_psi_one(h, c1, hc1);
        alpha(m) = dot(c1, hc1);
        if (debug > 1) write_free(report_unit, {"alpha=<c_m|h|c_m>=", alpha(m)});
        // c2 = H c1 - alpha c1 - beta c0, then normalised.
        const double b_prev = m > 1 ? beta(m - 1) : 0.0;
        for (int k = 1; k <= n; ++k) c2(k) = hc1(k) - alpha(m) * c1(k) - b_prev * c0(k);
        beta(m) = std::sqrt(dot(c2, c2));
        // Eigenvalues of the tridiagonal matrix of the first m vectors.
        for (int k = 1; k <= m; ++k) eigen(k) = alpha(k);
        for (int k = 1; k < m; ++k) beta_dum(k) = beta(k);
        int info = 0;
        dsterf_(&m, eigen.data(), beta_dum.data(), &info);
        if (info != 0) fatal_error("error in xsterf info=" + std::to_string(info), info, proc, mod);
        e_min = eigen(1);
        e_max = eigen(m);
        if (m > 1 && std::fabs(e_min - lo_old) < 1e-10 && std::fabs(e_max - hi_old) < 1e-10) {
            converged = true;
            break;
        }
        lo_old = e_min;
        hi_old = e_max;
        if (beta(m) <= 0.0) { // an invariant subspace: its eigenvalues are exact
            converged = true;
            break;
        }
        for (int k = 1; k <= n; ++k) {
            c0(k) = c1(k);
            c1(k) = c2(k) / beta(m);
        }
        if (debug > 1) {
            write_free(report_unit, {"<c_m|c_m-1>=", dot(c1, c0)});
            write_free(report_unit, {"<c_m|c_m>  =", dot(c1, c1)});
        }
    }
    if (!converged) warning_error("Lanczos failed to converge for m=100 !", proc, mod);
    for (auto* v : {&c0, &c1, &c2, &hc1}) cd_real_1d(*v, "lanczos vector", proc, mod);
    for (auto* v : {&alpha, &beta, &eigen, &beta_dum})
        cd_real_1d(*v, "lanczos coefficients", proc, mod);
}

void scale_h_ab(hamiltonian_type& h, double e_min, double e_max, double& a, double& b, bool h_bar) {
    check_h_bar(h, h_bar, "scale_h_ab");
    const double half = (e_max - e_min) * 0.5;
    a = half + 0.1 * half; // ten per cent of margin
    b = (e_min + e_max) * 0.5;
    const double f = 2.0 / a, shift = 2.0 * b / a;
    if (!h_bar) {
        for (double& v : h.h_ab) v *= f;
        for_onsite_diagonal(h, [&](long l, int il) { h.h_ab(l, il) -= shift; });
    } else {
        double* hp = h.h_ab.data();
        const double* sp = h.s_ab.data();
        for (std::size_t k = 0; k < h.h_ab.size(); ++k) hp[k] = hp[k] * f - shift * sp[k];
    }
}

void rescale_h_ab(hamiltonian_type& h, double a, double b, bool h_bar) {
    check_h_bar(h, h_bar, "rescale_h_ab");
    const double f = a * 0.5, shift = 2.0 * b / a;
    if (!h_bar) {
        for_onsite_diagonal(h, [&](long l, int il) { h.h_ab(l, il) += shift; });
        for (double& v : h.h_ab) v *= f;
    } else {
        double* hp = h.h_ab.data();
        const double* sp = h.s_ab.data();
        for (std::size_t k = 0; k < h.h_ab.size(); ++k) hp[k] = (hp[k] + shift * sp[k]) * f;
    }
}

void scale_dh_ab(hamiltonian_type& h, double e_min, double e_max, double& a, double& b,
                 bool h_bar) {
    check_h_bar(h, h_bar, "scale_dh_ab");
    const double half = (e_max - e_min) * 0.5;
    a = half + 0.1 * half;
    b = (e_min + e_max) * 0.5;
    const double inv_a = 1.0 / a, ratio = b / a;
    double* dp = h.dh_ab.data();
    if (h_bar) {
        const double* sp = h.ds_ab.data();
        for (std::size_t k = 0; k < h.dh_ab.size(); ++k) dp[k] = dp[k] * inv_a - ratio * sp[k];
    } else {
        for (std::size_t k = 0; k < h.dh_ab.size(); ++k) dp[k] *= inv_a;
    }
    // The on-site diagonals are part of H too: their gradients scale alike.
    if (h.dh_aa.allocated())
        for (double& v : h.dh_aa) v *= inv_a;
}

void rescale_dh_ab(hamiltonian_type& h, double a, double b, bool h_bar) {
    check_h_bar(h, h_bar, "rescale_dh_ab");
    const double ratio = b / a;
    double* dp = h.dh_ab.data();
    if (h_bar) {
        const double* sp = h.ds_ab.data();
        for (std::size_t k = 0; k < h.dh_ab.size(); ++k) dp[k] = (dp[k] + ratio * sp[k]) * a;
    } else {
        for (std::size_t k = 0; k < h.dh_ab.size(); ++k) dp[k] *= a;
    }
    if (h.dh_aa.allocated())
        for (double& v : h.dh_aa) v *= a;
}

} // namespace lyrt
