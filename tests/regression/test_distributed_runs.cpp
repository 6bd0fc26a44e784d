// Whole runs of the distributed program under mpirun: the same energies, forces
// and trajectory on 2 and 3 processes as on one; a fatal error met by every
// process, and one met by a single process other than 0, end every process with
// the message written once. Only in the distributed build (LYRT_MPI).
#include "run_support.hpp"
#include "test_support.hpp"

#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

using namespace lyrt_test;

namespace {

class DistributedRuns : public ::testing::Test {
  protected:
    void SetUp() override {
#if !defined(LYRT_MPI)
        GTEST_SKIP() << "a build without LYRT_MPI";
#endif
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    std::filesystem::path dir;
};

// The points of a k-point run are dealt to the processes: the same energy, forces
// and stress on 2 and 3 processes (smeared copper on a 3 x 3 x 3 grid of 14 points).
TEST_F(DistributedRuns, KPointRunsAgreeOverProcessCounts) {
    const std::string pos = poslyrt(cube(3.61), shaken(fcc(3.61, 1), 0.04), 1);
    const std::string input = "n_steps = 0\ncalc_forces = T\ncalc_stress = T\nsigma = 0.1\n";
    run_result runs[3];
    for (const int np : {1, 2, 3}) {
        const auto d = dir / ("np" + std::to_string(np));
        std::filesystem::create_directories(d);
        write_text(d / "KPTS", "grid = 3 3 3\n");
        runs[np - 1] = run_case(d, pos, input, tbparam("Cu"), np);
        ASSERT_EQ(runs[np - 1].status, 0) << np;
        ASSERT_EQ(runs[np - 1].force.size(), 4u);
        EXPECT_NE(runs[np - 1].report.find("BRILLOUIN ZONE SAMPLED"), std::string::npos);
    }
    for (const int np : {2, 3}) {
        const run_result& r = runs[np - 1];
        EXPECT_NEAR(r.e_pot, runs[0].e_pot, 1e-10 * std::fabs(runs[0].e_pot)) << np;
        for (std::size_t i = 0; i < 4; ++i)
            for (std::size_t x = 0; x < 3; ++x)
                EXPECT_NEAR(r.force[i][x], runs[0].force[i][x], 1e-9) << np;
        EXPECT_NEAR(last_value(r.report, "Pressure:"), last_value(runs[0].report, "Pressure:"),
                    1e-9)
            << np;
    }
}

// The linear-scaling solver in whole runs: rattled Si 64 at the default filter
// against the dense run (energy per atom, forces, pressure), on 1 and 2 processes, with
// local energies, with self-consistent charges and with smearing.
TEST_F(DistributedRuns, LinearScalingRunsMatchTheDenseRun) {
    const std::string pos = poslyrt(cube(10.862), shaken(diamond(5.431, 2), 0.03), 1);
    const run_result dense =
        run_case(dir / "dense", pos, "n_steps = 0\ncalc_stress = T\n", tbparam("Si"));
    ASSERT_EQ(dense.status, 0);
    for (const int np : {1, 2}) {
        const run_result r =
            run_case(dir / ("ls" + std::to_string(np)), pos,
                     "n_steps = 0\nelec_gs_algo = 5\ncalc_stress = T\n", tbparam("Si"), np);
        ASSERT_EQ(r.status, 0) << np;
        EXPECT_NEAR(r.e_pot / 64, dense.e_pot / 64, 1e-5) << np;
        ASSERT_EQ(r.force.size(), 64u);
        for (std::size_t i = 0; i < 64; ++i)
            for (std::size_t x = 0; x < 3; ++x)
                EXPECT_NEAR(r.force[i][x], dense.force[i][x], 1e-4) << np << " ion " << i;
        EXPECT_LT(std::fabs(last_value(r.report, "Electron count error =")), 1e-6) << np;
        EXPECT_NEAR(last_value(r.report, "Pressure:"), last_value(dense.report, "Pressure:"), 1e-6)
            << np;
    }
    // Local energies (and the charges beside them) as the dense run's.
    const std::string loc = "n_steps = 0\ncalc_elocal = T\n";
    const run_result dense_loc = run_case(dir / "dense_loc", pos, loc, tbparam("Si"));
    const run_result ls_loc =
        run_case(dir / "ls_loc", pos, loc + "elec_gs_algo = 5\n", tbparam("Si"), 1);
    ASSERT_EQ(ls_loc.status, 0);
    for (const char* what : {"Sum of local energy  :", "Maximum local energy :"})
        EXPECT_NEAR(last_value(ls_loc.report, what), last_value(dense_loc.report, what), 1e-6)
            << what;
    // Self-consistent charges (U = 6 eV on Si): the charge loop over the purification.
    const std::string q = "n_steps = 0\nscc_used = T\nscc_mixer = broyden\ncharge_mixing = 0.3\n"
                          "calc_elocal = T\n";
    const run_result dense_q = run_case(dir / "dense_q", pos, q, with_hubbard("Si", {6.0}));
    const run_result ls_q =
        run_case(dir / "ls_q", pos, q + "elec_gs_algo = 5\n", with_hubbard("Si", {6.0}), 1);
    ASSERT_EQ(ls_q.status, 0);
    EXPECT_NEAR(ls_q.e_pot / 64, dense_q.e_pot / 64, 1e-6);
    ASSERT_EQ(ls_q.force.size(), 64u);
    for (std::size_t i = 0; i < 64; ++i)
        EXPECT_NEAR(ls_q.force[i][0], dense_q.force[i][0], 1e-4) << "ion " << i;
    // Local energies with charges: band shares and double counting as the dense run's.
    for (const char* what : {"Sum of local energy  :", "Maximum local energy :"})
        EXPECT_NEAR(last_value(ls_q.report, what), last_value(dense_q.report, what), 1e-6) << what;
    // Smeared copper: the potential energy is the free energy E - T S, as that of
    // the dense run with charges (here with U = 0, the charges without effect),
    // with its forces and pressure; without -T S it is the energy of the dense run
    // without charges. k-points are refused with their message.
    const std::string cu = poslyrt(cube(7.22), shaken(fcc(3.61, 2), 0.02), 1);
    const std::string smear = "n_steps = 0\nsigma = 0.2\ncalc_stress = T\n";
    const run_result dense_cu = run_case(dir / "dense_cu", cu, smear, tbparam("Cu"));
    const run_result dense_free =
        run_case(dir / "dense_free", cu, smear + "scc_used = T\n", with_hubbard("Cu", {0.0}));
    const run_result ls_cu =
        run_case(dir / "ls_cu", cu, smear + "elec_gs_algo = 5\n", tbparam("Cu"), 2);
    ASSERT_EQ(ls_cu.status, 0);
    EXPECT_NEAR(ls_cu.e_pot, dense_free.e_pot, 32 * 1e-6);
    EXPECT_NEAR(last_value(ls_cu.report, "Energy without -TS   ="), dense_cu.e_pot, 32 * 1e-6);
    EXPECT_LT(last_value(ls_cu.report, "Electronic -TS       ="), -0.1);
    ASSERT_EQ(ls_cu.force.size(), 32u);
    ASSERT_EQ(dense_free.force.size(), 32u);
    double df = 0.0, f_max = 0.0;
    for (std::size_t i = 0; i < 32; ++i)
        for (std::size_t x = 0; x < 3; ++x) {
            df = std::max(df, std::fabs(ls_cu.force[i][x] - dense_free.force[i][x]));
            f_max = std::max(f_max, std::fabs(dense_free.force[i][x]));
        }
    EXPECT_LT(df, 1e-4);
    EXPECT_GT(f_max, 0.05);
    EXPECT_NEAR(last_value(ls_cu.report, "Pressure:"), last_value(dense_free.report, "Pressure:"),
                1e-6);
    std::filesystem::create_directories(dir / "kpts");
    write_text(dir / "kpts" / "KPTS", "grid = 2 2 2\n");
    const run_result kpts = run_case(dir / "kpts", cu, smear + "elec_gs_algo = 5\n", tbparam("Cu"));
    EXPECT_EQ(kpts.status, 1);
    EXPECT_NE(kpts.report.find("linear-scaling and orbital solvers work at the gamma point"),
              std::string::npos);
}

TEST_F(DistributedRuns, StaticPointAndDynamicsAgreeOverProcessCounts) {
    // A static point of non-orthogonal Si 64 with forces and stress.
    const std::string pos = poslyrt(cube(10.862), shaken(diamond(5.431, 2), 0.03), 1);
    const std::string input = "n_steps = 0\ncalc_forces = T\ncalc_stress = T\n";
    const run_result one = run_case(dir / "np1", pos, input, tbparam("Si"));
    ASSERT_EQ(one.status, 0);
    ASSERT_EQ(one.force.size(), 64u);
    for (const int np : {2, 3}) {
        const run_result r =
            run_case(dir / ("np" + std::to_string(np)), pos, input, tbparam("Si"), np);
        ASSERT_EQ(r.status, 0) << np;
        EXPECT_NEAR(r.e_pot, one.e_pot, 1e-10 * std::fabs(one.e_pot)) << np;
        EXPECT_NEAR(r.e_fermi, one.e_fermi, 1e-9) << np;
        ASSERT_EQ(r.force.size(), one.force.size());
        for (std::size_t i = 0; i < one.force.size(); ++i)
            for (int x = 0; x < 3; ++x)
                EXPECT_NEAR(r.force[i][static_cast<std::size_t>(x)],
                            one.force[i][static_cast<std::size_t>(x)], 1e-7)
                    << np << " ion " << i + 1;
        EXPECT_NE(r.report.find("THIS IS THE PARALLEL VERSION ON     " + std::to_string(np)),
                  std::string::npos);
        // Process 0 alone writes: one header, no unit files of the other processes.
        EXPECT_EQ(count_of(r.report, "Program Executed on"), 1);
        EXPECT_FALSE(std::filesystem::exists(dir / ("np" + std::to_string(np)) / "fort.12"));
    }
    // 20 steps of the constant-pressure example (velocities drawn on process 0 and
    // broadcast, the thermostat's and barostat's draws alike on every process, the
    // cell strained four times): the energy file is the same, line by line, on 2
    // processes.
    std::string md = example("si64_npt", "INLYRT");
    md.replace(md.find("n_steps = 500"), 13, "n_steps = 20");
    md.replace(md.find("status_output_freq = 10"), 23, "status_output_freq = 2");
    const auto a = dir / "md1", b = dir / "md2";
    ASSERT_EQ(run_case(a, example("si64_npt", "POSLYRT"), md, tbparam("Si")).status, 0);
    ASSERT_EQ(run_case(b, example("si64_npt", "POSLYRT"), md, tbparam("Si"), 2).status, 0);
    const auto ea = read_lines(a / "ENE"), eb = read_lines(b / "ENE");
    ASSERT_GT(ea.size(), 10u) << "energy lines";
    ASSERT_EQ(ea.size(), eb.size());
    for (std::size_t k = 0; k < ea.size(); ++k) {
        std::istringstream sa(ea[k]), sb(eb[k]);
        double x = 0.0, y = 0.0;
        while (sa >> x && sb >> y) EXPECT_NEAR(x, y, 1e-8 * std::max(1.0, std::fabs(x))) << k;
    }
}

TEST_F(DistributedRuns, FatalErrorOnEveryProcessIsWrittenOnce) {
    // Process 0 reads the parameter file and meets the error; the others wait for
    // the model and end with it.
    const auto run = dir / "no_param";
    std::filesystem::create_directories(run);
    write_text(run / "POSLYRT", example("si8", "POSLYRT"));
    write_text(run / "INLYRT", "n_steps = 0\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(run_lyrt_mpi_in(run, 3), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_EQ(count_of(read_text(run / "ERRLYRT"), "FATAL ERROR"), 1);
    EXPECT_EQ(count_of(read_text(run / "ERRLYRT"), "problems opening file TBPARAM"), 1);
    EXPECT_EQ(count_of(read_text(run / "stdout.txt"), "FATAL ERROR"), 1);
}

TEST_F(DistributedRuns, FatalErrorOfOneProcessEndsAll) {
    // Cu3Au whose gold on-site energy is not finite once in eV: its diagonal
    // elements lie in the last columns, which one process other than 0 holds (a
    // grid of one row; blocks of n/np columns). That process alone finds them.
    std::istringstream in(tbparam("CuAu"));
    std::string param, l;
    for (int k = 1; std::getline(in, l); ++k) param += (k == 31 ? "-1e308" : l) + "\n";
    const std::vector<atom> atoms = {
        {1, 0, 0, 0}, {1, 0, 1.95, 1.95}, {1, 1.95, 0, 1.95}, {2, 1.95, 1.95, 0}};
    const std::string pos = poslyrt(cube(3.9), atoms, 2);
    for (const int np : {2, 3}) {
        const auto run = dir / ("np" + std::to_string(np));
        const auto start = std::chrono::steady_clock::now();
        const run_result r = run_case(run, pos, "n_steps = 0\n", param, np);
        EXPECT_NE(r.status, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
        const std::string err = read_text(run / "ERRLYRT");
        EXPECT_EQ(count_of(err, "not finite"), 1) << err;
        EXPECT_EQ(count_of(err, "FATAL ERROR on process " + std::to_string(np - 1)), 1) << err;
        EXPECT_EQ(count_of(read_text(run / "stderr.txt"), "not finite"), 1);
    }
    // On one process the same input stops with the same message.
    const run_result one = run_case(dir / "np1", pos, "n_steps = 0\n", param);
    EXPECT_EQ(one.status, 1);
    EXPECT_NE(read_text(dir / "np1" / "ERRLYRT").find("not finite"), std::string::npos);
}

} // namespace
