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

// Cu2Au2 with a Hubbard U on both species: charge flows between them and the loop
// mixes it until the energy settles; the passes are counted as the keywords say.
TEST_F(Electrons, ChargeSelfConsistency) {
    std::vector<atom> atoms = fcc(3.9, 1);
    atoms[2].species = atoms[3].species = 2;
    const auto pos = poslyrt(cube(3.9), atoms, 2);
    const std::string input =
        "scc_used = T\ncharge_mixing = 0.1\nmax_elec_iter = 200\nsigma = 0.1\n"
        "elec_energy_tol = 1e-9\noutput_level = 3\ncalc_forces = F\n";
    // The passes, one line each on standard output: pass, energy, relative change.
    auto passes = [&](const char* name, const std::string& extra, const std::string& param) {
        EXPECT_EQ(run_case(dir / name, pos, extra + input, param).status, 0) << name;
        std::vector<std::array<double, 3>> p;
        for (const std::string& l : read_lines(dir / name / "stdout.txt")) {
            std::istringstream s(l);
            std::array<double, 3> x{};
            if (s >> x[0] >> x[1] >> x[2]) p.push_back(x);
        }
        return p;
    };
    const auto scc = passes("scc", "", with_hubbard("CuAu", {4.0, 3.0}));
    ASSERT_GE(scc.size(), 4u);
    ASSERT_LT(scc.size(), 200u);
    EXPECT_LT(std::fabs(scc.back()[2]), 1e-9);
    for (std::size_t k = 0; k < scc.size(); ++k) EXPECT_EQ(scc[k][0], static_cast<double>(k));
    // The net charges of the neutral cell sum to zero; the two species differ in sign.
    auto pc = read_lines(dir / "scc" / "POSCONT");
    std::size_t q0 = 0;
    while (q0 < pc.size() && pc[q0] != "qion") ++q0;
    ASSERT_LT(q0 + 4, pc.size());
    double sum = 0.0;
    for (std::size_t k = 1; k <= 4; ++k) sum += std::stod(pc[q0 + k]);
    EXPECT_NEAR(sum, 0.0, 1e-8);
    EXPECT_LT(std::stod(pc[q0 + 1]) * std::stod(pc[q0 + 4]), -1e-6);
    // Without U the energy is stable after the first pass: min_elec_iter 5 gives six
    // passes when the charges are not held to a tolerance. max_elec_iter 1 gives one,
    // with the warning that the charges are not self-consistent.
    EXPECT_EQ(passes("u0", "min_elec_iter = 5\nelec_charge_tol = 1\n", tbparam("CuAu")).size(), 6u);
    EXPECT_EQ(passes("one", "max_elec_iter = 1\n", with_hubbard("CuAu", {4.0, 3.0})).size(), 1u);
    EXPECT_NE(read_text(dir / "one" / "ERRLYRT")
                  .find("the charges are not self-consistent after 1 passes"),
              std::string::npos);
    EXPECT_NE(read_text(dir / "one" / "OUTLYRT").find("largest charge change"), std::string::npos);
}

// Without forces the eigenvectors may be left out; asking for forces without them
// is refused.
TEST(SolverCodes, ForcesNeedTheEigenvectors) {
    const auto dir = lyrt_test::fresh_dir("orbital_codes");
    const auto src = std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8";
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

// Without smearing, states computed beyond the filled ones are empty: the energy
// and the forces are those of the filled states alone, and the first empty state
// gives the gap.
TEST(Occupations, ExtraStatesWithoutSmearingStayEmpty) {
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
