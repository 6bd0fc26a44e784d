// Benchmark (not a test), distributed build: one static point (energy and forces)
// of rattled diamond Si by the linear-scaling solver and by the dense path, in the
// same process, and the rate of DBCSR's block products against dgemm on matrices
// of the groups' block size, timed in the same run.
//
//   lyrt_bench_ls [Si<8 n^3> ...]    default Si216 Si512
#include "base/error_module.hpp"
#include "bench_support.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "linear/ls_module.hpp"

#include <cstring>

namespace {

using lyrt_bench::now;

// GFLOP/s of dgemm on square matrices of order b, the best of a few repeats of a
// batch that takes some milliseconds.
double dgemm_gflops(int b) {
    std::vector<double> x(static_cast<std::size_t>(b) * b, 0.5), y(x), z(x);
    const double one = 1.0;
    const int reps = std::max(1, 20000000 / (b * b * b));
    double best = 1e30;
    for (int r = 0; r < 3; ++r) {
        const double t0 = now();
        for (int k = 0; k < reps; ++k)
            dgemm_("N", "N", &b, &b, &b, &one, x.data(), &b, y.data(), &b, &one, z.data(), &b);
        best = std::min(best, now() - t0);
    }
    return 2.0 * b * b * static_cast<double>(b) * reps / best * 1e-9;
}

int run_one(const std::string& name) {
    using namespace lyrt;
    lyrt_bench::bench_case c;
    if (!lyrt_bench::parse_case(name, c) || c.copper) {
        std::printf("%s: not a case (Si<8 n^3>)\n", name.c_str());
        return 1;
    }
    const auto dir = std::filesystem::temp_directory_path() / ("lyrt_bench_ls_" + name);
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    lyrt_bench::write_case_inputs(dir, c);
    std::ofstream(dir / "INLYRT", std::ios::app) << "elec_gs_algo = 5\nelec_md_algo = 2\n";
    std::filesystem::current_path(dir);
    int status = 0;
    try {
        lyrt_bench::set_up_system();
        const auto point = [&](int algo) {
            sys.elec_algo.algo = algo;
            const double t0 = now();
            gs_calc(sys.box, sys.ions_state, *sys.elec_state, sys.elec_algo, sys.ham, false);
            forces_calc(sys.ham, sys.box.ions, sys.box, sys.i_algo, *sys.elec_state, sys.elec_algo);
            return std::make_pair(now() - t0, sys.ions_state.e_pot);
        };
        const auto [t_ls, e_ls] = point(elec_algo_ls);
        const ls_state_type& ls = sys.ls_state;
        const double rate = ls.flops / ls.product_seconds * 1e-9;
        int block = 0;
        for (const int d : ls.lay.block_dim) block += d;
        block /= static_cast<int>(ls.lay.block_dim.size());
        const auto [t_dense, e_dense] = point(elec_algo_diag);
        std::printf("%-7s %6d %5d %6.3f %4d %4d %9.3f %9.3f %7.2f %9.2e %8.2f %8.2f %6.2f\n",
                    name.c_str(), c.atoms, block, ls.fill, ls.ns_steps, ls.sp2_steps, t_ls, t_dense,
                    t_ls / t_dense, std::fabs(e_ls - e_dense) / c.atoms, rate, dgemm_gflops(block),
                    rate / dgemm_gflops(block));
        std::fflush(stdout);
    } catch (const fatal_stop& stop) {
        std::printf("%s stopped: %s\n", name.c_str(), stop.message.c_str());
        status = 1;
    }
    std::filesystem::current_path(dir.parent_path());
    std::filesystem::remove_all(dir);
    return status;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--one") == 0) return run_one(argv[2]);
    std::vector<std::string> cases;
    for (int k = 1; k < argc; ++k) cases.emplace_back(argv[k]);
    if (cases.empty()) cases = {"Si216", "Si512"};
    std::printf("Static point (energy and forces): linear-scaling solver against the dense path, "
                "wall seconds\n");
    std::printf("%-7s %6s %5s %6s %4s %4s %9s %9s %7s %9s %8s %8s %6s\n", "case", "atoms", "block",
                "fill", "ns", "sp2", "ls", "dense", "ratio", "dE/atom", "GF/s", "dgemm", "share");
    std::fflush(stdout);
    int failed = 0;
    for (const std::string& name : cases) {
        const std::string cmd = std::string("'") + argv[0] + "' --one " + name;
        if (std::system(cmd.c_str()) != 0) ++failed;
    }
    std::printf("block: mean orbitals of a group block; GF/s: the block products of the solver; "
                "dgemm: square matrices of the block's order; share: GF/s / dgemm\n");
    return failed == 0 ? 0 : 1;
}
