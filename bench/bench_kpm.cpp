// Benchmark (not a test): the rate of the Chebyshev moments of the kernel
// polynomial method for Si 512 (4 orbitals per ion) and Cu 256 (9 orbitals) on
// the orthogonal test models, against the memory bandwidth of this machine,
// measured in the same process by a triad loop a = b + s c on arrays far larger
// than the caches.
//
// The moment recurrence streams, per product and chunk, the blocks of H and three
// time slices (read two, write one); "bound" is the time those bytes take at the
// triad bandwidth, and the ratio bound / time is the fraction of the bandwidth
// the kernel reaches (above 1: the data were served from the caches).
//
//   lyrt_bench_kpm [moments]    (default 200 for Si 512, 40 for Cu 256, whose
//                               137 neighbours per ion make a moment 80 times dearer)
#include "base/error_module.hpp"
#include "bench_support.hpp"
#include "kpm/kpm_module.hpp"
#include "kpm/lanczos_module.hpp"
#include "kpm/moments_module.hpp"
#include "model/tb_hs_module.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

using lyrt_bench::now;

// Bytes per second of a = b + s c over 3 x 32 MiB, the best of five passes.
double triad_bandwidth() {
    const std::size_t n = std::size_t{4} << 20;
    std::vector<double> a(n, 0.0), b(n, 1.0), c(n, 2.0);
    double best = 1e30;
    for (int pass = 0; pass < 5; ++pass) {
        const double t0 = now();
        const double s = 1.0 + 1e-9 * pass;
        double* __restrict pa = a.data();
        const double* __restrict pb = b.data();
        const double* __restrict pc = c.data();
        for (std::size_t i = 0; i < n; ++i) pa[i] = pb[i] + s * pc[i];
        best = std::min(best, now() - t0);
    }
    if (a[n / 2] < 0.0) std::printf("?"); // keeps the loop
    return 3.0 * 8.0 * static_cast<double>(n) / best;
}

struct bench_case {
    const char* name;
    int moments;
    const char* cell; // POSLYRT
    const char* param;
    double e_min, e_max;
};

} // namespace

int main(int argc, char** argv) {
    using namespace lyrt;
    const int given = argc > 1 ? std::atoi(argv[1]) : 0;
    const double bandwidth = triad_bandwidth();
    std::printf("triad bandwidth (one thread): %.2f GB/s\n", bandwidth / 1e9);
    std::printf("%-8s %6s %7s %6s %10s %10s %12s %10s %10s %8s\n", "system", "orbs", "moments",
                "block", "MFLOPS", "s/moment", "GB streamed", "time (s)", "bound (s)", "bound/t");
    const bench_case cases[] = {
        {"Si 512", 200,
         "number_of_ions = 8\nunit_cell_grid = 4 4 4\na0 = 5.43\na_1 = 1 0 0\na_2 = 0 1 0\n"
         "a_3 = 0 0 1\npositions\n0 0 0\n0 0.5 0.5\n0.5 0 0.5\n0.5 0.5 0\n0.25 0.25 0.25\n"
         "0.25 0.75 0.75\n0.75 0.25 0.75\n0.75 0.75 0.25\n",
         "tests/data/Si_orth.tbparam", -13.0, 11.0},
        {"Cu 256", 40,
         "number_of_ions = 4\nunit_cell_grid = 4 4 4\na0 = 3.25\na_1 = 1 0 0\na_2 = 0 1 0\n"
         "a_3 = 0 0 1\npositions\n0 0 0\n0 0.5 0.5\n0.5 0 0.5\n0.5 0.5 0\n",
         "tests/data/Cu_orth.tbparam", -35.0, 32.0},
    };
    const auto top = std::filesystem::temp_directory_path() / "lyrt_bench_kpm";
    for (const bench_case& c : cases) {
        const int moments = given > 0 ? given : c.moments;
        const auto dir = top / c.name;
        std::filesystem::create_directories(dir);
        std::ofstream(dir / "POSLYRT") << c.cell;
        std::ofstream(dir / "INLYRT") << "elec_gs_algo = 4\nn_moments = " << moments << "\n";
        std::filesystem::copy_file(std::filesystem::path(LYRT_SOURCE_DIR) / c.param,
                                   dir / "TBPARAM",
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::current_path(dir);
        try {
            lyrt_bench::set_up_system();
            hamiltonian_reinit(sys.ham, sys.box.ions);
            calc_hs_real(sys.ham, sys.box.ions, sys.box);
            kpm_state_type& ks = sys.kpm_state;
            for (const int block : {1, 2, 4, 8}) {
                ks.block_size = block;
                scale_h_ab(sys.ham, c.e_min, c.e_max, ks.a, ks.b, false);
                sys.tb_model.max_no == 4 ? calc_mu_new_four(sys.ham, ks)
                                         : calc_mu_new_nine(sys.ham, ks);
                rescale_h_ab(sys.ham, ks.a, ks.b, false);
                const kpm_moment_rate_type r = kpm_last_moment_rate();
                const double bound = r.bytes / bandwidth;
                // The recurrence makes two moments per product of all columns.
                const double per_moment = r.seconds / (2.0 * (moments / 2 - 1));
                std::printf("%-8s %6d %7d %6d %10.1f %10.5f %12.3f %10.3f %10.3f %8.2f\n", c.name,
                            sys.ham.desc.n_row, moments, block, r.flops / (r.seconds * 1e6),
                            per_moment, r.bytes / 1e9, r.seconds, bound, bound / r.seconds);
                std::fflush(stdout);
            }
            // One whole energy and force evaluation at the run's block size.
            ks.block_size = 2;
            ks.e_min = c.e_min;
            ks.e_max = c.e_max;
            double e_band = 0.0, e_fermi = 0.0;
            const double t0 = now();
            kpm_calc_energy(ks, sys.ham, e_band, e_fermi);
            const double t1 = now();
            calc_hs_grad_real(sys.ham, sys.box.ions, sys.box);
            kpm_calc_forces(ks, sys.ham, sys.box.ions.f);
            const double t2 = now();
            std::printf("%-8s energy %.3f s, forces %.3f s (gradient blocks included)\n", c.name,
                        t1 - t0, t2 - t1);
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
