// The force and stress self-tests of the program: their verdicts on models whose
// derivatives are right, their refusals, and the cell they leave behind.
#include "run_support.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt_test;

std::string verdict(const std::filesystem::path& log) {
    const auto lines = read_lines(log);
    return lines.empty() ? "" : lines.back();
}

class SelfTests : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    std::filesystem::path dir;
};

TEST_F(SelfTests, ForceTestPassesForSiliconCopperAndAMixedCell) {
    const std::string input = "ions_algo = 4\nn_steps = 7\ndt = 0.01\n";
    const auto si = run_case(dir / "si", poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.05), 1),
                             input, tbparam("Si"));
    ASSERT_EQ(si.status, 0);
    EXPECT_EQ(verdict(dir / "si" / "test_forces.log"), " Test PASSED ");
    const auto cu = run_case(dir / "cu", poslyrt(cube(3.61), shaken(fcc(3.61, 1), 0.04), 1),
                             input + "sigma = 0.1\n", tbparam("Cu"));
    ASSERT_EQ(cu.status, 0);
    EXPECT_EQ(verdict(dir / "cu" / "test_forces.log"), " Test PASSED ");
    const auto ref = std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/reference/cu3au_rattled";
    const auto mixed = run_case(dir / "cu3au", read_text(ref / "POSLYRT"), input + "sigma = 0.1\n",
                                read_text(ref / "TBPARAM"));
    ASSERT_EQ(mixed.status, 0);
    EXPECT_EQ(verdict(dir / "cu3au" / "test_forces.log"), " Test PASSED ");
    // Too few points for a fit of degree 4 are refused.
    const auto few = run_case(dir / "few", poslyrt(cube(5.431), diamond(5.431, 1), 1),
                              "ions_algo = 4\nn_steps = 5\ndt = 0.01\n", tbparam("Si"));
    EXPECT_EQ(few.status, 1);
}

TEST_F(SelfTests, StressTestPassesAndGivesTheCellBack) {
    const std::string input = "ions_algo = 5\nn_steps = 3\ndt = 0.002\n";
    const auto si = run_case(dir / "si", poslyrt(cube(5.40), shaken(diamond(5.40, 1), 0.04), 1),
                             input, tbparam("Si"));
    ASSERT_EQ(si.status, 0);
    EXPECT_EQ(verdict(dir / "si" / "test_stress.log"), " Test PASSED ");
    // The continuation file holds the cell of the start, not the last strain.
    const auto lines = read_lines(dir / "si" / "POSCONT");
    ASSERT_FALSE(lines.empty());
    EXPECT_NEAR(std::stod(lines[0].substr(5)), 5.40, 1e-12);
    // Smeared copper: the Fermi level's tolerance leaves noise in each energy.
    const auto cu = run_case(dir / "cu", poslyrt(cube(3.61), shaken(fcc(3.61, 1), 0.03), 1),
                             input + "sigma = 0.1\n", tbparam("Cu"));
    ASSERT_EQ(cu.status, 0);
    const std::string v = verdict(dir / "cu" / "test_stress.log");
    EXPECT_TRUE(v == " Test PASSED " || v == " Test OK, check Chi^2 for each atom ") << v;
}

} // namespace
