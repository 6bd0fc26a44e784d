// Whole runs on the kernel polynomial solver: forces that are minus the gradient of
// its energy for any moment count and approach the dense forces, bounds searched
// again when the spectrum leaves them, and the inputs it refuses.
#include "run_support.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt_test;

class KpmRuns : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    std::filesystem::path dir;
    // The orthogonal silicon model's spectrum lies within [-13, 11] eV for these cells:
    // fixed bounds keep the energy one smooth function of the positions.
    static std::string kpm(int moments, const std::string& extra = "") {
        return "elec_gs_algo = 4\nn_moments = " + std::to_string(moments) +
               "\nkpm_emin = -13\nkpm_emax = 11\n" + extra;
    }
};

double largest_difference(const run_result& a, const run_result& b) {
    double m = 0.0;
    for (std::size_t i = 0; i < a.force.size(); ++i)
        for (int k = 0; k < 3; ++k)
            m = std::max(m, std::fabs(a.force[i][static_cast<std::size_t>(k)] -
                                      b.force[i][static_cast<std::size_t>(k)]));
    return m;
}

// The forces are the exact gradient of the truncated expansion: odd and even
// moment counts, the shortest expansions, on-site terms (silicon) and nine
// orbitals (copper).
TEST_F(KpmRuns, ForcesAreMinusTheEnergyGradient) {
    const auto si = shaken(diamond(5.43, 1), 0.08);
    for (const int m : {1, 2, 21, 60})
        check_forces(dir, "si" + std::to_string(m), cube(5.43), si, 1, kpm(m), tbparam("Si_orth"),
                     2);
    check_forces(dir, "cu", cube(3.25), shaken(fcc(3.25, 1), 0.06), 1,
                 "elec_gs_algo = 4\nn_moments = 40\nkpm_emin = -35\nkpm_emax = 32\n",
                 tbparam("Cu_orth"), 1);
}

// As the expansion grows the forces approach those of diagonalisation.
TEST_F(KpmRuns, ForcesApproachTheDenseForces) {
    const std::string pos = poslyrt(cube(5.43), shaken(diamond(5.43, 1), 0.08), 1);
    const run_result exact = run_case(dir / "dense", pos, "", tbparam("Si_orth"));
    ASSERT_EQ(exact.status, 0);
    double last = 1e9;
    for (const int m : {50, 200, 800}) {
        const run_result r =
            run_case(dir / ("m" + std::to_string(m)), pos, kpm(m), tbparam("Si_orth"));
        ASSERT_EQ(r.status, 0);
        const double diff = largest_difference(r, exact);
        std::printf("moments %4d: largest force difference to diagonalisation %.3e eV/A, "
                    "energy difference %.3e eV\n",
                    m, diff, r.e_pot - exact.e_pot);
        EXPECT_LT(diff, last);
        last = diff;
    }
    EXPECT_LT(last, 2e-3);
}

// Bounds too narrow for the spectrum are searched again, with a warning, and the
// run goes on to the energy it gets with searched bounds.
TEST_F(KpmRuns, BoundsThatNoLongerHoldAreSearchedAgain) {
    const std::string pos = poslyrt(cube(5.43), shaken(diamond(5.43, 1), 0.05), 1);
    const run_result narrow = run_case(
        dir / "narrow", pos, "elec_gs_algo = 4\nn_moments = 200\nkpm_emin = -3\nkpm_emax = 3\n",
        tbparam("Si_orth"));
    ASSERT_EQ(narrow.status, 0);
    EXPECT_NE(read_text(dir / "narrow" / "ERRLYRT").find("searched again"), std::string::npos);
    const run_result searched =
        run_case(dir / "searched", pos, "elec_gs_algo = 4\nn_moments = 200\n", tbparam("Si_orth"));
    ASSERT_EQ(searched.status, 0);
    EXPECT_NEAR(narrow.e_pot, searched.e_pot, 1e-3);
    EXPECT_NE(narrow.report.find(" Fermi         Energy = "), std::string::npos);
}

// No eigenvectors and no electronic stress: forces run all the same, a stress
// request is warned about, and what needs eigenvectors is refused.
TEST_F(KpmRuns, WhatTheSolverCanAndCannotGive) {
    const std::string pos = poslyrt(cube(5.43), shaken(diamond(5.43, 1), 0.05), 1);
    const run_result r = run_case(dir / "novect", pos, kpm(20, "eigen_vect = F\ncalc_stress = T\n"),
                                  tbparam("Si_orth"));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.force.size(), 8u);
    EXPECT_NE(read_text(dir / "novect" / "ERRLYRT").find("no electronic stress"),
              std::string::npos);
    const struct {
        std::string input, param, message;
    } refused[] = {
        {kpm(20), tbparam("Si"), "KPM doesn't work with non-orthogonal TB models"},
        {kpm(20, "kernel = X\n"), tbparam("Si_orth"), "unknown kernel"},
        {kpm(20, "kpm_block_size = 0\n"), tbparam("Si_orth"), "kpm_block_size must be 1 or more"},
        {kpm(0), tbparam("Si_orth"), "Number of moments must be non-zero"},
        {kpm(10000), tbparam("Si_orth"), "number of moments 10000 too large"},
        {kpm(20, "scc_used = T\n"), tbparam("Si_orth"), "scc_used needs the eigenvectors"},
        {kpm(20, "calc_elocal = T\n"), tbparam("Si_orth"), "local energies"},
    };
    int k = 0;
    for (const auto& c : refused) {
        const auto where = dir / ("refused" + std::to_string(k++));
        const run_result bad = run_case(where, pos, c.input, c.param);
        EXPECT_EQ(bad.status, 1) << c.message;
        EXPECT_NE(read_text(where / "stdout.txt").find(c.message), std::string::npos) << c.message;
    }
}

} // namespace
