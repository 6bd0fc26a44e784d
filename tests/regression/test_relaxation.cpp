// Relaxation by conjugate gradients: vacancies and a rattled crystal relax to the
// force tolerance, the energy never rises, frozen coordinates stay; the cell relaxes
// with the ions to the energy minimum and to a target pressure.
#include "run_support.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <array>
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

// Least-squares quadratic c0 + c1 x + c2 x^2 through points (x, y), by the normal
// equations solved by Cramer's rule.
std::array<double, 3> quadratic_fit(const std::vector<double>& x, const std::vector<double>& y) {
    double m[3][4] = {};
    for (std::size_t k = 0; k < x.size(); ++k) {
        const double p[3] = {1.0, x[k], x[k] * x[k]};
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) m[i][j] += p[i] * p[j];
            m[i][3] += p[i] * y[k];
        }
    }
    auto det = [&](int col) {
        double a[3][3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) a[i][j] = m[i][j == col ? 3 : j];
        return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
               a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
               a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    };
    const double d = det(-1);
    return {det(0) / d, det(1) / d, det(2) / d};
}

// The cell relaxes with the ions: Si 8 from a strained, sheared and rattled cell
// ends cubic (up to a rotation) at the lattice constant of the minimum of E(a) of
// the same model and sampling, every stress component below 0.01 GPa; at a target
// of 10 GPa, at the volume where the cubic crystal's pressure is 10 GPa.
TEST_F(Relaxation, CellRelaxesToTheEnergyMinimumAndToAPressure) {
    auto cubic = [&](double a) {
        const run_result r =
            run_case(dir / ("a" + std::to_string(a)), poslyrt(cube(a), diamond(a, 1), 1),
                     "n_steps = 0\ncalc_stress = T\n", tbparam("Si"));
        EXPECT_EQ(r.status, 0);
        return std::pair{r.e_pot, last_value(r.report, "Pressure:") * 160.21766208};
    };
    std::vector<double> a_e, e, a_p, p;
    for (int k = -2; k <= 2; ++k) {
        a_e.push_back(5.578 + 0.01 * k);
        e.push_back(cubic(a_e.back()).first);
        a_p.push_back(5.445 + 0.01 * k);
        p.push_back(cubic(a_p.back()).second);
    }
    // Fits in the offsets from the middle of each range (well conditioned).
    for (double& x : a_e) x -= 5.578;
    for (double& x : a_p) x -= 5.445;
    const auto ce = quadratic_fit(a_e, e), cp = quadratic_fit(a_p, p);
    const double a_min = 5.578 - ce[1] / (2.0 * ce[2]);
    // P(a) = 10 on the fitted curve: the root inside the sampled range.
    const double disc = std::sqrt(cp[1] * cp[1] - 4.0 * cp[2] * (cp[0] - 10.0));
    const double r1 = (-cp[1] - disc) / (2.0 * cp[2]), r2 = (-cp[1] + disc) / (2.0 * cp[2]);
    const double a_p10 = 5.445 + (std::fabs(r1) < std::fabs(r2) ? r1 : r2);
    ASSERT_GT(a_p10, 5.425);
    ASSERT_LT(a_p10, 5.465);
    // A triclinic start: strained, sheared, rattled.
    const double s = 5.43;
    const cell3 start = {
        {{1.02 * s, 0.015 * s, 0.0}, {0.0, 0.99 * s, 0.01 * s}, {0.01 * s, 0.0, 1.01 * s}}};
    std::vector<atom> atoms = diamond(s, 1);
    for (atom& x : atoms) {
        const double f[3] = {x.x / s, x.y / s, x.z / s};
        x.x = f[0] * start[0][0] + f[1] * start[1][0] + f[2] * start[2][0];
        x.y = f[0] * start[0][1] + f[1] * start[1][1] + f[2] * start[2][1];
        x.z = f[0] * start[0][2] + f[1] * start[1][2] + f[2] * start[2][2];
    }
    const std::string pos = poslyrt(start, shaken(atoms, 0.03), 1);
    for (const double target : {0.0, 10.0}) {
        const std::string name = target == 0.0 ? "relax0" : "relax10";
        const run_result r =
            run_case(dir / name, pos,
                     "ions_algo = 1\nn_steps = 200\nions_max_force = 1e-4\nions_delta_e = 0\n"
                     "relax_cell = T\npressure = " +
                         std::to_string(target) + "\n",
                     tbparam("Si"));
        ASSERT_EQ(r.status, 0) << read_text(dir / name / "ERRLYRT");
        EXPECT_NE(read_text(dir / name / "stdout.txt").find("Force and stress tolerances reached"),
                  std::string::npos)
            << name;
        const auto a = cell_of(dir / name / "POSCONT");
        const double want = target == 0.0 ? a_min : a_p10;
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(std::sqrt(dot3(a[i], a[i])), want, target == 0.0 ? 1e-3 : 0.005 * want / 3)
                << name << " a_" << i + 1;
            for (int j = i + 1; j < 3; ++j)
                EXPECT_LT(std::fabs(dot3(a[i], a[j])) / dot3(a[i], a[i]), 1e-4) << name;
        }
        EXPECT_NEAR(last_value(r.report, "Pressure:") * 160.21766208, target, 0.01) << name;
        // ENE gains the volume and the pressure of each step.
        const auto ene = read_lines(dir / name / "ENE");
        ASSERT_GT(ene.size(), 3u) << name;
        EXPECT_NE(ene.front().find("Volume (A^3)    Pressure (GPa)"), std::string::npos);
        std::istringstream last(ene.back());
        double step = 0, de = 0, f = 0, vol = 0, pressure = 0;
        last >> step >> de >> f >> vol >> pressure;
        EXPECT_NEAR(vol, want * want * want, 0.01 * want * want * want) << name;
        EXPECT_NEAR(pressure, target, 0.5) << name;
    }
    // With the shears frozen only the three diagonal strains relax, and their
    // stresses reach the tolerance.
    const run_result r = run_case(dir / "diagonal", pos,
                                  "ions_algo = 1\nn_steps = 200\nions_max_force = 1e-4\n"
                                  "ions_delta_e = 0\nrelax_cell = T\ncell_free = T T T F F F\n",
                                  tbparam("Si"));
    ASSERT_EQ(r.status, 0);
    const auto a = cell_of(dir / "diagonal" / "POSCONT");
    // A diagonal strain scales each Cartesian component of every vector alike.
    EXPECT_NEAR(a[0][0] / start[0][0], a[2][0] / start[2][0], 1e-9);
    EXPECT_NEAR(a[0][1] / start[0][1], a[1][1] / start[1][1], 1e-9);
    EXPECT_NEAR(a[1][2] / start[1][2], a[2][2] / start[2][2], 1e-9);
    EXPECT_GT(std::fabs(a[0][0] - start[0][0]), 0.02); // and the diagonal did relax
    EXPECT_NE(read_text(dir / "diagonal" / "stdout.txt").find("Force and stress tolerances"),
              std::string::npos);
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
