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
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
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

struct bench_case {
    bool copper = false;
    int cells = 0; // conventional cells per edge
    int atoms = 0;
};

inline bool parse_case(const std::string& name, bench_case& c) {
    if (name.size() < 3) return false;
    const std::string kind = name.substr(0, 2);
    if (kind != "Si" && kind != "Cu") return false;
    c.copper = kind == "Cu";
    c.atoms = std::atoi(name.c_str() + 2);
    const int per_cell = c.copper ? 4 : 8;
    c.cells = static_cast<int>(std::lround(std::cbrt(c.atoms / static_cast<double>(per_cell))));
    return c.cells >= 1 && per_cell * c.cells * c.cells * c.cells == c.atoms;
}

// The whole cell written out atom by atom, each displaced by up to 0.05 A by a
// fixed pseudo-random sequence: the displacements lift the degeneracies of the
// perfect crystal, which the divide-and-conquer solver would deflate cheaply.
inline void write_case_inputs(const std::filesystem::path& dir, const bench_case& c) {
    static const double si[8][3] = {{0, 0, 0},          {0, 0.5, 0.5},      {0.5, 0, 0.5},
                                    {0.5, 0.5, 0},      {0.25, 0.25, 0.25}, {0.25, 0.75, 0.75},
                                    {0.75, 0.25, 0.75}, {0.75, 0.75, 0.25}};
    static const double cu[4][3] = {{0, 0, 0}, {0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}};
    const double a0 = c.copper ? 3.61 : 5.431;
    const int per_cell = c.copper ? 4 : 8;
    const double edge = a0 * c.cells;
    unsigned long long seed = 12345;
    auto jitter = [&] {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        return (static_cast<double>(seed >> 11) / 9007199254740992.0 - 0.5) * 0.1 / edge;
    };
    std::ofstream pos(dir / "POSLYRT");
    pos << "number_of_ions = " << c.atoms << "\na0 = " << edge
        << "\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 1\npositions\n";
    pos.precision(12);
    for (int i = 0; i < c.cells; ++i)
        for (int j = 0; j < c.cells; ++j)
            for (int k = 0; k < c.cells; ++k)
                for (int b = 0; b < per_cell; ++b) {
                    const double* f = c.copper ? cu[b] : si[b];
                    pos << (i + f[0]) / c.cells + jitter() << " " << (j + f[1]) / c.cells + jitter()
                        << " " << (k + f[2]) / c.cells + jitter() << "\n";
                }
    std::ofstream in(dir / "INLYRT");
    in << "system_name = benchmark\n" << (c.copper ? "sigma = 0.1\n" : "");
    const auto data = std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data";
    std::filesystem::copy_file(data / (c.copper ? "Cu.tbparam" : "Si.tbparam"), dir / "TBPARAM",
                               std::filesystem::copy_options::overwrite_existing);
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
