// Benchmark (not a test): the wall-clock time of one molecular-dynamics step of
// diamond silicon (energy, forces, move, report), beside one bare dsygvd of the
// same order on the same H and S, timed on the same machine in the same run.
//
//   lyrt_bench_md [n]    n: conventional cells per edge (default 4: 512 atoms)
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "bench_support.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/lapack_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/system_def_module.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using lyrt_bench::now;

} // namespace

int main(int argc, char** argv) {
    using namespace lyrt;
    const int n = argc > 1 ? std::atoi(argv[1]) : 4;
    const auto top = std::filesystem::temp_directory_path() / "lyrt_bench_md";
    std::filesystem::remove_all(top);
    const auto dir_h = top / "hs", dir_md = top / "md";
    std::filesystem::create_directories(dir_h);
    std::filesystem::create_directories(dir_md);
    // Four steps of velocity Verlet by the program itself; the step times are its own.
    lyrt_bench::write_inputs(dir_md, n,
                             "n_steps = 4\nions_eom_algo = 2\ntemperature = 300\n"
                             "temperature_seed_1 = 1\ntemperature_seed_2 = 2\n");
    const std::string cmd = "cd '" + dir_md.string() + "' && '" LYRT_BINARY "' > stdout.txt";
    if (std::system(cmd.c_str()) != 0) {
        std::printf("the dynamics run failed\n");
        return 1;
    }
    // H and S of the last state of that run, for the bare solver: the thermal
    // displacements lift the degeneracies of the perfect crystal, which the
    // divide-and-conquer solver would otherwise deflate cheaply.
    lyrt_bench::write_inputs(dir_h, n, "system_name = benchmark\n");
    std::filesystem::copy_file(dir_md / "POSCONT", dir_h / "POSLYRT",
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::current_path(dir_h);
    double t_bare = 0.0;
    int order = 0;
    try {
        lyrt_bench::set_up_system();
        eig_state_type& eig = *sys.elec_state->eig;
        hamiltonian_reinit(sys.ham, sys.box.ions);
        calc_hs_real(sys.ham, sys.box.ions, sys.box);
        get_hs_ij_real(sys.ham, &eig.h_ij, &eig.s_ij, nullptr);
        order = eig.n_dim;
        t_bare = lyrt_bench::bare_dsygvd(eig.h_ij.data(), eig.s_ij.data(), order, 2);
        close_units();
    } catch (const fatal_stop& stop) {
        std::printf("stopped: %s\n", stop.message.c_str());
        return 1;
    }
    std::vector<double> steps;
    std::ifstream timings(dir_md / "timings");
    for (std::string line; std::getline(timings, line);)
        if (line.find("sec for MD step") != std::string::npos) {
            std::istringstream in(line);
            int rank;
            std::string name;
            double t;
            in >> rank >> name >> t;
            steps.push_back(t);
        }
    std::sort(steps.begin(), steps.end());
    const double t_step = steps.empty() ? 0.0 : steps[steps.size() / 2];
    std::printf("%6s %6s %14s %14s %8s\n", "atoms", "order", "MD step (s)", "dsygvd (s)", "ratio");
    std::printf("%6d %6d %14.3f %14.3f %8.2f\n", 8 * n * n * n, order, t_step, t_bare,
                t_bare > 0 ? t_step / t_bare : 0.0);
    std::filesystem::current_path(top.parent_path());
    std::filesystem::remove_all(top);
    return 0;
}
