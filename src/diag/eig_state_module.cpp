#include "diag/eig_state_module.hpp"

#include "diag/diag_module.hpp"
#include "diag/pdiag_module.hpp"
#include "numerics/lapack_module.hpp"
#include "operators/acum_delem_module_1.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/format_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "model/tb_hs_module.hpp"
#include "operators/acum_delem_module_2.hpp"
#include "operators/hs_psi_module.hpp"
#include "parallel/mpi_module.hpp"
#include "parallel/threads_module.hpp"
#include "system/constants_module.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "eig_state_module";
constexpr double bisection_tol = single_1e_8; // electrons
constexpr double last_state_limit = single_1e_10;

int n_kpt(const eig_state_type& eig) {
    return eig.kpt->n_k;
}

// Electrons (per spin) at the Fermi level e_f; refills occ.
double nelec(eig_state_type& eig, double e_f) {
    double n = 0.0;
    for (int k = 1; k <= n_kpt(eig); ++k)
        for (int i = 1; i <= eig.n_states; ++i) {
            eig.occ(i, k) = fermi(eig.en_i(i, k), e_f, eig.kpt->sigma);
            n += eig.kpt->weight(k) * eig.occ(i, k);
        }
    return n;
}

int bisection(eig_state_type& eig, int iterations, double tol) {
    const int nk = n_kpt(eig), ns = eig.n_states;
    double e_max = eig.en_i(ns, 1), e_min = eig.en_i(1, 1);
    for (int k = 1; k <= nk; ++k) {
        e_max = std::max(e_max, eig.en_i(ns, k));
        e_min = std::min(e_min, eig.en_i(1, k));
    }
    // First guess between the last filled and the first empty state (both kept
    // within the states held).
    const int n_occ = static_cast<int>(eig.n_el * 0.5);
    const int lo_state = std::clamp(n_occ, 1, ns), hi_state = std::clamp(n_occ + 1, 1, ns);
    double e_f = 0.0;
    for (int k = 1; k <= nk; ++k)
        e_f += 0.5 * eig.kpt->weight(k) * (eig.en_i(hi_state, k) + eig.en_i(lo_state, k));
    double lo = e_min, hi = e_max;
    int iter = 0;
    for (iter = 1; iter <= iterations; ++iter) {
        const double diff = nelec(eig, e_f) - eig.n_el * 0.5;
        if (tol > std::fabs(diff)) break;
        if (diff < 0.0)
            lo = e_f;
        else
            hi = e_f;
        e_f = 0.5 * (hi + lo);
        if (e_f > e_max || e_f < e_min)
            fatal_error("bisection is getting out of bounds", iter, "eig_find_fermi_energy", mod);
    }
    eig.e_fermi = e_f;
    return iter;
}

} // namespace

double fermi(double e, double e_f, double sigma) {
    const double x = (e - e_f) / sigma;
    if (!(x <= 50.0)) return 0.0; // a not-a-number falls here too
    if (x < -50.0) return 1.0;
    return 1.0 / (std::exp(x) + 1.0);
}

void eig_state_allocate(eig_state_type& eig, int n_dim, int n_states, double n_el, int block_row,
                        int block_col, bool non_orth, char jobz, const kpt_type& kpt) {
    const char* proc = "eig_state_allocate";
    eig.n_dim = n_dim;
    eig.n_states = n_states;
    eig.n_el = n_el;
    eig.kpt = &kpt;
    eig.n_psi = kpt.n_k;
    if (n_dim <= 0) fatal_error("n_dim should be > 0 !!!", n_dim, proc, mod);
    if (kpt.n_k <= 0) fatal_error("n_kpt should be > 0 !!!", kpt.n_k, proc, mod);
    if (n_states <= 0) fatal_error("n_states should be > 0 !!!", n_states, proc, mod);
    if (n_states > n_dim) {
        // The solver has no more states than basis functions.
        warning_error("n_states > n_dim, only n_dim states are kept", proc, mod);
        n_states = n_dim;
        eig.n_states = n_dim;
    }
    // Eigenvalues and occupations are held whole on every process; a distributed
    // run spreads the dense matrices block-cyclically instead (pdiag_setup).
    pdist_init(eig.row_pdist, n_dim, std::max(1, block_row), 1, 0, "bc");
    pdist_init(eig.col_pdist, n_states, std::max(1, block_col), 1, 0, "bc");
    init_blacs_distr(eig.d, n_dim, n_dim, std::max(1, block_row), std::max(1, block_row));
    // Points are dealt whole to the processes: each solves its own serially.
    const bool general = kpt_general(kpt);
    if (!general) pdiag_setup(eig, n_dim, non_orth);
    const bool dist = eig_distributed(eig);
    // The k-point path keeps complex states instead (zpsi_k): the real ones are a stub.
    const bool stub = dist || general;
    if (general) eig.n_psi = 1;
    eig.psi_k.clear();
    eig.psi_k.resize(static_cast<std::size_t>(eig.n_psi));
    for (auto& p : eig.psi_k)
        ca_real_2d(p, 1, stub ? 1 : n_dim, 1, stub ? 1 : n_states, "eig_state%psi_k", proc, mod);
    const int nk = kpt.n_k;
    ca_real_2d(eig.en_i, 1, n_states, 1, nk, "eig_state%en_i", proc, mod);
    ca_real_2d(eig.occ, 1, n_states, 1, nk, "eig_state%occ", proc, mod);
    ca_real_2d(eig.docc, 1, n_states, 1, nk, "eig_state%docc", proc, mod);
    ca_real_2d(eig.alpha, 1, n_states, 1, nk, "eig_state%alpha", proc, mod);
    ca_real_2d(eig.beta, 1, n_states, 1, nk, "eig_state%beta", proc, mod);
    const int n_occ = std::min(n_states, static_cast<int>(n_el * 0.5));
    for (int k = 1; k <= nk; ++k)
        for (int i = 1; i <= n_states; ++i) {
            eig.occ(i, k) = i <= n_occ ? 1.0 : 0.0;
            eig.docc(i, k) = eig.occ(i, k) * (eig.occ(i, k) - 1.0);
        }
    allocate_work_arrays(eig.d, "R");
    ca_real_1d(eig.ework, 1, n_dim, "eig_state%ework", proc, mod);
    if (dist) {
        eig_set_psi(eig, 1);
        return;
    }
    ca_real_2d(eig.h_ij, 1, n_dim, 1, n_dim, "eig_state%h_ij", proc, mod);
    if (non_orth) ca_real_2d(eig.s_ij, 1, n_dim, 1, n_dim, "eig_state%s_ij", proc, mod);
    if (jobz == 'v' || jobz == 'V') {
        ca_real_2d(eig.x, 1, n_dim, 1, n_dim, "eig_state%x", proc, mod);
        diag_reserve_vectors(eig.d, n_dim);
    }
    if (general) {
        ca_complex_2d(eig.zh, 1, n_dim, 1, n_dim, "eig_state%zh", proc, mod);
        if (non_orth) ca_complex_2d(eig.zs, 1, n_dim, 1, n_dim, "eig_state%zs", proc, mod);
        ca_complex_2d(eig.zx, 1, n_dim, 1, n_dim, "eig_state%zx", proc, mod);
        // Only the points of this process keep states, in memory when it holds them
        // (beside as much again for the rest of the run), else in the scratch file;
        // the real arrays above serve the points where H(k) is real.
        eig.zpsi_k.clear();
        eig.zpsi_k.resize(static_cast<std::size_t>(nk));
        long long own = 0;
        for (int k = 1; k <= nk; ++k) own += eig_kpt_mine(eig, k) ? 1 : 0;
        const long long bytes = own * n_dim * static_cast<long long>(n_states) * 16;
        eig.zpsi_on_file = own > 1 && !allocation_possible(2 * bytes);
        if (eig.zpsi_on_file) {
            ca_complex_2d(eig.zpsi_buf, 1, n_dim, 1, n_states, "eig_state%zpsi_buf", proc, mod);
            const std::string text = "the states of the k-points (" + std::to_string(bytes >> 20) +
                                     " MiB) go to the scratch file WFS: memory would not hold them";
            warning_error(text, proc, mod);
        } else if (jobz == 'v' || jobz == 'V') {
            for (int k = 1; k <= nk; ++k)
                if (eig_kpt_mine(eig, k))
                    ca_complex_2d(eig.zpsi_k[static_cast<std::size_t>(k - 1)], 1, n_dim, 1,
                                  n_states, "eig_state%zpsi_k", proc, mod);
        }
    }
    eig_set_psi(eig, 1);
}

void eig_state_deallocate(eig_state_type& eig) {
    const char* proc = "eig_state_deallocate";
    eig.psi.deallocate();
    for (auto& p : eig.psi_k) cd_real_2d(p, "eig_state%psi_k", proc, mod);
    eig.psi_k.clear();
    for (auto* a : {&eig.en_i, &eig.occ, &eig.docc, &eig.alpha, &eig.beta, &eig.h_ij, &eig.s_ij,
                    &eig.x, &eig.dm, &eig.h_loc, &eig.s_loc, &eig.z_loc, &eig.sz_loc})
        if (a->allocated()) cd_real_2d(*a, "eig_state%array", proc, mod);
    if (eig.ework.allocated()) cd_real_1d(eig.ework, "eig_state%ework", proc, mod);
    if (eig.dm_diag.allocated()) cd_real_1d(eig.dm_diag, "eig_state%dm_diag", proc, mod);
    for (auto* a : {&eig.zh, &eig.zs, &eig.zx})
        if (a->allocated()) cd_complex_2d(*a, "eig_state%complex", proc, mod);
    for (auto& p : eig.zpsi_k)
        if (p.allocated()) cd_complex_2d(p, "eig_state%zpsi_k", proc, mod);
    eig.zpsi_k.clear();
    if (eig.zpsi_buf.allocated()) cd_complex_2d(eig.zpsi_buf, "eig_state%zpsi_buf", proc, mod);
    for (kpt_work_type& w : eig.kwork) {
        for (auto* a : {&w.h_ij, &w.s_ij, &w.x, &w.dm})
            if (a->allocated()) cd_real_2d(*a, "kpt_work%array", proc, mod);
        for (auto* a : {&w.zh, &w.zs, &w.zx})
            if (a->allocated()) cd_complex_2d(*a, "kpt_work%complex", proc, mod);
        for (auto* a : {&w.ework, &w.dm_diag})
            if (a->allocated()) cd_real_1d(*a, "kpt_work%vector", proc, mod);
        reset_blacs_distr(w.d);
    }
    eig.kwork.clear();
    reset_blacs_distr(eig.d);
    pdist_deallocate(eig.row_pdist);
    pdist_deallocate(eig.col_pdist);
}

void eig_set_psi(eig_state_type& eig, int k) {
    const int slot = eig.n_psi >= n_kpt(eig) ? k : 1;
    eig.psi = eig.psi_k[static_cast<std::size_t>(slot - 1)].view();
}

int find_homo(const eig_state_type& eig, int k, double e_fermi) {
    int i = eig.n_states;
    if (eig.en_i(i, k) > e_fermi)
        while (i >= 1 && eig.en_i(i, k) >= e_fermi) --i;
    return i;
}

namespace {

// Newton steps on N(e_f) from the bisection's answer: the bisection stops within
// 1e-8 electrons, which leaves the band energy uncertain by about e_f * 1e-8 eV,
// too coarse for energies whose differences must match the forces. Each step uses
// dN/de_f = sum of weight f (1 - f) / sigma and keeps e_f inside the bracket.
void polish_fermi_level(eig_state_type& eig) {
    const double sigma = eig.kpt->sigma, target = eig.n_el * 0.5;
    for (int step = 0; step < 20; ++step) {
        double n = 0.0, dn = 0.0;
        for (int k = 1; k <= n_kpt(eig); ++k)
            for (int i = 1; i <= eig.n_states; ++i) {
                const double f = fermi(eig.en_i(i, k), eig.e_fermi, sigma);
                n += eig.kpt->weight(k) * f;
                dn += eig.kpt->weight(k) * f * (1.0 - f) / sigma;
            }
        const double diff = n - target;
        if (std::fabs(diff) <= 1e-14 * std::max(1.0, target) || dn <= 0.0) break;
        eig.e_fermi -= diff / dn;
    }
    nelec(eig, eig.e_fermi);
}

} // namespace

void eig_find_fermi_energy(eig_state_type& eig) {
    bisection(eig, 50, bisection_tol);
    polish_fermi_level(eig);
    double last = 0.0;
    for (int k = 1; k <= n_kpt(eig); ++k) last = std::max(last, eig.occ(eig.n_states, k));
    if (last > last_state_limit)
        warning_error("f_i, for i=n_state > 1e-10, n_states is too small", "eig_find_fermi_energy",
                      mod);
    eig.dn_sum = 0.0;
    eig.de_sum = 0.0;
    for (int k = 1; k <= n_kpt(eig); ++k)
        for (int i = 1; i <= eig.n_states; ++i) {
            eig.docc(i, k) = eig.occ(i, k) * (eig.occ(i, k) - 1.0);
            eig.dn_sum += eig.kpt->weight(k) * eig.docc(i, k);
            eig.de_sum += eig.kpt->weight(k) * eig.docc(i, k) * eig.en_i(i, k);
        }
    eig.de_sum /= eig.kpt->sigma;
}

void eig_calc_energy(eig_state_type& eig) {
    const int nk = n_kpt(eig), ns = eig.n_states;
    const double sigma = eig.kpt->sigma;
    if (sigma > 0.0) {
        eig_find_fermi_energy(eig);
        eig.e_band = 0.0;
        for (int k = 1; k <= nk; ++k)
            for (int i = 1; i <= ns; ++i)
                eig.e_band += eig.occ(i, k) * eig.kpt->weight(k) * eig.en_i(i, k);
        eig.e_band *= 2.0;
        // T S = -sigma sum of weight 2 [f ln f + (1 - f) ln (1 - f)].
        eig.e_ts = 0.0;
        for (int k = 1; k <= nk; ++k)
            for (int i = 1; i <= ns; ++i) {
                const double f = eig.occ(i, k);
                double t = 0.0;
                if (f > 0.0 && f < 1.0) t = f * std::log(f) + (1.0 - f) * std::log(1.0 - f);
                eig.e_ts -= 2.0 * eig.kpt->weight(k) * t;
            }
        eig.e_ts *= sigma;
        const int n_occ = std::min(static_cast<int>(eig.n_el * 0.5), ns);
        eig.e_filled = 0.0;
        for (int k = 1; k <= nk; ++k)
            for (int i = 1; i <= n_occ; ++i) eig.e_filled += eig.kpt->weight(k) * eig.en_i(i, k);
        eig.e_filled *= 2.0;
        double homo_top = eig.en_i(1, 1), lumo_bottom = eig.en_i(ns, 1);
        for (int k = 1; k <= nk; ++k) {
            const int h = find_homo(eig, k, eig.e_fermi);
            // A top state below the Fermi level has no state above it among those kept.
            if (h + 1 <= ns) lumo_bottom = std::min(lumo_bottom, eig.en_i(h + 1, k));
            if (h >= 1) homo_top = std::max(homo_top, eig.en_i(h, k));
        }
        eig.e_gap = lumo_bottom - homo_top;
    } else {
        // Without smearing the lowest n_el / 2 states are filled; states computed
        // beyond them (n_states given larger) are empty and give the gap.
        const int n_occ = std::max(1, std::min(static_cast<int>(eig.n_el * 0.5), ns));
        eig.e_filled = 0.0;
        for (int k = 1; k <= nk; ++k) {
            double s = 0.0;
            for (int i = 1; i <= n_occ; ++i) s += eig.en_i(i, k);
            eig.e_filled += eig.kpt->weight(k) * s;
        }
        eig.e_filled *= 2.0;
        // The top of the filled states over the points, and the gap to the lowest
        // empty one (one point: that point's).
        eig.e_fermi = eig.en_i(n_occ, 1);
        double lumo = n_occ < ns ? eig.en_i(n_occ + 1, 1) : 0.0;
        for (int k = 2; k <= nk; ++k) {
            eig.e_fermi = std::max(eig.e_fermi, eig.en_i(n_occ, k));
            if (n_occ < ns) lumo = std::min(lumo, eig.en_i(n_occ + 1, k));
        }
        eig.e_band = eig.e_filled;
        eig.e_ts = 0.0;
        eig.e_gap = n_occ < ns ? lumo - eig.e_fermi : 0.0;
    }
    eig.e_gap = std::max(eig.e_gap, 0.0);
}

void eig_calc_local_proj(const hamiltonian_type& ham, const eig_state_type& eig,
                         const farray<double, 1>& w, farray<double, 1>& out) {
    if (eig_distributed(eig)) {
        eig_calc_local_proj_dist(ham, eig, w, out);
        return;
    }
    const farray<double, 2>& psi = eig.psi;
    farray<double, 2> y;
    if (ham.tb_model->non_orthogonal) {
        ca_real_2d(y, 1, eig.n_dim, 1, eig.n_states, "y", "eig_calc_local_proj", mod);
        s_psi_rmat(ham, psi, y);
    }
    const farray<double, 2>& yy = ham.tb_model->non_orthogonal ? y : psi;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    for (int j = 1; j <= eig.col_pdist.l_n; ++j) {
        const int g = eig.col_pdist.l2g(j);
        const double wg = w(g);
        for (int a = 1; a <= sd.row_pdist->n; ++a) {
            const int r0 = sd.row_block_offset(a);
            double s = 0.0;
            for (int o = 0; o < sd.row_block_dim(a); ++o) s += psi(r0 + o, j) * yy(r0 + o, j);
            out(a) += wg * s;
        }
    }
    if (y.allocated()) cd_real_2d(y, "y", "eig_calc_local_proj", mod);
}

void eig_calc_qion(const hamiltonian_type& ham, const eig_state_type& eig, int k,
                   farray<double, 1>& q) {
    farray<double, 1> w;
    w.allocate({1}, {eig.n_states});
    const double wk = eig.kpt->weight(k);
    for (int i = 1; i <= eig.n_states; ++i) w(i) = 2.0 * eig.occ(i, k) * wk;
    eig_calc_local_proj(ham, eig, w, q);
}

void eig_calc_elocal(const hamiltonian_type& ham, const eig_state_type& eig, int k,
                     farray<double, 1>& e) {
    farray<double, 1> w;
    w.allocate({1}, {eig.n_states});
    const double wk = eig.kpt->weight(k);
    for (int i = 1; i <= eig.n_states; ++i) w(i) = 2.0 * eig.occ(i, k) * wk * eig.en_i(i, k);
    eig_calc_local_proj(ham, eig, w, e);
}

// ---- eigenvector file ---------------------------------------------------------------

namespace {

void open_wfs(const eig_state_type& eig, int unit, std::string_view file, bool old) {
    const int ios = unit_open(unit, std::string(file), old ? "old" : "unknown", "asis", "direct",
                              eig.n_dim * 8);
    if (ios != 0) {
        if (old)
            fatal_error("problem opening " + std::string(file), ios, "eig_state_read_psi_k", mod);
        fatal_error("problem creating " + std::string(file), ios, "eig_state_write_psi_k", mod);
    }
    // A direct-access file doesn't keep its record length; it holds whole records
    // of n_dim reals, so its size tells a file written for another order.
    std::error_code ec;
    const auto size = std::filesystem::file_size(std::string(file), ec);
    const auto recl = static_cast<std::uintmax_t>(eig.n_dim) * 8;
    if (old &&
        (ec || size % recl != 0 || size < recl * static_cast<std::uintmax_t>(eig.n_states))) {
        unit_close(unit);
        fatal_error("record length in " + std::string(file) + " not equal to # of dim",
                    static_cast<long long>(size), "eig_state_read_psi_k", mod);
    }
}

} // namespace

void eig_state_write_psi_k(eig_state_type& eig, int k, int unit, std::string_view file,
                           bool open_close) {
    if (open_close) open_wfs(eig, unit, file, false);
    for (int i = 1; i <= eig.n_states; ++i)
        if (unit_write_direct(unit, static_cast<long>(k - 1) * eig.n_states + i, &eig.psi(1, i),
                              static_cast<std::size_t>(eig.n_dim) * 8) != 0)
            fatal_error("problem creating " + std::string(file), i, "eig_state_write_psi_k", mod);
    if (open_close) unit_close(unit);
}

void eig_state_read_psi_k(eig_state_type& eig, int k, int unit, std::string_view file,
                          bool open_close) {
    if (open_close) open_wfs(eig, unit, file, true);
    for (int i = 1; i <= eig.n_states; ++i)
        if (unit_read_direct(unit, static_cast<long>(k - 1) * eig.n_states + i, &eig.psi(1, i),
                             static_cast<std::size_t>(eig.n_dim) * 8) != 0) {
            if (open_close) unit_close(unit);
            fatal_error("problem reading " + std::string(file), i, "eig_state_read_psi_k", mod);
        }
    if (open_close) unit_close(unit);
}

void eig_state_write(eig_state_type& eig, int unit, std::string_view file) {
    if (eig.n_psi != n_kpt(eig) || !eig.zpsi_k.empty()) {
        warning_error("Only one psi(k) is stored in memory, ignoring call.", "eig_state_write",
                      mod);
        return;
    }
    // Written under a temporary name and renamed into place: a run stopped while
    // writing leaves the previous complete file.
    const std::string name(file), partial = name + ".part";
    std::error_code ec;
    std::filesystem::remove(partial, ec); // a direct-access file keeps old records
    if (i_am_master) open_wfs(eig, unit, partial, false);
    if (eig_distributed(eig)) {
        // The columns are gathered on process 0, which writes them.
        std::vector<double> col(static_cast<std::size_t>(eig.n_dim));
        for (int i = 1; i <= eig.n_states; ++i) {
            eig_gather_column(eig, i, col.data());
            if (i_am_master &&
                unit_write_direct(unit, i, col.data(), sizeof(double) * col.size()) != 0)
                fatal_error("problem writing " + partial, i, "eig_state_write", mod);
        }
    } else {
        for (int k = 1; k <= n_kpt(eig); ++k) {
            eig_set_psi(eig, k);
            eig_state_write_psi_k(eig, k, unit, partial, false);
        }
    }
    unit_close(unit);
    eig_set_psi(eig, 1);
    if (i_am_master) std::filesystem::rename(partial, name, ec);
    if (ec) warning_error("could not rename " + partial + " to " + name, "eig_state_write", mod);
}

void eig_state_read(eig_state_type& eig, int unit, std::string_view file) {
    if (eig.n_psi != n_kpt(eig) || !eig.zpsi_k.empty()) {
        warning_error("Only one psi(k) is stored in memory, ignoring call.", "eig_state_read", mod);
        return;
    }
    if (eig_distributed(eig)) {
        warning_error("the eigenvectors of a distributed run are not read back, ignoring call.",
                      "eig_state_read", mod);
        return;
    }
    open_wfs(eig, unit, file, true);
    for (int k = 1; k <= n_kpt(eig); ++k) {
        eig_set_psi(eig, k);
        eig_state_read_psi_k(eig, k, unit, file, false);
    }
    unit_close(unit);
    eig_set_psi(eig, 1);
}

void eig_print_eigen_energies(const eig_state_type& eig, int unit,
                              std::optional<std::string_view> file) {
    if (file) unit_open(unit, std::string(*file), "unknown", "append");
    const int nk = n_kpt(eig), ns = eig.n_states;
    double lo = eig.en_i(1, 1), hi = eig.en_i(ns, 1);
    for (int k = 1; k <= nk; ++k) {
        lo = std::max(lo, eig.en_i(1, k));
        hi = std::max(hi, eig.en_i(ns, k));
    }
    write_fmt(unit, "(a,f16.10)", {"fermi level : ", eig.e_fermi});
    write_fmt(unit, "(a,f16.10)", {"energy gap  : ", eig.e_gap});
    write_fmt(unit, "(a,2f16.10)", {"eigenvalue range  : ", lo, hi});
    for (int k = 1; k <= nk; ++k) {
        const double c = 0.15915494309189535; // 1 / (2 pi)
        write_fmt(unit, "(a,i5,3f16.10)",
                  {"K-point # ", k, eig.kpt->k_cart(1, k) * c, eig.kpt->k_cart(2, k) * c,
                   eig.kpt->k_cart(3, k) * c});
        for (int i = 1; i <= ns; ++i) {
            if (eig.kpt->sigma <= 0.0)
                write_fmt(unit, "(i8,f16.10)", {i, eig.en_i(i, k)});
            else
                write_fmt(unit, "(i8,2f16.10)", {i, eig.en_i(i, k), eig.occ(i, k)});
        }
    }
    if (file) unit_close(unit);
}

void eig_write_bands(const eig_state_type& eig, std::string_view file) {
    const kpt_type& kpt = *eig.kpt;
    const int unit = next_free_unit();
    unit_open(unit, std::string(file), "replace");
    unit_write(unit, "# levels along the path of KPTS: " + std::to_string(kpt.n_k) + " points, " +
                         std::to_string(eig.n_states) +
                         " levels each; Fermi level of the path's own filling (eV)" +
                         format_items("(F12.5)", {eig.e_fermi}));
    unit_write(unit, "# x (1/Angstrom)  label  levels (eV)");
    for (int k = 1; k <= kpt.n_k; ++k) {
        const std::string& l = kpt.label[static_cast<std::size_t>(k - 1)];
        std::string line =
            format_items("(F12.6,1X,A8)", {kpt.path_x[static_cast<std::size_t>(k - 1)],
                                           l.empty() ? std::string("-") : l});
        for (int i = 1; i <= eig.n_states; ++i) line += format_items("(F14.6)", {eig.en_i(i, k)});
        unit_write(unit, line);
    }
    unit_close(unit);
}

// ---- forces ----------------------------------------------------------------------

void setup_dh_dm_r(const hamiltonian_type& ham, const farray<double, 2>& psi, const double* w,
                   farray<double, 2>& dm, farray<double, 1>* dm_diag, blacs_distr_type* ws) {
    const char* proc = "setup_dh_dm_r";
    const phase_timer wall(phase_density);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const int n_dim = static_cast<int>(psi.extent(0)), ns = static_cast<int>(psi.extent(1));
    // D = sum_j w_j psi_j psi_j^T as two symmetric rank-k updates, one over the
    // states of positive weight and one over those of negative weight, each column
    // scaled by the root of |w_j|; states without weight take no part.
    std::vector<int> pos, neg;
    for (int j = 1; j <= ns; ++j) {
        if (w[j - 1] > 0.0) pos.push_back(j);
        if (w[j - 1] < 0.0) neg.push_back(j);
    }
    const long k_max =
        static_cast<long>(std::max<std::size_t>(1, std::max(pos.size(), neg.size())));
    const long need = static_cast<long>(n_dim) * n_dim + static_cast<long>(n_dim) * k_max;
    // The dense D and the scaled states live in the solver's workspace when one is
    // given (it is free between two diagonalisations), else in arrays of their own.
    farray<double, 1> own;
    double* base = nullptr;
    if (ws != nullptr && need <= std::numeric_limits<int>::max()) {
        diag_workspace(*ws, static_cast<int>(need), 0);
        base = ws->work.data();
    } else {
        ca_real_1d(own, 1, need, "density_matrix", proc, mod);
        base = own.data();
    }
    auto d = farray<double, 2>::view_of(base, {1, 1}, {n_dim, n_dim});
    auto a =
        farray<double, 2>::view_of(base + static_cast<long>(n_dim) * n_dim, {1, 1}, {n_dim, k_max});
    bool first = true;
    for (const std::vector<int>* states : {&pos, &neg}) {
        const int k = static_cast<int>(states->size());
        if (k == 0) continue;
#pragma omp parallel for schedule(static)
        for (int c = 1; c <= k; ++c) {
            const int j = (*states)[static_cast<std::size_t>(c - 1)];
            const double root = std::sqrt(std::fabs(w[j - 1]));
            const double* __restrict src = &psi(1, j);
            double* __restrict dst = &a(1, c);
            for (int r = 0; r < n_dim; ++r) dst[r] = root * src[r];
        }
        const double alpha = states == &pos ? 1.0 : -1.0, beta = first ? 0.0 : 1.0;
        dsyrk_("U", "N", &n_dim, &k, &alpha, a.data(), &n_dim, &beta, d.data(), &n_dim);
        first = false;
    }
    if (first) d.fill(0.0); // no state carries weight
    if (dm_diag != nullptr)
        for (int r = 1; r <= n_dim; ++r) (*dm_diag)(r) = d(r, r);
    // The blocks of each local ion, read from the upper triangle that holds D:
    // element (r, c) sits at (min, max).
    const int n_local = pd.l_n;
    const long rows = dm.extent(0);
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= n_local; ++il) {
        std::fill(&dm(1, il), &dm(1, il) + rows, 0.0);
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig), r0 = sd.row_block_offset(ig);
        for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
            const int c0 = sd.sblock_offset(jb, ig), no2 = sd.pblock_dim(jb, ig);
            int l = sd.ublock_offset(jb, ig);
            for (int b = 0; b < no2; ++b)
                for (int r = 0; r < no; ++r, ++l) {
                    const int x = r0 + r, y = c0 + b;
                    dm(l, il) = x <= y ? d(x, y) : d(y, x);
                }
        }
    }
    if (own.allocated()) cd_real_1d(own, "density_matrix", proc, mod);
}

bool eig_kpt_mine(const eig_state_type& /*eig*/, int k) {
    return (k - 1) % n_proc == my_proc;
}

namespace {

// The scratch file of the states of this process's points: records of one state
// (n_dim complex numbers), state i of point k at (k - 1) n_states + i.
std::string kpt_scratch_name() {
    return n_proc > 1 ? "WFS." + std::to_string(my_proc) : std::string("WFS");
}

void kpt_scratch(eig_state_type& eig, int k, bool write) {
    const char* proc = write ? "eig_kpt_keep" : "eig_kpt_states";
    const std::string name = kpt_scratch_name();
    const std::size_t bytes = static_cast<std::size_t>(eig.n_dim) * 16;
    if (unit_open(wfs_unit, name, write ? "unknown" : "old", "asis", "direct",
                  static_cast<int>(bytes)) != 0)
        fatal_error("problem opening the scratch file " + name, k, proc, mod);
    for (int i = 1; i <= eig.n_states; ++i) {
        const long rec = static_cast<long>(k - 1) * eig.n_states + i;
        const int ios = write ? unit_write_direct(wfs_unit, rec, &eig.zpsi_buf(1, i), bytes)
                              : unit_read_direct(wfs_unit, rec, &eig.zpsi_buf(1, i), bytes);
        if (ios != 0) {
            unit_close(wfs_unit);
            fatal_error("problem " + std::string(write ? "writing" : "reading") +
                            " the scratch file " + name,
                        k, proc, mod);
        }
    }
    unit_close(wfs_unit);
}

} // namespace

const farray<dcomplex, 2>& eig_kpt_states(eig_state_type& eig, int k) {
    if (!eig.zpsi_on_file) return eig.zpsi_k[static_cast<std::size_t>(k - 1)];
    kpt_scratch(eig, k, false);
    return eig.zpsi_buf;
}

farray<dcomplex, 2>& eig_kpt_slot(eig_state_type& eig, int k) {
    return eig.zpsi_on_file ? eig.zpsi_buf : eig.zpsi_k[static_cast<std::size_t>(k - 1)];
}

void eig_kpt_keep(eig_state_type& eig, int k) {
    if (eig.zpsi_on_file) kpt_scratch(eig, k, true);
}

int eig_kpt_threads(eig_state_type& eig, int n_points, bool non_orth) {
    const char* proc = "eig_kpt_threads";
    const int nt = std::min(thread_count(), n_points), n = eig.n_dim;
    if (nt <= 1 || n > 2048 || eig.zpsi_on_file) return 1;
    bool any_real = false, any_complex = false;
    for (int k = 1; k <= n_kpt(eig); ++k)
        (eig.kpt->real_point[static_cast<std::size_t>(k - 1)] != 0 ? any_real : any_complex) = true;
    while (static_cast<int>(eig.kwork.size()) < nt - 1) {
        kpt_work_type& w = eig.kwork.emplace_back();
        if (any_real) {
            ca_real_2d(w.h_ij, 1, n, 1, n, "kpt_work%h_ij", proc, mod);
            if (non_orth) ca_real_2d(w.s_ij, 1, n, 1, n, "kpt_work%s_ij", proc, mod);
            ca_real_2d(w.x, 1, n, 1, n, "kpt_work%x", proc, mod);
        }
        // zh and zx are also the density loop's workspace.
        ca_complex_2d(w.zh, 1, n, 1, n, "kpt_work%zh", proc, mod);
        if (non_orth && any_complex) ca_complex_2d(w.zs, 1, n, 1, n, "kpt_work%zs", proc, mod);
        ca_complex_2d(w.zx, 1, n, 1, n, "kpt_work%zx", proc, mod);
        ca_real_1d(w.ework, 1, n, "kpt_work%ework", proc, mod);
        init_blacs_distr(w.d, n, n, 1, 1);
        allocate_work_arrays(w.d, "R");
    }
    for (kpt_work_type& w : eig.kwork) {
        w.d.n_vectors = eig.d.n_vectors;
        w.d.failure_hint = eig.d.failure_hint;
    }
    return nt;
}

void eig_kpt_density(const hamiltonian_type& ham, const ions_type& ions, eig_state_type& eig,
                     const farray<double, 2>& w, farray<double, 2>& dm,
                     farray<double, 1>* dm_diag) {
    const char* proc = "eig_kpt_density";
    const phase_timer wall(phase_density);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const int n_dim = eig.n_dim, ns = eig.n_states;
    const long rows = dm.extent(0);
    std::vector<int> mine;
    for (int k = 1; k <= n_kpt(eig); ++k)
        if (eig_kpt_mine(eig, k)) mine.push_back(k);
    const int nt =
        eig_kpt_threads(eig, static_cast<int>(mine.size()), ham.tb_model->non_orthogonal);
    // Thread t adds its points into its own copy (t = 0: dm itself); the copies are
    // summed at the end.
    for (int t = 0; t < nt; ++t) {
        if (t > 0) {
            kpt_work_type& kw = eig.kwork[static_cast<std::size_t>(t - 1)];
            if (!kw.dm.allocated() || kw.dm.extent(0) != rows || kw.dm.extent(1) != dm.extent(1)) {
                if (kw.dm.allocated()) cd_real_2d(kw.dm, "kpt_work%dm", proc, mod);
                ca_real_2d(kw.dm, 1, rows, 1, dm.extent(1), "kpt_work%dm", proc, mod);
            }
            if (dm_diag != nullptr && !kw.dm_diag.allocated())
                ca_real_1d(kw.dm_diag, 1, n_dim, "kpt_work%dm_diag", proc, mod);
        }
        farray<double, 2>& out = t == 0 ? dm : eig.kwork[static_cast<std::size_t>(t - 1)].dm;
        for (int il = 1; il <= pd.l_n; ++il) std::fill(&out(1, il), &out(1, il) + rows, 0.0);
        if (dm_diag != nullptr)
            (t == 0 ? *dm_diag : eig.kwork[static_cast<std::size_t>(t - 1)].dm_diag).fill(0.0);
    }
    const auto one_point = [&](int k, int t) {
        kpt_work_type* kw = t == 0 ? nullptr : &eig.kwork[static_cast<std::size_t>(t - 1)];
        // D_k = sum_s w_s psi_s psi_s^H as two Hermitian rank-k updates (weights of
        // either sign), in zh; the scaled states in zx.
        farray<dcomplex, 2>& d = kw == nullptr ? eig.zh : kw->zh;
        farray<dcomplex, 2>& a = kw == nullptr ? eig.zx : kw->zx;
        farray<double, 2>& dm_t = kw == nullptr ? dm : kw->dm;
        farray<double, 1>* diag_t = dm_diag == nullptr ? nullptr
                                    : kw == nullptr    ? dm_diag
                                                       : &kw->dm_diag;
        const farray<dcomplex, 2>& psi = eig_kpt_states(eig, k);
        bool first = true;
        for (const double sign : {1.0, -1.0}) {
            int c = 0;
            for (int j = 1; j <= ns; ++j) {
                if (!(w(j, k) * sign > 0.0)) continue;
                ++c;
                const double root = std::sqrt(std::fabs(w(j, k)));
                for (int r = 1; r <= n_dim; ++r) a(r, c) = root * psi(r, j);
            }
            if (c == 0) continue;
            const double beta = first ? 0.0 : 1.0;
            zherk_("U", "N", &n_dim, &c, &sign, a.data(), &n_dim, &beta, d.data(), &n_dim);
            first = false;
        }
        if (first) return; // no state carries weight
        if (diag_t != nullptr)
            for (int r = 1; r <= n_dim; ++r) (*diag_t)(r) += d(r, r).real();
                // D(y, x) of row x of ion i and column y of its entry, from the upper triangle.
#pragma omp parallel for schedule(dynamic, 4)
        for (int il = 1; il <= pd.l_n; ++il) {
            const int ig = pd.l2g(il);
            const nn_list_type& nl = ions_nn_list(ions, ig);
            const int no = sd.row_block_dim(ig), r0 = sd.row_block_offset(ig);
            const int origin[3] = {0, 0, 0};
            for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
                const dcomplex ph =
                    kpt_lattice_phase(*eig.kpt, k, jb == 1 ? origin : &nl.trans(1, jb - 1));
                const int c0 = sd.sblock_offset(jb, ig), no2 = sd.pblock_dim(jb, ig);
                int l = sd.ublock_offset(jb, ig);
                for (int b = 0; b < no2; ++b)
                    for (int r = 0; r < no; ++r, ++l) {
                        const int x = r0 + r, y = c0 + b;
                        const dcomplex dyx = x <= y ? std::conj(d(x, y)) : d(y, x);
                        dm_t(l, il) += (dyx * ph).real();
                    }
            }
        }
    };
    if (nt > 1) {
        const int blas = blas_thread_count();
        set_blas_thread_count(1);
#pragma omp parallel for num_threads(nt) schedule(dynamic, 1)
        for (std::size_t m = 0; m < mine.size(); ++m) one_point(mine[m], thread_index());
        set_blas_thread_count(blas);
        for (int t = 1; t < nt; ++t) {
            const kpt_work_type& kw = eig.kwork[static_cast<std::size_t>(t - 1)];
            for (int il = 1; il <= pd.l_n; ++il)
                for (long l = 1; l <= rows; ++l) dm(l, il) += kw.dm(l, il);
            if (dm_diag != nullptr)
                for (int r = 1; r <= n_dim; ++r) (*dm_diag)(r) += kw.dm_diag(r);
        }
    } else {
        for (const int k : mine) one_point(k, 0);
    }
    if (n_proc > 1) {
        gsum_real_ptr(dm.data(), rows * pd.l_n);
        if (dm_diag != nullptr) gsum_real_vec(*dm_diag);
    }
}

namespace {

// The weight of state i at k-point k in the derivatives of the band energy: twice
// the k weight times the occupation, and with smearing the response of the
// occupations at a fixed electron count.
// The weight of state i in the forces and the stress. free_energy: the derivative
// of the free energy E - T S, stationary in the occupations, whose weights are the
// occupations themselves (charge self-consistency); otherwise that of the band
// energy at a fixed electron count.
double derivative_weight(const eig_state_type& eig, int i, int k, bool free_energy) {
    const double sigma = eig.kpt->sigma, wk = eig.kpt->weight(k);
    if (sigma <= 0.0 || free_energy) return 2.0 * wk * eig.occ(i, k);
    double ratio = 0.0;
    if (std::fabs(eig.dn_sum) >= 1e-08) ratio = eig.de_sum / eig.dn_sum;
    return 2.0 * wk *
           (eig.occ(i, k) + eig.en_i(i, k) * eig.docc(i, k) / sigma - eig.docc(i, k) * ratio);
}

} // namespace

void eig_forces_reserve(eig_state_type& eig, const hamiltonian_type& ham) {
    const char* proc = "eig_forces_reserve";
    const long rows = ham.desc.u_n_dim, cols = ham.desc.row_pdist->max_l_n;
    if (!eig.dm.allocated() || eig.dm.extent(0) != rows || eig.dm.extent(1) != cols) {
        if (eig.dm.allocated()) cd_real_2d(eig.dm, "eig_state%dm", proc, mod);
        ca_real_2d(eig.dm, 1, rows, 1, cols, "eig_state%dm", proc, mod);
    }
    if (!eig.dm_diag.allocated() || eig.dm_diag.extent(0) != eig.n_dim) {
        if (eig.dm_diag.allocated()) cd_real_1d(eig.dm_diag, "eig_state%dm_diag", proc, mod);
        ca_real_1d(eig.dm_diag, 1, eig.n_dim, "eig_state%dm_diag", proc, mod);
    }
}

void eig_forces_dm(hamiltonian_type& ham, ions_type& ions, const box_type& box, eig_state_type& eig,
                   bool /*calc_stress*/, double fboost, const scc_type* scc) {
    const char* proc = "eig_forces_dm";
    const trace_guard trace(proc, mod);
    const int nk = n_kpt(eig), ns = eig.n_states;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool charges = scc != nullptr && scc->used;
    farray<double, 2> wf, wen;
    ca_real_2d(wf, 1, ns, 1, nk, "wf", proc, mod);
    ca_real_2d(wen, 1, ns, 1, nk, "wen", proc, mod);
    for (int k = 1; k <= nk; ++k)
        for (int j = 1; j <= eig.col_pdist.l_n; ++j) {
            const int i = eig.col_pdist.l2g(j);
            wf(j, k) = derivative_weight(eig, i, k, charges);
            wen(j, k) = non_orth ? -eig.en_i(i, k) * wf(j, k) : 0.0;
        }
    ions.f.fill(0.0);
    eig_forces_reserve(eig, ham);
    farray<double, 2>& dm = eig.dm;
    farray<double, 1>& dm_diag = eig.dm_diag;
    const bool on_site = ham.tb_model->on_site_env;
    if (kpt_general(*eig.kpt)) {
        // The real-space density matrices of all points against the gradient blocks.
        calc_hs_grad_real(ham, ions, box);
        if (charges && non_orth) modify_dh_ab(ham, *scc, 0.0);
        eig_kpt_density(ham, ions, eig, wf, dm, on_site ? &dm_diag : nullptr);
        acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.dh_ab, fboost, &ions.boost,
                        on_site ? &dm_diag : nullptr, on_site ? &ham.dh_aa : nullptr);
        if (non_orth) {
            eig_kpt_density(ham, ions, eig, wen, dm, nullptr);
            acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.ds_ab, fboost, &ions.boost, nullptr, nullptr);
        }
    }
    for (int k = 1; k <= (kpt_general(*eig.kpt) ? 0 : nk); ++k) {
        calc_hs_grad_real(ham, ions, box);
        if (charges && non_orth) modify_dh_ab(ham, *scc, 0.0);
        eig_set_psi(eig, k);
        const auto density = [&](const double* w, farray<double, 1>* diag) {
            if (eig_distributed(eig))
                setup_dh_dm_dist(ham, eig, w, ns, dm, diag);
            else
                setup_dh_dm_r(ham, eig.psi, w, dm, diag, &eig.d);
        };
        density(&wf(1, k), on_site ? &dm_diag : nullptr);
        acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.dh_ab, fboost, &ions.boost,
                        on_site ? &dm_diag : nullptr, on_site ? &ham.dh_aa : nullptr);
        if (non_orth) {
            density(&wen(1, k), nullptr);
            acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.ds_ab, fboost, &ions.boost, nullptr, nullptr);
        }
    }
    if (scc != nullptr && scc->used) add_forces_scc(*scc);
    cd_real_2d(wf, "wf", proc, mod);
    cd_real_2d(wen, "wen", proc, mod);
}

// ---- stress -----------------------------------------------------------------------

void eig_stress_r(const hamiltonian_type& ham, const farray<double, 2>& psi_t, const double* alpha,
                  const double* beta, bool on_site, double* sig3) {
    const phase_timer wall(phase_contract);
    stress_diag_r(ham, psi_t, alpha, ham.dh_ab, on_site ? &ham.dh_aa : nullptr, 1.0, sig3);
    if (beta != nullptr) stress_diag_r(ham, psi_t, beta, ham.ds_ab, nullptr, 1.0, sig3);
}

void eig_stress(hamiltonian_type& ham, ions_type& ions, box_type& box, eig_state_type& eig,
                const scc_type* scc) {
    const char* proc = "eig_stress";
    const trace_guard trace(proc, mod);
    const int nk = n_kpt(eig), ns = eig.n_states;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const double sigma = eig.kpt->sigma;
    const bool charges = scc != nullptr && scc->used;
    const bool general = kpt_general(*eig.kpt);
    for (int k = 1; k <= nk; ++k)
        for (int j = 1; j <= eig.col_pdist.l_n; ++j) {
            const int i = eig.col_pdist.l2g(j);
            eig.alpha(j, k) = derivative_weight(eig, i, k, charges);
            // Without smearing the weight of the k-point is not in beta.
            if (!non_orth)
                eig.beta(j, k) = 0.0;
            else if (sigma <= 0.0 && !general)
                eig.beta(j, k) = -2.0 * eig.en_i(i, k) * eig.occ(i, k);
            else
                eig.beta(j, k) = -eig.en_i(i, k) * eig.alpha(j, k);
        }
    double sig[6] = {0, 0, 0, 0, 0, 0};
    const bool on_site = ham.tb_model->on_site_env;
    if (eig_distributed(eig) || general) {
        // The density matrices of the two weights, in the layout of the blocks,
        // against the strain gradients.
        eig_forces_reserve(eig, ham);
        farray<double, 2> dm_s;
        if (non_orth) ca_real_2d(dm_s, 1, eig.dm.extent(0), 1, eig.dm.extent(1), "dm_s", proc, mod);
        if (general) {
            eig_kpt_density(ham, ions, eig, eig.alpha, eig.dm, on_site ? &eig.dm_diag : nullptr);
            if (non_orth) eig_kpt_density(ham, ions, eig, eig.beta, dm_s, nullptr);
        } else {
            setup_dh_dm_dist(ham, eig, &eig.alpha(1, 1), ns, eig.dm,
                             on_site ? &eig.dm_diag : nullptr);
            if (non_orth) setup_dh_dm_dist(ham, eig, &eig.beta(1, 1), ns, dm_s, nullptr);
        }
        for (const int c : {1, 4}) {
            calc_hs_grad_real(ham, ions, box, "B", c == 1 ? "D" : "O");
            if (charges && non_orth) modify_dh_ab(ham, *scc, 0.0);
            const phase_timer wall(phase_contract);
            stress_dm_r(ham, eig.dm, on_site ? &eig.dm_diag : nullptr, ham.dh_ab,
                        on_site ? &ham.dh_aa : nullptr, &sig[c - 1]);
            if (non_orth) stress_dm_r(ham, dm_s, nullptr, ham.ds_ab, nullptr, &sig[c - 1]);
        }
        if (dm_s.allocated()) cd_real_2d(dm_s, "dm_s", proc, mod);
    } else {
        farray<double, 2> psi_t;
        ca_real_2d(psi_t, 1, ns, 1, eig.n_dim, "psi_t", proc, mod);
        for (int k = 1; k <= nk; ++k) {
            eig_set_psi(eig, k);
            for (int r = 1; r <= eig.n_dim; ++r)
                for (int j = 1; j <= ns; ++j) psi_t(j, r) = eig.psi(r, j);
            for (const int c : {1, 4}) {
                calc_hs_grad_real(ham, ions, box, "B", c == 1 ? "D" : "O");
                if (charges && non_orth) modify_dh_ab(ham, *scc, 0.0);
                eig_stress_r(ham, psi_t, &eig.alpha(1, k), non_orth ? &eig.beta(1, k) : nullptr,
                             on_site, &sig[c - 1]);
            }
        }
        cd_real_2d(psi_t, "psi_t", proc, mod);
    }
    const double vol = cell_vol(box.cell);
    for (double& x : sig) x /= vol;
    farray<double, 2>& cs = box.cell.sig;
    for (int i = 1; i <= 3; ++i) cs(i, i) = sig[i - 1];
    cs(1, 2) = cs(2, 1) = sig[3];
    cs(2, 3) = cs(3, 2) = sig[4];
    cs(1, 3) = cs(3, 1) = sig[5];
}

} // namespace lyrt
