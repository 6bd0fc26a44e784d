#include "linear/ls_module.hpp"

#include "base/error_module.hpp"
#include "base/timing_module.hpp"
#include "model/tb_hs_module.hpp"
#include "operators/acum_delem_module_2.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "ls_module";

// For each ion (0-based) the distinct neighbour ions of its block list, sorted, and
// for each the block places jb (an ion seen through several images has several).
struct pattern_type {
    std::vector<std::vector<int>> nbr;
    std::vector<std::vector<std::vector<int>>> places;
};

pattern_type block_pattern(const hamiltonian_type& ham) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    pattern_type p;
    p.nbr.resize(static_cast<std::size_t>(pd.n));
    p.places.resize(static_cast<std::size_t>(pd.n));
    for (int ig = 1; ig <= pd.n; ++ig) {
        auto& nb = p.nbr[static_cast<std::size_t>(ig - 1)];
        for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) nb.push_back(sd.block_index(jb, ig) - 1);
        std::sort(nb.begin(), nb.end());
        nb.erase(std::unique(nb.begin(), nb.end()), nb.end());
        auto& pl = p.places[static_cast<std::size_t>(ig - 1)];
        pl.resize(nb.size());
        for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
            const int j = sd.block_index(jb, ig) - 1;
            const auto at = std::lower_bound(nb.begin(), nb.end(), j) - nb.begin();
            pl[static_cast<std::size_t>(at)].push_back(jb);
        }
    }
    return p;
}

// A block-sparse copy of ham's H or S blocks (the images of one ion summed).
void blocks_to_bsm(bsm_type& a, const bsm_layout_type& lay, const hamiltonian_type& ham,
                   const pattern_type& pat, bool overlap, const char* name) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    std::vector<int> rows, cols;
    for (std::size_t i = 0; i < pat.nbr.size(); ++i)
        for (const int j : pat.nbr[i]) {
            rows.push_back(static_cast<int>(i));
            cols.push_back(j);
        }
    bsm_create(a, lay, name);
    const farray<double, 2>& x = overlap ? ham.s_ab : ham.h_ab;
    bsm_fill(a, rows, cols, [&](int i, int j, double* blk, int nr, int nc) {
        std::fill(blk, blk + static_cast<long>(nr) * nc, 0.0);
        const int ig = i + 1, il = pd.g2l(ig);
        const auto& nb = pat.nbr[static_cast<std::size_t>(i)];
        const auto at = std::lower_bound(nb.begin(), nb.end(), j) - nb.begin();
        for (const int jb : pat.places[static_cast<std::size_t>(i)][static_cast<std::size_t>(at)]) {
            const int l0 = sd.ublock_offset(jb, ig);
            for (int e = 0; e < nr * nc; ++e) blk[e] += x(l0 + e, il);
        }
    });
}

int n_rows(const bsm_layout_type& lay) {
    int n = 0;
    for (const int d : lay.block_dim) n += d;
    return n;
}

// X^-1/2 z0 of X = z0^T S z0 by the coupled Newton-Schulz iteration (z0 = I on a cold
// start): Y = c X, Z = I; T = (3 I - Z Y) / 2, Y <- Y T, Z <- T Z; then X^-1/2 =
// sqrt(c) Z. Returns the steps taken.
int newton_schulz(ls_state_type& ls) {
    const double eps = ls.eps_filter;
    const int n = n_rows(ls.lay);
    bsm_type x, y, zz, t, u;
    if (ls.have_z) {
        bsm_type sz;
        bsm_create(sz, ls.lay, "S Z0");
        bsm_multiply('N', 'N', 1.0, ls.s, ls.z, 0.0, sz, eps);
        bsm_create(x, ls.lay, "Z0 S Z0");
        bsm_multiply('T', 'N', 1.0, ls.z, sz, 0.0, x, eps);
        bsm_release(sz);
    } else {
        bsm_copy(x, ls.s, "X");
    }
    const double c = 1.0 / bsm_gershgorin(x);
    bsm_copy(y, x, "Y");
    bsm_scale(y, c);
    bsm_copy(zz, ls.lay.id, "Z");
    bsm_create(t, ls.lay, "T");
    bsm_create(u, ls.lay, "U");
    int step = 0;
    for (step = 1; step <= ls.max_iter; ++step) {
        bsm_multiply('N', 'N', -0.5, zz, y, 0.0, t, eps);
        bsm_add_on_diag(t, ls.lay, 1.5);
        // The residual I - Z Y = 2 T - 2 I, measured before the step.
        bsm_copy(u, t, "U");
        bsm_scale(u, 2.0);
        bsm_add_on_diag(u, ls.lay, -2.0);
        const double res = bsm_frobenius(u) / std::sqrt(static_cast<double>(n));
        if (res < ls.ns_tol) break;
        bsm_multiply('N', 'N', 1.0, y, t, 0.0, u, eps);
        bsm_copy(y, u, "Y");
        bsm_multiply('N', 'N', 1.0, t, zz, 0.0, u, eps);
        bsm_copy(zz, u, "Z");
    }
    if (step > ls.max_iter)
        fatal_error("the inverse square root of the overlap did not converge in " +
                        std::to_string(ls.max_iter) + " Newton-Schulz steps",
                    ls.max_iter, "ls_calc", mod);
    bsm_scale(zz, std::sqrt(c));
    if (ls.have_z) {
        bsm_multiply('N', 'N', 1.0, ls.z, zz, 0.0, u, eps);
        bsm_copy(ls.z, u, "S^-1/2");
    } else {
        bsm_copy(ls.z, zz, "S^-1/2");
    }
    ls.have_z = true;
    for (bsm_type* a : {&x, &y, &zz, &t, &u}) bsm_release(*a);
    return step;
}

} // namespace

void ls_init(ls_state_type& ls, const hamiltonian_type& ham, double n_el) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    std::vector<int> dims(static_cast<std::size_t>(sd.row_pdist->n));
    int n = 0;
    for (int ig = 1; ig <= sd.row_pdist->n; ++ig) {
        dims[static_cast<std::size_t>(ig - 1)] = sd.row_block_dim(ig);
        n += sd.row_block_dim(ig);
    }
    ls_free(ls);
    bsm_layout_init(ls.lay, dims);
    ls.n_el = n_el;
    ls.dm.allocate({1, 1}, {sd.u_n_dim, sd.row_pdist->max_l_n});
    ls.dm_diag.allocate({1}, {n});
}

void ls_free(ls_state_type& ls) {
    for (bsm_type* a : {&ls.s, &ls.z, &ls.h, &ls.p, &ls.w}) bsm_release(*a);
    ls.have_z = false;
    bsm_layout_free(ls.lay);
}

void ls_calc(ls_state_type& ls, const hamiltonian_type& ham) {
    const double n_el = ls.n_el;
    const char* proc = "ls_calc";
    const trace_guard trace(proc, mod);
    const phase_timer wall(phase_eigen);
    const double eps = ls.eps_filter;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const pattern_type pat = block_pattern(ham);
    const int n = n_rows(ls.lay);
    bsm_type h, t;
    blocks_to_bsm(h, ls.lay, ham, pat, false, "H");
    bsm_create(t, ls.lay, "T");
    if (non_orth) {
        blocks_to_bsm(ls.s, ls.lay, ham, pat, true, "S");
        ls.ns_steps = newton_schulz(ls);
        // H~ = Z^T H Z.
        bsm_multiply('N', 'N', 1.0, h, ls.z, 0.0, t, eps);
        bsm_create(ls.h, ls.lay, "H~");
        bsm_multiply('T', 'N', 1.0, ls.z, t, 0.0, ls.h, eps);
    } else {
        bsm_copy(ls.h, h, "H~");
        ls.ns_steps = 0;
    }
    bsm_release(h);
    // SP2 from the spectrum mapped into [0, 1] upside down (Gershgorin bounds): X
    // <- X^2 lowers the trace, X <- 2 X - X^2 raises it; the one that lands nearer
    // the occupied count is taken, until X is idempotent.
    const double g = bsm_gershgorin(ls.h), e_max = g, e_min = -g;
    const double occ = 0.5 * n_el;
    if (occ > n) fatal_error("more electrons than the basis holds", -1, proc, mod);
    bsm_copy(ls.p, ls.h, "P~");
    bsm_scale(ls.p, -1.0 / (e_max - e_min));
    bsm_add_on_diag(ls.p, ls.lay, e_max / (e_max - e_min));
    bsm_type x2;
    bsm_create(x2, ls.lay, "X2");
    double idem = 0.0, best = 1e300;
    int step = 0, rising = 0;
    for (step = 1; step <= ls.max_iter; ++step) {
        bsm_multiply('N', 'N', 1.0, ls.p, ls.p, 0.0, x2, eps);
        const double tr = bsm_trace(ls.p), tr2 = bsm_trace(x2);
        idem = std::fabs(tr - tr2);
        if (idem < ls.sp2_tol * n) break;
        // Below the filter's floor the error stops falling: stop there.
        rising = idem >= best ? rising + 1 : 0;
        best = std::min(best, idem);
        if (rising >= 3 && idem < 1e-4 * n) break;
        if (std::fabs(tr2 - occ) < std::fabs(2.0 * tr - tr2 - occ)) {
            bsm_copy(ls.p, x2, "P~");
        } else {
            bsm_scale(ls.p, 2.0);
            bsm_add(ls.p, x2, 1.0, -1.0);
        }
    }
    if (step > ls.max_iter)
        fatal_error("the purification did not become idempotent in " + std::to_string(ls.max_iter) +
                        " steps",
                    ls.max_iter, proc, mod);
    ls.sp2_steps = step;
    ls.idempotency = idem;
    ls.e_band = 2.0 * bsm_dot(ls.p, ls.h);
    ls.n_found = 2.0 * bsm_trace(ls.p);
    ls.fill = bsm_occupation(ls.p);
    bsm_release(x2);
    bsm_release(t);
}

void ls_density_blocks(ls_state_type& ls, const hamiltonian_type& ham, bool energy_weighted,
                       farray<double, 2>& dm, farray<double, 1>* dm_diag) {
    const phase_timer wall(phase_density);
    const double eps = ls.eps_filter;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    bsm_type m, t, out;
    if (energy_weighted) {
        // W~ = P~ H~ P~.
        bsm_create(t, ls.lay, "T");
        bsm_multiply('N', 'N', 1.0, ls.p, ls.h, 0.0, t, eps);
        bsm_create(m, ls.lay, "W~");
        bsm_multiply('N', 'N', 1.0, t, ls.p, 0.0, m, eps);
    } else {
        bsm_copy(m, ls.p, "P~");
    }
    if (non_orth) {
        bsm_create(t, ls.lay, "T");
        bsm_multiply('N', 'T', 1.0, m, ls.z, 0.0, t, eps);
        bsm_create(out, ls.lay, "P");
        bsm_multiply('N', 'N', 1.0, ls.z, t, 0.0, out, 0.0);
    } else {
        bsm_copy(out, m, "P");
    }
    const double factor = energy_weighted ? -2.0 : 2.0;
    const pattern_type pat = block_pattern(ham);
    const long rows = dm.extent(0);
    for (int il = 1; il <= pd.l_n; ++il) std::fill(&dm(1, il), &dm(1, il) + rows, 0.0);
    if (dm_diag != nullptr) dm_diag->fill(0.0);
    bsm_for_each(out, [&](int i, int j, const double* blk, int nr, int nc) {
        const int ig = i + 1, il = pd.g2l(ig);
        const auto& nb = pat.nbr[static_cast<std::size_t>(i)];
        const auto at = std::lower_bound(nb.begin(), nb.end(), j) - nb.begin();
        if (at == static_cast<long>(nb.size()) || nb[static_cast<std::size_t>(at)] != j) return;
        for (const int jb : pat.places[static_cast<std::size_t>(i)][static_cast<std::size_t>(at)]) {
            const int l0 = sd.ublock_offset(jb, ig);
            for (int e = 0; e < nr * nc; ++e) dm(l0 + e, il) = factor * blk[e];
        }
        if (dm_diag != nullptr && i == j)
            for (int r = 0; r < nr; ++r)
                (*dm_diag)(sd.row_block_offset(ig) + r) = factor * blk[r + nr * r];
    });
    if (n_proc > 1) {
        gsum_real_ptr(dm.data(), rows * pd.l_n);
        if (dm_diag != nullptr) gsum_real_vec(*dm_diag);
    }
    for (bsm_type* a : {&m, &t, &out}) bsm_release(*a);
}

void ls_forces(ls_state_type& ls, hamiltonian_type& ham, ions_type& ions, const box_type& box,
               double fboost) {
    farray<double, 2>& dm = ls.dm;
    farray<double, 1>& dm_diag = ls.dm_diag;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool on_site = ham.tb_model->on_site_env;
    ions.f.fill(0.0);
    calc_hs_grad_real(ham, ions, box);
    ls_density_blocks(ls, ham, false, dm, on_site ? &dm_diag : nullptr);
    acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.dh_ab, fboost, &ions.boost,
                    on_site ? &dm_diag : nullptr, on_site ? &ham.dh_aa : nullptr);
    if (non_orth) {
        ls_density_blocks(ls, ham, true, dm, nullptr);
        acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.ds_ab, fboost, &ions.boost, nullptr, nullptr);
    }
}

} // namespace lyrt
