// Benchmark (not a test) of the distributed build: whole runs of the program under
// mpirun on 1 and 2 processes (one thread each), for a static point with forces of
// Si 1000 on the non-orthogonal model (dense path: ELPA) and for a kernel
// polynomial point with forces of Si 512 on the orthogonal model. Reports the
// wall-clock time of each run, the speed-up of 2 processes over 1 (a ratio of two
// runs timed in the same process), and the phase times the one-process run wrote
// to its timings file.
//
//   lyrt_bench_mpi [Si1000] [Si512kpm]      (default: both)
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

std::string slurp(const std::filesystem::path& p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Diamond Si of n^3 cubic cells, every coordinate moved by up to 0.05 A (a fixed
// pattern), so that the spectrum has no degeneracies to deflate.
std::string diamond(int n) {
    const double a = 5.431;
    const double basis[8][3] = {{0, 0, 0},          {0, 0.5, 0.5},      {0.5, 0, 0.5},
                                {0.5, 0.5, 0},      {0.25, 0.25, 0.25}, {0.25, 0.75, 0.75},
                                {0.75, 0.25, 0.75}, {0.75, 0.75, 0.25}};
    std::ostringstream f;
    f.precision(10);
    f << "number_of_ions = " << 8 * n * n * n << "\na_1 = " << n * a << " 0 0\na_2 = 0 " << n * a
      << " 0\na_3 = 0 0 " << n * a << "\npositions\n";
    int k = 0;
    for (int x = 0; x < n; ++x)
        for (int y = 0; y < n; ++y)
            for (int z = 0; z < n; ++z)
                for (const auto& b : basis) {
                    const int c[3] = {x, y, z};
                    for (int d = 0; d < 3; ++d)
                        f << (d ? " " : "")
                          << (c[d] + b[d]) / n + 0.05 / (n * a) * std::sin(1.3 * k + 2.1 * d);
                    f << "\n";
                    ++k;
                }
    return f.str();
}

double run(const std::filesystem::path& dir, int np) {
    const std::string cmd = "cd '" + dir.string() +
                            "' && OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 "
                            "OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1 mpirun --oversubscribe "
                            "--bind-to none -np " +
                            std::to_string(np) + " '" LYRT_BINARY "' >stdout.txt 2>stderr.txt";
    const auto t0 = std::chrono::steady_clock::now();
    const int status = std::system(cmd.c_str());
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::printf("  run on %d processes failed (see %s)\n", np, dir.c_str());
        return -1.0;
    }
    return s;
}

void bench(const std::string& name, const std::string& pos, const std::string& input,
           const std::string& param) {
    const std::filesystem::path root = std::filesystem::temp_directory_path() / "lyrt_bench_mpi";
    double t[3] = {0, 0, 0};
    std::string energy[3];
    for (const int np : {1, 2}) {
        const auto dir = root / (name + "_np" + std::to_string(np));
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
        std::ofstream(dir / "POSLYRT") << pos;
        std::ofstream(dir / "INLYRT") << input;
        std::ofstream(dir / "TBPARAM")
            << slurp(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data" / param);
        t[np] = run(dir, np);
        std::istringstream rep(slurp(dir / "OUTLYRT"));
        for (std::string l; std::getline(rep, l);)
            if (l.rfind("  Potential       Energy =", 0) == 0) energy[np] = l.substr(26);
        if (np == 1) {
            std::printf("%s, phase times of the one-process run (timings):\n", name.c_str());
            std::istringstream tim(slurp(dir / "timings"));
            for (std::string l; std::getline(tim, l);)
                if (l.find("phase") != std::string::npos || l.find("sec") != std::string::npos)
                    std::printf("    %s\n", l.c_str());
        }
    }
    std::printf("%-10s 1 process %8.1f s   2 processes %8.1f s   speed-up %.2f\n", name.c_str(),
                t[1], t[2], t[2] > 0 ? t[1] / t[2] : 0.0);
    std::printf("           energy: %s | %s\n", energy[1].c_str(), energy[2].c_str());
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> cases(argv + 1, argv + argc);
    if (cases.empty()) cases = {"Si1000", "Si512kpm"};
    for (const std::string& c : cases) {
        if (c == "Si1000")
            bench("Si1000", diamond(5), "n_steps = 0\ncalc_forces = T\n", "Si.tbparam");
        else if (c == "Si512kpm")
            bench("Si512kpm", diamond(4),
                  "n_steps = 0\ncalc_forces = T\nelec_gs_algo = 4\nn_moments = 200\nkernel = J\n",
                  "Si_orth.tbparam");
        else
            std::printf("unknown case %s (Si1000, Si512kpm)\n", c.c_str());
    }
}
