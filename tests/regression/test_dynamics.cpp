// Ion dynamics as a user runs it: energy conservation of both integrators, the
// order of the integrators, the thermostats' temperatures, reproducible noise,
// frozen coordinates, restarts that continue a trajectory, boosted dynamics.
#include "run_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>

namespace {

using namespace lyrt_test;

// One line of the energies file of a dynamics run.
struct ene_row {
    int step = 0;
    double time = 0, temperature = 0, e_kin = 0, e_pot = 0, e_tot = 0;
};

std::vector<ene_row> read_ene(const std::filesystem::path& dir) {
    std::vector<ene_row> rows;
    for (const auto& line : read_lines(dir / "ENE")) {
        if (line.empty() || line[0] == '#') continue;
        // Fixed columns (I9,E13.6,F10.2,3E20.12); a field of stars reads as NaN.
        auto field = [&](std::size_t at, std::size_t width) {
            const std::string f = line.substr(at, width);
            return f.find('*') != std::string::npos ? std::nan("") : std::stod(f);
        };
        ene_row r;
        r.step = static_cast<int>(field(0, 9));
        r.time = field(9, 13);
        r.temperature = field(22, 10);
        r.e_kin = field(32, 20);
        r.e_pot = field(52, 20);
        r.e_tot = field(72, 20);
        rows.push_back(r);
    }
    return rows;
}

// Least-squares line through the total energies of rows [from, end): the slope
// (eV/fs) and the root mean square of the residuals (eV).
struct line_fit {
    double slope = 0, rms = 0;
};

line_fit fit_total_energy(const std::vector<ene_row>& rows, std::size_t from) {
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (std::size_t i = from; i < rows.size(); ++i) {
        n += 1;
        sx += rows[i].time;
        sy += rows[i].e_tot;
        sxx += rows[i].time * rows[i].time;
        sxy += rows[i].time * rows[i].e_tot;
    }
    line_fit f;
    f.slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    const double a = (sy - f.slope * sx) / n;
    double ss = 0;
    for (std::size_t i = from; i < rows.size(); ++i) {
        const double r = rows[i].e_tot - a - f.slope * rows[i].time;
        ss += r * r;
    }
    f.rms = std::sqrt(ss / n);
    return f;
}

double mean_temperature(const std::vector<ene_row>& rows, double from_time) {
    double s = 0, n = 0;
    for (const auto& r : rows)
        if (r.time >= from_time) {
            s += r.temperature;
            n += 1;
        }
    return n > 0 ? s / n : 0.0;
}

// The number after a label of a report (the last line that holds it).
double last_value(const std::string& text, const std::string& label) {
    const auto p = text.rfind(label);
    return p == std::string::npos ? std::nan("") : std::stod(text.substr(p + label.size()));
}

int count_of(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

// The positions block of POSCONT in Cartesian coordinates of a cubic cell of edge a.
std::vector<std::array<double, 3>> poscont_positions(const std::filesystem::path& dir, double a) {
    std::vector<std::array<double, 3>> out;
    const auto lines = read_lines(dir / "POSCONT");
    bool in_block = false;
    for (const auto& l : lines) {
        if (l == "positions = unit") {
            in_block = true;
            continue;
        }
        if (!in_block) continue;
        std::istringstream in(l);
        int species;
        std::array<double, 3> x{};
        if (!(in >> species >> x[0] >> x[1] >> x[2])) break;
        for (double& c : x) c *= a;
        out.push_back(x);
    }
    return out;
}

class Dynamics : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    run_result si64(const std::string& name, const std::string& input) {
        return run_case(dir / name, poslyrt(cube(2 * 5.431), diamond(5.431, 2), 1), input,
                        tbparam("Si"));
    }
    run_result si8(const std::string& name, const std::string& input,
                   const std::string& extra = "") {
        return run_case(dir / name,
                        poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.05), 1) + extra, input,
                        tbparam("Si"));
    }
    std::filesystem::path dir;
};

// 2 ps of silicon from 300 K at dt = 1 fs: the total energy neither drifts nor
// fluctuates beyond the integrator's second-order error, for both integrators
// (1: position Verlet, 2: velocity Verlet).
class SiliconConservation : public Dynamics, public ::testing::WithParamInterface<int> {};

TEST_P(SiliconConservation, TotalEnergyNeitherDriftsNorFluctuates) {
    const int eom = GetParam();
    const std::string name = "eom" + std::to_string(eom);
    const run_result r = si64(name, "n_steps = 2000\ndt = 1.0\ntemperature = 300\n"
                                    "temperature_seed_1 = 11\ntemperature_seed_2 = 22\n"
                                    "ions_eom_algo = " +
                                        std::to_string(eom) + "\n");
    ASSERT_EQ(r.status, 0) << name;
    const auto rows = read_ene(dir / name);
    ASSERT_EQ(rows.size(), 2001u);
    EXPECT_NEAR(rows.back().time, 2000.0, 1e-9);
    // Position Verlet takes its first velocity from a first-order start: the total
    // energy jumps once, at step 1.
    const line_fit f = fit_total_energy(rows, eom == 1 ? 1 : 0);
    EXPECT_LT(std::fabs(f.slope) * 1000.0 / 64.0, 1e-5) << name << ": eV/atom/ps";
    EXPECT_LT(f.rms / 64.0, 5e-5) << name << ": eV/atom";
    // The run is no still life: the crystal heats its lattice vibrations.
    EXPECT_GT(mean_temperature(rows, 200.0), 100.0) << name;
}

INSTANTIATE_TEST_SUITE_P(BothIntegrators, SiliconConservation, ::testing::Values(2, 1));

// Copper with smearing: the band forces are the derivative of the band energy at
// fixed electron count, so the total energy is conserved as well.
TEST_F(Dynamics, SmearedCopperConservesEnergy) {
    const run_result r =
        run_case(dir / "cu32", poslyrt(cube(2 * 3.61), fcc(3.61, 2), 1),
                 "n_steps = 2000\nions_eom_algo = 2\nsigma = 0.1\ntemperature = 300\n"
                 "temperature_seed_1 = 3\ntemperature_seed_2 = 4\n",
                 tbparam("Cu"));
    ASSERT_EQ(r.status, 0);
    const auto rows = read_ene(dir / "cu32");
    ASSERT_EQ(rows.size(), 2001u);
    const line_fit f = fit_total_energy(rows, 0);
    EXPECT_LT(std::fabs(f.slope) * 1000.0 / 32.0, 1e-5);
    EXPECT_LT(f.rms / 32.0, 5e-5);
}

// With self-consistent charges and smearing the forces are the derivative of the
// free energy, which the run conserves: Si 64, U 4 eV, sigma 0.1, 1 ps in steps of
// 2 fs.
TEST_F(Dynamics, SiliconWithChargesConservesTheFreeEnergy) {
    std::istringstream in(tbparam("Si"));
    std::ostringstream model;
    int line = 0;
    for (std::string l; std::getline(in, l); ++line)
        model << l << (line == 6 ? " 4.0" : "") << "\n";
    const run_result r =
        run_case(dir / "si64_scc", poslyrt(cube(2 * 5.431), diamond(5.431, 2), 1),
                 "n_steps = 500\ndt = 2.0\nions_eom_algo = 2\nsigma = 0.1\ntemperature = 300\n"
                 "temperature_seed_1 = 5\ntemperature_seed_2 = 6\nscc_used = T\n"
                 "scc_mixer = broyden\ncharge_mixing = 0.3\nelec_energy_tol = 1e-10\n"
                 "elec_charge_tol = 1e-9\n",
                 model.str());
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(read_text(dir / "si64_scc" / "ERRLYRT").find("not self-consistent"),
              std::string::npos);
    const auto rows = read_ene(dir / "si64_scc");
    ASSERT_EQ(rows.size(), 501u);
    EXPECT_NEAR(rows.back().time, 1000.0, 1e-9);
    const line_fit f = fit_total_energy(rows, 0);
    std::cout << "[ charges ] Si 64 with charges, 1 ps: drift " << f.slope * 1000.0 / 64.0
              << " eV/atom/ps, rms " << f.rms / 64.0 << " eV/atom\n";
    EXPECT_LT(std::fabs(f.slope) * 1000.0 / 64.0, 1e-4);
    EXPECT_LT(f.rms / 64.0, 1e-4);
    EXPECT_GT(mean_temperature(rows, 200.0), 100.0);
    // The charges move with the lattice: the last POSCONT holds non-zero ones.
    const auto pc = read_lines(dir / "si64_scc" / "POSCONT");
    std::size_t q0 = 0;
    while (q0 < pc.size() && pc[q0] != "qion") ++q0;
    ASSERT_LT(q0 + 64, pc.size());
    double q_max = 0.0;
    for (std::size_t k = 1; k <= 64; ++k) q_max = std::max(q_max, std::fabs(std::stod(pc[q0 + k])));
    EXPECT_GT(q_max, 1e-4);
}

// Halving the time step over the same 200 fs cuts the fluctuation of the total
// energy by about four: both integrators are of second order.
TEST_F(Dynamics, IntegratorsAreOfSecondOrder) {
    const std::string common =
        "temperature = 300\ntemperature_seed_1 = 11\ntemperature_seed_2 = 22\n";
    for (int eom : {2, 1}) {
        double rms[2];
        for (int h = 0; h < 2; ++h) {
            const std::string name = "eom" + std::to_string(eom) + "_h" + std::to_string(h);
            const std::string steps =
                h == 0 ? "n_steps = 200\ndt = 1.0\n" : "n_steps = 400\ndt = 0.5\n";
            ASSERT_EQ(
                si64(name, common + steps + "ions_eom_algo = " + std::to_string(eom) + "\n").status,
                0);
            rms[h] = fit_total_energy(read_ene(dir / name), eom == 1 ? 2 * (h + 1) : 0).rms;
        }
        EXPECT_GT(rms[0] / rms[1], 3.0) << "eom " << eom;
        EXPECT_LT(rms[0] / rms[1], 5.5) << "eom " << eom;
    }
}

// Thermostats hold the mean temperature of the last 2 ps within 5 % of 600 K:
// Nose-Hoover (position Verlet), Langevin with both integrators.
class Thermostats : public Dynamics, public ::testing::WithParamInterface<const char*> {};

TEST_P(Thermostats, HoldTheTargetTemperature) {
    const std::string input = GetParam();
    const run_result r = si64("run", "n_steps = 2500\ntemperature = 600\ntemperature_seed_1 = 5\n"
                                     "temperature_seed_2 = 7\n" +
                                         input);
    ASSERT_EQ(r.status, 0) << input;
    EXPECT_NEAR(mean_temperature(read_ene(dir / "run"), 500.0), 600.0, 30.0) << input;
}

INSTANTIATE_TEST_SUITE_P(
    NoseAndLangevin, Thermostats,
    ::testing::Values("ions_eom_algo = 1\nthermostat = 1\nq_nose_ions = 5000\n",
                      "ions_eom_algo = 1\nthermostat = 2\nfriction = 0.01\n",
                      "ions_eom_algo = 2\nthermostat = 2\nfriction = 0.01\n"));

// The same two seeds give the same Langevin trajectory to the last digit; other
// seeds another one.
TEST_F(Dynamics, LangevinRunsAreReproducibleFromTheirSeeds) {
    for (int eom : {1, 2}) {
        const std::string base = "n_steps = 15\nthermostat = 2\nfriction = 0.05\ntemperature = "
                                 "500\nions_eom_algo = " +
                                 std::to_string(eom) + "\n";
        const std::string e = std::to_string(eom);
        ASSERT_EQ(si8("a" + e, base + "temperature_seed_1 = 1\ntemperature_seed_2 = 2\n").status,
                  0);
        ASSERT_EQ(si8("b" + e, base + "temperature_seed_1 = 1\ntemperature_seed_2 = 2\n").status,
                  0);
        ASSERT_EQ(si8("c" + e, base + "temperature_seed_1 = 1\ntemperature_seed_2 = 3\n").status,
                  0);
        EXPECT_EQ(read_text(dir / ("a" + e) / "ENE"), read_text(dir / ("b" + e) / "ENE"));
        EXPECT_EQ(read_text(dir / ("a" + e) / "POSCONT"), read_text(dir / ("b" + e) / "POSCONT"));
        EXPECT_NE(read_text(dir / ("a" + e) / "ENE"), read_text(dir / ("c" + e) / "ENE"));
        // Velocities given in the file: no velocities are drawn, and the noise still
        // comes from the seeds.
        std::string vel = "velocities = cartesian\n";
        for (int i = 1; i <= 8; ++i) vel += "0.001 0 -0.001\n";
        const std::string given = base + "veloc_start = 2\ntemperature_seed_1 = 4\n";
        ASSERT_EQ(si8("d" + e, given, vel).status, 0);
        ASSERT_EQ(si8("f" + e, given, vel).status, 0);
        EXPECT_EQ(read_text(dir / ("d" + e) / "ENE"), read_text(dir / ("f" + e) / "ENE"));
    }
}

// Frozen coordinates neither move nor change velocity, noise or not.
TEST_F(Dynamics, FrozenCoordinatesStayPut) {
    std::string freeze = "freeze\nT T T\nF F T\n";
    for (int i = 3; i <= 8; ++i) freeze += "F F F\n";
    std::string vel = "velocities = cartesian\n0 0 0\n0 0 0.002\n";
    for (int i = 3; i <= 8; ++i) vel += "0.001 -0.002 0.001\n";
    const std::pair<const char*, const char*> runs[] = {
        {"vv", "ions_eom_algo = 2\n"},
        {"pv", "ions_eom_algo = 1\n"},
        {"vv_langevin", "ions_eom_algo = 2\nthermostat = 2\nfriction = 0.05\ntemperature = 300\n"},
        {"pv_langevin", "ions_eom_algo = 1\nthermostat = 2\nfriction = 0.05\ntemperature = 300\n"}};
    for (const auto& [name, input] : runs) {
        const run_result r = si8(name,
                                 std::string(input) + "n_steps = 10\nveloc_start = 2\n"
                                                      "save_to_file = VEL\n",
                                 freeze + vel);
        ASSERT_EQ(r.status, 0) << name;
        // Frames of POS and VEL: cell (3 lines), counts, then one line per ion.
        const auto pos = read_lines(dir / name / "POS");
        const auto velf = read_lines(dir / name / "VEL");
        ASSERT_EQ(pos.size(), 11u * 12u) << name;
        auto item = [](const std::string& line, int k) {
            std::istringstream in(line);
            double v[4];
            in >> v[0] >> v[1] >> v[2] >> v[3];
            return v[k];
        };
        for (int frame = 1; frame <= 10; ++frame) {
            const std::size_t ion1 = 12 * frame + 4, ion2 = ion1 + 1, ion3 = ion1 + 2;
            for (int k = 1; k <= 3; ++k) {
                EXPECT_EQ(item(pos[ion1], k), item(pos[4], k)) << name << " frame " << frame;
                EXPECT_EQ(item(velf[ion1], k), 0.0) << name;
            }
            EXPECT_EQ(item(pos[ion2], 3), item(pos[5], 3)) << name;
            EXPECT_EQ(item(velf[ion2], 3), 0.002) << name;
            EXPECT_NE(item(pos[ion3], 1), item(pos[6], 1)) << name << ": free ions move";
        }
    }
}

// An ion that leaves the cell through a face is folded back in; the step of
// position Verlet takes the minimum image of its last move, so neither its
// velocity nor the total energy jumps.
TEST_F(Dynamics, IonsCrossingACellFaceKeepTheirMotion) {
    std::string vel = "velocities = cartesian\n-0.03 0.01 -0.02\n";
    for (int i = 2; i <= 8; ++i) vel += "0 0 0\n";
    for (int eom : {1, 2}) {
        const std::string name = "eom" + std::to_string(eom);
        ASSERT_EQ(
            si8(name,
                "n_steps = 12\nveloc_start = 2\nions_eom_algo = " + std::to_string(eom) + "\n", vel)
                .status,
            0);
        const auto rows = read_ene(dir / name);
        ASSERT_EQ(rows.size(), 13u);
        for (std::size_t k = 2; k < rows.size(); ++k) {
            EXPECT_LT(rows[k].e_kin, 2.0 * rows[0].e_kin) << name << " step " << k;
            EXPECT_NEAR(rows[k].e_tot, rows[1].e_tot, 0.05) << name << " step " << k;
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
}

// A run continued from the POSCONT of its first half follows the trajectory of
// the uninterrupted run: positions to 1e-9 A, energies to 1e-8 eV, and its clock
// and thermostat go on.
TEST_F(Dynamics, RestartContinuesTheTrajectory) {
    const std::pair<const char*, const char*> runs[] = {
        {"vv", "ions_eom_algo = 2\n"},
        {"pv", "ions_eom_algo = 1\n"},
        {"pv_nose", "ions_eom_algo = 1\nthermostat = 1\nq_nose_ions = 200\n"}};
    const std::string start = "temperature = 900\ntemperature_seed_1 = 9\ntemperature_seed_2 = 8\n";
    for (const auto& [name, input] : runs) {
        const std::string n(name);
        const run_result whole = si8(n + "_whole", std::string(input) + start + "n_steps = 20\n");
        ASSERT_EQ(whole.status, 0) << n;
        const run_result first = si8(n + "_first", std::string(input) + start + "n_steps = 10\n");
        ASSERT_EQ(first.status, 0) << n;
        const run_result second =
            run_case(dir / (n + "_second"), read_text(dir / (n + "_first") / "POSCONT"),
                     std::string(input) + start + "n_steps = 10\nstart = 1\n", tbparam("Si"));
        ASSERT_EQ(second.status, 0) << n << ": " << read_text(dir / (n + "_second") / "ERRLYRT");
        const auto a = poscont_positions(dir / (n + "_whole"), 5.431);
        const auto b = poscont_positions(dir / (n + "_second"), 5.431);
        ASSERT_EQ(a.size(), 8u);
        ASSERT_EQ(b.size(), 8u);
        for (std::size_t i = 0; i < 8; ++i)
            for (std::size_t k = 0; k < 3; ++k) EXPECT_NEAR(a[i][k], b[i][k], 1e-9) << n;
        EXPECT_NEAR(last_value(whole.report, " Potential     Energy = "),
                    last_value(second.report, " Potential     Energy = "), 1e-8)
            << n;
        EXPECT_NEAR(last_value(whole.report, " Total         Energy = "),
                    last_value(second.report, " Total         Energy = "), 1e-8)
            << n;
        const auto rows = read_ene(dir / (n + "_second"));
        ASSERT_FALSE(rows.empty());
        EXPECT_EQ(rows.back().step, 20) << n;
        EXPECT_NEAR(rows.back().time, 20.0, 1e-9) << n;
    }
}

// Far above its threshold the boost vanishes: the run is plain dynamics to the
// last digit, its clock runs at the normal rate, and it says so in the report.
TEST_F(Dynamics, BoostFarAboveTheThresholdIsPlainDynamics) {
    std::string boost = "boost\n";
    for (int i = 1; i <= 8; ++i) boost += i <= 3 ? "T\n" : "F\n";
    const std::string input = "n_steps = 8\nions_eom_algo = 2\ntemperature = 600\n"
                              "temperature_seed_1 = 2\ntemperature_seed_2 = 3\ncalc_elocal = T\n";
    ASSERT_EQ(si8("plain", input, boost).status, 0);
    const run_result hyper =
        si8("hyper", input + "hyper_md = T\ne_boost = -1000\na_boost = 20\n", boost);
    ASSERT_EQ(hyper.status, 0);
    EXPECT_EQ(read_text(dir / "plain" / "ENE"), read_text(dir / "hyper" / "ENE"));
    EXPECT_EQ(last_value(hyper.report, " Boost factor         = "), 1.0);
    EXPECT_EQ(last_value(hyper.report, " Boost Pot     Energy = "), 0.0);
    // Hyper dynamics without a temperature is refused before it divides by it.
    const run_result cold =
        si8("cold", "n_steps = 2\nhyper_md = T\ntemperature = 0\nions_eom_algo = 2\n", boost);
    EXPECT_EQ(cold.status, 1);
}

// The shipped dynamics examples run (shortened to a few steps here).
TEST_F(Dynamics, ExamplesRun) {
    for (const char* ex : {"si64_md", "cu32_nose"}) {
        const auto src = std::filesystem::path(LYRT_SOURCE_DIR) / "examples" / ex;
        std::string input = read_text(src / "INLYRT");
        input.replace(input.find("n_steps = 500"), 13, "n_steps = 3");
        input.replace(input.find("status_output_freq = 10"), 23, "status_output_freq = 1");
        const run_result r =
            run_case(dir / ex, read_text(src / "POSLYRT"), input, read_text(src / "TBPARAM"));
        ASSERT_EQ(r.status, 0) << ex;
        EXPECT_EQ(read_ene(dir / ex).size(), 4u) << ex;
        EXPECT_EQ(count_of(read_text(dir / ex / "trajectory.xyz"), "Lattice="), 4) << ex;
    }
}

} // namespace
