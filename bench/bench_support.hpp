// What the benchmarks share: the input files of a diamond silicon crystal and the
// set-up of the run's records from them, in the order of the main program.
#pragma once

#include "base/io_module.hpp"
#include "numerics/lapack_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/input_module.hpp"
#include "run/system_def_module.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace lyrt_bench {

inline double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Seconds of the best of `repeats` bare dsygvd calls (vectors, upper triangle) of
// order n on copies of h and s; the workspace is taken before the clock starts.
inline double bare_dsygvd(const double* h, const double* s, int n, int repeats = 1) {
    const std::size_t nn = static_cast<std::size_t>(n) * n;
    std::vector<double> a(nn), b(nn), w(static_cast<std::size_t>(n));
    const int itype = 1;
    int info = 0, lwork = -1, liwork = -1, iq = 0;
    double wq = 0;
    dsygvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), &wq, &lwork, &iq, &liwork,
            &info);
    lwork = static_cast<int>(wq) + 1;
    liwork = iq;
    std::vector<double> work(static_cast<std::size_t>(lwork));
    std::vector<int> iwork(static_cast<std::size_t>(liwork));
    double best = 1e30;
    for (int r = 0; r < repeats; ++r) {
        std::copy(h, h + nn, a.begin());
        std::copy(s, s + nn, b.begin());
        const double t0 = now();
        dsygvd_(&itype, "V", "U", &n, a.data(), &n, b.data(), &n, w.data(), work.data(), &lwork,
                iwork.data(), &liwork, &info);
        best = std::min(best, now() - t0);
        if (info != 0) std::printf("dsygvd info = %d\n", info);
    }
    return best;
}

// POSLYRT of n x n x n conventional cells of diamond Si, INLYRT with `input`, TBPARAM.
inline void write_inputs(const std::filesystem::path& dir, int n, const char* input) {
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

// Reads the three files of the working folder into the run's records and sets up
// ions and electrons.
inline void set_up_system() {
    using namespace lyrt;
    init_mpi();
    open_units();
    sys.box = box_type{};
    sys.tb_model = tb_model_type{};
    init_system();
}

} // namespace lyrt_bench
