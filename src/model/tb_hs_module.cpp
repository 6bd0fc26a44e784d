#include "model/tb_hs_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "parallel/mpi_module.hpp"
#include "parallel/threads_module.hpp"
#include "system/constants_module.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <type_traits>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "tb_hs_module";

bool is_letter(std::string_view s, char c) {
    return !s.empty() && std::toupper(static_cast<unsigned char>(s[0])) == c && s.size() == 1;
}

// Which of H and S a call builds: "H", "S", or both (S only for a non-orthogonal
// model). Asking for S of an orthogonal model stops the run with `message`.
void resolve_which(std::string_view which, bool non_orthogonal, bool& want_h, bool& want_s,
                   std::string_view message, const char* proc) {
    want_h = true;
    want_s = non_orthogonal;
    if (is_letter(which, 'H')) {
        want_s = false;
    } else if (is_letter(which, 'S')) {
        want_h = false;
        want_s = true;
    }
    if (want_s && !non_orthogonal) fatal_error(message, -1, proc, mod);
}

// Zeroes a dense matrix column by column, the columns shared among the threads.
void zero_columns(farray<double, 2>& m) {
    const long rows = m.extent(0), cols = m.extent(1);
    double* p = m.data();
#pragma omp parallel for schedule(static)
    for (long c = 0; c < cols; ++c) std::fill(p + c * rows, p + (c + 1) * rows, 0.0);
}

// Work blocks of one build, max_no x max_no each.
struct hs_work {
    farray<double, 1> h_diag;
    farray<double, 2> h_blk, h_tmp, s_blk, s_tmp;
    int ld = 0;
};

void work_allocate(hs_work& w, int max_no, const char* proc) {
    w.ld = max_no;
    ca_real_1d(w.h_diag, 1, max_no, "h_diag_blk", proc, mod);
    ca_real_2d(w.h_blk, 1, max_no, 1, max_no, "h_blk", proc, mod);
    ca_real_2d(w.h_tmp, 1, max_no, 1, max_no, "h_tmp", proc, mod);
    ca_real_2d(w.s_blk, 1, max_no, 1, max_no, "s_blk", proc, mod);
    ca_real_2d(w.s_tmp, 1, max_no, 1, max_no, "s_tmp", proc, mod);
}

void work_free(hs_work& w, const char* proc) {
    cd_real_1d(w.h_diag, "h_diag_blk", proc, mod);
    cd_real_2d(w.h_blk, "h_blk", proc, mod);
    cd_real_2d(w.h_tmp, "h_tmp", proc, mod);
    cd_real_2d(w.s_blk, "s_blk", proc, mod);
    cd_real_2d(w.s_tmp, "s_tmp", proc, mod);
}

// Adds the H and S blocks of one vector v (d = |v|) of pair p.
void add_pair_terms(const offsite_param_type& p, const double* v, double d, bool different,
                    bool want_h, bool want_s, hs_work& w) {
    const double lmn[3] = {v[0] / d, v[1] / d, v[2] / d};
    const int n1 = ao_get_no_type(p.ao1), n2 = ao_get_no_type(p.ao2);
    double x[n_sk] = {};
    if (want_h) {
        calc_h_ij_sk_param(p, x, d);
        for (int b = 1; b <= n2; ++b)
            for (int a = 1; a <= n1; ++a) w.h_tmp(a, b) = 0.0;
        calc_sk_block(lmn, x, w.h_tmp.data(), w.ld, p.ao1, p.ao2, different);
        for (int b = 1; b <= n2; ++b)
            for (int a = 1; a <= n1; ++a) w.h_blk(a, b) += w.h_tmp(a, b);
    }
    if (want_s) {
        calc_s_ij_sk_param(p, x, d);
        for (int b = 1; b <= n2; ++b)
            for (int a = 1; a <= n1; ++a) w.s_tmp(a, b) = 0.0;
        calc_sk_block(lmn, x, w.s_tmp.data(), w.ld, p.ao1, p.ao2, different);
        for (int b = 1; b <= n2; ++b)
            for (int a = 1; a <= n1; ++a) w.s_blk(a, b) += w.s_tmp(a, b);
    }
}

// The block layout the assembly relies on, checked before the threaded loop (which
// may not stop the run): each local ion has one block per neighbour after its own,
// of the size of the two ions' orbitals, and check(il, ig, j, no, no2) passes for
// every block j.
template <class Check>
void check_layout(const hamiltonian_type& ham, const ions_type& ions, Check&& check,
                  const char* proc) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig);
        const nn_list_type& nl = ions_nn_list(ions, ig);
        if (sd.n_blocks(ig) != nl.n_nn + 1)
            fatal_error("ham%n_blocks(ig) /= n_neigh+1", ig, proc, mod);
        check(il, ig, 1, no, no);
        for (int jn = 1; jn <= nl.n_nn; ++jn) {
            const int no2 = sd.pblock_dim(jn + 1, ig);
            if (no * no2 != sd.ublock_dim(jn + 1, ig))
                fatal_error("Unrolled block size/=no1*no2", ig, proc, mod);
            check(il, ig, jn + 1, no, no2);
        }
    }
}

// Work blocks for each thread of the assembly.
std::vector<hs_work> work_per_thread(int max_no, const char* proc) {
    std::vector<hs_work> w(static_cast<std::size_t>(thread_count()));
    for (hs_work& x : w) work_allocate(x, max_no, proc);
    return w;
}

void work_free(std::vector<hs_work>& w, const char* proc) {
    for (hs_work& x : w) work_free(x, proc);
}

// The assembly shared by the block and the dense forms: for each local ion the
// diagonal block (block 1) and the block of each neighbour, handed to store(il,
// ig, j, no, no2, w) with j the block number. The ions are shared among the
// threads; each ion's blocks are built by one thread into that thread's work
// blocks, and store writes only the ion's own part of the result.
template <class Store>
void assemble(hamiltonian_type& ham, const ions_type& ions, const box_type& box, bool want_h,
              bool want_s, std::vector<hs_work>& work, Store&& store) {
    const tb_model_type& model = *ham.tb_model;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const nn_list_type& ic = box.ic_list;
    const double r2 = box.r_cut * box.r_cut;
    if (want_h) init_on_site(model, ions, ic, box.r_cut);
    const int n_local = pd.l_n;
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= n_local; ++il) {
        hs_work& w = work[static_cast<std::size_t>(thread_index())];
        const int ig = pd.l2g(il);
        const int a = ions.type(ig);
        const int no = sd.row_block_dim(ig);
        w.h_blk.fill(0.0);
        w.s_blk.fill(0.0);
        if (want_h) {
            w.h_diag.fill(0.0);
            for (int b = 1; b <= model.n_species; ++b)
                calc_h_ii_sk_param(pair_param(model, a, b), w.h_diag.data(), ig);
            for (int k = 1; k <= no; ++k) w.h_blk(k, k) = w.h_diag(k);
        }
        if (want_s)
            for (int k = 1; k <= no; ++k) w.s_blk(k, k) = 1.0;
        const offsite_param_type& paa = pair_param(model, a, a);
        for (int c = 1; c <= ic.n_nn; ++c) {
            const double* rr = &ic.r_ij(1, c);
            const double d2 = rr[0] * rr[0] + rr[1] * rr[1] + rr[2] * rr[2];
            if (r2 >= d2 && d2 > self_image_min)
                add_pair_terms(paa, rr, std::sqrt(d2), false, want_h, want_s, w);
        }
        store(il, ig, 1, no, no, w);
        const nn_list_type& nl = ions_nn_list(ions, ig);
        for (int jn = 1; jn <= nl.n_nn; ++jn) {
            const int b = ions.type(nl.index(jn));
            const offsite_param_type& p = pair_param(model, a, b);
            const int no2 = sd.pblock_dim(jn + 1, ig);
            for (int q = 1; q <= no2; ++q)
                for (int k = 1; k <= no; ++k) w.h_blk(k, q) = w.s_blk(k, q) = 0.0;
            const double* rij = &nl.r_ij(1, jn);
            for (int c = 1; c <= ic.n_nn; ++c) {
                const double* rr = &ic.r_ij(1, c);
                const double v[3] = {rr[0] + rij[0], rr[1] + rij[1], rr[2] + rij[2]};
                const double d2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                // Ions on one spot have no direction: such a term is left out.
                if (r2 >= d2 && d2 > 0.0)
                    add_pair_terms(p, v, std::sqrt(d2), a != b, want_h, want_s, w);
            }
            store(il, ig, jn + 1, no, no2, w);
        }
    }
}

} // namespace

void calc_hs_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                  std::string_view which) {
    const char* proc = "calc_hs_real";
    const phase_timer wall(phase_assembly);
    const trace_guard trace(proc, mod);
    const double start = utime();
    const tb_model_type& model = *ham.tb_model;
    bool want_h, want_s;
    resolve_which(which, model.non_orthogonal, want_h, want_s,
                  "Trying to calculate S for an orthogonal TB model !", proc);
    if (want_h) zero_columns(ham.h_ab);
    if (want_s) zero_columns(ham.s_ab);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const long l_max = ham.desc.u_n_dim;
    check_layout(
        ham, ions,
        [&](int, int ig, int j, int no, int no2) {
            const long last = sd.ublock_offset(j, ig) + static_cast<long>(no) * no2 - 1;
            if (last > l_max) {
                write_free(report_unit, {ig, j - 1, last, l_max});
                fatal_error("l > l_max", last, proc, mod);
            }
        },
        proc);
    std::vector<hs_work> work = work_per_thread(model.max_no, proc);
    assemble(ham, ions, box, want_h, want_s, work,
             [&](int il, int ig, int j, int no, int no2, hs_work& wk) {
                 int l = sd.ublock_offset(j, ig);
                 for (int b = 1; b <= no2; ++b)
                     for (int a = 1; a <= no; ++a, ++l) {
                         if (want_h) ham.h_ab(l, il) = wk.h_blk(a, b);
                         if (want_s) ham.s_ab(l, il) = wk.s_blk(a, b);
                     }
             });
    work_free(work, proc);
    write_free(timing_unit, {my_proc, "calc_hs_real", utime() - start, "sec"});
}

namespace {

void dense_checks(const hamiltonian_type& ham, const scc_type* scc, const farray<double, 2>* h_ij,
                  const farray<double, 2>* s_ij, const char* proc) {
    if (h_ij == nullptr && s_ij == nullptr)
        fatal_error("Routine called without arguments !", -1, proc, mod);
    if (scc != nullptr && h_ij == nullptr)
        fatal_error("SCC used but H is absent from arguments", -1, proc, mod);
    if (s_ij != nullptr && !ham.tb_model->non_orthogonal)
        fatal_error("Trying to calculate S for an orthogonal TB model !", -1, proc, mod);
}

// The charge term: element (mu of ion i, nu of ion j) of H gets 0.5 (qaux(i) +
// qaux(j)) S(mu, nu), the derivative of sum_i qaux(i) N_i for the Mulliken
// populations N_i; without an overlap (orthogonal model) that is qaux(i) on the
// diagonal of each ion's own block.
void add_scc_terms(const hamiltonian_type& ham, const scc_type& scc, farray<double, 2>& h_ij,
                   const farray<double, 2>* s_ij) {
    if (!scc.used) return;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    if (s_ij == nullptr) {
        for (int il = 1; il <= pd.l_n; ++il) {
            const int ig = pd.l2g(il);
            const int r0 = sd.lrow_block_offset(il), c0 = sd.sblock_offset(1, ig);
            for (int a = 0; a < sd.row_block_dim(ig); ++a) h_ij(r0 + a, c0 + a) += scc.qaux(ig);
        }
        return;
    }
    const int n_ions = sd.col_pdist->n;
    for (int jg = 1; jg <= n_ions; ++jg) {
        const int c0 = sd.col_block_offset(jg), dc = sd.col_block_dim(jg);
        for (int il = 1; il <= pd.l_n; ++il) {
            const int ig = pd.l2g(il);
            const double f = 0.5 * (scc.qaux(ig) + scc.qaux(jg));
            const int r0 = sd.lrow_block_offset(il), dr = sd.row_block_dim(ig);
            for (int c = c0; c < c0 + dc; ++c)
                for (int r = r0; r < r0 + dr; ++r) h_ij(r, c) += f * (*s_ij)(r, c);
        }
    }
}

} // namespace

void calc_hs_ij_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                     const scc_type* scc, farray<double, 2>* h_ij, farray<double, 2>* s_ij) {
    const char* proc = "calc_hs_ij_real";
    const phase_timer wall(phase_assembly);
    const trace_guard trace(proc, mod);
    dense_checks(ham, scc, h_ij, s_ij, proc);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    if (h_ij != nullptr) zero_columns(*h_ij);
    if (s_ij != nullptr) zero_columns(*s_ij);
    const int n_rows =
        h_ij != nullptr ? static_cast<int>(h_ij->extent(0)) : static_cast<int>(s_ij->extent(0));
    const int n_cols =
        h_ij != nullptr ? static_cast<int>(h_ij->extent(1)) : static_cast<int>(s_ij->extent(1));
    check_layout(
        ham, ions,
        [&](int il, int ig, int j, int no, int no2) {
            const int iu = sd.lrow_block_offset(il), ku = sd.sblock_offset(j, ig);
            if (iu + no - 1 > n_rows) fatal_error("iu > n_dim", iu, proc, mod);
            if (ku + no2 - 1 > n_cols) fatal_error("ku > n_dim", ku, proc, mod);
        },
        proc);
    std::vector<hs_work> work = work_per_thread(ham.tb_model->max_no, proc);
    // Each ion writes the rows of its own orbitals.
    assemble(ham, ions, box, h_ij != nullptr, s_ij != nullptr, work,
             [&](int il, int ig, int j, int no, int no2, hs_work& wk) {
                 const int iu = sd.lrow_block_offset(il), ku = sd.sblock_offset(j, ig);
                 for (int b = 1; b <= no2; ++b)
                     for (int a = 1; a <= no; ++a) {
                         if (h_ij != nullptr) (*h_ij)(iu + a - 1, ku + b - 1) += wk.h_blk(a, b);
                         if (s_ij != nullptr) (*s_ij)(iu + a - 1, ku + b - 1) += wk.s_blk(a, b);
                     }
             });
    if (scc != nullptr) add_scc_terms(ham, *scc, *h_ij, s_ij);
    work_free(work, proc);
}

void get_hs_ij_real(const hamiltonian_type& ham, farray<double, 2>* h_ij, farray<double, 2>* s_ij,
                    const scc_type* scc) {
    const char* proc = "get_hs_ij_real";
    const phase_timer wall(phase_assembly);
    dense_checks(ham, scc, h_ij, s_ij, proc);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    if (h_ij != nullptr) zero_columns(*h_ij);
    if (s_ij != nullptr) zero_columns(*s_ij);
    const int n_local = pd.l_n;
    // Each ion writes the rows of its own orbitals.
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= n_local; ++il) {
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig), r0 = sd.lrow_block_offset(il);
        for (int j = 1; j <= sd.n_blocks(ig); ++j) {
            const int no2 = sd.pblock_dim(j, ig), c0 = sd.sblock_offset(j, ig);
            int l = sd.ublock_offset(j, ig);
            for (int b = 0; b < no2; ++b)
                for (int a = 0; a < no; ++a, ++l) {
                    if (h_ij != nullptr) (*h_ij)(r0 + a, c0 + b) = ham.h_ab(l, il);
                    if (s_ij != nullptr) (*s_ij)(r0 + a, c0 + b) = ham.s_ab(l, il);
                }
        }
    }
    if (scc != nullptr) add_scc_terms(ham, *scc, *h_ij, s_ij);
}

namespace {

template <class T>
T phase_as(dcomplex p) {
    if constexpr (std::is_same_v<T, double>)
        return p.real();
    else
        return p;
}

template <class T>
void get_hs_ij_kpt(const hamiltonian_type& ham, const ions_type& ions, const kpt_type& kpt, int ik,
                   farray<T, 2>* h_ij, farray<T, 2>* s_ij, const scc_type* scc, const char* proc) {
    const phase_timer wall(phase_assembly);
    const bool non_orth = ham.tb_model->non_orthogonal;
    if (h_ij == nullptr && s_ij == nullptr)
        fatal_error("Routine called without arguments !", -1, proc, mod);
    if (s_ij != nullptr && !non_orth)
        fatal_error("Trying to calculate S for an orthogonal TB model !", -1, proc, mod);
    const bool charges = scc != nullptr && scc->used && h_ij != nullptr;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    if (h_ij != nullptr) h_ij->fill(T(0));
    if (s_ij != nullptr) s_ij->fill(T(0));
    const int n_local = pd.l_n;
    // Each ion adds into the rows of its own orbitals.
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= n_local; ++il) {
        const int ig = pd.l2g(il);
        const nn_list_type& nl = ions_nn_list(ions, ig);
        const int no = sd.row_block_dim(ig), r0 = sd.lrow_block_offset(il);
        for (int j = 1; j <= sd.n_blocks(ig); ++j) {
            const int no2 = sd.pblock_dim(j, ig), c0 = sd.sblock_offset(j, ig);
            const int origin[3] = {0, 0, 0};
            const T ph =
                phase_as<T>(kpt_lattice_phase(kpt, ik, j == 1 ? origin : &nl.trans(1, j - 1)));
            const double f = charges && non_orth
                                 ? 0.5 * (scc->qaux(ig) + scc->qaux(sd.block_index(j, ig)))
                                 : 0.0;
            int l = sd.ublock_offset(j, ig);
            for (int b = 0; b < no2; ++b)
                for (int a = 0; a < no; ++a, ++l) {
                    if (h_ij != nullptr) {
                        double h = ham.h_ab(l, il);
                        if (non_orth) h += f * ham.s_ab(l, il);
                        (*h_ij)(r0 + a, c0 + b) += ph * h;
                    }
                    if (s_ij != nullptr) (*s_ij)(r0 + a, c0 + b) += ph * ham.s_ab(l, il);
                }
        }
        if (charges && !non_orth)
            for (int a = 0; a < no; ++a) (*h_ij)(r0 + a, r0 + a) += scc->qaux(ig);
    }
}

} // namespace

void get_hs_ij_complex(const hamiltonian_type& ham, const ions_type& ions, const kpt_type& kpt,
                       int ik, farray<dcomplex, 2>* h_ij, farray<dcomplex, 2>* s_ij,
                       const scc_type* scc) {
    get_hs_ij_kpt(ham, ions, kpt, ik, h_ij, s_ij, scc, "get_hs_ij_complex");
}

void get_hs_ij_kreal(const hamiltonian_type& ham, const ions_type& ions, const kpt_type& kpt,
                     int ik, farray<double, 2>* h_ij, farray<double, 2>* s_ij,
                     const scc_type* scc) {
    get_hs_ij_kpt(ham, ions, kpt, ik, h_ij, s_ij, scc, "get_hs_ij_kreal");
}

void calc_hs_ij_bc2d_real(const hamiltonian_type& /*ham*/) {
    const trace_guard trace("calc_hs_ij_bc2d_real", mod);
}

namespace {

// Work blocks of the gradient build.
struct grad_work {
    farray<double, 3> dh_blk, ds_blk; // (max_no, max_no, 3)
    farray<double, 2> hr, hl, hm, hn, sr, sl, sm, sn;
    farray<double, 2> dh_aa_blk; // (max_no, 3)
    int ld = 0;
};

// The eight value and direction blocks of the gradient build, with their names.
std::array<std::pair<farray<double, 2>*, const char*>, 8> grad_blocks(grad_work& w) {
    return {{{&w.hr, "hr"},
             {&w.hl, "hl"},
             {&w.hm, "hm"},
             {&w.hn, "hn"},
             {&w.sr, "sr"},
             {&w.sl, "sl"},
             {&w.sm, "sm"},
             {&w.sn, "sn"}}};
}

constexpr int mode_force = 0, mode_diagonal = 1, mode_off_diagonal = 2;
// Strain components (a, b) of each mode, 0-based: xx, yy, zz and xy, yz, xz.
constexpr int strain_pair[3][3][2] = {
    {{0, 0}, {1, 1}, {2, 2}}, {{0, 0}, {1, 1}, {2, 2}}, {{0, 1}, {1, 2}, {0, 2}}};

// Subtracts from dblk(:,:,c) the derivative of the blocks of pair p by v_a,
// times v_b in the strain modes: -dX/dv_a in force mode.
void add_pair_gradient(const offsite_param_type& p, const double* v, double d, bool different,
                       bool want_h, bool want_s, int mode, grad_work& w) {
    const double lmn[3] = {v[0] / d, v[1] / d, v[2] / d};
    double dl[3], dm[3], dn[3];
    for (int k = 0; k < 3; ++k) {
        dl[k] = ((k == 0 ? 1.0 : 0.0) - lmn[0] * lmn[k]) / d;
        dm[k] = ((k == 1 ? 1.0 : 0.0) - lmn[1] * lmn[k]) / d;
        dn[k] = ((k == 2 ? 1.0 : 0.0) - lmn[2] * lmn[k]) / d;
    }
    const int n1 = ao_get_no_type(p.ao1), n2 = ao_get_no_type(p.ao2);
    auto one = [&](bool overlap, farray<double, 2>& r, farray<double, 2>& bl, farray<double, 2>& bm,
                   farray<double, 2>& bn, farray<double, 3>& out) {
        double x[n_sk] = {}, dx[n_sk] = {};
        if (overlap) {
            calc_s_ij_sk_param(p, x, d);
            calc_ds_ij_sk_param(p, dx, d);
        } else {
            calc_h_ij_sk_param(p, x, d);
            calc_dh_ij_sk_param(p, dx, d);
        }
        r.fill(0.0);
        bl.fill(0.0);
        bm.fill(0.0);
        bn.fill(0.0);
        calc_sk_block(lmn, dx, r.data(), w.ld, p.ao1, p.ao2, different);
        calc_sk_block_derivatives(lmn, x, bl.data(), bm.data(), bn.data(), w.ld, p.ao1, p.ao2,
                                  different);
        for (int c = 0; c < 3; ++c) {
            const int al = strain_pair[mode][c][0];
            const double factor = mode == mode_force ? 1.0 : v[strain_pair[mode][c][1]];
            for (int b = 1; b <= n2; ++b)
                for (int a = 1; a <= n1; ++a)
                    out(a, b, c + 1) -= (r(a, b) * lmn[al] + bl(a, b) * dl[al] + bm(a, b) * dm[al] +
                                         bn(a, b) * dn[al]) *
                                        factor;
        }
    };
    if (want_h) one(false, w.hr, w.hl, w.hm, w.hn, w.dh_blk);
    if (want_s) one(true, w.sr, w.sl, w.sm, w.sn, w.ds_blk);
}

void grad_work_allocate(grad_work& w, int mx, const char* proc) {
    w.ld = mx;
    ca_real_3d(w.dh_blk, 1, mx, 1, mx, 1, 3, "dh_blk", proc, mod);
    ca_real_3d(w.ds_blk, 1, mx, 1, mx, 1, 3, "ds_blk", proc, mod);
    for (const auto& [x, name] : grad_blocks(w)) ca_real_2d(*x, 1, mx, 1, mx, name, proc, mod);
    ca_real_2d(w.dh_aa_blk, 1, mx, 1, 3, "dh_aa_blk", proc, mod);
}

void grad_work_free(grad_work& w, const char* proc) {
    cd_real_3d(w.dh_blk, "dh_blk", proc, mod);
    cd_real_3d(w.ds_blk, "ds_blk", proc, mod);
    for (const auto& [x, name] : grad_blocks(w)) cd_real_2d(*x, name, proc, mod);
    cd_real_2d(w.dh_aa_blk, "dh_aa_blk", proc, mod);
}

} // namespace

void calc_hs_grad_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                       std::string_view which, std::string_view strain) {
    const char* proc = "calc_hs_grad_real";
    const phase_timer wall(phase_gradients);
    const trace_guard trace(proc, mod);
    const double start = utime();
    const tb_model_type& model = *ham.tb_model;
    bool want_h, want_s;
    resolve_which(which, model.non_orthogonal, want_h, want_s,
                  "Trying to calculate dS_ab for an orthogonal TB model !", proc);
    int mode = mode_force;
    if (is_letter(strain, 'D')) mode = mode_diagonal;
    if (is_letter(strain, 'O')) mode = mode_off_diagonal;

    const int mx = model.max_no;
    std::vector<grad_work> work(static_cast<std::size_t>(thread_count()));
    for (grad_work& w : work) grad_work_allocate(w, mx, proc);

    const bool on_site = want_h && model.on_site_env;
    if (want_h) init_on_site_grad(model, ions, box.ic_list, box.r_cut);
    // Each ion's columns are cleared by the thread that builds them; columns past
    // the local ions (none with one process) here.
    auto clear_column = [&](int il) {
        for (int c = 1; c <= 3; ++c) {
            if (want_h)
                std::fill(&ham.dh_ab(1, il, c), &ham.dh_ab(1, il, c) + ham.dh_ab.extent(0), 0.0);
            if (want_s)
                std::fill(&ham.ds_ab(1, il, c), &ham.ds_ab(1, il, c) + ham.ds_ab.extent(0), 0.0);
            if (on_site)
                std::fill(&ham.dh_aa(1, il, c), &ham.dh_aa(1, il, c) + ham.dh_aa.extent(0), 0.0);
        }
    };

    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const nn_list_type& ic = box.ic_list;
    const double r2 = box.r_cut * box.r_cut;
    const long ju_max = ham.dh_aa.allocated() ? ham.dh_aa.extent(0) : 0;
    const long l_max = sd.u_n_dim;
    const int k_diag = mode == mode_force ? 0 : (mode == mode_diagonal ? -1 : -4);
    const int n_columns = static_cast<int>(want_h ? ham.dh_ab.extent(1) : ham.ds_ab.extent(1));
    for (int il = pd.l_n + 1; il <= n_columns; ++il) clear_column(il);

    check_layout(
        ham, ions,
        [&](int, int ig, int j, int no, int no2) {
            if (j == 1 && no != sd.pblock_dim(1, ig))
                fatal_error("no1 /= ham%desc%pblock_dim(1,ig)", ig, proc, mod);
            if (on_site && (j == 1 || mode == mode_force)) {
                const int ju = sd.pblock_offset(j, ig);
                if (ju + no2 - 1 > ju_max) {
                    write_free(report_unit, {ig, j, ju + no2 - 1, ju_max});
                    fatal_error("ju > size(ham%dh_aa,1)", ju + no2 - 1, proc, mod);
                }
            }
            const long last = sd.ublock_offset(j, ig) + static_cast<long>(no) * no2 - 1;
            if (last > l_max) {
                write_free(report_unit, {ig, j, last, l_max});
                fatal_error("l > l_max", last, proc, mod);
            }
        },
        proc);

    auto store_diag = [&](const grad_work& w, int il, int ig, int j, int no) {
        const int ju = sd.pblock_offset(j, ig);
        for (int m = 1; m <= 3; ++m)
            for (int a = 1; a <= no; ++a) ham.dh_aa(ju + a - 1, il, m) = w.dh_aa_blk(a, m);
    };
    auto store_blocks = [&](const grad_work& w, int il, int ig, int j, int no, int no2) {
        const int l0 = sd.ublock_offset(j, ig);
        for (int c = 1; c <= 3; ++c) {
            int l = l0;
            for (int b = 1; b <= no2; ++b)
                for (int a = 1; a <= no; ++a, ++l) {
                    if (want_h) ham.dh_ab(l, il, c) = w.dh_blk(a, b, c);
                    if (want_s) ham.ds_ab(l, il, c) = w.ds_blk(a, b, c);
                }
        }
    };

    // The ions are shared among the threads; each writes only its own ion's column.
    const int n_local = pd.l_n;
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= n_local; ++il) {
        grad_work& w = work[static_cast<std::size_t>(thread_index())];
        clear_column(il);
        const int ig = pd.l2g(il);
        const int a = ions.type(ig);
        const int no = sd.row_block_dim(ig);
        const nn_list_type& nl = ions_nn_list(ions, ig);
        if (on_site) {
            w.dh_aa_blk.fill(0.0);
            for (int b = 1; b <= model.n_species; ++b)
                calc_dh_ii_sk_param(pair_param(model, a, b), w.dh_aa_blk.data(), mx, ig, ig,
                                    k_diag);
            store_diag(w, il, ig, 1, no);
            if (mode == mode_force)
                for (int jn = 1; jn <= nl.n_nn; ++jn) {
                    const int j = nl.index(jn);
                    const int b = ions.type(j);
                    w.dh_aa_blk.fill(0.0);
                    calc_dh_ii_sk_param(pair_param(model, b, a), w.dh_aa_blk.data(), mx, ig, j, jn);
                    store_diag(w, il, ig, jn + 1, sd.pblock_dim(jn + 1, ig));
                }
        }
        if (mode != mode_force) {
            // The self images of the diagonal block respond to strain.
            w.dh_blk.fill(0.0);
            w.ds_blk.fill(0.0);
            const offsite_param_type& paa = pair_param(model, a, a);
            for (int c = 1; c <= ic.n_nn; ++c) {
                const double* rr = &ic.r_ij(1, c);
                const double d2 = rr[0] * rr[0] + rr[1] * rr[1] + rr[2] * rr[2];
                if (r2 >= d2 && d2 > self_image_min)
                    add_pair_gradient(paa, rr, std::sqrt(d2), false, want_h, want_s, mode, w);
            }
            store_blocks(w, il, ig, 1, no, no);
        }
        for (int jn = 1; jn <= nl.n_nn; ++jn) {
            const int b = ions.type(nl.index(jn));
            const offsite_param_type& p = pair_param(model, a, b);
            w.dh_blk.fill(0.0);
            w.ds_blk.fill(0.0);
            const double* rij = &nl.r_ij(1, jn);
            for (int c = 1; c <= ic.n_nn; ++c) {
                const double* rr = &ic.r_ij(1, c);
                const double v[3] = {rr[0] + rij[0], rr[1] + rij[1], rr[2] + rij[2]};
                const double d2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                if (r2 >= d2 && d2 > self_image_min)
                    add_pair_gradient(p, v, std::sqrt(d2), a != b, want_h, want_s, mode, w);
            }
            store_blocks(w, il, ig, jn + 1, no, sd.pblock_dim(jn + 1, ig));
        }
    }
    for (grad_work& w : work) grad_work_free(w, proc);
    write_free(timing_unit, {my_proc, "calc_hs_grad_real", utime() - start, "sec"});
}

void print_matrix_real(const farray<double, 2>& m, int unit) {
    for (long i = m.lbound(0); i <= m.ubound(0); ++i) {
        fitem_list row;
        for (long j = m.lbound(1); j <= m.ubound(1); ++j) row.emplace_back(m(i, j));
        write_fmt(unit, "(4(E16.8,2X))", row);
    }
}

void tb_hs_print(const hamiltonian_type& ham, int unit) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        write_free(unit, {"ion", ig, "blocks", sd.n_blocks(ig)});
        for (int j = 1; j <= sd.n_blocks(ig); ++j) {
            fitem_list row{"block", j, "with", sd.block_index(j, ig), ":"};
            for (int l = sd.ublock_offset(j, ig);
                 l < sd.ublock_offset(j, ig) + sd.ublock_dim(j, ig); ++l)
                row.emplace_back(ham.h_ab(l, il));
            write_free(unit, row);
        }
    }
}

} // namespace lyrt
