// Runs that end before their last step lose nothing: a signal or the wall-time
// limit ends the run at a step boundary with its final report and a POSCONT that
// continues it exactly; a run killed outright leaves the POSCONT of a whole step.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "run_support.hpp"
#include "system/box_module.hpp"
#include "system/ions_module.hpp"
#include "test_support.hpp"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace lyrt_test;

// Starts the program in dir without waiting for it; its standard output goes to
// stdout.txt.
pid_t start_lyrt(const std::filesystem::path& dir) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        setenv("OPENBLAS_NUM_THREADS", "1", 1);
        setenv("OMP_NUM_THREADS", "1", 1);
        if (std::freopen("stdout.txt", "w", stdout) == nullptr) _exit(127);
        execl(LYRT_BINARY, LYRT_BINARY, static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// The exit status of a finished run, or minus the signal that killed it.
int finish(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : -1000;
}

// The step number of a POSCONT (its restart block), -1 if the file or line is absent.
int poscont_step(const std::filesystem::path& file) {
    for (const auto& line : read_lines(file))
        if (line.rfind("step =", 0) == 0) return std::stoi(line.substr(6));
    return -1;
}

// Waits until the run has written the POSCONT of at least `step`.
bool wait_for_step(const std::filesystem::path& dir, int step) {
    for (int i = 0; i < 3000; ++i) {
        if (poscont_step(dir / "POSCONT") >= step) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void write_inputs(const std::filesystem::path& dir, const std::string& pos,
                  const std::string& input) {
    std::filesystem::create_directories(dir);
    write_text(dir / "POSLYRT", pos);
    write_text(dir / "INLYRT", input);
    write_text(dir / "TBPARAM", tbparam("Si"));
}

class InterruptedRuns : public lyrt_test::program_test {
  protected:
    const std::string si64 = poslyrt(cube(2 * 5.431), diamond(5.431, 2), 1);
    const std::string md = "ions_eom_algo = 2\ntemperature = 600\ntemperature_seed_1 = 5\n"
                           "temperature_seed_2 = 6\n";
};

// SIGTERM ends a dynamics run at the end of the step in progress: status 2, the
// warning, the final report and the timing lines. Its POSCONT, continued with
// start = 1, ends where an uninterrupted run of the same length ends.
TEST_F(InterruptedRuns, SignalEndsTheRunAtAStepAndPoscontContinuesIt) {
    write_inputs(dir / "cut", si64, md + "n_steps = 100000\n");
    const pid_t pid = start_lyrt(dir / "cut");
    ASSERT_TRUE(wait_for_step(dir / "cut", 2));
    kill(pid, SIGTERM);
    ASSERT_EQ(finish(pid), 2) << read_text(dir / "cut" / "stdout.txt");
    const std::string report = read_text(dir / "cut" / "OUTLYRT");
    EXPECT_NE(report.find("the run was interrupted by SIGTERM at the end of step"),
              std::string::npos);
    EXPECT_NE(report.find("FINAL CONFIGURATION"), std::string::npos);
    EXPECT_NE(report.find("-- LYRT end --"), std::string::npos);
    EXPECT_NE(read_text(dir / "cut" / "ERRLYRT").find("interrupted by SIGTERM"), std::string::npos);
    EXPECT_NE(read_text(dir / "cut" / "timings").find("main_lyrt"), std::string::npos);
    const int k = poscont_step(dir / "cut" / "POSCONT");
    ASSERT_GE(k, 2);

    const run_result rest = run_case(dir / "rest", read_text(dir / "cut" / "POSCONT"),
                                     md + "start = 1\nn_steps = 3\n", tbparam("Si"));
    ASSERT_EQ(rest.status, 0) << read_text(dir / "rest" / "ERRLYRT");
    EXPECT_EQ(poscont_step(dir / "rest" / "POSCONT"), k + 3);
    const run_result whole = run_case(
        dir / "whole", si64, md + "n_steps = " + std::to_string(k + 3) + "\n", tbparam("Si"));
    ASSERT_EQ(whole.status, 0);
    for (const char* label : {" Potential     Energy = ", " Total         Energy = "})
        EXPECT_NEAR(last_value(rest.report, label), last_value(whole.report, label), 1e-8) << label;
}

// max_wall_time ends a run at a step boundary, with its final report and POSCONT
// (how near the limit depends on the machine's load, which a test cannot hold).
TEST_F(InterruptedRuns, WallTimeEndsTheRunBeforeTheLimit) {
    const run_result r =
        run_case(dir / "wall", si64, md + "n_steps = 100000\nmax_wall_time = 2.0\n", tbparam("Si"));
    ASSERT_EQ(r.status, 2) << read_text(dir / "wall" / "ERRLYRT");
    EXPECT_NE(r.report.find("ended by max_wall_time"), std::string::npos);
    EXPECT_NE(r.report.find("FINAL CONFIGURATION"), std::string::npos);
    EXPECT_GE(poscont_step(dir / "wall" / "POSCONT"), 2);
}

// A run killed at any moment (here 12 moments spread over the steps after its first
// POSCONT, which is rewritten at every step) leaves a POSCONT that the positions
// reader reads whole, never a partial one.
TEST_F(InterruptedRuns, KilledRunLeavesAReadablePoscont) {
    const std::string pos = poslyrt(cube(5.431), shaken(diamond(5.431, 1), 0.05), 1);
    unsigned seed = 7;
    for (int trial = 0; trial < 12; ++trial) {
        const auto run = dir / ("kill" + std::to_string(trial));
        write_inputs(run, pos, md + "n_steps = 100000\n");
        const pid_t pid = start_lyrt(run);
        const bool started = wait_for_step(run, 0);
        seed = seed * 1103515245u + 12345u;
        std::this_thread::sleep_for(std::chrono::milliseconds((seed >> 8) % 400));
        kill(pid, SIGKILL);
        ASSERT_EQ(finish(pid), -SIGKILL);
        ASSERT_TRUE(started) << trial;
        const auto lines = read_lines(run / "POSCONT");
        ASSERT_FALSE(lines.empty()) << trial;
        EXPECT_EQ(lines.back().rfind("energies =", 0), 0u) << trial << ": the file ends early";
        lyrt::box_type box;
        try {
            lyrt::ions_read_in(box, box.ions, (run / "POSCONT").string());
        } catch (const lyrt::fatal_stop& stop) {
            ADD_FAILURE() << trial << ": " << stop.message;
            continue;
        }
        EXPECT_EQ(box.ions.total_n_ions, 8) << trial;
        EXPECT_GE(poscont_step(run / "POSCONT"), 0) << trial;
    }
}

} // namespace
