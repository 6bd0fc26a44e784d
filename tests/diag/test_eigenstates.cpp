// Dense eigensolvers, occupations and the Fermi level, the eigenvector file, and
// the pair-potential path with its forces.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "diag/diag_module.hpp"
#include "diag/eig_state_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

class Eigenstates : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        gamma_point(kpt);
    }
    kpt_type kpt;
};

// A symmetric matrix and a positive definite overlap of order n.
void test_pair(int n, farray<double, 2>& h, farray<double, 2>& s) {
    h.allocate({1, 1}, {n, n});
    s.allocate({1, 1}, {n, n});
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j) {
            h(i, j) = std::cos(0.3 * (i * j)) + (i == j ? i : 0.0);
            s(i, j) = (i == j ? 1.0 : 0.1 / (1 + std::abs(i - j)));
        }
}

TEST_F(Eigenstates, SolversAgreeAndSolveTheProblem) {
    const int n = 12;
    farray<double, 2> h, s, h2, s2, x;
    test_pair(n, h, s);
    h2 = h.copy();
    s2 = s.copy();
    x.allocate({1, 1}, {n, n});
    farray<double, 1> e1, e2;
    e1.allocate({1}, {n});
    e2.allocate({1}, {n});
    blacs_distr_type d;
    init_blacs_distr(d, n, n, 1, 1);
    allocate_work_arrays(d, "R");
    calc_gen_eigen_vectors_real(h, s, n, e1, x, d);
    calc_gen_eigen_values_real(h2, s2, n, e2, d);
    for (int i = 1; i <= n; ++i) EXPECT_NEAR(e1(i), e2(i), 1e-12);
    // H x = e S x and x^T S x = 1, with H kept and S rebuilt.
    farray<double, 2> s0, h0;
    test_pair(n, h0, s0);
    for (int j = 1; j <= n; ++j) {
        double norm = 0.0;
        for (int i = 1; i <= n; ++i) {
            double hx = 0.0, sx = 0.0;
            for (int k = 1; k <= n; ++k) {
                hx += h0(i, k) * x(k, j);
                sx += s0(i, k) * x(k, j);
            }
            EXPECT_NEAR(hx, e1(j) * sx, 1e-10);
            norm += x(i, j) * sx;
        }
        EXPECT_NEAR(norm, 1.0, 1e-12);
    }
    EXPECT_EQ(h(3, 5), h0(3, 5)); // with vectors h survives
    // An overlap that is not positive definite stops with the solver's text.
    farray<double, 2> bad_h, bad_s;
    test_pair(n, bad_h, bad_s);
    bad_s(1, 1) = -1.0;
    try {
        calc_gen_eigen_values_real(bad_h, bad_s, n, e2, d);
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message.rfind("error occured in Xsygv", 0), 0u);
        EXPECT_NE(stop.message.find("the overlap is not positive definite"), std::string::npos);
        EXPECT_GT(stop.number, n);
    }
    io_reset();
    open_units();
    // The standard problem with vectors (divide and conquer) and without.
    test_pair(n, h, s);
    h2 = h.copy();
    calc_eigen_vectors_real(h, n, e1, x, d);
    calc_eigen_values_real(h2, n, e2, d);
    for (int i = 1; i <= n; ++i) EXPECT_NEAR(e1(i), e2(i), 1e-12);
    int bad = -1;
    testing::internal::CaptureStdout();
    check_defpos(n, s0, &bad);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(bad, 0);
}

TEST_F(Eigenstates, OccupationsFermiLevelAndGap) {
    EXPECT_EQ(fermi(1.0, 0.0, 0.01), 0.0); // beyond 50 kT
    EXPECT_EQ(fermi(-1.0, 0.0, 0.01), 1.0);
    EXPECT_DOUBLE_EQ(fermi(0.1, 0.0, 0.1), 1.0 / (std::exp(1.0) + 1.0));
    EXPECT_EQ(fermi(std::nan(""), 0.0, 0.1), 0.0);
    eig_state_type eig;
    kpt.sigma = 0.2;
    eig_state_allocate(eig, 8, 6, 5.0, 1, 1, false, 'N', kpt); // 5 electrons: an odd count
    const double levels[6] = {-3.0, -2.0, -1.0, 0.5, 1.5, 4.0};
    for (int i = 1; i <= 6; ++i) eig.en_i(i, 1) = levels[i - 1];
    eig_calc_energy(eig);
    // The occupations hold 2.5 electrons per spin, to the last digits.
    double n = 0.0, band = 0.0;
    for (int i = 1; i <= 6; ++i) {
        n += eig.occ(i, 1);
        band += 2 * eig.occ(i, 1) * levels[i - 1];
        EXPECT_DOUBLE_EQ(eig.docc(i, 1), eig.occ(i, 1) * (eig.occ(i, 1) - 1.0));
    }
    EXPECT_NEAR(n, 2.5, 1e-13);
    EXPECT_NEAR(eig.e_band, band, 1e-12);
    EXPECT_GT(eig.e_fermi, -1.0);
    EXPECT_LT(eig.e_fermi, 0.5);
    EXPECT_EQ(find_homo(eig, 1, eig.e_fermi), 3);
    EXPECT_NEAR(eig.e_gap, 1.5, 1e-12);
    // Without smearing: the band sum of the states kept, the top one as Fermi level.
    kpt.sigma = 0.0;
    eig_state_type e0;
    eig_state_allocate(e0, 8, 3, 6.0, 1, 1, false, 'N', kpt);
    for (int i = 1; i <= 3; ++i) e0.en_i(i, 1) = levels[i - 1];
    eig_calc_energy(e0);
    EXPECT_DOUBLE_EQ(e0.e_band, 2 * (-6.0));
    EXPECT_EQ(e0.e_fermi, -1.0);
    EXPECT_EQ(e0.e_gap, 0.0);
    // Allocation checks.
    eig_state_type z;
    EXPECT_THROW(eig_state_allocate(z, 0, 3, 6.0, 1, 1, false, 'N', kpt), fatal_stop);
}

// A model with the core-repulsion pair potential (letter 6 of the token): the pair
// energy and its forces, and the model taken as purely classical.
TEST_F(Eigenstates, PairPotentialEnergyAndForces) {
    species_set si = read_species_set("Si");
    std::string file = one_species_file(si, 0, "NN00011");
    // The core radii follow the line of r0 and l0.
    file.insert(file.find(si.r0_l0) + si.r0_l0.size() + 1, "3.0 5.5\n");
    model_system s;
    build_system(s, dir,
                 "number_of_ions = 3\na_1 = 12 0 0\na_2 = 0 12 0\na_3 = 0 0 12\n"
                 "positions = cartesian\n1 1 1\n3.4 1.3 1.1\n1.2 3.1 0.8\n",
                 file);
    ASSERT_TRUE(s.model.pair_pot);
    s.model.pair_pot_used = true;
    s.model.classical = true;
    ions_state_type st;
    st.ions = &s.box.ions;
    st.box = &s.box;
    elec_state_type none;
    elec_algo_type ea;
    gs_calc(s.box, st, none, ea, s.ham, false);
    EXPECT_GT(st.e_pot, 0.0);
    EXPECT_EQ(st.e_pot, st.e_pair);
    // The pair energy by hand: half the sum over both ends of each pair.
    const offsite_param_type& p = s.model.param[0];
    double e = 0.0;
    for (int i = 1; i <= 3; ++i)
        for (int j = i + 1; j <= 3; ++j) {
            double d2 = 0.0;
            for (int k = 1; k <= 3; ++k) d2 += std::pow(s.box.ions.r(k, j) - s.box.ions.r(k, i), 2);
            e += pair_pot(p, std::sqrt(d2));
        }
    EXPECT_NEAR(st.e_pot, e, 1e-12);
    i_algo_type ia;
    ea.eigen_vect = true;
    forces_calc(s.ham, s.box.ions, s.box, ia, none, ea);
    const farray<double, 2> f0 = s.box.ions.f.copy();
    for (int k = 1; k <= 3; ++k)
        EXPECT_NEAR(f0(k, 2),
                    minus_central_difference(s, 2, k, 1e-5,
                                             [&] {
                                                 gs_calc(s.box, st, none, ea, s.ham, false);
                                                 return st.e_pot;
                                             }),
                    1e-7);
    // Without the pair potential a classical model has no energy and no forces.
    s.model.pair_pot_used = false;
    gs_calc(s.box, st, none, ea, s.ham, false);
    EXPECT_EQ(st.e_pot, 0.0);
    forces_calc(s.ham, s.box.ions, s.box, ia, none, ea);
    for (double f : s.box.ions.f) EXPECT_EQ(f, 0.0);
}

} // namespace
