// Benchmark (not a test): the wall-clock time of one molecular-dynamics step of
// diamond silicon (energy, forces, move, report), beside one bare dsygvd of the
// same order on the same H and S, timed on the same machine in the same run.
//
//   lyrt_bench_md [n]    n: conventional cells per edge (default 4: 512 atoms)
#include "base/error_module.hpp"
#include "base/io_module.hpp"
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

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void write_inputs(const std::filesystem::path& dir, int n, const char* input) {
    std::ofstream pos(dir / "POSLYRT");
    pos << "number_of_ions = 8\nunit_cell_grid = " << n << " " << n << " " << n
        << "\na0 = 5.431\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 1\npositions\n"
           "0 0 0\n0 0.5 0.5\n0.5 0 0.5\n0.5 0.5 0\n0.25 0.25 0.25\n0.25 0.75 0.75\n"
           "0.75 0.25 0.75\n0.75 0.75 0.25\n";
    std::ofstream in(dir / "INLYRT");
    in << input;
    std::filesystem::copy_file(std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8/TBPARAM",
                               dir / "TBPARAM", std::filesystem::copy_options::overwrite_existing);
}

// Seconds of the best of `repeats` bare dsygvd calls (vectors, upper triangle).
double bare_dsygvd(const lyrt::farray<double, 2>& h, const lyrt::farray<double, 2>& s, int n,
                   int repeats) {
    std::vector<double> a(static_cast<std::size_t>(n) * n), b(a.size()), w(n);
    double best = 1e30;
    for (int r = 0; r < repeats; ++r) {
        std::copy(h.data(), h.data() + a.size(), a.begin());
        std::copy(s.data(), s.data() + b.size(), b.begin());
        const int itype = 1;
        int info = 0, lwork = -1, liwork = -1, iq = 0;
        double wq = 0;
        dsygvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), &wq, &lwork, &iq,
                &liwork, &info);
        lwork = static_cast<int>(wq) + 1;
        liwork = iq;
        std::vector<double> work(static_cast<std::size_t>(lwork));
        std::vector<int> iwork(static_cast<std::size_t>(liwork));
        const double t0 = now();
        dsygvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), work.data(), &lwork,
                iwork.data(), &liwork, &info);
        best = std::min(best, now() - t0);
        if (info != 0) std::printf("dsygvd info = %d\n", info);
    }
    return best;
}

} // namespace

int main(int argc, char** argv) {
    using namespace lyrt;
    const int n = argc > 1 ? std::atoi(argv[1]) : 4;
    const auto top = std::filesystem::temp_directory_path() / "lyrt_bench_md";
    std::filesystem::remove_all(top);
    const auto dir_h = top / "hs", dir_md = top / "md";
    std::filesystem::create_directories(dir_h);
    std::filesystem::create_directories(dir_md);
    // H and S of the crystal, for the bare solver.
    write_inputs(dir_h, n, "system_name = benchmark\n");
    std::filesystem::current_path(dir_h);
    double t_bare = 0.0;
    int order = 0;
    try {
        init_mpi();
        open_units();
        ions_read_in(sys.box, sys.box.ions, "POSLYRT");
        tb_model_read_param(sys.box.ions.species, sys.tb_model, "TBPARAM", sys.box.ions.n_species);
        read_input("INLYRT", sys.elec_algo, sys.i_algo, sys.tb_model, sys.kpt, sys.system_name,
                   sys.n_electrons, sys.n_states, sys.n_h_dup);
        init_system_ions();
        kpt_read_and_allocate(sys.kpt, sys.box.cell.b, "KPTS", kpt_unit);
        init_system_elec();
        eig_state_type& eig = *sys.elec_state->eig;
        hamiltonian_reinit(sys.ham, sys.box.ions);
        calc_hs_real(sys.ham, sys.box.ions, sys.box);
        get_hs_ij_real(sys.ham, &eig.h_ij, &eig.s_ij, nullptr);
        order = eig.n_dim;
        t_bare = bare_dsygvd(eig.h_ij, eig.s_ij, order, 2);
        close_units();
    } catch (const fatal_stop& stop) {
        std::printf("stopped: %s\n", stop.message.c_str());
        return 1;
    }
    // Four steps of velocity Verlet by the program itself; the step times are its own.
    write_inputs(dir_md, n,
                 "n_steps = 4\nions_eom_algo = 2\ntemperature = 300\n"
                 "temperature_seed_1 = 1\ntemperature_seed_2 = 2\n");
    const std::string cmd = "cd '" + dir_md.string() + "' && '" LYRT_BINARY "' > stdout.txt";
    if (std::system(cmd.c_str()) != 0) {
        std::printf("the dynamics run failed\n");
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
