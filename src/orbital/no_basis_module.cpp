#include "orbital/no_basis_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/lapack_module.hpp"
#include "numerics/random_module.hpp"
#include "operators/hs_psi_module.hpp"

#include <cmath>

namespace lyrt {

namespace {
constexpr const char* mod = "no_basis_module";
double change_seconds = 0.0;
} // namespace

void decompose_s(hamiltonian_type& ham) {
    const char* proc = "decompose_s";
    const trace_guard trace(proc, mod);
    const int n = ham.desc.n_row;
    if (ham.u_ab.allocated() && ham.u_ab.extent(0) != n)
        cd_real_2d(ham.u_ab, "ham%u_ab", proc, mod);
    if (!ham.u_ab.allocated()) ca_real_2d(ham.u_ab, 1, n, 1, n, "ham%u_ab", proc, mod);
    if (!ham.tb_model->non_orthogonal) {
        ham.u_ab.fill(0.0);
        for (int i = 1; i <= n; ++i) ham.u_ab(i, i) = 1.0;
        return;
    }
    get_hs_ij_real(ham, nullptr, &ham.u_ab, nullptr);
    int info = 0;
    dpotrf_("U", &n, ham.u_ab.data(), &n, &info);
    if (info != 0) fatal_error("error in Xpotrf info=", info, proc, mod);
}

double overlap(const hamiltonian_type& ham, const farray<double, 1>& x,
               const farray<double, 1>& y) {
    const long n = x.extent(0);
    double s = 0.0;
    if (!ham.tb_model->non_orthogonal) {
        for (long i = 1; i <= n; ++i) s += x(i) * y(i);
        return s;
    }
    farray<double, 1> sy;
    sy.allocate({1}, {n});
    s_psi_one(ham, y, sy);
    for (long i = 1; i <= n; ++i) s += x(i) * sy(i);
    return s;
}

double overlap_all(const hamiltonian_type& ham, const farray<double, 2>& x,
                   const farray<double, 2>& y) {
    farray<double, 2> sy;
    if (ham.tb_model->non_orthogonal) {
        sy.allocate({1, 1}, {y.extent(0), y.extent(1)});
        s_psi_rmat(ham, y, sy);
    }
    const farray<double, 2>& b = ham.tb_model->non_orthogonal ? sy : y;
    double s = 0.0;
    for (std::size_t k = 0; k < x.size(); ++k) s += x.data()[k] * b.data()[k];
    return s;
}

void change_basis(const hamiltonian_type& ham, farray<double, 1>& x) {
    const double start = utime();
    const int n = static_cast<int>(x.extent(0)), one = 1;
    // S = U' U: solve U' z = x, then U x = z.
    dtrsv_("U", "T", "N", &n, ham.u_ab.data(), &n, x.data(), &one);
    dtrsv_("U", "N", "N", &n, ham.u_ab.data(), &n, x.data(), &one);
    change_seconds += utime() - start;
}

void change_basis_all(const hamiltonian_type& ham, farray<double, 2>& x) {
    const double start = utime();
    const int n = static_cast<int>(x.extent(0)), m = static_cast<int>(x.extent(1));
    const double one = 1.0;
    dtrsm_("L", "U", "T", "N", &n, &m, &one, ham.u_ab.data(), &n, x.data(), &n);
    dtrsm_("L", "U", "N", "N", &n, &m, &one, ham.u_ab.data(), &n, x.data(), &n);
    change_seconds += utime() - start;
}

double test_change_basis(const hamiltonian_type& ham, int unit) {
    const long n = ham.desc.n_row, m = 3;
    farray<double, 2> x;
    x.allocate({1, 1}, {n, m});
    random_mat(x);
    farray<double, 2> all = x.copy();
    change_basis_all(ham, all);
    write_free(unit, {"test_change_basis"});
    double diff = 0.0;
    farray<double, 1> v;
    v.allocate({1}, {n});
    for (long j = 1; j <= m; ++j) {
        for (long i = 1; i <= n; ++i) v(i) = x(i, j);
        change_basis(ham, v);
        for (long i = 1; i <= n; ++i) diff = std::max(diff, std::fabs(v(i) - all(i, j)));
    }
    write_free(unit, {"check_change_basis", diff});
    return diff;
}

} // namespace lyrt
