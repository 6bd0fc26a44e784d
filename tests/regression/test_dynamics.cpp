// Ion dynamics as a user runs it: conservation and second order of both
// integrators (plain, smeared, with charges, on the polynomial expansion), the
// thermostats' temperatures, reproducible noise, frozen coordinates, fixed
// velocities, restarts that continue a trajectory, boosted dynamics.
#include "run_support.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace lyrt_test;

class Dynamics : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    run_result si8(const std::string& name, const std::string& input,
                   const std::string& extra = "") {
        return run_case(dir / name,
                        poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.05), 1) + extra, input,
                        tbparam("Si"));
    }
    std::filesystem::path dir;
};

// One conservation case: a crystal from 600 K run over 100 fs at dt and at dt/2.
struct conservation_case {
    const char* name;
    const char* model; // parameter set of tests/data
    bool copper;
    const char* input;
};

class Conservation : public Dynamics, public ::testing::WithParamInterface<conservation_case> {};

// The total (free) energy neither drifts nor fluctuates beyond the integrator's error,
// and half the step cuts its fluctuation by about four (second order). Position
// Verlet's first step is of first order: step 1 is left out of the fit.
TEST_P(Conservation, TotalEnergyIsConservedToSecondOrder) {
    const conservation_case c = GetParam();
    const std::string model =
        std::string(c.model) == "Si+U" ? with_hubbard("Si", {4.0}) : tbparam(c.model);
    const auto atoms = c.copper ? shaken(fcc(3.61, 1), 0.05) : shaken(diamond(5.431, 1), 0.05);
    const std::string pos = poslyrt(cube(c.copper ? 3.61 : 5.431), atoms, 1);
    const bool pv = std::string(c.input).find("ions_eom_algo = 1") != std::string::npos;
    double rms[2], offset[2];
    for (int h = 0; h < 2; ++h) {
        const std::string name = "h" + std::to_string(h);
        const std::string steps =
            h == 0 ? "n_steps = 100\ndt = 1.0\n" : "n_steps = 200\ndt = 0.5\n";
        const run_result r = run_case(dir / name, pos,
                                      std::string(c.input) + steps +
                                          "temperature = 600\ntemperature_seed_1 = 11\n"
                                          "temperature_seed_2 = 22\n",
                                      model);
        ASSERT_EQ(r.status, 0) << c.name << ": " << read_text(dir / name / "ERRLYRT");
        const auto rows = read_ene(dir / name);
        ASSERT_EQ(rows.size(), h == 0 ? 101u : 201u);
        EXPECT_NEAR(rows.back().time, 100.0, 1e-9);
        const line_fit f = fit_total_energy(rows, pv ? 2 * (h + 1) : 0);
        rms[h] = f.rms;
        // The level it keeps against the start (set by position Verlet's Taylor step).
        offset[h] = std::fabs(f.intercept - rows[0].e_tot);
        // The run is no still life: the crystal moves (and with charges they follow
        // the lattice, self-consistent at every step).
        EXPECT_GT(mean_temperature(rows, 20.0), 100.0) << c.name;
        EXPECT_EQ(read_text(dir / name / "ERRLYRT").find("not self-consistent"), std::string::npos);
        if (std::string(c.name) == "charges") {
            const auto pc = read_lines(dir / name / "POSCONT");
            const auto q =
                static_cast<std::size_t>(std::find(pc.begin(), pc.end(), "qion") - pc.begin());
            ASSERT_LT(q + 2, pc.size());
            EXPECT_GT(std::fabs(std::stod(pc[q + 1])) + std::fabs(std::stod(pc[q + 2])), 1e-4);
        }
        if (h == 0) {
            EXPECT_LT(std::fabs(f.slope) * 100.0 / atoms.size(), 2e-4) << c.name << ": eV/atom";
            EXPECT_LT(f.rms / atoms.size(), 2e-4) << c.name << ": eV/atom";
        }
    }
    for (const double ratio : {rms[0] / rms[1], offset[0] / offset[1]}) {
        EXPECT_GT(ratio, 3.0) << c.name;
        EXPECT_LT(ratio, 5.5) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Conservation,
    ::testing::Values(
        conservation_case{"velocity_verlet", "Si", false, "ions_eom_algo = 2\n"},
        conservation_case{"position_verlet", "Si", false, "ions_eom_algo = 1\n"},
        conservation_case{"smeared_copper", "Cu", true, "ions_eom_algo = 2\nsigma = 0.1\n"},
        conservation_case{
            "charges", "Si+U", false,
            "ions_eom_algo = 2\nsigma = 0.1\nscc_used = T\nscc_mixer = broyden\n"
            "charge_mixing = 0.3\nelec_energy_tol = 1e-11\nelec_charge_tol = 1e-10\n"},
        conservation_case{"polynomial", "Si_orth", false,
                          "ions_eom_algo = 2\nelec_gs_algo = 4\nn_moments = 60\n"
                          "kpm_emin = -15\nkpm_emax = 13\n"}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

// Thermostats hold the mean temperature of the last 2.5 ps within 10 % of 600 K:
// Nose-Hoover (position Verlet), Langevin and velocity rescaling with both integrators.
class Thermostats : public Dynamics, public ::testing::WithParamInterface<const char*> {};

TEST_P(Thermostats, HoldTheTargetTemperature) {
    const std::string input = GetParam();
    const run_result r = si8("run", "n_steps = 3000\ntemperature = 600\ntemperature_seed_1 = 5\n"
                                    "temperature_seed_2 = 7\n" +
                                        input);
    ASSERT_EQ(r.status, 0) << input;
    const auto rows = read_ene(dir / "run");
    EXPECT_NEAR(mean_temperature(rows, 500.0), 600.0, 60.0) << input;
    // The velocity-rescaling thermostat's effective energy (Etot with its work added
    // back) stays as flat as the energy of plain dynamics with velocity Verlet (position
    // Verlet reports one-sided velocities, whose energy the rescaling of the half
    // steps does not follow to this accuracy).
    if (input.find("thermostat = 3") != std::string::npos &&
        input.find("ions_eom_algo = 2") != std::string::npos) {
        const line_fit f = fit_total_energy(rows, 2);
        EXPECT_LT(std::fabs(f.slope) * 1000.0 / 8, 1e-4) << input << ": eV/atom/ps";
        EXPECT_LT(f.rms / 8, 1e-4) << input;
    }
}

INSTANTIATE_TEST_SUITE_P(NoseAndLangevin, Thermostats,
                         ::testing::Values("ions_eom_algo = 1\nthermostat = 1\nq_nose_ions = 500\n",
                                           "ions_eom_algo = 1\nthermostat = 2\nfriction = 0.01\n",
                                           "ions_eom_algo = 2\nthermostat = 2\nfriction = 0.01\n",
                                           "ions_eom_algo = 1\nthermostat = 3\ntau_t = 50\n",
                                           "ions_eom_algo = 2\nthermostat = 3\ntau_t = 50\n"));

// Constant pressure at 0 K (no noise; the thermostat towards 0 K is a friction):
// from a strained, sheared diamond cell the anisotropic barostat ends where every
// stress is the target, a cube up to a rotation; the isotropic one keeps the shape
// and reaches the target in the mean. Their effective energy stays flat, the
// thermostat's and barostat's work included.
TEST_F(Dynamics, BarostatAtZeroTemperatureReachesTheTargetStress) {
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
    for (const int barostat : {2, 1}) {
        const std::string name = "b" + std::to_string(barostat);
        const run_result r = run_case(
            dir / name, poslyrt(start, atoms, 1),
            "n_steps = 400\nions_eom_algo = 2\ntemperature = 0\nthermostat = 3\ntau_t = 10\n"
            "tau_p = 20\npressure = 10\nbarostat_steps = 1\nstatus_output_freq = 20\n"
            "barostat = " +
                std::to_string(barostat) + "\n",
            tbparam("Si"));
        ASSERT_EQ(r.status, 0) << read_text(dir / name / "ERRLYRT");
        const auto rows = read_ene(dir / name);
        ASSERT_EQ(rows.size(), 21u);
        EXPECT_NEAR(rows.back().pressure, 10.0, 0.01) << name;
        EXPECT_LT(std::fabs(rows.back().e_tot), 1e-4) << name;
        const cell3 a = cell_of(dir / name / "POSCONT");
        const double volume = std::fabs(dot3(a[0], {a[1][1] * a[2][2] - a[1][2] * a[2][1],
                                                    a[1][2] * a[2][0] - a[1][0] * a[2][2],
                                                    a[1][0] * a[2][1] - a[1][1] * a[2][0]}));
        EXPECT_NEAR(rows.back().volume, volume, 1e-6) << name;
        if (barostat == 2) {
            const double l0 = std::sqrt(dot3(a[0], a[0]));
            EXPECT_NEAR(last_value(r.report, "Pressure:") * 160.21766208, 10.0, 0.01);
            for (int i = 0; i < 3; ++i) {
                EXPECT_NEAR(std::sqrt(dot3(a[i], a[i])), l0, 1e-4) << i;
                for (int j = i + 1; j < 3; ++j)
                    EXPECT_LT(std::fabs(dot3(a[i], a[j])) / (l0 * l0), 1e-4) << i << j;
            }
        } else {
            // A uniform strain: one factor on every component of the cell.
            const double f = a[0][0] / start[0][0];
            EXPECT_LT(f, 0.999);
            for (int i = 0; i < 3; ++i)
                for (int k = 0; k < 3; ++k) EXPECT_NEAR(a[i][k], f * start[i][k], 1e-10) << i << k;
        }
    }
}

// At 600 K the barostat moves the volume (Si 8 at a = 5.431 A is under about 8 GPa
// in this model and expands by several per cent) while the effective energy, the
// enthalpy with the work of thermostat and barostat added back, stays as flat as
// the energy of plain dynamics.
TEST_F(Dynamics, BarostatEffectiveEnergyStaysFlat) {
    for (const char* barostat : {"barostat = 1\n", "barostat = 2\n"}) {
        const run_result r =
            si8("run", std::string(barostat) +
                           "n_steps = 1000\nions_eom_algo = 2\ntemperature = 600\n"
                           "temperature_seed_1 = 5\ntemperature_seed_2 = 7\nthermostat = 3\n"
                           "tau_t = 50\ntau_p = 100\nbarostat_steps = 5\n");
        ASSERT_EQ(r.status, 0) << barostat;
        const auto rows = read_ene(dir / "run");
        const line_fit f = fit_total_energy(rows, 2);
        EXPECT_LT(std::fabs(f.slope) * 1000.0 / 8, 1e-4) << barostat << ": eV/atom/ps";
        EXPECT_LT(f.rms / 8, 1e-4) << barostat;
        EXPECT_GT(rows.back().volume, 1.04 * rows.front().volume) << barostat;
    }
}

// The fourth number of a POS or VEL line (species, then x y z).
double item(const std::string& line, int k) {
    std::istringstream in(line);
    double v[4];
    in >> v[0] >> v[1] >> v[2] >> v[3];
    return v[k];
}

// Frozen coordinates neither move nor change velocity, noise or not.
TEST_F(Dynamics, FrozenCoordinatesStayPut) {
    std::string freeze = "freeze\nT T T\nF F T\n";
    for (int i = 3; i <= 8; ++i) freeze += "F F F\n";
    std::string vel = "velocities = cartesian\n0 0 0\n0 0 0.002\n";
    for (int i = 3; i <= 8; ++i) vel += "0.001 -0.002 0.001\n";
    int run = 0;
    for (const char* input :
         {"ions_eom_algo = 2\n", "ions_eom_algo = 1\nthermostat = 2\nfriction = 0.05\n"}) {
        const std::string name = "run" + std::to_string(++run);
        ASSERT_EQ(si8(name,
                      std::string(input) + "n_steps = 10\nveloc_start = 2\nsave_to_file = VEL\n",
                      freeze + vel)
                      .status,
                  0)
            << input;
        // Frames of POS and VEL: cell (3 lines), counts, then one line per ion.
        const auto pos = read_lines(dir / name / "POS"), velf = read_lines(dir / name / "VEL");
        ASSERT_EQ(pos.size(), 11u * 12u) << input;
        for (int frame = 1; frame <= 10; ++frame) {
            const std::size_t ion1 = 12 * frame + 4;
            for (int k = 1; k <= 3; ++k) {
                EXPECT_EQ(item(pos[ion1], k), item(pos[4], k)) << input << frame;
                EXPECT_EQ(item(velf[ion1], k), 0.0) << input;
            }
            EXPECT_EQ(item(pos[ion1 + 1], 3), item(pos[5], 3)) << input;
            EXPECT_EQ(item(velf[ion1 + 1], 3), 0.002) << input;
            EXPECT_NE(item(pos[ion1 + 2], 1), item(pos[6], 1)) << input << ": free ions move";
        }
    }
}

// Fixed velocities: every ion moves along its velocity of POSLYRT, whatever the
// forces, x(t) = x(0) + v t, folded back into the cell.
TEST_F(Dynamics, FixedVelocitiesMoveTheIonsAlongThem) {
    std::string vel = "velocities = cartesian\n";
    for (int i = 1; i <= 8; ++i)
        vel += std::to_string(0.01 * i) + " -0.02 " + std::to_string(0.003 * i) + "\n";
    ASSERT_EQ(si8("fixed", "ions_algo = 3\nn_steps = 6\ndt = 2.0\nveloc_start = 2\n", vel).status,
              0);
    const auto pos = read_lines(dir / "fixed" / "POS");
    ASSERT_EQ(pos.size(), 7u * 12u);
    const double a = 5.431;
    for (int frame = 1; frame <= 6; ++frame)
        for (int i = 1; i <= 8; ++i) {
            const double v[3] = {0.01 * i, -0.02, 0.003 * i};
            for (int k = 1; k <= 3; ++k) {
                // POS holds reduced coordinates.
                double d = (item(pos[12 * frame + 3 + i], k) - item(pos[3 + i], k)) * a -
                           v[k - 1] * 2.0 * frame;
                d -= a * std::round(d / a);
                EXPECT_NEAR(d, 0.0, 1e-5) << "frame " << frame << " ion " << i << " axis " << k;
            }
        }
}

// n_steps = 1 is two ground states and one move; a run type without motion
// reports the state read in, with no ground state at all.
TEST_F(Dynamics, StepCountsAndTheRunWithoutMotion) {
    ASSERT_EQ(si8("one", "n_steps = 1\nions_eom_algo = 2\n").status, 0);
    const std::string timings = read_text(dir / "one" / "timings");
    EXPECT_EQ(count_of(timings, " gs_calc "), 2);
    EXPECT_EQ(count_of(timings, "sec for MD step"), 1);
    EXPECT_EQ(read_ene(dir / "one").size(), 2u);
    const run_result none = si8("none", "n_steps = 5\nions_algo = 2\n");
    ASSERT_EQ(none.status, 0);
    EXPECT_EQ(count_of(read_text(dir / "none" / "timings"), " gs_calc "), 0);
    EXPECT_EQ(count_of(none.report, "FINAL CONFIGURATION"), 1);
    EXPECT_NE(none.report.find("   ionic positions will be relaxed using sd"), std::string::npos);
    EXPECT_EQ(read_lines(dir / "none" / "ENE").at(0), "#Step  Epot ions (eV)     Max force (eV)");
}

// A run continued from the POSCONT of its first half follows the trajectory of
// the uninterrupted run: energies to 1e-8 eV, and its clock and thermostat go on.
TEST_F(Dynamics, RestartContinuesTheTrajectory) {
    const std::string start = "temperature = 900\ntemperature_seed_1 = 9\ntemperature_seed_2 = 8\n";
    for (const char* input : {"ions_eom_algo = 2\n", "ions_eom_algo = 1\n",
                              "ions_eom_algo = 1\nthermostat = 1\nq_nose_ions = 200\n"}) {
        const std::string in = input + start;
        const run_result whole = si8("whole", in + "n_steps = 20\n");
        ASSERT_EQ(whole.status, 0) << input;
        ASSERT_EQ(si8("first", in + "n_steps = 10\n").status, 0) << input;
        const run_result second = run_case(dir / "second", read_text(dir / "first" / "POSCONT"),
                                           in + "n_steps = 10\nstart = 1\n", tbparam("Si"));
        ASSERT_EQ(second.status, 0) << input << read_text(dir / "second" / "ERRLYRT");
        for (const char* label : {" Potential     Energy = ", " Total         Energy = "})
            EXPECT_NEAR(last_value(whole.report, label), last_value(second.report, label), 1e-8)
                << input << label;
        const auto rows = read_ene(dir / "second");
        ASSERT_FALSE(rows.empty());
        EXPECT_EQ(rows.back().step, 20) << input;
        EXPECT_NEAR(rows.back().time, 20.0, 1e-9) << input;
    }
    // With the velocity-rescaling thermostat and the barostat (their energies and the
    // random stream go on in POSCONT), across a barostat step, the continued run
    // follows the uninterrupted one: positions to 1e-9 A, cell to 1e-12 A.
    const std::string npt = "ions_eom_algo = 2\nthermostat = 3\ntau_t = 10\nbarostat = 2\n"
                            "tau_p = 40\nbarostat_steps = 5\npressure = 2\n" +
                            start;
    ASSERT_EQ(si8("npt", npt + "n_steps = 20\n").status, 0);
    ASSERT_EQ(si8("npt1", npt + "n_steps = 10\n").status, 0);
    const run_result second = run_case(dir / "npt2", read_text(dir / "npt1" / "POSCONT"),
                                       npt + "n_steps = 10\nstart = 1\n", tbparam("Si"));
    ASSERT_EQ(second.status, 0) << read_text(dir / "npt2" / "ERRLYRT");
    const cell3 a = cell_of(dir / "npt" / "POSCONT"), b = cell_of(dir / "npt2" / "POSCONT");
    const cell3 a1 = cell_of(dir / "npt1" / "POSCONT");
    double moved = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(a[i][k], b[i][k], 1e-12) << i << k;
            moved += std::fabs(a[i][k] - a1[i][k]);
        }
    EXPECT_GT(moved, 1e-4); // the second half did move the cell
    auto positions = [](const std::filesystem::path& file) {
        const auto lines = read_lines(file);
        std::vector<double> x;
        const auto at = std::find(lines.begin(), lines.end(), "positions = unit");
        for (auto l = at + 1; l != lines.end() && x.size() < 24; ++l)
            for (int k = 1; k <= 3; ++k) x.push_back(item(*l, k));
        return x;
    };
    const auto pa = positions(dir / "npt" / "POSCONT"), pb = positions(dir / "npt2" / "POSCONT");
    ASSERT_EQ(pa.size(), 24u);
    ASSERT_EQ(pb.size(), 24u);
    for (std::size_t i = 0; i < pa.size(); ++i) EXPECT_NEAR(pa[i], pb[i], 1e-9 / 5.6) << i;
    const auto ea = read_ene(dir / "npt"), eb = read_ene(dir / "npt2");
    EXPECT_NEAR(ea.back().e_tot, eb.back().e_tot, 1e-8);
    EXPECT_NE(read_text(dir / "npt1" / "POSCONT").find("barostat_energy ="), std::string::npos);
}

// Far above its threshold the boost vanishes: the run is plain dynamics to the
// last digit and its clock runs at the normal rate; below it the clock runs
// faster by the reported factor.
TEST_F(Dynamics, BoostedClock) {
    std::string boost = "boost\n";
    for (int i = 1; i <= 8; ++i) boost += i <= 3 ? "T\n" : "F\n";
    const std::string input = "n_steps = 8\nions_eom_algo = 2\ntemperature = 600\n"
                              "temperature_seed_1 = 2\ntemperature_seed_2 = 3\ncalc_elocal = T\n";
    ASSERT_EQ(si8("plain", input, boost).status, 0);
    const run_result far =
        si8("far", input + "hyper_md = T\ne_boost = -1000\na_boost = 20\n", boost);
    ASSERT_EQ(far.status, 0);
    EXPECT_EQ(read_text(dir / "plain" / "ENE"), read_text(dir / "far" / "ENE"));
    EXPECT_EQ(last_value(far.report, " Boost factor         = "), 1.0);
    EXPECT_EQ(last_value(far.report, " Boost Pot     Energy = "), 0.0);
    const run_result on = si8("on", input + "hyper_md = T\ne_boost = 5\na_boost = 0.5\n", boost);
    ASSERT_EQ(on.status, 0);
    const double factor = last_value(on.report, " Boost factor         = ");
    EXPECT_GT(factor, 1.0);
    EXPECT_GT(read_ene(dir / "on").back().time, 8.0);
    // Hyper dynamics without a temperature is refused before it divides by it.
    EXPECT_EQ(si8("cold", "n_steps = 2\nhyper_md = T\ntemperature = 0\nions_eom_algo = 2\n", boost)
                  .status,
              1);
}

} // namespace
