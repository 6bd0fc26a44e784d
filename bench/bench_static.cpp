// Benchmark (not a test): the wall-clock time of one static point (ground state and
// forces, through the program's own gs_calc and forces_calc) of rattled diamond Si
// and fcc Cu cells, split by phase, beside a bare dsygvd of the same H and S and a
// dgemm of the shape of the density matrices, all timed in the same process after
// the static point. The peak memory is read before the benchmark's own copies.
//
//   lyrt_bench [case ...]    case: Si<atoms> (8 n^3) or Cu<atoms> (4 n^3);
//                            default Si216 Si512 Si1000 Cu108 Cu256
//
// Each case runs in a child process of its own (lyrt_bench --one <case>), so that
// the peak memory it reports is that of the case alone.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "bench_support.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/lapack_module.hpp"
#include "run/system_def_module.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#if defined(_OPENMP)
#include <omp.h>
#endif

namespace {

using lyrt_bench::bench_case;
using lyrt_bench::now;
using lyrt_bench::parse_case;
using lyrt_bench::write_case_inputs;

// Flops per second of dgemm C(n, n) = A(n, k) A(n, k)^T, the product that forms a
// density matrix from k weighted states; the best of three.
double dgemm_rate(int n, int k) {
    std::vector<double> a(static_cast<std::size_t>(n) * k), c(static_cast<std::size_t>(n) * n);
    for (std::size_t i = 0; i < a.size(); ++i) a[i] = std::sin(0.001 * static_cast<double>(i));
    const double one = 1.0, zero = 0.0;
    double best = 1e30;
    for (int r = 0; r < 3; ++r) {
        const double t0 = now();
        dgemm_("N", "T", &n, &n, &k, &one, a.data(), &n, a.data(), &n, &zero, c.data(), &n);
        best = std::min(best, now() - t0);
    }
    return 2.0 * n * static_cast<double>(n) * k / best;
}

// Peak resident memory of this process in MiB (VmHWM of /proc/self/status).
double peak_mib() {
    std::ifstream st("/proc/self/status");
    for (std::string line; std::getline(st, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    return 0.0;
}

int run_one(const std::string& name) {
    using namespace lyrt;
    bench_case c;
    if (!parse_case(name, c)) {
        std::printf("%s: not a case (Si<8 n^3> or Cu<4 n^3>)\n", name.c_str());
        return 1;
    }
    const auto dir = std::filesystem::temp_directory_path() / ("lyrt_bench_" + name);
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    write_case_inputs(dir, c);
    std::filesystem::current_path(dir);
    try {
        lyrt_bench::set_up_system();
        eig_state_type& eig = *sys.elec_state->eig;
        const int n = eig.n_dim;
        // The static point as the program computes it, from the state after set-up.
        phase_reset();
        sys.elec_algo.algo = sys.elec_algo.gs;
        const double t0 = now();
        gs_calc(sys.box, sys.ions_state, *sys.elec_state, sys.elec_algo, sys.ham, false);
        forces_calc(sys.ham, sys.box.ions, sys.box, sys.i_algo, *sys.elec_state, sys.elec_algo);
        const double total = now() - t0;
        const double peak = peak_mib(); // the program's own arrays, before the bench's copies
        double ph[n_phases + 1] = {};
        for (int p = 1; p <= n_phases; ++p) ph[p] = phase_seconds(p);
        // The bare solver on the same H and S (the solver left its factor in s_ij).
        get_hs_ij_real(sys.ham, &eig.h_ij, &eig.s_ij, nullptr);
        const double t_bare = lyrt_bench::bare_dsygvd(eig.h_ij.data(), eig.s_ij.data(), n);
        // The density matrices are formed from the states of non-zero weight: all the
        // computed states with smearing, the filled ones without.
        int n_weighted = 0;
        for (int i = 1; i <= eig.n_states; ++i)
            if (eig.occ(i, 1) != 0.0) ++n_weighted;
        const int n_matrices = sys.tb_model.non_orthogonal ? 2 : 1;
        const double bound =
            n_matrices * 2.0 * n * static_cast<double>(n) * n_weighted / dgemm_rate(n, n_weighted);
        double phases = 0.0;
        for (int p = 1; p <= n_phases; ++p) phases += ph[p];
        std::printf(
            "%-7s %5d %5d %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %6.2f %6.2f %8.0f\n",
            name.c_str(), n, n_weighted, ph[phase_assembly], ph[phase_eigen], ph[phase_gradients],
            ph[phase_density], ph[phase_contract], total - phases, total, t_bare, total / t_bare,
            ph[phase_density] / bound, peak);
        std::fflush(stdout);
        close_units();
    } catch (const fatal_stop& stop) {
        std::printf("%s stopped: %s\n", name.c_str(), stop.message.c_str());
        return 1;
    }
    std::filesystem::current_path(dir.parent_path());
    std::filesystem::remove_all(dir);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--one") == 0) return run_one(argv[2]);
    std::vector<std::string> cases;
    for (int k = 1; k < argc; ++k) cases.emplace_back(argv[k]);
    if (cases.empty()) cases = {"Si216", "Si512", "Si1000", "Cu108", "Cu256"};
    int threads = 1;
#if defined(_OPENMP)
    threads = omp_get_max_threads();
#endif
    std::printf("Static point (energy and forces), wall seconds by phase; %d OpenMP thread(s)\n",
                threads);
    std::printf("%-7s %5s %5s %8s %8s %8s %8s %8s %8s %8s %8s %6s %6s %8s\n", "case", "n", "n_occ",
                "assembly", "eigen", "grads", "density", "contract", "rest", "total", "dsygvd",
                "ratio", "dm/bnd", "peak_MiB");
    std::fflush(stdout);
    int failed = 0;
    for (const std::string& name : cases) {
        bench_case c;
        if (!parse_case(name, c)) {
            std::printf("%s: not a case (Si<8 n^3> or Cu<4 n^3>)\n", name.c_str());
            ++failed;
            continue;
        }
        const std::string cmd = std::string("'") + argv[0] + "' --one " + name;
        if (std::system(cmd.c_str()) != 0) ++failed;
    }
    std::printf("ratio: total / bare dsygvd; dm/bnd: density step / (2 n^2 n_occ flops per matrix "
                "at the dgemm rate of the same shape)\n");
    return failed == 0 ? 0 : 1;
}
