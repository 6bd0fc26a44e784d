#include "linear/ls_module.hpp"

#include "base/error_module.hpp"
#include "base/timing_module.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/cheb_module.hpp"
#include "numerics/lapack_module.hpp"
#include "operators/acum_delem_module_1.hpp"
#include "operators/acum_delem_module_2.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "ls_module";

ls_pattern_type block_pattern(const hamiltonian_type& ham) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    ls_pattern_type p;
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

// The group pairs (I, J) with at least one neighbour block between their ions.
void group_pairs(const ls_state_type& ls, const ls_pattern_type& pat, std::vector<int>& rows,
                 std::vector<int>& cols) {
    std::vector<std::pair<int, int>> pairs;
    for (std::size_t i = 0; i < pat.nbr.size(); ++i)
        for (const int j : pat.nbr[i])
            pairs.emplace_back(ls.group[i], ls.group[static_cast<std::size_t>(j)]);
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    rows.clear();
    cols.clear();
    for (const auto& [a, b] : pairs) {
        rows.push_back(a);
        cols.push_back(b);
    }
}

// Calls f(i, jb, l0, r0, c0) for each neighbour block jb of each ion i of group I
// whose ion lies in group J: l0 the block's first element in ham's layout, (r0, c0)
// its place in the group block (I, J).
template <class F>
void for_ion_blocks(const ls_state_type& ls, const hamiltonian_type& ham,
                    const ls_pattern_type& pat, int gi, int gj, F&& f) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    for (const int i : ls.members[static_cast<std::size_t>(gi)]) {
        const auto& nb = pat.nbr[static_cast<std::size_t>(i)];
        for (std::size_t k = 0; k < nb.size(); ++k) {
            const int j = nb[k];
            if (ls.group[static_cast<std::size_t>(j)] != gj) continue;
            for (const int jb : pat.places[static_cast<std::size_t>(i)][k])
                f(i, jb, sd.ublock_offset(jb, i + 1), ls.offset[static_cast<std::size_t>(i)],
                  ls.offset[static_cast<std::size_t>(j)]);
        }
    }
}

// A block-sparse copy of ham's H or S blocks (the images of one ion summed) in the
// groups' blocks.
void blocks_to_bsm(bsm_type& a, const ls_state_type& ls, const hamiltonian_type& ham,
                   const ls_pattern_type& pat, bool overlap, const char* name,
                   const scc_type* scc = nullptr) {
    // The charge terms of H: 0.5 (qaux(i) + qaux(j)) S on the block of ions i and j
    // (non-orthogonal), or qaux(i) on the diagonal of ion i (orthogonal).
    const bool charges = !overlap && scc != nullptr && scc->used;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    std::vector<int> rows, cols;
    group_pairs(ls, pat, rows, cols);
    bsm_create(a, ls.lay, name);
    const farray<double, 2>& x = overlap ? ham.s_ab : ham.h_ab;
    bsm_fill(a, rows, cols, [&](int gi, int gj, double* blk, int nr, int nc) {
        std::fill(blk, blk + static_cast<long>(nr) * nc, 0.0);
        for_ion_blocks(ls, ham, pat, gi, gj, [&](int i, int jb, int l0, int r0, int c0) {
            const int ig = i + 1, il = pd.g2l(ig);
            const int no = sd.row_block_dim(ig), no2 = sd.pblock_dim(jb, ig);
            const double f = charges && non_orth
                                 ? 0.5 * (scc->qaux(ig) + scc->qaux(sd.block_index(jb, ig)))
                                 : 0.0;
            for (int b = 0; b < no2; ++b)
                for (int r = 0; r < no; ++r) {
                    const int l = l0 + r + no * b;
                    // S is read only where it exists (a non-orthogonal model).
                    blk[(r0 + r) + nr * (c0 + b)] +=
                        x(l, il) + (charges && non_orth ? f * ham.s_ab(l, il) : 0.0);
                }
        });
        if (charges && !non_orth && gi == gj)
            for (const int i : ls.members[static_cast<std::size_t>(gi)]) {
                const int r0 = ls.offset[static_cast<std::size_t>(i)];
                for (int r = 0; r < sd.row_block_dim(i + 1); ++r)
                    blk[(r0 + r) * (1 + nr)] += scc->qaux(i + 1);
            }
    });
}

// A block product, its flops and time counted in ls.
void product(ls_state_type& ls, char ta, char tb, double alpha, const bsm_type& a,
             const bsm_type& b, double beta, bsm_type& c, double eps) {
    const double t0 = timeofday();
    ls.flops += bsm_multiply(ta, tb, alpha, a, b, beta, c, eps);
    ls.product_seconds += timeofday() - t0;
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
    // An error d of Z^T S Z = I + d enters the energy at first order: the products
    // of this iteration are filtered a thousand times more finely.
    const double eps = 1e-3 * ls.eps_filter;
    const int n = n_rows(ls.lay);
    bsm_type x, y, zz, t, u;
    if (ls.have_z) {
        bsm_type sz;
        bsm_create(sz, ls.lay, "S Z0");
        product(ls, 'N', 'N', 1.0, ls.s, ls.z, 0.0, sz, eps);
        bsm_create(x, ls.lay, "Z0 S Z0");
        product(ls, 'T', 'N', 1.0, ls.z, sz, 0.0, x, eps);
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
        product(ls, 'N', 'N', -0.5, zz, y, 0.0, t, eps);
        bsm_add_on_diag(t, ls.lay, 1.5);
        // The residual I - Z Y = 2 T - 2 I, measured before the step.
        bsm_copy(u, t, "U");
        bsm_scale(u, 2.0);
        bsm_add_on_diag(u, ls.lay, -2.0);
        const double res = bsm_frobenius(u) / std::sqrt(static_cast<double>(n));
        if (res < ls.ns_tol) break;
        product(ls, 'N', 'N', 1.0, y, t, 0.0, u, eps);
        bsm_copy(y, u, "Y");
        product(ls, 'N', 'N', 1.0, t, zz, 0.0, u, eps);
        bsm_copy(zz, u, "Z");
    }
    if (step > ls.max_iter)
        fatal_error("the inverse square root of the overlap did not converge in " +
                        std::to_string(ls.max_iter) + " Newton-Schulz steps",
                    ls.max_iter, "ls_calc", mod);
    bsm_scale(zz, std::sqrt(c));
    if (ls.have_z) {
        product(ls, 'N', 'N', 1.0, ls.z, zz, 0.0, u, eps);
        bsm_copy(ls.z, u, "S^-1/2");
    } else {
        bsm_copy(ls.z, zz, "S^-1/2");
    }
    ls.have_z = true;
    for (bsm_type* a : {&x, &y, &zz, &t, &u}) bsm_release(*a);
    return step;
}

// Occupation of a level e at chemical potential mu and width sigma.
double occupation(double e, double mu, double sigma) {
    const double x = (e - mu) / sigma;
    if (x > 50.0) return 0.0;
    if (x < -50.0) return 1.0;
    return 1.0 / (1.0 + std::exp(x));
}

// An interval holding the spectrum of the symmetric a, from k Lanczos steps: the
// extreme Ritz values widened by their residuals and by 1% of the width, inside
// the Gershgorin interval [g_lo, g_hi].
void lanczos_bounds(const bsm_type& a, const bsm_layout_type& lay, double g_lo, double g_hi,
                    double& lo, double& hi) {
    const int n = n_rows(lay), k = std::min(n, 40);
    std::vector<double> v(static_cast<std::size_t>(n)), v_old(v.size(), 0.0), av, alpha, beta;
    double norm = 0.0;
    for (int i = 0; i < n; ++i) {
        v[static_cast<std::size_t>(i)] = std::sin(1.7 * i + 0.3) + 0.1;
        norm += v[static_cast<std::size_t>(i)] * v[static_cast<std::size_t>(i)];
    }
    for (double& x : v) x /= std::sqrt(norm);
    double b = 0.0;
    for (int j = 0; j < k; ++j) {
        bsm_matvec(a, lay, v, av);
        double al = 0.0;
        for (int i = 0; i < n; ++i)
            al += av[static_cast<std::size_t>(i)] * v[static_cast<std::size_t>(i)];
        double nb = 0.0;
        for (int i = 0; i < n; ++i) {
            double& r = av[static_cast<std::size_t>(i)];
            r -= al * v[static_cast<std::size_t>(i)] + b * v_old[static_cast<std::size_t>(i)];
            nb += r * r;
        }
        alpha.push_back(al);
        b = std::sqrt(nb);
        beta.push_back(b);
        if (b < 1e-12) break; // an invariant subspace: its Ritz values are eigenvalues
        v_old = v;
        for (int i = 0; i < n; ++i)
            v[static_cast<std::size_t>(i)] = av[static_cast<std::size_t>(i)] / b;
    }
    const int m = static_cast<int>(alpha.size());
    std::vector<double> d = alpha, e(beta.begin(), beta.end() - 1),
                        z(static_cast<std::size_t>(m * m)),
                        work(static_cast<std::size_t>(std::max(1, 2 * m - 2)));
    int info = 0;
    dstev_("V", &m, d.data(), e.data(), z.data(), &m, work.data(), &info);
    if (info != 0) {
        lo = g_lo;
        hi = g_hi;
        return;
    }
    // The residual of Ritz pair i is beta_m times the last component of its vector.
    const double r_lo = std::fabs(beta.back() * z[static_cast<std::size_t>(m - 1)]);
    const double r_hi = std::fabs(beta.back() * z[static_cast<std::size_t>((m - 1) + m * (m - 1))]);
    const double margin = 0.01 * (d.back() - d.front());
    lo = std::max(g_lo, d.front() - r_lo - margin);
    hi = std::min(g_hi, d.back() + r_hi + margin);
}

// P~ = f(H~), the Fermi function of width ls.sigma, by a Chebyshev series on the
// Gershgorin interval of H~ mapped onto [-1, 1] (X). The q powers T_0..T_{q-1} of
// X are kept and Y = T_q(X) steps through T_aq = T_a(Y); the traces Tr(T_aq T_j)
// give those of all (A + 1) q terms and with them the electron count at any
// chemical potential, the band energy and the entropy (quadratures at the
// Chebyshev nodes); P~ then follows from the series at the chemical potential
// that holds n_el electrons, summed over a by Clenshaw's recurrence in Y. About
// q + 2 A = 2 sqrt(2 M) products for M terms.
// Returns false, having formed nothing, when the traces show levels outside
// [lo, hi] (|Tr T_m| beyond the order: T_m grows without bound off [-1, 1]).
bool fermi_expansion(ls_state_type& ls, double lo, double hi) {
    const double eps = ls.eps_filter, sigma = ls.sigma;
    const double centre = 0.5 * (hi + lo), half = 0.5 * (hi - lo) * 1.01 + 1e-6;
    const int m = cheb_fermi_terms(sigma / half, ls.cheb_tol);
    const int q = std::max(2, static_cast<int>(std::ceil(std::sqrt(2.0 * m))));
    const int a_max = std::max(1, (m + q - 1) / q - 1);
    const int terms = (a_max + 1) * q;
    ls.cheb_terms = terms;
    bsm_type x, y, g0, g1, g2;
    bsm_copy(x, ls.h, "X");
    bsm_scale(x, 1.0 / half);
    bsm_add_on_diag(x, ls.lay, -centre / half);
    std::vector<bsm_type> t(static_cast<std::size_t>(q));
    bsm_copy(t[0], ls.lay.id, "T0");
    bsm_copy(t[1], x, "T1");
    // T_{j} = 2 X T_{j-1} - T_{j-2}; Y = T_q the same way.
    for (int j = 2; j <= q; ++j) {
        bsm_type& out = j < q ? t[static_cast<std::size_t>(j)] : y;
        bsm_copy(out, t[static_cast<std::size_t>(j - 2)], "T");
        product(ls, 'N', 'N', 2.0, x, t[static_cast<std::size_t>(j - 1)], -1.0, out, eps);
    }
    bsm_release(x);
    std::vector<double> tr(static_cast<std::size_t>(terms), 0.0);
    for (int j = 0; j < q; ++j)
        tr[static_cast<std::size_t>(j)] = bsm_trace(t[static_cast<std::size_t>(j)]);
    // T_aq for a = 1..A: T_{(a+1)q} = 2 Y T_aq - T_{(a-1)q}.
    bsm_copy(g0, ls.lay.id, "G");
    bsm_copy(g1, y, "G");
    for (int a = 1; a <= a_max; ++a) {
        for (int j = 0; j < q; ++j)
            tr[static_cast<std::size_t>(a * q + j)] = bsm_dot(g1, t[static_cast<std::size_t>(j)]);
        if (a == a_max) break;
        bsm_copy(g2, g0, "G");
        product(ls, 'N', 'N', 2.0, y, g1, -1.0, g2, eps);
        std::swap(g0, g1);
        std::swap(g1, g2);
    }
    std::vector<double> tau, w;
    cheb_traces(tr, q, tau);
    double tau_max = 0.0;
    for (const double tm : tau) tau_max = std::max(tau_max, std::fabs(tm));
    if (!(tau_max < n_rows(ls.lay) + 10.0)) {
        for (bsm_type* a : {&y, &g0, &g1, &g2}) bsm_release(*a);
        for (bsm_type& a : t) bsm_release(a);
        return false;
    }
    const int nodes = 2 * terms;
    cheb_node_weights(tau, nodes, w);
    std::vector<double> e(static_cast<std::size_t>(nodes));
    for (int i = 0; i < nodes; ++i)
        e[static_cast<std::size_t>(i)] = centre + half * cheb_node(i, nodes);
    const auto count = [&](double mu) {
        double n = 0.0;
        for (int i = 0; i < nodes; ++i)
            n += occupation(e[static_cast<std::size_t>(i)], mu, sigma) *
                 w[static_cast<std::size_t>(i)];
        return 2.0 * n;
    };
    // Bisection on the count, which rises with mu.
    double mu_lo = lo - 50.0 * sigma, mu_hi = hi + 50.0 * sigma;
    for (int it = 0; it < 200 && mu_hi - mu_lo > 1e-13 * (1.0 + std::fabs(mu_lo)); ++it) {
        const double mid = 0.5 * (mu_lo + mu_hi);
        (count(mid) < ls.n_el ? mu_lo : mu_hi) = mid;
    }
    ls.mu = 0.5 * (mu_lo + mu_hi);
    double e_band = 0.0, ts = 0.0;
    for (int i = 0; i < nodes; ++i) {
        const double f = occupation(e[static_cast<std::size_t>(i)], ls.mu, sigma);
        const double wi = w[static_cast<std::size_t>(i)];
        e_band += e[static_cast<std::size_t>(i)] * f * wi;
        if (f > 0.0 && f < 1.0) ts -= (f * std::log(f) + (1.0 - f) * std::log(1.0 - f)) * wi;
    }
    ls.e_band = 2.0 * e_band;
    ls.e_ts = 2.0 * sigma * ts;
    // The series at mu, split over the powers of Y: P~ = sum_a T_a(Y) B_a with B_a =
    // sum_j d(a, j) T_j; Clenshaw: b_a = B_a + 2 Y b_{a+1} - b_{a+2}, P~ = B_0 + Y b_1 - b_2.
    std::vector<double> c, d;
    const double mu_x = (ls.mu - centre) / half, sigma_x = sigma / half;
    cheb_coefficients([&](double xi) { return occupation(xi, mu_x, sigma_x); }, nodes, terms, c);
    cheb_split(c, q, d);
    const auto b_of = [&](int a, bsm_type& out) {
        bsm_copy(out, t[0], "B");
        bsm_scale(out, d[static_cast<std::size_t>(a * q)]);
        for (int j = 1; j < q; ++j)
            bsm_add(out, t[static_cast<std::size_t>(j)], 1.0,
                    d[static_cast<std::size_t>(a * q + j)]);
    };
    bsm_release(g0);
    bsm_release(g1);
    bsm_release(g2);
    // b_{a+1} and b_{a+2}, zero to begin with (finalised matrices).
    bsm_copy(g1, ls.lay.id, "b1");
    bsm_scale(g1, 0.0);
    bsm_copy(g2, g1, "b2");
    for (int a = a_max; a >= 1; --a) {
        b_of(a, g0);
        bsm_add(g0, g2, 1.0, -1.0);
        product(ls, 'N', 'N', 2.0, y, g1, 1.0, g0, eps);
        std::swap(g2, g1);
        std::swap(g1, g0);
        bsm_release(g0);
    }
    bsm_release(ls.p);
    b_of(0, ls.p);
    bsm_add(ls.p, g2, 1.0, -1.0);
    product(ls, 'N', 'N', 1.0, y, g1, 1.0, ls.p, eps);
    for (bsm_type* a : {&y, &g0, &g1, &g2}) bsm_release(*a);
    for (bsm_type& a : t) bsm_release(a);
    return true;
}

} // namespace

void ls_init(ls_state_type& ls, const hamiltonian_type& ham, const box_type& box, double n_el) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const int n_ions = sd.row_pdist->n;
    int n = 0;
    for (int ig = 1; ig <= n_ions; ++ig) n += sd.row_block_dim(ig);
    // Cells of the simulation cell, m along each vector, about 48 orbitals each.
    const double per_ion = static_cast<double>(n) / n_ions;
    const double target = std::max(1.0, std::round(ls.block_orbitals / per_ion));
    const int m = std::max(1, static_cast<int>(std::floor(std::cbrt(n_ions / target))));
    std::vector<int> cell_of(static_cast<std::size_t>(n_ions));
    for (int i = 1; i <= n_ions; ++i) {
        int c[3];
        for (int k = 1; k <= 3; ++k) {
            double f = 0.0;
            for (int x = 1; x <= 3; ++x) f += box.cell.b(k, x) * box.ions.r(x, i);
            f -= std::floor(f);
            c[k - 1] = std::min(m - 1, static_cast<int>(f * m));
        }
        cell_of[static_cast<std::size_t>(i - 1)] = (c[0] * m + c[1]) * m + c[2];
    }
    // Empty cells make no group; the groups keep the cells' order.
    std::vector<int> group_of_cell(static_cast<std::size_t>(m * m * m), -1);
    ls_free(ls);
    ls.group.assign(static_cast<std::size_t>(n_ions), 0);
    ls.offset.assign(static_cast<std::size_t>(n_ions), 0);
    ls.members.clear();
    std::vector<int> dims;
    for (int cell = 0; cell < m * m * m; ++cell)
        for (int i = 0; i < n_ions; ++i) {
            if (cell_of[static_cast<std::size_t>(i)] != cell) continue;
            int& g = group_of_cell[static_cast<std::size_t>(cell)];
            if (g < 0) {
                g = static_cast<int>(ls.members.size());
                ls.members.emplace_back();
                dims.push_back(0);
            }
            ls.group[static_cast<std::size_t>(i)] = g;
            ls.offset[static_cast<std::size_t>(i)] = dims[static_cast<std::size_t>(g)];
            dims[static_cast<std::size_t>(g)] += sd.row_block_dim(i + 1);
            ls.members[static_cast<std::size_t>(g)].push_back(i);
        }
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

void ls_calc(ls_state_type& ls, const hamiltonian_type& ham, const scc_type* scc) {
    ls.have_p = ls.have_w = false;
    const double n_el = ls.n_el;
    const char* proc = "ls_calc";
    const trace_guard trace(proc, mod);
    const phase_timer wall(phase_eigen);
    const double eps = ls.eps_filter;
    const bool non_orth = ham.tb_model->non_orthogonal;
    ls.pattern = block_pattern(ham);
    const ls_pattern_type& pat = ls.pattern;
    const int n = n_rows(ls.lay);
    bsm_type h, t;
    blocks_to_bsm(h, ls, ham, pat, false, "H", scc);
    bsm_create(t, ls.lay, "T");
    if (non_orth) {
        blocks_to_bsm(ls.s, ls, ham, pat, true, "S");
        ls.ns_steps = newton_schulz(ls);
        // H~ = Z^T H Z.
        product(ls, 'N', 'N', 1.0, h, ls.z, 0.0, t, eps);
        bsm_create(ls.h, ls.lay, "H~");
        product(ls, 'T', 'N', 1.0, ls.z, t, 0.0, ls.h, eps);
    } else {
        bsm_copy(ls.h, h, "H~");
        ls.ns_steps = 0;
    }
    bsm_release(h);
    ls.e_ts = 0.0;
    if (ls.sigma > 0.0) {
        // Lanczos bounds, or the Gershgorin interval when levels lie beyond them.
        double g_lo = 0.0, g_hi = 0.0, lo = 0.0, hi = 0.0;
        bsm_gershgorin_interval(ls.h, ls.lay, g_lo, g_hi);
        lanczos_bounds(ls.h, ls.lay, g_lo, g_hi, lo, hi);
        if (!fermi_expansion(ls, lo, hi)) fermi_expansion(ls, g_lo, g_hi);
        ls.sp2_steps = 0;
        ls.idempotency = 0.0;
        ls.n_found = 2.0 * bsm_trace(ls.p);
        ls.fill = bsm_occupation(ls.p);
        bsm_release(t);
        return;
    }
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
        product(ls, 'N', 'N', 1.0, ls.p, ls.p, 0.0, x2, eps);
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
                        " steps: the occupied and the empty levels meet (a metal, or a gap "
                        "closed); the diagonalisation (2) with smearing (sigma > 0) serves such "
                        "a system",
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
    if (energy_weighted && ls.sigma > 0.0) {
        // W~ = f(H~) H~, symmetrised (the two products differ by the filter only).
        bsm_create(m, ls.lay, "W~");
        product(ls, 'N', 'N', 0.5, ls.p, ls.h, 0.0, m, eps);
        product(ls, 'N', 'N', 0.5, ls.h, ls.p, 1.0, m, eps);
    } else if (energy_weighted) {
        // W~ = P~ H~ P~.
        bsm_create(t, ls.lay, "T");
        product(ls, 'N', 'N', 1.0, ls.p, ls.h, 0.0, t, eps);
        bsm_create(m, ls.lay, "W~");
        product(ls, 'N', 'N', 1.0, t, ls.p, 0.0, m, eps);
    } else {
        bsm_copy(m, ls.p, "P~");
    }
    if (non_orth) {
        bsm_create(t, ls.lay, "T");
        product(ls, 'N', 'T', 1.0, m, ls.z, 0.0, t, eps);
        bsm_create(out, ls.lay, "P");
        product(ls, 'N', 'N', 1.0, ls.z, t, 0.0, out, 0.0);
    } else {
        bsm_copy(out, m, "P");
    }
    const double factor = energy_weighted ? -2.0 : 2.0;
    const ls_pattern_type& pat = ls.pattern; // that of the ls_calc whose P this is
    const long rows = dm.extent(0);
    for (int il = 1; il <= pd.l_n; ++il) std::fill(&dm(1, il), &dm(1, il) + rows, 0.0);
    if (dm_diag != nullptr) dm_diag->fill(0.0);
    bsm_for_each(out, [&](int gi, int gj, const double* blk, int nr, int) {
        for_ion_blocks(ls, ham, pat, gi, gj, [&](int i, int jb, int l0, int r0, int c0) {
            const int ig = i + 1, il = pd.g2l(ig);
            const int no = sd.row_block_dim(ig), no2 = sd.pblock_dim(jb, ig);
            for (int b = 0; b < no2; ++b)
                for (int r = 0; r < no; ++r)
                    dm(l0 + r + no * b, il) = factor * blk[(r0 + r) + nr * (c0 + b)];
        });
        if (dm_diag != nullptr && gi == gj)
            for (const int i : ls.members[static_cast<std::size_t>(gi)]) {
                const int r0 = ls.offset[static_cast<std::size_t>(i)];
                for (int r = 0; r < sd.row_block_dim(i + 1); ++r)
                    (*dm_diag)(sd.row_block_offset(i + 1) + r) = factor * blk[(r0 + r) * (1 + nr)];
            }
    });
    if (n_proc > 1) {
        gsum_real_ptr(dm.data(), rows * pd.l_n);
        if (dm_diag != nullptr) gsum_real_vec(*dm_diag);
    }
    for (bsm_type* a : {&m, &t, &out}) bsm_release(*a);
}

namespace {

// The blocks of 2P (with its diagonal) or of -2W of the last ls_calc, formed once.
void ensure_blocks(ls_state_type& ls, const hamiltonian_type& ham, bool energy_weighted) {
    if (energy_weighted && !ls.have_w) {
        if (!ls.dm_w.allocated()) ls.dm_w.allocate({1, 1}, {ls.dm.extent(0), ls.dm.extent(1)});
        ls_density_blocks(ls, ham, true, ls.dm_w, nullptr);
        ls.have_w = true;
    } else if (!energy_weighted && !ls.have_p) {
        ls_density_blocks(ls, ham, false, ls.dm, &ls.dm_diag);
        ls.have_p = true;
    }
}

} // namespace

void ls_forces(ls_state_type& ls, hamiltonian_type& ham, ions_type& ions, const box_type& box,
               double fboost, const scc_type* scc) {
    const bool charges = scc != nullptr && scc->used;
    farray<double, 2>& dm = ls.dm;
    farray<double, 1>& dm_diag = ls.dm_diag;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool on_site = ham.tb_model->on_site_env;
    ions.f.fill(0.0);
    calc_hs_grad_real(ham, ions, box);
    if (charges && ham.tb_model->non_orthogonal) modify_dh_ab(ham, *scc, 0.0);
    ensure_blocks(ls, ham, false);
    acum_dm_boost_r(ham, 1.0, ions.f, dm, ham.dh_ab, fboost, &ions.boost,
                    on_site ? &dm_diag : nullptr, on_site ? &ham.dh_aa : nullptr);
    if (non_orth) {
        ensure_blocks(ls, ham, true);
        acum_dm_boost_r(ham, 1.0, ions.f, ls.dm_w, ham.ds_ab, fboost, &ions.boost, nullptr,
                        nullptr);
    }
    if (charges) add_forces_scc(*scc);
}

void ls_stress(ls_state_type& ls, hamiltonian_type& ham, ions_type& ions, box_type& box,
               const scc_type* scc) {
    const bool charges = scc != nullptr && scc->used;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool on_site = ham.tb_model->on_site_env;
    ensure_blocks(ls, ham, false);
    if (non_orth) ensure_blocks(ls, ham, true);
    const farray<double, 2>& dm_w = ls.dm_w;
    // Diagonal strains (xx, yy, zz), then the off-diagonal ones (xy, yz, xz).
    double sig[6] = {0, 0, 0, 0, 0, 0};
    for (const int c : {1, 4}) {
        calc_hs_grad_real(ham, ions, box, "B", c == 1 ? "D" : "O");
        if (charges && non_orth) modify_dh_ab(ham, *scc, 0.0);
        const phase_timer wall(phase_contract);
        stress_dm_r(ham, ls.dm, on_site ? &ls.dm_diag : nullptr, ham.dh_ab,
                    on_site ? &ham.dh_aa : nullptr, &sig[c - 1]);
        if (non_orth) stress_dm_r(ham, dm_w, nullptr, ham.ds_ab, nullptr, &sig[c - 1]);
    }
    const double vol = cell_vol(box.cell);
    farray<double, 2>& cs = box.cell.sig;
    for (int i = 1; i <= 3; ++i) cs(i, i) = sig[i - 1] / vol;
    cs(1, 2) = cs(2, 1) = sig[3] / vol;
    cs(2, 3) = cs(3, 2) = sig[4] / vol;
    cs(1, 3) = cs(3, 1) = sig[5] / vol;
}

double ls_ground_state(ls_state_type& ls, const hamiltonian_type& ham, ions_type& ions,
                       scc_type& scc, const elec_algo_type& elec_algo) {
    const char* proc = "ls_ground_state";
    if (!scc.used) {
        ls_calc(ls, ham);
        return ls.e_band - ls.e_ts;
    }
    calc_gamma(scc);
    cal_charge_aux(scc, ions.qion, scc.qaux);
    scc_mixer_type mixer;
    mixer.beta = elec_algo.charge_mixing;
    double e_new = 0.0, e_old = 0.0, dq_max = 0.0;
    bool converged = false;
    int iter = 0;
    for (;; ++iter) {
        ls_calc(ls, ham, &scc);
        // Mulliken populations of 2P: its blocks against those of S (the diagonal in
        // an orthogonal model).
        ensure_blocks(ls, ham, false);
        scc.qi_1.fill(0.0);
        local_proj_dm_r(ham, ls.dm, 1.0, scc.qi_1);
        dq_max = scc_mix_charges(ions, scc, elec_algo, mixer);
        e_old = e_new;
        e_new = get_scc_detot(scc, 0.0, ions.qion) + ls.e_band - ls.e_ts;
        converged = iter > 0 && std::fabs(e_new - e_old) < elec_algo.energy_tol &&
                    dq_max < elec_algo.charge_tol;
        if (iter >= elec_algo.min_iter && converged) break;
        if (iter + 1 >= elec_algo.max_iter) break;
    }
    if (!converged) {
        const std::string text = "the charges are not self-consistent after " +
                                 std::to_string(iter + 1) + " passes (max_elec_iter)";
        warning_error(text, proc, mod);
    }
    return e_new;
}

void ls_local(ls_state_type& ls, const hamiltonian_type& ham, const scc_type& scc, ions_type& ions,
              farray<double, 1>& e_local) {
    ensure_blocks(ls, ham, false);
    ensure_blocks(ls, ham, true);
    // The band energy of ion i: the projection of 2W = -(-2W).
    local_proj_dm_r(ham, ls.dm_w, -1.0, e_local);
    if (scc.used) {
        // The charges are those of the charge loop; each ion's share of its
        // double-counting term joins its band energy, as on the dense path.
        get_scc_deloc(scc, 0.0, ions.qion, e_local);
        return;
    }
    ions.qion.fill(0.0);
    local_proj_dm_r(ham, ls.dm, 1.0, ions.qion);
    for (int i = 1; i <= ions.total_n_ions; ++i) ions.qion(i) -= scc.qi0(i);
}

} // namespace lyrt
