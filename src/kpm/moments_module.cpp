#include "kpm/moments_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "numerics/lapack_module.hpp"
#include "operators/acum_delem_module_2.hpp"
#include "operators/hs_psi_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "moments_module";

kpm_moment_rate_type last_rate;

double dot(const double* x, const double* y, long n) {
    const int ni = static_cast<int>(n), one = 1;
    return ddot_(&ni, x, &one, y, &one);
}

// Chunks of this process's ions (a contiguous range of ks.blk_pdist; the other
// processes take the others): kpm_block_size at a time, then the rest one by one.
// f gets the first ion of the chunk as numbered in the Hamiltonian, which holds
// every ion.
template <class F>
void for_chunks(const kpm_state_type& ks, F&& f) {
    const pdist_type& pd = ks.blk_pdist;
    const int block = ks.block_size;
    const int n_full = pd.l_n / block;
    int il = 1;
    for (int k = 0; k < n_full; ++k, il += block) f(pd.l2g(il), block);
    for (; il <= pd.l_n; ++il) f(pd.l2g(il), 1);
}

// The moments summed over the processes; mu(0), the trace of the unit matrix, is
// every process's own already.
void sum_moments(kpm_state_type& ks, int m) {
    if (m >= 1) gsum_real_ptr(&ks.mu(1), m);
}

// Columns of the chunk: the orbitals of its ions. Writes 1 at (orbital, column) of
// c (leading dimension n, cleared by the caller); returns the column count.
int unit_columns(const hamiltonian_type& h, int il_first, int n_chunk, double* c, long n) {
    const sparse_1d_matrix_desc_type& sd = h.desc;
    const pdist_type& pd = *sd.row_pdist;
    int col = 0;
    for (int il = il_first; il < il_first + n_chunk; ++il) {
        const int ig = pd.l2g(il);
        const int r0 = sd.row_block_offset(ig);
        for (int a = 0; a < sd.row_block_dim(ig); ++a, ++col) c[n * col + (r0 - 1 + a)] = 1.0;
    }
    return col;
}

int n_chunk_columns(const hamiltonian_type& h, int il_first, int n_chunk) {
    const sparse_1d_matrix_desc_type& sd = h.desc;
    int cols = 0;
    for (int il = il_first; il < il_first + n_chunk; ++il)
        cols += sd.row_block_dim(sd.row_pdist->l2g(il));
    return cols;
}

int max_chunk_columns(const kpm_state_type& ks, const hamiltonian_type& h) {
    return ks.block_size * h.tb_model->max_no;
}

// Removes the constant terms of the doubling identities, once, after the sums.
void finish_moments(farray<double, 1>& mu, int m, double n) {
    for (int k = 1; 2 * k <= m; ++k) mu(2 * k) -= n;
    for (int k = 1; 2 * k + 1 <= m; ++k) mu(2 * k + 1) -= mu(1);
}

void start_moments(kpm_state_type& ks, double n) {
    ks.mu.fill(0.0);
    ks.mu(0) = n; // the trace of the unit matrix
}

// Elements of the blocks of the local rows: the work of one product per column.
double block_elements(const hamiltonian_type& h) {
    const sparse_1d_matrix_desc_type& sd = h.desc;
    const pdist_type& pd = *sd.row_pdist;
    double total = 0.0;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        for (int j = 1; j <= sd.n_blocks(ig); ++j) total += sd.ublock_dim(j, ig);
    }
    return total;
}

using chrec_kernel = void (*)(const x_psi_layout&, double*, int, int, int);

// The recurrence of each chunk held whole: c(:, :, t) = T_t(H~) e for t = 0..t_max.
template <int N>
void moments_fixed(const hamiltonian_type& h, kpm_state_type& ks, const char* name) {
    const char* proc = name;
    const trace_guard trace(proc, mod);
    const long n = h.desc.n_row;
    const int m = ks.n;
    const int t_max = (m + 1) / 2; // the last slice that a moment up to M reads
    const int max_cols = max_chunk_columns(ks, h);
    farray<double, 3> cb;
    ca_real_3d(cb, 1, n, 1, max_cols, 0, t_max, "cb", proc, mod);
    start_moments(ks, static_cast<double>(n));
    const x_psi_layout lay = hs_layout(h, h.h_ab);
    const double nnz = block_elements(h);
    double rec_seconds = 0.0, rec_flops = 0.0, rec_bytes = 0.0;
    int products = 0;
    for_chunks(ks, [&](int il_first, int n_chunk) {
        double* c = cb.data();
        const int cols = n_chunk_columns(h, il_first, n_chunk);
        const long slab = n * cols; // slices of this chunk lie one after the other
        // Times 0 and 1 are built here; the recurrence writes every row of the rest.
        setzero_r(c, 2 * slab);
        unit_columns(h, il_first, n_chunk, c, n);
        double* s1 = c + slab;
        if (t_max >= 1) {
            switch (N) {
            case 4: x_psi_four_77_r(lay, c, n, s1, n, cols, 0.5); break;
            case 5: x_psi_five_77_r(lay, c, n, s1, n, cols, 0.5); break;
            case 6: x_psi_six_77_r(lay, c, n, s1, n, cols, 0.5); break;
            default: x_psi_nine_77_r(lay, c, n, s1, n, cols, 0.5); break;
            }
            ++products;
            ks.mu(1) += dot(c, s1, slab);
            if (m >= 2) ks.mu(2) += 2.0 * dot(s1, s1, slab);
        }
        if (t_max >= 2) {
            const double start = utime();
            const chrec_kernel kernel = N == 4   ? x_psi_chrec_four_77_r
                                        : N == 5 ? x_psi_chrec_five_77_r
                                        : N == 6 ? x_psi_chrec_six_77_r
                                                 : x_psi_chrec_nine_77_r;
            // The kernel counts times from 1: slot 0 is its time 1.
            kernel(lay, c, static_cast<int>(n), cols, t_max + 1);
            rec_seconds += utime() - start;
            const double steps = t_max - 1;
            products += t_max - 1;
            rec_flops += steps * cols * (2.0 * nnz + n);
            rec_bytes += steps * 8.0 * (nnz + 3.0 * static_cast<double>(slab));
        }
        for (int t = 2; t <= t_max; ++t) {
            const double* prev = c + slab * (t - 1);
            const double* cur = c + slab * t;
            if (2 * t - 1 <= m) ks.mu(2 * t - 1) += 2.0 * dot(prev, cur, slab);
            if (2 * t <= m) ks.mu(2 * t) += 2.0 * dot(cur, cur, slab);
        }
    });
    sum_moments(ks, m);
    finish_moments(ks.mu, m, static_cast<double>(n));
    cd_real_3d(cb, "cb", proc, mod);
    last_rate = {rec_flops, rec_seconds, rec_bytes, products};
    if (i_am_master && rec_seconds > 0.0)
        write_free(report_unit, {name, rec_flops / (rec_seconds * 1000000.0), " MFLOPS"});
}

} // namespace

void calc_mu(const hamiltonian_type& h, kpm_state_type& ks) {
    const char* proc = "calc_mu";
    const trace_guard trace(proc, mod);
    const long n = h.desc.n_row;
    const int m = ks.n;
    const int t_max = (m + 1) / 2;
    const int max_cols = max_chunk_columns(ks, h);
    farray<double, 2> c0, c1, c2;
    ca_real_2d(c0, 1, n, 1, max_cols, "c0", proc, mod);
    ca_real_2d(c1, 1, n, 1, max_cols, "c1", proc, mod);
    ca_real_2d(c2, 1, n, 1, max_cols, "c2", proc, mod);
    start_moments(ks, static_cast<double>(n));
    const x_psi_layout lay = hs_layout(h, h.h_ab);
    const double start = utime();
    const double nnz = block_elements(h);
    double flops = 0.0;
    int products = 0;
    for_chunks(ks, [&](int il_first, int n_chunk) {
        double *p0 = c0.data(), *p1 = c1.data(), *p2 = c2.data();
        setzero_r(p0, n * max_cols);
        setzero_r(p1, n * max_cols);
        const int cols = unit_columns(h, il_first, n_chunk, p0, n);
        const long len = n * cols;
        // The general form of the product, whatever the orbital counts.
        x_psi_gen_r(lay, p0, n, p1, n, cols, 0.5);
        ks.mu(1) += dot(p0, p1, len);
        if (m >= 2) ks.mu(2) += 2.0 * dot(p1, p1, len);
        for (int t = 2; t <= t_max; ++t) {
            x_psi_cheby_gen_r(lay, p1, n, p0, n, p2, n, cols, 1.0);
            if (2 * t - 1 <= m) ks.mu(2 * t - 1) += 2.0 * dot(p2, p1, len);
            if (2 * t <= m) ks.mu(2 * t) += 2.0 * dot(p2, p2, len);
            double* rotate = p0;
            p0 = p1;
            p1 = p2;
            p2 = rotate;
        }
        products += t_max;
        flops += static_cast<double>(t_max) * cols * (2.0 * nnz + n);
    });
    sum_moments(ks, m);
    finish_moments(ks.mu, m, static_cast<double>(n));
    const double seconds = utime() - start;
    last_rate = {flops, seconds, 0.0, products};
    if (debug > 0 && i_am_master) write_free(report_unit, {"Moments ", 1, m, "... done."});
    cd_real_2d(c0, "c0", proc, mod);
    cd_real_2d(c1, "c1", proc, mod);
    cd_real_2d(c2, "c2", proc, mod);
}

void calc_mu_new_four(const hamiltonian_type& h, kpm_state_type& ks) {
    moments_fixed<4>(h, ks, "calc_mu_new_four");
}
void calc_mu_new_five(const hamiltonian_type& h, kpm_state_type& ks) {
    moments_fixed<5>(h, ks, "calc_mu_new_five");
}
void calc_mu_new_six(const hamiltonian_type& h, kpm_state_type& ks) {
    moments_fixed<6>(h, ks, "calc_mu_new_six");
}
void calc_mu_new_nine(const hamiltonian_type& h, kpm_state_type& ks) {
    moments_fixed<9>(h, ks, "calc_mu_new_nine");
}

void calc_mu_exact(const kpm_state_type& ks, const farray<double, 1>& eigenvalues,
                   farray<double, 1>& mu, double a, double b) {
    for (int k = 0; k <= ks.n; ++k) mu(k) = 0.0;
    for (long i = eigenvalues.lbound(0); i <= eigenvalues.ubound(0); ++i) {
        const double theta = std::acos((eigenvalues(i) - b) / a);
        for (int k = 0; k <= ks.n; ++k) mu(k) += std::cos(k * theta);
    }
}

kpm_moment_rate_type kpm_last_moment_rate() {
    return last_rate;
}

void calc_dmu(const hamiltonian_type& h, farray<double, 2>& forces, const kpm_state_type& ks) {
    const char* proc = "calc_dmu";
    const trace_guard trace(proc, mod);
    const long n = h.desc.n_row;
    const int m = ks.n;
    const int max_cols = max_chunk_columns(ks, h);
    farray<double, 2> c0, c1, c2, w;
    farray<double, 1> w_diag;
    ca_real_2d(c0, 1, n, 1, max_cols, "c0", proc, mod);
    ca_real_2d(c1, 1, n, 1, max_cols, "c1", proc, mod);
    ca_real_2d(c2, 1, n, 1, max_cols, "c2", proc, mod);
    ca_real_2d(w, 1, n, 1, max_cols, "cinit", proc, mod);
    ca_real_1d(w_diag, 1, n, "w_diag", proc, mod);
    w_diag.fill(0.0);
    const x_psi_layout lay = hs_layout(h, h.h_ab);
    const int n_orb = h.tb_model->same_orbitals ? h.tb_model->max_no : 0;
    const sparse_1d_matrix_desc_type& sd = h.desc;
    const pdist_type& pd = *sd.row_pdist;
    // The gradient of every moment is linear in U_{n-1}(H~): the columns of
    // W = sum_n n de_dmu(n) U_{n-1}(H~) carry the whole force of the chunk, and
    // one contraction with the gradient blocks per chunk follows.
    for_chunks(ks, [&](int il_first, int n_chunk) {
        double *p0 = c0.data(), *p1 = c1.data(), *p2 = c2.data(), *pw = w.data();
        setzero_r(p0, n * max_cols);
        const int cols = unit_columns(h, il_first, n_chunk, p0, n);
        const long len = n * cols;
        const double coef1 = 1.0 * ks.de_dmu(1);
        for (long k = 0; k < len; ++k) pw[k] = coef1 * p0[k];
        if (m >= 2) {
            setzero_r(p1, len);
            x_psi_77_r(lay, n_orb, p0, static_cast<int>(n), p1, static_cast<int>(n), cols, 1.0);
            const double coef = 2.0 * ks.de_dmu(2);
            for (long k = 0; k < len; ++k) pw[k] += coef * p1[k];
        }
        for (int i = 3; i <= m; ++i) {
            x_psi_cheby_77_r(lay, n_orb, p1, static_cast<int>(n), p0, static_cast<int>(n), p2,
                             static_cast<int>(n), cols, 1.0);
            const double coef = i * ks.de_dmu(i);
            for (long k = 0; k < len; ++k) pw[k] += coef * p2[k];
            double* rotate = p0;
            p0 = p1;
            p1 = p2;
            p2 = rotate;
        }
        acum_dmu_dr(h, pw, static_cast<int>(n), il_first, n_chunk, forces);
        // The diagonal of W at the chunk's own orbitals, for the on-site terms.
        int col = 0;
        for (int il = il_first; il < il_first + n_chunk; ++il) {
            const int ig = pd.l2g(il);
            const int r0 = sd.row_block_offset(ig);
            for (int a = 0; a < sd.row_block_dim(ig); ++a, ++col)
                w_diag(r0 + a) = pw[n * col + (r0 - 1 + a)];
        }
    });
    if (h.tb_model->on_site_env) acum_dmu_dr_ons(h, w_diag, forces);
    // Each process holds the forces of its own columns (and of their on-site part).
    gsum_real_mat(forces);
    cd_real_2d(c0, "c0", proc, mod);
    cd_real_2d(c1, "c1", proc, mod);
    cd_real_2d(c2, "c2", proc, mod);
    cd_real_2d(w, "cinit", proc, mod);
    cd_real_1d(w_diag, "w_diag", proc, mod);
}

} // namespace lyrt
