#include "numerics/random_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

#include <array>
#include <chrono>
#include <cmath>

namespace lyrt {

namespace {

struct ranmar_state {
    std::array<double, 98> u{}; // lagged table, 1..97
    double c = 0.0, cd = 0.0, cm = 0.0;
    int i97 = 97, j97 = 33;
    bool random_initialised = false;
};

ranmar_state g;
double spare = 0.0;
bool random_norm_first = true;

long clock_count() {
    return static_cast<long>(std::chrono::steady_clock::now().time_since_epoch() /
                             std::chrono::microseconds(1));
}

} // namespace

void init_random(std::optional<int> seed_1, std::optional<int> seed_2) {
    const int ij = seed_1 ? *seed_1 : static_cast<int>(clock_count() % 31328);
    const int kl = seed_2 ? *seed_2 : static_cast<int>(clock_count() % 30081);
    if (ij < 0 || ij > 31328 || kl < 0 || kl > 30081) {
        write_free(stdout_unit,
                   {" The first random number seed must have a value between 0 and 31328"});
        plain_stop(" The second seed must have a value between 0 and 30081");
    }
    int i = (ij / 177) % 177 + 2;
    int j = ij % 177 + 2;
    int k = (kl / 169) % 178 + 1;
    int l = kl % 169;
    for (int ii = 1; ii <= 97; ++ii) {
        double s = 0.0, t = 0.5;
        for (int jj = 1; jj <= 24; ++jj) {
            const int m = (((i * j) % 179) * k) % 179;
            i = j;
            j = k;
            k = m;
            l = (53 * l + 1) % 169;
            if ((l * m) % 64 >= 32) s += t;
            t *= 0.5;
        }
        g.u[static_cast<std::size_t>(ii)] = s;
    }
    g.c = 362436.0 / 16777216.0;
    g.cd = 7654321.0 / 16777216.0;
    g.cm = 16777213.0 / 16777216.0;
    g.i97 = 97;
    g.j97 = 33;
    g.random_initialised = true;
    // A new stream starts without the spare deviate of the old one.
    random_norm_first = true;
    spare = 0.0;
}

double random() {
    if (!g.random_initialised) init_random(1802, 9373);
    double uni = g.u[static_cast<std::size_t>(g.i97)] - g.u[static_cast<std::size_t>(g.j97)];
    if (uni < 0.0) uni += 1.0;
    g.u[static_cast<std::size_t>(g.i97)] = uni;
    if (--g.i97 == 0) g.i97 = 97;
    if (--g.j97 == 0) g.j97 = 97;
    g.c -= g.cd;
    if (g.c < 0.0) g.c += g.cm;
    uni -= g.c;
    if (uni < 0.0) uni += 1.0;
    return uni;
}

void random_vec(std::span<double> v) {
    for (double& x : v) x = random();
}

void random_mat(farray<double, 2>& m) {
    for (long j = m.lbound(1); j <= m.ubound(1); ++j)
        random_vec(std::span<double>(&m(m.lbound(0), j), static_cast<std::size_t>(m.extent(0))));
}

double random_norm() {
    if (random_norm_first) {
        double w1, w2, s;
        do {
            w1 = 2.0 * random() - 1.0;
            w2 = 2.0 * random() - 1.0;
            s = w1 * w1 + w2 * w2;
        } while (s >= 1.0 || s == 0.0);
        const double fac = std::sqrt(-2.0 * std::log(s) / s);
        spare = w2 * fac;
        random_norm_first = false;
        return w1 * fac;
    }
    random_norm_first = true;
    return spare;
}

void random_pair(double& x, double& y, double sigma_x, double sigma_y, double c_xy) {
    const double g1 = random_norm();
    const double g2 = random_norm();
    x = sigma_x * g1;
    y = sigma_y * (g1 * c_xy + g2 * std::sqrt(1.0 - c_xy * c_xy));
}

void random_get_state(std::span<double> state) {
    if (!g.random_initialised) init_random(1802, 9373);
    for (std::size_t i = 1; i <= 97; ++i) state[i - 1] = g.u[i];
    state[97] = g.c;
    state[98] = g.cd;
    state[99] = g.cm;
    state[100] = g.i97;
    state[101] = g.j97;
    state[102] = spare;
    state[103] = random_norm_first ? 1.0 : 0.0;
}

void random_set_state(std::span<const double> state) {
    for (std::size_t i = 1; i <= 97; ++i) g.u[i] = state[i - 1];
    g.c = state[97];
    g.cd = state[98];
    g.cm = state[99];
    g.i97 = static_cast<int>(state[100]);
    g.j97 = static_cast<int>(state[101]);
    // Indices out of the table would read past it: such a state is not one of ours.
    if (g.i97 < 1 || g.i97 > 97 || g.j97 < 1 || g.j97 > 97)
        fatal_error("random_state: the generator's indices must lie in 1..97", g.i97,
                    "random_set_state", "random_module");
    spare = state[102];
    random_norm_first = state[103] != 0.0;
    g.random_initialised = true;
}

void random_reset() {
    g = ranmar_state{};
    spare = 0.0;
    random_norm_first = true;
}

} // namespace lyrt
