// Benchmark (not a test): the wall-clock time per k-point of a static point (ground
// state and forces through gs_calc and forces_calc) on a Monkhorst-Pack grid, whose
// points are all complex, beside a bare zhegvd of the same order on the H(k) and
// S(k) of the first point, timed in the same process after the static point; and
// the time per point of the 1-atom fcc Cu cell (order 9) in microseconds.
//
//   lyrt_bench_kpt [case/n ...]   case: Si<8 m^3>, Cu<4 m^3> or Cu1; n: an n x n x n
//                                 grid; default Cu32/4 Si216/2 Cu1/16
#include "base/error_module.hpp"
#include "base/timing_module.hpp"
#include "bench_support.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model/tb_hs_module.hpp"

#include <cstring>

namespace {

using lyrt_bench::now;

// Seconds of the best of `repeats` bare zhegvd calls (vectors, upper triangle) of
// order n on copies of h and s; the workspace is taken before the clock starts.
double bare_zhegvd(const lyrt::dcomplex* h, const lyrt::dcomplex* s, int n, int repeats) {
    const std::size_t nn = static_cast<std::size_t>(n) * n;
    std::vector<lyrt::dcomplex> a(nn), b(nn);
    std::vector<double> w(static_cast<std::size_t>(n));
    const int itype = 1;
    int info = 0, lwork = -1, lrwork = -1, liwork = -1, iq = 0;
    lyrt::dcomplex wq;
    double rq = 0.0;
    zhegvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), &wq, &lwork, &rq, &lrwork,
            &iq, &liwork, &info);
    lwork = static_cast<int>(wq.real()) + 1;
    lrwork = static_cast<int>(rq) + 1;
    liwork = iq;
    std::vector<lyrt::dcomplex> work(static_cast<std::size_t>(lwork));
    std::vector<double> rwork(static_cast<std::size_t>(lrwork));
    std::vector<int> iwork(static_cast<std::size_t>(liwork));
    double best = 1e30;
    for (int r = 0; r < repeats; ++r) {
        std::copy(h, h + nn, a.begin());
        std::copy(s, s + nn, b.begin());
        const double t0 = now();
        zhegvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), work.data(), &lwork,
                rwork.data(), &lrwork, iwork.data(), &liwork, &info);
        best = std::min(best, now() - t0);
        if (info != 0) std::printf("zhegvd info = %d\n", info);
    }
    return best;
}

int run_case(const std::string& spec) {
    using namespace lyrt;
    const std::size_t slash = spec.find('/');
    const std::string name = spec.substr(0, slash);
    const int grid = slash == std::string::npos ? 0 : std::atoi(spec.c_str() + slash + 1);
    lyrt_bench::bench_case c;
    const bool cu1 = name == "Cu1";
    if (grid < 1 || (!cu1 && !lyrt_bench::parse_case(name, c))) {
        std::printf("%s: not a case (Si<8 m^3>/n, Cu<4 m^3>/n or Cu1/n)\n", spec.c_str());
        return 1;
    }
    const auto dir = std::filesystem::temp_directory_path() / ("lyrt_bench_kpt_" + name);
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    if (cu1) {
        std::ofstream(dir / "POSLYRT") << "number_of_ions = 1\na0 = 3.61\na_1 = 0 0.5 0.5\n"
                                          "a_2 = 0.5 0 0.5\na_3 = 0.5 0.5 0\npositions = unit\n"
                                          "0 0 0\n";
        std::ofstream(dir / "INLYRT") << "sigma = 0.1\n";
        std::filesystem::copy_file(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/Cu.tbparam",
                                   dir / "TBPARAM");
    } else {
        lyrt_bench::write_case_inputs(dir, c);
    }
    std::ofstream(dir / "KPTS") << "grid = " << grid << " " << grid << " " << grid
                                << "\nshift = 0.5 0.5 0.5\n";
    std::filesystem::current_path(dir);
    int status = 0;
    try {
        lyrt_bench::set_up_system();
        eig_state_type& eig = *sys.elec_state->eig;
        const int n = eig.n_dim, n_k = sys.kpt.n_k;
        phase_reset();
        sys.elec_algo.algo = sys.elec_algo.gs;
        const double t0 = now();
        gs_calc(sys.box, sys.ions_state, *sys.elec_state, sys.elec_algo, sys.ham, false);
        forces_calc(sys.ham, sys.box.ions, sys.box, sys.i_algo, *sys.elec_state, sys.elec_algo);
        const double per_point = (now() - t0) / n_k;
        double ph[n_phases + 1] = {};
        for (int p = 1; p <= n_phases; ++p) ph[p] = phase_seconds(p) / n_k;
        get_hs_ij_complex(sys.ham, sys.box.ions, sys.kpt, 1, &eig.zh, &eig.zs, nullptr);
        const double bare = bare_zhegvd(eig.zh.data(), eig.zs.data(), n, cu1 ? 200 : 2);
        if (cu1)
            std::printf("%-8s %5d %6d %10.1f us per point, bare zhegvd %8.1f us\n", spec.c_str(), n,
                        n_k, 1e6 * per_point, 1e6 * bare);
        else
            std::printf("%-8s %5d %6d %9.4f %9.4f %9.4f %9.4f %9.4f %9.4f %7.2f\n", spec.c_str(), n,
                        n_k, ph[phase_assembly], ph[phase_eigen], ph[phase_density],
                        ph[phase_gradients] + ph[phase_contract], per_point, bare,
                        per_point / bare);
        std::fflush(stdout);
        close_units();
    } catch (const fatal_stop& stop) {
        std::printf("%s stopped: %s\n", spec.c_str(), stop.message.c_str());
        status = 1;
    }
    std::filesystem::current_path(dir.parent_path());
    std::filesystem::remove_all(dir);
    return status;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--one") == 0) return run_case(argv[2]);
    std::vector<std::string> cases;
    for (int k = 1; k < argc; ++k) cases.emplace_back(argv[k]);
    if (cases.empty()) cases = {"Cu32/4", "Si216/2", "Cu1/16"};
    std::printf("K-point static point (energy and forces), Monkhorst-Pack grids (complex "
                "points), wall seconds per point by phase\n");
    std::printf("%-8s %5s %6s %9s %9s %9s %9s %9s %9s %7s\n", "case", "n", "points", "assembly",
                "eigen", "density", "grad+con", "total", "zhegvd", "ratio");
    std::fflush(stdout);
    int failed = 0;
    for (const std::string& spec : cases) {
        // Each case in a process of its own: the run's records are global.
        const std::string cmd = std::string("'") + argv[0] + "' --one " + spec;
        if (std::system(cmd.c_str()) != 0) ++failed;
    }
    std::printf("ratio: time per point of the static point / bare zhegvd of the same order\n");
    return failed == 0 ? 0 : 1;
}
