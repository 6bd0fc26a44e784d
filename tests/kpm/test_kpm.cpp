// The kernel polynomial method against independent arithmetic: moments and bounds
// against the dense spectrum, the Fermi search over the whole band, the linear forms
// against closed-form integrals, band energies converging to the occupied sum.
#include "base/error_module.hpp"
#include "kpm/kpm_module.hpp"
#include "kpm/lanczos_module.hpp"
#include "kpm/moments_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "run_support.hpp"
#include "system/constants_module.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

// Diamond Si (8-atom cells) or fcc Cu (4) of n^3 cubic cells of edge a0.
std::string crystal(bool silicon, int n, double a0) {
    return poslyrt(cube(n * a0), silicon ? diamond(a0, n) : fcc(a0, n), 1);
}

class Kpm : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        constants_init();
        init_random(11, 17);
        on_site_reset();
    }
    // Si 64 on the orthogonal silicon model, Cu 32 on the orthogonal copper model.
    void build_si64(model_system& s) {
        build_system(s, dir, crystal(true, 2, 5.43), tbparam("Si_orth"));
    }
    void build_cu32(model_system& s) {
        build_system(s, dir, crystal(false, 2, 3.25), tbparam("Cu_orth"));
    }
    static std::vector<double> spectrum(model_system& s) {
        farray<double, 2> h, sm;
        dense(s, h, sm);
        return symmetric_eigenvalues(h);
    }
    static void start(kpm_state_type& ks, const model_system& s, int m, double n_el, double e_min,
                      double e_max, int block = 2) {
        kpm_state_alloc(ks, m);
        kpm_state_init(ks, s.ham, 'J', s.ham.desc.n_row, n_el, false, block, e_min, e_max);
    }
    // m moments of the unrolled route, H scaled with bounds 0.5 eV outside the spectrum.
    static void scaled_moments(kpm_state_type& ks, model_system& s, int m) {
        const std::vector<double> w = spectrum(s);
        start(ks, s, m, 0.0, w.front() - 0.5, w.back() + 0.5);
        scale_h_ab(s.ham, ks.e_min, ks.e_max, ks.a, ks.b, false);
        s.model.max_no == 4 ? calc_mu_new_four(s.ham, ks) : calc_mu_new_nine(s.ham, ks);
    }
};

// Every route to the moments gives the same numbers as the eigenvalues of the
// dense matrix, for an odd and an even count and a chunk size that does not
// divide the ion count; mu(M + 1) stays 0.
TEST_F(Kpm, MomentsOfAllRoutesAgreeWithTheSpectrum) {
    for (const bool silicon : {true, false}) {
        model_system s;
        silicon ? build_si64(s) : build_cu32(s);
        const std::vector<double> w = spectrum(s);
        const double n = s.ham.desc.n_row;
        farray<double, 1> eig;
        eig.allocate({1}, {static_cast<long>(w.size())});
        std::copy(w.begin(), w.end(), eig.begin());
        for (const int m : {41, 60}) {
            kpm_state_type ks;
            start(ks, s, m, 0.0, w.front() - 0.5, w.back() + 0.5);
            scale_h_ab(s.ham, ks.e_min, ks.e_max, ks.a, ks.b, false);
            farray<double, 1> exact;
            exact.allocate({0}, {m + 2});
            calc_mu_exact(ks, eig, exact, ks.a, ks.b);
            std::vector<farray<double, 1>> routes;
            calc_mu(s.ham, ks);
            routes.push_back(ks.mu.copy());
            for (const int block : {2, 3}) {
                ks.block_size = block; // 3 divides neither 64 nor 32 ions
                silicon ? calc_mu_new_four(s.ham, ks) : calc_mu_new_nine(s.ham, ks);
                routes.push_back(ks.mu.copy());
            }
            for (const auto& mu : routes) {
                for (int k = 0; k <= m; ++k)
                    ASSERT_NEAR(mu(k), exact(k), 1e-9 * n) << (silicon ? "Si" : "Cu") << m << k;
                EXPECT_EQ(mu(m + 1), 0.0);
            }
            // The last moment is a real one, not a left-over zero.
            EXPECT_GT(std::fabs(exact(m)), 1e-3);
            rescale_h_ab(s.ham, ks.a, ks.b, false);
            kpm_state_dealloc(ks);
        }
    }
}

// The bounds bracket the dense spectrum closely enough that the ten per cent
// margin holds it inside [-1, 1], and the search gives H back bit for bit.
TEST_F(Kpm, BoundsBracketTheSpectrumAndLeaveHUnchanged) {
    for (const bool silicon : {true, false}) {
        model_system s;
        silicon ? build_si64(s) : build_cu32(s);
        const std::vector<double> w = spectrum(s);
        const double width = w.back() - w.front();
        const farray<double, 2> before = s.ham.h_ab.copy();
        double lo = 0.0, hi = 0.0;
        find_energy_bounds(s.ham, 50, lo, hi, 1.0);
        ASSERT_EQ(std::memcmp(before.data(), s.ham.h_ab.data(), before.size() * sizeof(double)), 0);
        // Rayleigh quotients lie inside the spectrum.
        EXPECT_GE(lo, w.front() - 1e-9);
        EXPECT_LE(hi, w.back() + 1e-9);
        EXPECT_LT(lo - w.front(), 0.02 * width) << lo << " " << w.front();
        EXPECT_LT(w.back() - hi, 0.02 * width) << hi << " " << w.back();
        double a = 0.0, b = 0.0;
        scale_h_ab(s.ham, lo, hi, a, b, false);
        const std::vector<double> scaled = spectrum(s);
        // H' = 2 H~: its spectrum lies within [-2, 2].
        EXPECT_GT(scaled.front(), -2.0);
        EXPECT_LT(scaled.back(), 2.0);
        EXPECT_NEAR(scaled.front(), 2.0 * (w.front() - b) / a, 1e-10);
        rescale_h_ab(s.ham, a, b, false);
        for (std::size_t k = 0; k < before.size(); ++k)
            ASSERT_NEAR(s.ham.h_ab.data()[k], before.data()[k], 1e-13 * width);
        // The Lanczos variant finds the same extremes.
        double l_lo = 0.0, l_hi = 0.0;
        find_energy_bounds_lan(s.ham, 100, l_lo, l_hi);
        EXPECT_NEAR(l_lo, w.front(), 1e-3 * width);
        EXPECT_NEAR(l_hi, w.back(), 1e-3 * width);
    }
}

// The search reaches every filling, from a nearly empty band to a full one, and
// meets the count to a relative 1e-10.
TEST_F(Kpm, FermiSearchReachesTheWholeBand) {
    model_system s;
    build_si64(s);
    kpm_state_type ks;
    scaled_moments(ks, s, 100);
    const double n = s.ham.desc.n_row;
    for (const double fill : {0.02, 0.25, 0.5, 0.98, 1.0}) {
        double phi = 0.0;
        kpm_find_phi_f(ks, phi, fill * n, 1e-10);
        EXPECT_NEAR(kpm_get_nelec_sf(phi, ks), fill * n, 1e-10 * fill * n) << fill;
    }
}

// The coefficient arrays are the closed-form integrals written as linear forms,
// and their phi-derivatives are the slopes of those integrals.
TEST_F(Kpm, LinearFormsEqualTheIntegralsAndTheirSlopes) {
    model_system s;
    build_cu32(s);
    kpm_state_type ks;
    scaled_moments(ks, s, 50);
    const double phi = 1.1, h = 1e-6;
    kpm_calc_sf_coeff(phi, ks);
    EXPECT_NEAR(kpm_get_energy_c(ks), kpm_get_energy_sf(phi, ks), 1e-10);
    EXPECT_NEAR(kpm_get_nelec_c(ks), kpm_get_nelec_sf(phi, ks), 1e-10);
    double e_slope = 0.0, n_slope = 0.0;
    for (int k = 0; k <= ks.n; ++k) {
        e_slope += ks.cp(k) * ks.mu(k);
        n_slope += ks.dp(k) * ks.mu(k);
    }
    EXPECT_NEAR(e_slope,
                (kpm_get_energy_sf(phi + h, ks) - kpm_get_energy_sf(phi - h, ks)) / (2 * h), 1e-5);
    EXPECT_NEAR(n_slope, (kpm_get_nelec_sf(phi + h, ks) - kpm_get_nelec_sf(phi - h, ks)) / (2 * h),
                1e-5);
    EXPECT_NEAR(n_slope, kpm_get_nelec_sf_dphi(phi, ks), 1e-9);
    kpm_calc_sd_coeff(phi, ks);
    EXPECT_NEAR(kpm_get_energy_c(ks), kpm_get_energy_sd(phi, ks), 1e-10);
}

// Band energies approach twice the sum of the occupied eigenvalues as the
// expansion grows, for the insulator and the metal; the Hamiltonian comes back.
TEST_F(Kpm, BandEnergyConvergesToTheDenseValue) {
    for (const bool silicon : {true, false}) {
        model_system s;
        silicon ? build_si64(s) : build_cu32(s);
        const std::vector<double> w = spectrum(s);
        const int n_occ = silicon ? 128 : 176; // 4 and 11 electrons per atom, two per state
        double e_dense = 0.0;
        for (int k = 0; k < n_occ; ++k) e_dense += 2.0 * w[static_cast<std::size_t>(k)];
        const farray<double, 2> before = s.ham.h_ab.copy();
        double last = 1e9;
        for (const int m : {100, 400, 1600}) {
            kpm_state_type ks;
            start(ks, s, m, 2.0 * n_occ, 0.0, 0.0); // bounds searched
            double e_band = 0.0, e_fermi = 0.0;
            kpm_calc_energy(ks, s.ham, e_band, e_fermi);
            const double err = std::fabs(e_band - e_dense);
            EXPECT_LT(err, last) << m;
            last = err;
            // The Fermi level lies between the last occupied and first empty state,
            // to within the resolution of the expansion (about a / M).
            const double resolution = 10.0 * ks.a / m;
            EXPECT_GT(e_fermi, w[static_cast<std::size_t>(n_occ - 1)] - resolution);
            EXPECT_LT(e_fermi, w[static_cast<std::size_t>(n_occ)] + resolution);
            kpm_state_dealloc(ks);
        }
        EXPECT_LT(last, silicon ? 2e-3 : 2e-2);
        for (std::size_t k = 0; k < before.size(); ++k)
            ASSERT_NEAR(s.ham.h_ab.data()[k], before.data()[k], 1e-12);
    }
}

} // namespace
