// Electron and state counts, and the self-consistent charge loop, in whole runs.
#include "run_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace {

// The number after a label of the report (the first line that holds the label).
double report_value(const std::string& report, const std::string& label) {
    const auto p = report.find(label);
    if (p == std::string::npos) return -1.0;
    return std::stod(report.substr(p + label.size()));
}

using namespace lyrt_test;

// A one-species parameter file from the silicon set with another mass (and so
// element) and electron line.
std::string element_file(const std::string& mass, const std::string& electrons, int orbitals = 4) {
    std::istringstream in(tbparam("Si"));
    std::ostringstream out;
    std::string line;
    for (int k = 0; std::getline(in, line); ++k) {
        if (k == 4) line = std::to_string(orbitals);
        if (k == 5) line = mass;
        if (k == 6) line = electrons;
        out << line << "\n";
    }
    return out.str();
}

class Electrons : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    std::filesystem::path dir;
};

TEST_F(Electrons, CountsOfElectronsAndStates) {
    const std::string carbon = element_file("12.0107", "2 2 0");
    // At the silicon spacing, where the borrowed silicon overlap stays positive definite.
    const auto c8 = poslyrt({{{5.431, 0, 0}, {0, 5.431, 0}, {0, 0, 5.431}}}, diamond(5.431, 1), 1);
    run_result r = run_case(dir / "c8", c8, "calc_forces = F\n", carbon);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(report_value(r.report, "Number of electrons     ="), 32.0);
    EXPECT_EQ(report_value(r.report, "Number of states        ="), 16);
    // More states than basis functions are cut at once.
    r = run_case(dir / "c8_states", c8, "number_of_states = 100\ncalc_forces = F\n", carbon);
    EXPECT_EQ(report_value(r.report, "Number of states        ="), 32);
    // 31 electrons with smearing: a positive charge of 1.
    r = run_case(dir / "c8_ion", c8, "number_of_electrons = 31\nsigma = 0.1\ncalc_forces = F\n",
                 carbon);
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.report.find("system has net positive charge of + 1.0000"), std::string::npos);
    // The report echoes the smearing with the electronic parameters.
    EXPECT_EQ(report_value(r.report, "Fermi smearing of the occupations, sigma ="), 0.1);
    EXPECT_NE(run_case(dir / "c8_plain", c8, "calc_forces = F\n", carbon)
                  .report.find("No smearing of the occupations (sigma = 0)"),
              std::string::npos);
    // One hydrogen atom: uneven without smearing, four states with it.
    const std::string hydrogen = element_file("1.00794", "1 0 0", 1);
    const auto h1 = poslyrt({{{10, 0, 0}, {0, 10, 0}, {0, 0, 10}}}, {{1, 0, 0, 0}}, 1);
    r = run_case(dir / "h", h1, "", hydrogen);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(read_text(dir / "h" / "ERRLYRT")
                  .find("uneven number of electrons without electronic smearing."),
              std::string::npos);
    r = run_case(dir / "h_smeared", h1, "sigma = 0.1\n", hydrogen);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(report_value(r.report, "Number of states        ="), 4);
    // Too few states for the electrons without smearing and with the neutral count.
    r = run_case(dir / "c8_few", c8, "number_of_states = 10\n", carbon);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(read_text(dir / "c8_few" / "ERRLYRT").find("number of states given is too small"),
              std::string::npos);
}

// Two kinds of silicon atom, one with a higher s and p level, with a Hubbard U:
// charge flows and the loop mixes it until the energy settles. (With U = 4 eV a
// mixing of 0.3 overshoots into a two-cycle; 0.05 converges.)
TEST_F(Electrons, ChargeSelfConsistency) {
    std::istringstream in(tbparam("Si"));
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    auto compose = [&](double shift, const std::string& electrons) {
        // Species 2: the on-site a of s and p raised by `shift` Rydberg.
        std::ostringstream f;
        f.precision(17);
        f << "NN00000\nscc\n2\n" << lines[3] << "\n" << lines[3] << "\n" << lines[3] << "\n";
        for (int s = 0; s < 2; ++s) f << "4\n28.086\n" << electrons << "\n";
        auto onsite = [&](bool second) {
            for (int k = 7; k < 24; ++k) {
                double v = std::stod(lines[static_cast<std::size_t>(k)]);
                if (second && (k == 8 || k == 12)) v += shift;
                f << v << "\n";
            }
        };
        onsite(false);
        onsite(true);
        for (int pass = 0; pass < 2; ++pass)
            for (int c = 0; c < 4; ++c)
                for (int k = 1; k < 4; ++k)
                    f << lines[static_cast<std::size_t>(8 + 4 * c + k)] << "\n";
        for (int sec = 0; sec < 2; ++sec) {
            const int first = sec == 0 ? 24 : 64;
            for (int s = 0; s < 2; ++s)
                for (int k = 0; k < 40; ++k)
                    f << lines[static_cast<std::size_t>(first + k)] << "\n";
            for (int k = 0; k < 40; ++k) f << lines[static_cast<std::size_t>(first + k)] << "\n";
            const int from[4] = {1, 4, 5, 6};
            const double sign[4] = {-1, 1, -1, -1};
            for (int t = 0; t < 4; ++t)
                for (int c = 0; c < 4; ++c)
                    f << sign[t] *
                             std::stod(lines[static_cast<std::size_t>(first + c + 4 * from[t])])
                      << "\n";
        }
        return f.str();
    };
    std::vector<atom> atoms = diamond(5.431, 1);
    for (std::size_t i = 4; i < 8; ++i) atoms[i].species = 2;
    const auto pos = poslyrt({{{5.431, 0, 0}, {0, 5.431, 0}, {0, 0, 5.431}}}, atoms, 2);
    const std::string input =
        "scc_used = T\ncharge_mixing = 0.05\nmax_elec_iter = 200\nsigma = 0.1\n"
        "elec_energy_tol = 1e-9\noutput_level = 3\ncalc_forces = F\n";
    run_result r = run_case(dir / "scc", pos, input, compose(0.05, "2 2 0 4.0"));
    ASSERT_EQ(r.status, 0);
    // The passes, one line each: pass, energy, relative change.
    std::vector<std::array<double, 3>> passes;
    for (const std::string& l : read_lines(dir / "scc" / "stdout.txt")) {
        std::istringstream s(l);
        std::array<double, 3> p{};
        if (s >> p[0] >> p[1] >> p[2]) passes.push_back(p);
    }
    ASSERT_GE(passes.size(), 4u);
    ASSERT_LT(passes.size(), 200u);
    EXPECT_LT(std::fabs(passes.back()[2]), 1e-9);
    for (std::size_t k = 0; k < passes.size(); ++k) EXPECT_EQ(passes[k][0], static_cast<double>(k));
    // The net charges of the neutral system sum to zero; the raised species gives electrons.
    auto pc = read_lines(dir / "scc" / "POSCONT");
    std::size_t q0 = 0;
    while (q0 < pc.size() && pc[q0] != "qion") ++q0;
    ASSERT_LT(q0 + 8, pc.size());
    double sum = 0.0;
    for (std::size_t k = 1; k <= 8; ++k) sum += std::stod(pc[q0 + k]);
    EXPECT_NEAR(sum, 0.0, 1e-8);
    // Species 2, with the higher levels, gives electrons away (q counts electrons gained).
    EXPECT_LT(std::stod(pc[q0 + 8]), -1e-3);
    EXPECT_GT(std::stod(pc[q0 + 1]), 1e-3);
    // The same system with U = 0 has an energy that is stable after the first pass:
    // min_elec_iter 5 gives six passes when the charges are not held to a tolerance,
    // and max_elec_iter 1 one pass, with the warning that the charges are not
    // self-consistent. (The first statement of a keyword in the file is the one read.)
    r = run_case(dir / "u0", pos, "min_elec_iter = 5\nelec_charge_tol = 1\n" + input,
                 compose(0.05, "2 2 0"));
    int n6 = 0;
    for (const std::string& l : read_lines(dir / "u0" / "stdout.txt")) {
        std::istringstream s(l);
        double a, b, c;
        if (s >> a >> b >> c) ++n6;
    }
    EXPECT_EQ(n6, 6);
    r = run_case(dir / "one", pos, "max_elec_iter = 1\n" + input, compose(0.05, "2 2 0 4.0"));
    int n1 = 0;
    for (const std::string& l : read_lines(dir / "one" / "stdout.txt")) {
        std::istringstream s(l);
        double a, b, c;
        if (s >> a >> b >> c) ++n1;
    }
    EXPECT_EQ(n1, 1);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(read_text(dir / "one" / "ERRLYRT")
                  .find("the charges are not self-consistent after 1 "
                        "passes"),
              std::string::npos);
    EXPECT_NE(read_text(dir / "one" / "OUTLYRT").find("largest charge change"), std::string::npos);
}

} // namespace

namespace {

// The orbital solver codes can't run through the ground-state door yet: the run
// ends with the required line.
TEST(SolverCodes, OrbitalCodesStop) {
    const auto dir = lyrt_test::fresh_dir("orbital_codes");
    const auto src = std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8";
    const run_result r =
        run_case(dir, read_text(src / "POSLYRT"), "elec_gs_algo = 1\n", read_text(src / "TBPARAM"));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(read_text(dir / "stdout.txt").find("FIX CALL TO TB_HS_CALC FIRST"),
              std::string::npos);
    // Without forces the eigenvectors may be left out; asking for forces without
    // them is refused.
    const run_result ok = run_case(dir / "values", read_text(src / "POSLYRT"),
                                   "calc_forces = F\neigen_vect = F\n", read_text(src / "TBPARAM"));
    EXPECT_EQ(ok.status, 0);
    const run_result no = run_case(dir / "no_vectors", read_text(src / "POSLYRT"),
                                   "eigen_vect = F\n", read_text(src / "TBPARAM"));
    EXPECT_NE(no.status, 0);
    EXPECT_NE(read_text(dir / "no_vectors" / "ERRLYRT")
                  .find("The eigenvectors have not been calculated cannot compute forces"),
              std::string::npos);
}

} // namespace

namespace {

// A run type with steps but without its loop here goes straight to the final
// report, which shows the state read in; its data files are started.
TEST(RunModes, StepsWithoutTheirLoopGiveTheFinalReport) {
    const auto dir = lyrt_test::fresh_dir("no_loop");
    const auto src = std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8";
    const run_result r = run_case(dir, read_text(src / "POSLYRT"), "n_steps = 3\nionic_algo = 2\n",
                                  read_text(src / "TBPARAM"));
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.report.find("FINAL CONFIGURATION"), std::string::npos);
    EXPECT_NE(r.report.find("   ionic positions will be relaxed using sd"), std::string::npos);
    const auto ene = read_lines(dir / "ENE");
    ASSERT_FALSE(ene.empty());
    EXPECT_EQ(ene[0], "#Step  Epot ions (eV)     Max force (eV)");
    EXPECT_TRUE(std::filesystem::exists(dir / "POSCONT"));
}

} // namespace

namespace {

// Without smearing, states computed beyond the filled ones are empty: the energy
// and the forces are those of the filled states alone, and the first empty state
// gives the gap.
TEST(Occupations, ExtraStatesWithoutSmearingStayEmpty) {
    using namespace lyrt_test;
    const auto dir = fresh_dir("extra_states");
    const std::string pos = poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.05), 1);
    const run_result plain = run_case(dir / "plain", pos, "", tbparam("Si"));
    const run_result extra = run_case(dir / "extra", pos, "n_states = 24\n", tbparam("Si"));
    ASSERT_EQ(plain.status, 0);
    ASSERT_EQ(extra.status, 0);
    EXPECT_NEAR(extra.e_pot, plain.e_pot, 1e-8);
    ASSERT_EQ(extra.force.size(), plain.force.size());
    for (std::size_t i = 0; i < plain.force.size(); ++i)
        for (std::size_t k = 0; k < 3; ++k) EXPECT_NEAR(extra.force[i][k], plain.force[i][k], 1e-7);
    // The gap is the distance of the 17th state from the 16th.
    ASSERT_GE(extra.eigenvalues.size(), 17u);
    const double gap = extra.eigenvalues[16] - extra.eigenvalues[15];
    EXPECT_GT(gap, 0.0);
    const std::string key = " Energy gap           = ";
    const auto at = extra.report.rfind(key);
    ASSERT_NE(at, std::string::npos);
    EXPECT_NEAR(std::stod(extra.report.substr(at + key.size())), gap, 1e-8);
}

} // namespace
