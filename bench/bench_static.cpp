// Benchmark (not a test): one static run of diamond silicon cells of 64 to 512
// atoms at the gamma point, with the time split into the assembly of H and S,
// the eigensolver, the forces and the rest.
//
//   lyrt_bench [n ...]    n: conventional cells per edge (default 2 3 4: 64, 216, 512 atoms)
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "bench_support.hpp"
#include "diag/diag_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/system_def_module.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using lyrt_bench::now;

} // namespace

int main(int argc, char** argv) {
    using namespace lyrt;
    std::vector<int> sizes;
    for (int k = 1; k < argc; ++k) sizes.push_back(std::atoi(argv[k]));
    if (sizes.empty()) sizes = {2, 3, 4};
    std::printf("%6s %6s %10s %10s %10s %10s %10s %8s\n", "atoms", "orbs", "assembly", "eigen",
                "forces", "rest", "total", "eigen%");
    const auto top = std::filesystem::temp_directory_path() / "lyrt_bench";
    for (int n : sizes) {
        const auto dir = top / std::to_string(n);
        std::filesystem::create_directories(dir);
        lyrt_bench::write_inputs(dir, n, "system_name = benchmark\n");
        std::filesystem::current_path(dir);
        try {
            const double t_start = now();
            lyrt_bench::set_up_system();
            eig_state_type& eig = *sys.elec_state->eig;
            hamiltonian_reinit(sys.ham, sys.box.ions);
            // The steps of the secular loop of one pass, timed one by one.
            const double t0 = now();
            calc_hs_real(sys.ham, sys.box.ions, sys.box);
            get_hs_ij_real(sys.ham, &eig.h_ij, &eig.s_ij, nullptr);
            const double t1 = now();
            calc_gen_eigen_vectors_real(eig.h_ij, eig.s_ij, eig.n_dim, eig.ework, eig.x, eig.d);
            const double t2 = now();
            for (int i = 1; i <= eig.n_states; ++i) eig.en_i(i, 1) = eig.ework(i);
            eig_set_psi(eig, 1);
            for (int j = 1; j <= eig.n_states; ++j)
                for (int r = 1; r <= eig.n_dim; ++r) eig.psi(r, j) = eig.x(r, j);
            eig_calc_energy(eig);
            const double t3 = now();
            sys.elec_algo.algo = sys.elec_algo.gs;
            forces_calc(sys.ham, sys.box.ions, sys.box, sys.i_algo, *sys.elec_state, sys.elec_algo);
            const double t4 = now();
            const double total = t4 - t_start;
            const double assembly = t1 - t0, eigen = t2 - t1, forces = t4 - t3;
            std::printf("%6d %6d %10.3f %10.3f %10.3f %10.3f %10.3f %7.1f%%\n",
                        sys.box.ions.total_n_ions, eig.n_dim, assembly, eigen, forces,
                        total - assembly - eigen - forces, total, 100.0 * eigen / total);
            std::fflush(stdout);
            eig_state_deallocate(eig);
            hamiltonian_free(sys.ham);
            io_reset();
        } catch (const fatal_stop& stop) {
            std::printf("stopped: %s\n", stop.message.c_str());
            return 1;
        }
    }
    std::filesystem::current_path(top);
    std::filesystem::remove_all(top);
    return 0;
}
