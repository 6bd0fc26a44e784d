#include "kpm/kpm_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "kpm/lanczos_module.hpp"
#include "kpm/moments_module.hpp"
#include "system/constants_module.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

namespace lyrt {

namespace {

constexpr const char* mod = "kpm_module";
constexpr double pi = std::numbers::pi;
constexpr int bounds_iterations = 50;

double inv(int n) {
    return inv_n_pi(n);
}

void check_moments(int m, const char* proc) {
    if (m < 1) fatal_error("Number of moments must be non-zero", m, proc, mod);
    if (m + 1 > n_inv_n_pi)
        fatal_error("number of moments " + std::to_string(m) +
                        " too large: the expansion needs 1/(n pi) up to n = M + 1, and its "
                        "table ends at " +
                        std::to_string(n_inv_n_pi),
                    m, proc, mod);
}

void print_interval(const char* text, double e_min, double e_max, int iterations) {
    if (!i_am_master) return;
    write_fmt(report_unit, "(A,E10.4,A,E10.4,A,I3,A)",
              {text, e_min, ",", e_max, "] found in :", iterations, " iterations"});
}

void search_bounds(kpm_state_type& ks, hamiltonian_type& h) {
    find_energy_bounds(h, bounds_iterations, ks.e_min, ks.e_max, 1.0);
    ks.bounds_known = true;
    print_interval("eigenvalue interval from Lanczos = [", ks.e_min, ks.e_max, bounds_iterations);
}

// Scales H into [-1, 1]. Bounds that no longer hold for the present positions (the
// ions moved since they were found, or the interval given was too narrow) are
// searched again, with a warning; a second failure ends the run.
void scale_checked(kpm_state_type& ks, hamiltonian_type& h, const char* proc) {
    if (ks.e_min == ks.e_max && !ks.bounds_known) search_bounds(ks, h);
    for (int attempt = 1;; ++attempt) {
        scale_h_ab(h, ks.e_min, ks.e_max, ks.a, ks.b, ks.no_ex);
        double lo = 0.0, hi = 0.0;
        find_energy_bounds(h, bounds_iterations, lo, hi, 0.5);
        if (lo >= -1.0 && hi <= 1.0) return;
        print_interval("eigenvalue interval from Lanczos = [", lo, hi, bounds_iterations);
        if (attempt == 2) fatal_error("Rescaling of Hamiltonian failed", -1, proc, mod);
        warning_error("the spectrum of H left the interval of the expansion; its bounds are "
                      "searched again",
                      proc, mod);
        rescale_h_ab(h, ks.a, ks.b, ks.no_ex);
        search_bounds(ks, h);
    }
}

// Moments of the scaled H: the unrolled route where every ion has 4, 5, 6 or 9
// orbitals, the general one otherwise.
void moments(kpm_state_type& ks, const hamiltonian_type& h) {
    const tb_model_type& m = *h.tb_model;
    const int uniform = m.same_orbitals ? m.max_no : 0;
    switch (uniform) {
    case 4: calc_mu_new_four(h, ks); break;
    case 5: calc_mu_new_five(h, ks); break;
    case 6: calc_mu_new_six(h, ks); break;
    case 9: calc_mu_new_nine(h, ks); break;
    default: calc_mu(h, ks); break;
    }
}

} // namespace

bool kpm_kernel_known(char kernel) {
    return kernel == 'J' || kernel == 'j' || kernel == 'L' || kernel == 'l';
}

void kpm_state_alloc(kpm_state_type& ks, int n_moments) {
    const char* proc = "kpm_state_alloc";
    check_moments(n_moments, proc);
    ks.n = n_moments;
    const long ub = (n_moments | 1) + 1;
    const std::pair<farray<double, 1>*, const char*> arrays[] = {
        {&ks.mu, "kpm_state%mu"},        {&ks.g, "kpm_state%g"}, {&ks.c, "kpm_state%c"},
        {&ks.cp, "kpm_state%cp"},        {&ks.d, "kpm_state%d"}, {&ks.dp, "kpm_state%dp"},
        {&ks.de_dmu, "kpm_state%de_dmu"}};
    for (const auto& [a, name] : arrays) {
        if (a->allocated()) cd_real_1d(*a, name, proc, mod);
        ca_real_1d(*a, 0, ub, name, proc, mod);
        a->fill(0.0);
    }
}

void kpm_state_dealloc(kpm_state_type& ks) {
    const char* proc = "kpm_state_dealloc";
    for (auto* a : {&ks.mu, &ks.g, &ks.c, &ks.cp, &ks.d, &ks.dp, &ks.de_dmu})
        if (a->allocated()) cd_real_1d(*a, "kpm_state", proc, mod);
    for (auto* a : {&ks.blk_offset, &ks.blk_dim})
        if (a->allocated()) cd_integer_1d(*a, "kpm_state%blk", proc, mod);
    pdist_deallocate(ks.pdist);
    pdist_deallocate(ks.blk_pdist);
}

void kpm_state_init(kpm_state_type& ks, const hamiltonian_type& h, char kernel, int n_orb,
                    double n_electrons, bool no_ex, int block_size, double e_min, double e_max) {
    const char* proc = "kpm_state_init";
    const trace_guard trace(proc, mod);
    if (!kpm_kernel_known(kernel))
        fatal_error(std::string("unknown kernel ") + kernel + ": use J (Jackson) or L (Lanczos)",
                    -1, proc, mod);
    if (block_size < 1) fatal_error("kpm_block_size must be 1 or more", block_size, proc, mod);
    ks.kernel = kernel;
    ks.n_orb = n_orb;
    ks.n_electrons = n_electrons;
    ks.no_ex = no_ex;
    ks.block_size = block_size;
    ks.e_min = e_min;
    ks.e_max = e_max;
    ks.bounds_known = false;
    calc_gibbs_factors(kernel, ks.g, ks.n);
    const pdist_type& ions = *h.desc.row_pdist;
    pdist_deallocate(ks.blk_pdist);
    pdist_deallocate(ks.pdist);
    // The unit-vector columns of the trace, ion by ion, are dealt to the processes
    // in contiguous ranges; each runs the recurrence for its own.
    pdist_init(ks.blk_pdist, ions.n, 1, n_proc, my_proc, "bl");
    for (auto* a : {&ks.blk_offset, &ks.blk_dim}) {
        if (a->allocated()) cd_integer_1d(*a, "kpm_state%blk", proc, mod);
        ca_integer_1d(*a, 1, std::max(1, ks.blk_pdist.l_n), "kpm_state%blk", proc, mod);
    }
    pdist_generate(ks.pdist, ks.blk_pdist, h.desc.row_block_dim, &ks.blk_offset, &ks.blk_dim);
    if (i_am_master && debug > 1) {
        write_free(report_unit, {"ks%blk_pdist : "});
        pdist_print(ks.blk_pdist, report_unit);
        write_free(report_unit, {"ks%pdist : "});
        pdist_print(ks.pdist, report_unit);
    }
}

void calc_gibbs_factors(char kernel, farray<double, 1>& g, int n_moments) {
    g.fill(0.0);
    const int m = n_moments;
    if (kernel == 'J' || kernel == 'j') {
        // Jackson: the autocorrelation of a sine window.
        const double w = pi / (m + 2);
        double norm = 0.0;
        for (int i = 0; i <= m; ++i) norm += std::pow(std::sin((i + 1) * w), 2);
        for (int k = 0; k <= m; ++k) {
            double s = 0.0;
            for (int i = 0; i <= m - k; ++i) s += std::sin((i + 1) * w) * std::sin((i + 1 + k) * w);
            g(k) = s / norm;
        }
    } else if (kernel == 'L' || kernel == 'l') {
        g(0) = 1.0;
        for (int k = 1; k <= m; ++k) {
            const double x = (k - 0.5) * pi / (m + 1);
            g(k) = std::pow(std::sin(x) / x, 3);
        }
    }
}

double kpm_get_nelec_sf(double phi, const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 1; n <= ks.n; ++n) s += std::sin(n * phi) * inv(n) * ks.g(n) * ks.mu(n);
    return 2.0 * (0.5 * ks.g(0) * ks.mu(0) * (1.0 - phi / pi) - s);
}

double kpm_get_nelec_sf_dphi(double phi, const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 1; n <= ks.n; ++n) s += std::cos(n * phi) * ks.g(n) * ks.mu(n);
    return -(ks.g(0) * ks.mu(0) + 2.0 * s) / pi;
}

double kpm_get_energy_sf(double phi, const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 1; n <= ks.n; ++n)
        s += (ks.mu(n + 1) + ks.mu(n - 1)) * std::sin(n * phi) * inv(n) * ks.g(n);
    return ks.g(0) * ks.mu(1) * (1.0 - phi / pi) - s;
}

double kpm_get_energy_sd(double phi, const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 2; n <= ks.n; ++n)
        s += ks.g(n) * ks.mu(n) *
             (std::sin((n - 1) * phi) * inv(n - 1) + std::sin((n + 1) * phi) * inv(n + 1));
    double e = -ks.g(0) * ks.mu(0) * std::sin(phi) / pi - s;
    if (ks.n >= 1) e -= ks.g(1) * ks.mu(1) * (0.5 * std::sin(2.0 * phi) + phi - pi) / pi;
    return e;
}

void kpm_calc_sf_coeff(double phi, kpm_state_type& ks) {
    const int m = ks.n;
    // p(n) and q(n) = dp/dphi, n = 0..M+1, damped.
    auto p = [&](int n) {
        return n == 0 ? (phi / pi - 1.0) * ks.g(0) : std::sin(n * phi) * inv(n) * ks.g(n);
    };
    auto q = [&](int n) { return n == 0 ? ks.g(0) / pi : std::cos(n * phi) * ks.g(n) / pi; };
    ks.c(0) = -p(1);
    ks.cp(0) = -q(1);
    ks.d(0) = -p(0);
    ks.dp(0) = -q(0);
    for (int n = 1; n <= m; ++n) {
        ks.c(n) = -(p(n + 1) + p(n - 1));
        ks.cp(n) = -(q(n + 1) + q(n - 1));
        ks.d(n) = -2.0 * p(n);
        ks.dp(n) = -2.0 * q(n);
    }
}

void kpm_calc_sd_coeff(double phi, kpm_state_type& ks) {
    const int m = ks.n;
    auto p = [&](int n) { return n == 0 ? phi / pi - 1.0 : std::sin(n * phi) * inv(n); };
    auto q = [&](int n) { return n == 0 ? 1.0 / pi : std::cos(n * phi) / pi; };
    ks.c(0) = -ks.g(0) * p(1);
    ks.cp(0) = -ks.g(0) * q(1);
    ks.d(0) = -ks.g(0) * p(0);
    ks.dp(0) = -ks.g(0) * q(0);
    for (int n = 1; n <= m; ++n) {
        ks.c(n) = -ks.g(n) * (p(n + 1) + p(n - 1));
        ks.cp(n) = -ks.g(n) * (q(n + 1) + q(n - 1));
        ks.d(n) = -2.0 * ks.g(n) * p(n);
        ks.dp(n) = -2.0 * ks.g(n) * q(n);
    }
}

double kpm_get_energy_c(const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 0; n <= ks.n; ++n) s += ks.c(n) * ks.mu(n);
    return s;
}

double kpm_get_nelec_c(const kpm_state_type& ks) {
    double s = 0.0;
    for (int n = 0; n <= ks.n; ++n) s += ks.d(n) * ks.mu(n);
    return s;
}

void kpm_calc_de_dmu(kpm_state_type& ks) {
    double num = 0.0, den = 0.0;
    for (int n = 0; n <= ks.n; ++n) {
        num += ks.cp(n) * ks.mu(n);
        den += ks.dp(n) * ks.mu(n);
    }
    // The scaled Fermi level: dE/dphi over dN/dphi.
    const double r = num / den;
    for (int n = 0; n <= ks.n; ++n) ks.de_dmu(n) = ks.c(n) - r * ks.d(n);
}

void kpm_find_phi_f(kpm_state_type& ks, double& phi, double target, double tol) {
    const char* proc = "kpm_find_phi_f";
    // The count falls as phi rises from 0 (top of the band) to pi (bottom). From the
    // middle, halving steps reach every angle of [0, pi].
    const double abs_tol = tol * std::max(1.0, target);
    phi = 0.5 * pi;
    double step = 0.5 * pi;
    double err = kpm_get_nelec_sf(phi, ks) - target;
    for (int round = 1; round <= 60 && std::fabs(err) >= abs_tol; ++round) {
        step *= 0.5;
        phi += err > 0.0 ? step : -step;
        err = kpm_get_nelec_sf(phi, ks) - target;
    }
    if (std::fabs(err) >= abs_tol) fatal_error("Could not locate ef", -1, proc, mod);
    // A few Newton steps take the count to rounding, so that energies at a fixed
    // count differ by their physics and not by the search's tolerance.
    for (int k = 0; k < 4 && err != 0.0; ++k) {
        const double slope = kpm_get_nelec_sf_dphi(phi, ks);
        if (slope == 0.0) break;
        const double trial = std::clamp(phi - err / slope, 0.0, pi);
        const double err_trial = kpm_get_nelec_sf(trial, ks) - target;
        if (!(std::fabs(err_trial) < std::fabs(err))) break;
        phi = trial;
        err = err_trial;
    }
}

void kpm_calc_energy(kpm_state_type& ks, hamiltonian_type& h, double& e_band, double& e_fermi) {
    const char* proc = "kpm_calc_energy";
    const trace_guard trace(proc, mod);
    const double start = utime();
    if (h.tb_model->non_orthogonal)
        fatal_error("KPM doesn't work with non-orthogonal TB models", -1, proc, mod);
    check_moments(ks.n, proc);
    scale_checked(ks, h, proc);
    moments(ks, h);
    kpm_find_phi_f(ks, ks.phi_f, ks.n_electrons * 0.5, 1.000000013351432e-10);
    const double e = kpm_get_energy_sf(ks.phi_f, ks);
    e_band = e * 2.0 * ks.a + ks.n_electrons * ks.b; // two spins
    e_fermi = std::cos(ks.phi_f) * ks.a + ks.b;
    ks.e_fermi = e_fermi;
    rescale_h_ab(h, ks.a, ks.b, ks.no_ex);
    write_free(timing_unit, {my_proc, proc, utime() - start, "sec"});
}

void kpm_calc_forces(kpm_state_type& ks, hamiltonian_type& h, farray<double, 2>& forces) {
    const char* proc = "kpm_calc_forces";
    const trace_guard trace(proc, mod);
    const double start = utime();
    check_moments(ks.n, proc);
    // The scale of the last energy call: the moments and the Fermi angle belong to it.
    scale_h_ab(h, ks.e_min, ks.e_max, ks.a, ks.b, ks.no_ex);
    scale_dh_ab(h, ks.e_min, ks.e_max, ks.a, ks.b, ks.no_ex);
    kpm_calc_sf_coeff(ks.phi_f, ks);
    kpm_calc_de_dmu(ks);
    if (i_am_master && debug > 0)
        write_free(report_unit, {"SF in forces", kpm_get_energy_c(ks), kpm_get_nelec_c(ks)});
    forces.fill(0.0);
    calc_dmu(h, forces, ks);
    // Two spins, and the unit of the energy (the gradients were divided by a).
    const double f = 2.0 * ks.a;
    for (double& v : forces) v *= f;
    rescale_h_ab(h, ks.a, ks.b, ks.no_ex);
    rescale_dh_ab(h, ks.a, ks.b, ks.no_ex);
    write_free(timing_unit, {my_proc, proc, utime() - start, "sec"});
}

void kpm_test_conv(kpm_state_type& ks, hamiltonian_type& h, int m_start, int m_step, double e_ref,
                   int unit) {
    const char* proc = "kpm_test_conv";
    const trace_guard trace(proc, mod);
    check_moments(ks.n, proc);
    // Bounds the input gives stand, as they do for the energy.
    if (ks.e_min == ks.e_max && !ks.bounds_known) {
        find_energy_bounds(h, std::max(1, ks.n_orb / 2), ks.e_min, ks.e_max, 1.0);
        ks.bounds_known = true;
        if (i_am_master)
            write_free(report_unit,
                       {"app.   eigenvalue interval = [", ks.e_min, ",", ks.e_max, "]:"});
    }
    scale_checked(ks, h, proc);
    calc_mu(h, ks);
    const int m_full = ks.n;
    for (int m = m_start; m <= m_full; m += std::max(1, m_step)) {
        // Each line is what a run of m moments gives: mu(m + 1) is not part of it.
        ks.n = m;
        calc_gibbs_factors(ks.kernel, ks.g, m);
        const double mu_next = ks.mu(m + 1);
        ks.mu(m + 1) = 0.0;
        double phi = 0.0;
        kpm_find_phi_f(ks, phi, ks.n_electrons * 0.5, 1.000000013351432e-10);
        const double e1 = kpm_get_energy_sf(phi, ks) * 2.0 * ks.a + ks.n_electrons * ks.b;
        const double e2 = kpm_get_energy_sd(phi, ks) * 2.0 * ks.a + ks.n_electrons * ks.b;
        ks.mu(m + 1) = mu_next;
        if (i_am_master)
            write_fmt(unit, "(I5,4E17.8)",
                      {m, e2, e1, std::fabs(e2 - e_ref), std::fabs(e1 - e_ref)});
    }
    // The moments beyond a shorter expansion stay as they were: the full set is back.
    ks.n = m_full;
    calc_gibbs_factors(ks.kernel, ks.g, m_full);
    rescale_h_ab(h, ks.a, ks.b, ks.no_ex);
}

} // namespace lyrt
