// Relaxation by conjugate gradients: vacancies and a rattled crystal relax to the
// force tolerance, the energy never rises, frozen coordinates stay.
#include "run_support.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace lyrt_test;

double largest_force(const run_result& r) {
    double m = 0.0;
    for (const auto& f : r.force)
        for (double c : f) m = std::max(m, std::fabs(c));
    return m;
}

// The changes of the potential energy per step (ENE of a relaxation).
std::vector<double> energy_changes(const std::filesystem::path& dir) {
    std::vector<double> de;
    for (const auto& line : read_lines(dir / "ENE")) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream in(line);
        int step;
        double d, f;
        in >> step >> d >> f;
        de.push_back(d);
    }
    return de;
}

class Relaxation : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    // Relaxes and checks the common promises; returns the energy gained.
    double relax(const std::string& name, const std::string& pos, const std::string& extra,
                 const std::string& param, double start_energy) {
        const run_result r =
            run_case(dir / name, pos,
                     "ions_algo = 1\nn_steps = 300\nions_max_force = 1e-3\n" + extra, param);
        EXPECT_EQ(r.status, 0) << name << read_text(dir / name / "ERRLYRT");
        EXPECT_NE(read_text(dir / name / "stdout.txt").find("Force tolerance reached"),
                  std::string::npos)
            << name;
        EXPECT_LT(largest_force(r), 1e-3) << name << ": forces of the last report";
        for (double d : energy_changes(dir / name)) EXPECT_LE(d, 1e-10) << name;
        return start_energy - r.e_pot;
    }
    std::filesystem::path dir;
};

std::vector<atom> without_first(std::vector<atom> atoms) {
    atoms.erase(atoms.begin());
    return atoms;
}

TEST_F(Relaxation, SiliconVacancy) {
    const auto pos = poslyrt(cube(2 * 5.431), without_first(diamond(5.431, 2)), 1);
    const run_result start = run_case(dir / "start", pos, "", tbparam("Si"));
    ASSERT_EQ(start.status, 0);
    const double gain = relax("si63", pos, "", tbparam("Si"), start.e_pot);
    EXPECT_GT(gain, 0.5);
    EXPECT_LT(gain, 0.9);
}

// A rattled crystal relaxes back to the crystal.
TEST_F(Relaxation, RattledSiliconReturnsToTheCrystal) {
    const run_result crystal = run_case(
        dir / "crystal", poslyrt(cube(2 * 5.431), diamond(5.431, 2), 1), "", tbparam("Si"));
    ASSERT_EQ(crystal.status, 0);
    const auto pos = poslyrt(cube(2 * 5.431), shaken(diamond(5.431, 2), 0.1), 1);
    const double gain = relax("si64", pos, "", tbparam("Si"), 0.0);
    EXPECT_NEAR(-gain, crystal.e_pot, 1e-4);
    // Restarted at every step the directions are those of steepest descent (gamma 0);
    // left to itself the search conjugates them.
    for (const std::string freq : {"1", "50"}) {
        relax("si8_" + freq, poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.1), 1),
              "debug = 1\ncg_restart_freq = " + freq + "\n", tbparam("Si"), 0.0);
        double largest = 0.0;
        for (const auto& l : read_lines(dir / ("si8_" + freq) / "stdout.txt"))
            if (const auto at = l.find("gamma="); at != std::string::npos)
                largest = std::max(largest, std::fabs(std::stod(l.substr(at + 6))));
        EXPECT_EQ(largest == 0.0, freq == "1") << freq;
    }
}

// Frozen coordinates stay where they are; with all of them frozen there is
// nothing to relax, and the run says so.
TEST_F(Relaxation, FrozenCoordinatesStay) {
    std::string freeze = "freeze\nT T T\nF F T\n";
    for (int i = 3; i <= 8; ++i) freeze += "F F F\n";
    const run_result r =
        run_case(dir / "si8", poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.08), 1) + freeze,
                 "ions_algo = 1\nn_steps = 40\n", tbparam("Si"));
    ASSERT_EQ(r.status, 0);
    // Frames of POS: cell (3 lines), counts, then one line per ion.
    const auto pos = read_lines(dir / "si8" / "POS");
    ASSERT_GE(pos.size(), 24u);
    const std::size_t last = pos.size() - 12;
    auto z = [](const std::string& line) { return line.substr(line.rfind(' ')); };
    EXPECT_EQ(pos[last + 4], pos[4]);       // ion 1 frozen whole
    EXPECT_EQ(z(pos[last + 5]), z(pos[5])); // ion 2 along z
    EXPECT_NE(pos[last + 6], pos[6]);       // the free ones move
    std::string all = "freeze\n";
    for (int i = 1; i <= 8; ++i) all += "T T T\n";
    const run_result frozen =
        run_case(dir / "frozen", poslyrt(cube(5.431), diamond(5.431, 1), 1) + all,
                 "ions_algo = 1\nn_steps = 5\n", tbparam("Si"));
    EXPECT_EQ(frozen.status, 1);
    EXPECT_NE(read_text(dir / "frozen" / "ERRLYRT").find("every coordinate is frozen"),
              std::string::npos);
}

} // namespace
