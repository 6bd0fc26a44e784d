// Every shipped example runs as a user starts it (dynamics shortened to three
// steps): its report, its data files, the end its run type promises; its POSCONT
// reads back as POSLYRT, and gives a static point's energy again.
#include "run_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace lyrt_test;

class Examples : public ::testing::TestWithParam<const char*> {};

TEST_P(Examples, RunToTheirEnds) {
    const std::string ex = GetParam();
    const auto dir = fresh_dir("example_" + ex);
    std::string input = example(ex, "INLYRT");
    const auto steps = input.find("n_steps = 500");
    const bool md = steps != std::string::npos;
    if (md) {
        input.replace(steps, 13, "n_steps = 3");
        input.replace(input.find("status_output_freq = 10"), 23, "status_output_freq = 1");
    }
    const run_result r = run_case(dir, example(ex, "POSLYRT"), input, example(ex, "TBPARAM"));
    ASSERT_EQ(r.status, 0) << read_text(dir / "ERRLYRT");
    for (const char* piece : {"Number of species =", "PARAMETERS OF THE CALCULATION",
                              "  Tight-binding", "-- LYRT end --"})
        EXPECT_NE(r.report.find(piece), std::string::npos) << piece;
    EXPECT_LT(r.e_pot, 0.0); // bound relative to the free atoms
    bool static_point = false;
    if (ex == "si63_vacancy") {
        EXPECT_NE(read_text(dir / "stdout.txt").find("Force tolerance reached"), std::string::npos);
    } else if (ex == "si8_cell_relax") {
        EXPECT_NE(read_text(dir / "stdout.txt").find("Force and stress tolerances reached"),
                  std::string::npos);
        EXPECT_LT(std::fabs(last_value(r.report, "Pressure:")), 0.01 / 160.2);
    } else if (ex == "si8_selftest") {
        EXPECT_EQ(read_lines(dir / "test_forces.log").back(), " Test PASSED ");
        return;
    } else if (md) {
        EXPECT_EQ(read_ene(dir).size(), 4u);
        EXPECT_EQ(count_of(read_text(dir / "trajectory.xyz"), "Lattice="), 4);
    } else {
        // A static point of a perfect crystal: no force.
        static_point = true;
        EXPECT_NE(r.report.find("Forces (eV/Ang)"), std::string::npos);
        for (const auto& f : r.force)
            for (double c : f) EXPECT_NEAR(c, 0.0, 1e-7);
    }
    if (ex == "si64_kpm") {
        EXPECT_NE(r.report.find(" Fermi         Energy = "), std::string::npos);
        // The searched bounds start from the run's seeds: a second run repeats it.
        EXPECT_EQ(
            run_case(dir / "same", example(ex, "POSLYRT"), input, example(ex, "TBPARAM")).e_pot,
            r.e_pot);
    }
    const run_result again = run_case(dir / "again", read_text(dir / "POSCONT"),
                                      static_point ? input : "", example(ex, "TBPARAM"));
    ASSERT_EQ(again.status, 0);
    if (static_point) {
        EXPECT_NEAR(again.e_pot, r.e_pot, 1e-9);
    }
}

INSTANTIATE_TEST_SUITE_P(Shipped, Examples,
                         ::testing::Values("si8", "si64", "cu4", "cu32", "si64_kpm", "si64_md",
                                           "cu32_nose", "si63_vacancy", "si8_selftest", "si64_csvr",
                                           "si8_cell_relax", "si64_npt"));

// The annotated positions file of the README runs as it stands: an ideal L1_2
// crystal, where every ion sits at a centre of symmetry and feels no force.
TEST(Readme, AnnotatedPositionsFileRuns) {
    const std::string readme = read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "README.md");
    const auto a = readme.find("    ! Two species, 3 + 1 ions");
    ASSERT_NE(a, std::string::npos);
    std::string pos;
    std::istringstream in(readme.substr(a, readme.find("\n\n", a) - a));
    for (std::string line; std::getline(in, line);) pos += line.substr(4) + "\n";
    const run_result r =
        run_case(fresh_dir("readme_poslyrt"), pos, "sigma = 0.1\n", tbparam("CuAu"));
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.force.size(), 32u);
    for (const auto& f : r.force)
        for (double x : f) EXPECT_NEAR(x, 0.0, 1e-6);
}

} // namespace
