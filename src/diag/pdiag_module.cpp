#include "diag/pdiag_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "diag/diag_module.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#if defined(LYRT_MPI)
#include <elpa/elpa_version.h>

// The few calls of ELPA's C interface the solve takes (its header is C11).
extern "C" {
struct elpa_struct;
typedef struct elpa_struct* elpa_t;
int elpa_init(int api_version);
elpa_t elpa_allocate(int* error);
void elpa_deallocate(elpa_t handle, int* error);
int elpa_setup(elpa_t handle);
void elpa_set_integer(elpa_t handle, const char* name, int value, int* error);
void elpa_generalized_eigenvectors_d(elpa_t handle, double* a, double* b, double* ev, double* q,
                                     int is_already_decomposed, int* error);
void elpa_generalized_eigenvalues_d(elpa_t handle, double* a, double* b, double* ev,
                                    int is_already_decomposed, int* error);
void elpa_eigenvectors_a_h_a_d(elpa_t handle, double* a, double* ev, double* q, int* error);
void elpa_eigenvalues_a_h_a_d(elpa_t handle, double* a, double* ev, int* error);

void pdsygvx_(const int* ibtype, const char* jobz, const char* range, const char* uplo,
              const int* n, double* a, const int* ia, const int* ja, const int* desca, double* b,
              const int* ib, const int* jb, const int* descb, const double* vl, const double* vu,
              const int* il, const int* iu, const double* abstol, int* m, int* nz, double* w,
              const double* orfac, double* z, const int* iz, const int* jz, const int* descz,
              double* work, const int* lwork, int* iwork, const int* liwork, int* ifail,
              int* iclustr, double* gap, int* info);
void pdsyevx_(const char* jobz, const char* range, const char* uplo, const int* n, double* a,
              const int* ia, const int* ja, const int* desca, const double* vl, const double* vu,
              const int* il, const int* iu, const double* abstol, int* m, int* nz, double* w,
              const double* orfac, double* z, const int* iz, const int* jz, const int* descz,
              double* work, const int* lwork, int* iwork, const int* liwork, int* ifail,
              int* iclustr, double* gap, int* info);
double pdlamch_(const int* ictxt, const char* cmach);
void pdgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
             const double* alpha, const double* a, const int* ia, const int* ja, const int* desca,
             const double* b, const int* ib, const int* jb, const int* descb, const double* beta,
             double* c, const int* ic, const int* jc, const int* descc);
}
#endif

namespace lyrt {

namespace {

constexpr const char* mod = "pdiag_module";

// Block size of the distributed matrices: ELPA and ScaLAPACK run near their best
// with blocks of 32 to 64.
constexpr int dist_block = 32;

// Calls f(il, ig, jb, l, r, c, lr, lc) for every element of the blocks of sd that
// this process holds on the grid of d: ion il (global ig), block jb, place l in the
// block layout, global row and column (r, c), local row and column (lr, lc).
template <class F>
void for_held_elements(const sparse_1d_matrix_desc_type& sd, const blacs_distr_type& d, F&& f) {
    const pdist_type& pd = *sd.row_pdist;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig), r0 = sd.row_block_offset(ig);
        for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
            const int no2 = sd.pblock_dim(jb, ig), c0 = sd.sblock_offset(jb, ig);
            int l = sd.ublock_offset(jb, ig);
            for (int b = 0; b < no2; ++b) {
                const int c = c0 + b;
                const bool col_here = bc_owner(c, d.nb, d.npcol) == d.mycol;
                const int lc = bc_local(c, d.nb, d.npcol);
                for (int a = 0; a < no; ++a, ++l) {
                    const int r = r0 + a;
                    if (col_here && bc_owner(r, d.mb, d.nprow) == d.myrow)
                        f(il, ig, jb, l, r, c, bc_local(r, d.mb, d.nprow), lc);
                }
            }
        }
    }
}

int solver_choice = pdiag_elpa;
int last_solver = pdiag_elpa;

#if defined(LYRT_MPI)
// ELPA's handle for the present shape of problem; made again when the shape changes.
struct elpa_handle {
    elpa_t h = nullptr;
    int n = 0, nev = 0, ctxt = -1;
    bool failed = false; // ELPA refused this shape: ScaLAPACK alone from here on
};
elpa_handle elpa_state;

bool elpa_ready(const blacs_distr_type& d, int n, int nev) {
    elpa_handle& e = elpa_state;
    if (e.h != nullptr && e.n == n && e.nev == nev && e.ctxt == d.ctxt) return true;
    if (e.failed && e.n == n && e.nev == nev && e.ctxt == d.ctxt) return false;
    int err = 0;
    if (e.h != nullptr) elpa_deallocate(e.h, &err);
    e = elpa_handle{};
    e.n = n;
    e.nev = nev;
    e.ctxt = d.ctxt;
    static bool initialised = false;
    if (!initialised) {
        if (elpa_init(ELPA_API_VERSION) != 0) {
            e.failed = true;
            return false;
        }
        initialised = true;
    }
    e.h = elpa_allocate(&err);
    if (err != 0 || e.h == nullptr) {
        e.failed = true;
        e.h = nullptr;
        return false;
    }
    int bad = 0;
    const auto set = [&](const char* name, int value) {
        elpa_set_integer(e.h, name, value, &err);
        bad |= err;
    };
    set("na", n);
    set("nev", nev);
    set("local_nrows", d.l_m);
    set("local_ncols", d.l_n);
    set("nblk", d.mb);
    set("mpi_comm_parent", mpi_comm_f());
    set("process_row", d.myrow);
    set("process_col", d.mycol);
    set("blacs_context", d.ctxt);
    if (bad == 0 && elpa_setup(e.h) == 0) {
        set("solver", 1); // the one-stage solver
    } else {
        bad = 1;
    }
    if (bad != 0) {
        elpa_deallocate(e.h, &err);
        e.h = nullptr;
        e.failed = true;
        return false;
    }
    return true;
}

// ScaLAPACK's expert drivers for the lowest n_wanted states; the results are
// tested as a subset solve: m = nz = n_wanted.
void scalapack_solve(eig_state_type& eig, bool non_orth, bool vectors, int n_wanted) {
    blacs_distr_type& d = eig.d;
    const int n = d.n, one = 1, ibtype = 1;
    const char jobz = vectors ? 'V' : 'N', range = 'I', uplo = 'U';
    const double vl = 0.0, vu = 0.0, orfac = 1e-3;
    const double abstol = 2.0 * pdlamch_(&d.ctxt, "S");
    int m = 0, nz = 0, info = 0;
    const int n_places = d.nprow * d.npcol;
    std::vector<int> ifail(static_cast<std::size_t>(n)), iclustr(2 * n_places);
    std::vector<double> gap(static_cast<std::size_t>(n_places));
    double* z = vectors ? eig.z_loc.data() : nullptr;
    double* s = non_orth ? eig.s_loc.data() : nullptr;
    // Workspace query, then the solve with room for reorthogonalising clusters.
    double wq = 0.0;
    int iq = 0, lw = -1, liw = -1;
    if (non_orth)
        pdsygvx_(&ibtype, &jobz, &range, &uplo, &n, eig.h_loc.data(), &one, &one, d.desc, s, &one,
                 &one, d.desc, &vl, &vu, &one, &n_wanted, &abstol, &m, &nz, eig.ework.data(),
                 &orfac, z, &one, &one, d.desc, &wq, &lw, &iq, &liw, ifail.data(), iclustr.data(),
                 gap.data(), &info);
    else
        pdsyevx_(&jobz, &range, &uplo, &n, eig.h_loc.data(), &one, &one, d.desc, &vl, &vu, &one,
                 &n_wanted, &abstol, &m, &nz, eig.ework.data(), &orfac, z, &one, &one, d.desc, &wq,
                 &lw, &iq, &liw, ifail.data(), iclustr.data(), gap.data(), &info);
    lw = static_cast<int>(wq) + 4 * n + n * std::max(1, n_wanted / n_places);
    liw = std::max(iq, 6 * std::max(n, n_places + 1)) + 16;
    std::vector<double> work(static_cast<std::size_t>(lw));
    std::vector<int> iwork(static_cast<std::size_t>(liw));
    if (non_orth)
        pdsygvx_(&ibtype, &jobz, &range, &uplo, &n, eig.h_loc.data(), &one, &one, d.desc, s, &one,
                 &one, d.desc, &vl, &vu, &one, &n_wanted, &abstol, &m, &nz, eig.ework.data(),
                 &orfac, z, &one, &one, d.desc, work.data(), &lw, iwork.data(), &liw, ifail.data(),
                 iclustr.data(), gap.data(), &info);
    else
        pdsyevx_(&jobz, &range, &uplo, &n, eig.h_loc.data(), &one, &one, d.desc, &vl, &vu, &one,
                 &n_wanted, &abstol, &m, &nz, eig.ework.data(), &orfac, z, &one, &one, d.desc,
                 work.data(), &lw, iwork.data(), &liw, ifail.data(), iclustr.data(), gap.data(),
                 &info);
    slp_status_type st;
    st.info = info;
    st.m = m;
    st.nz = vectors ? nz : m;
    st.abstol = abstol;
    if (non_orth)
        calc_gen_eigen_real_slp(n, st, n_wanted);
    else
        calc_eigen_real_slp(n, st, n_wanted);
}
#endif

} // namespace

void pdiag_set_solver(int code) {
    solver_choice = code;
}

int pdiag_last_solver() {
    return last_solver;
}

void pdiag_setup([[maybe_unused]] eig_state_type& eig, [[maybe_unused]] int n_dim,
                 [[maybe_unused]] bool non_orth) {
#if defined(LYRT_MPI)
    if (n_proc < 2) return;
    int nprow = 1, npcol = 1;
    bc_grid_shape(n_proc, nprow, npcol);
    set_proc_grid(eig.d, nprow, npcol);
    // Small matrices get smaller blocks, so that every place holds some.
    const int nb = std::max(1, std::min(dist_block, n_dim / std::max(nprow, npcol)));
    init_blacs_distr(eig.d, n_dim, n_dim, nb, nb);
    alloc_matrix_bc_distr_r(eig.d, eig.h_loc, "eig_state%h_loc");
    if (non_orth) alloc_matrix_bc_distr_r(eig.d, eig.s_loc, "eig_state%s_loc");
    alloc_matrix_bc_distr_r(eig.d, eig.z_loc, "eig_state%z_loc");
    if (i_am_master)
        write_free(report_unit, {"distributed dense matrices: grid", nprow, "x", npcol, ", blocks",
                                 nb, ", local", eig.d.l_m, "x", eig.d.l_n});
#endif
}

void get_hs_ij_dist(const hamiltonian_type& ham, eig_state_type& eig, const scc_type* scc) {
    const char* proc = "get_hs_ij_dist";
    const phase_timer wall(phase_assembly);
    const trace_guard trace(proc, mod);
    const blacs_distr_type& d = eig.d;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const bool non_orth = eig.s_loc.allocated();
    const bool charges = scc != nullptr && scc->used;
    eig.h_loc.fill(0.0);
    if (non_orth) eig.s_loc.fill(0.0);
    // Every element of every block is placed where the grid keeps it.
    for_held_elements(sd, d, [&](int il, int ig, int jb, int l, int r, int c, int lr, int lc) {
        double h = ham.h_ab(l, il);
        if (non_orth) {
            const int jg = sd.block_index(jb, ig);
            eig.s_loc(lr, lc) = ham.s_ab(l, il);
            if (charges) h += 0.5 * (scc->qaux(ig) + scc->qaux(jg)) * ham.s_ab(l, il);
        } else if (charges && r == c) {
            h += scc->qaux(ig);
        }
        eig.h_loc(lr, lc) = h;
    });
}

void pdiag_solve([[maybe_unused]] eig_state_type& eig, [[maybe_unused]] bool non_orth,
                 [[maybe_unused]] bool vectors, [[maybe_unused]] int n_wanted) {
#if defined(LYRT_MPI)
    const char* proc = "pdiag_solve";
    const phase_timer wall(phase_eigen);
    const trace_guard trace(proc, mod);
    blacs_distr_type& d = eig.d;
    const int n = d.n;
    if (solver_choice == pdiag_elpa && elpa_ready(d, n, n_wanted)) {
        int err = 0;
        elpa_t h = elpa_state.h;
        if (non_orth && vectors)
            elpa_generalized_eigenvectors_d(h, eig.h_loc.data(), eig.s_loc.data(), eig.ework.data(),
                                            eig.z_loc.data(), 0, &err);
        else if (non_orth)
            elpa_generalized_eigenvalues_d(h, eig.h_loc.data(), eig.s_loc.data(), eig.ework.data(),
                                           0, &err);
        else if (vectors)
            elpa_eigenvectors_a_h_a_d(h, eig.h_loc.data(), eig.ework.data(), eig.z_loc.data(),
                                      &err);
        else
            elpa_eigenvalues_a_h_a_d(h, eig.h_loc.data(), eig.ework.data(), &err);
        if (err == 0) {
            last_solver = pdiag_elpa;
            return;
        }
        // The matrices are spoilt: the caller's message names the likely cause.
        const std::string hint = d.failure_hint.empty() ? "" : " (" + d.failure_hint + ")";
        fatal_error("ELPA failed to solve the eigenproblem" + hint, err, proc, mod);
    }
    last_solver = pdiag_scalapack;
    scalapack_solve(eig, non_orth, vectors, n_wanted);
#endif
}

void setup_dh_dm_dist([[maybe_unused]] const hamiltonian_type& ham,
                      [[maybe_unused]] const eig_state_type& eig, [[maybe_unused]] const double* w,
                      [[maybe_unused]] int n_w, [[maybe_unused]] farray<double, 2>& dm,
                      [[maybe_unused]] farray<double, 1>* dm_diag) {
#if defined(LYRT_MPI)
    const char* proc = "setup_dh_dm_dist";
    const phase_timer wall(phase_density);
    const blacs_distr_type& d = eig.d;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const int n = d.n, one = 1;
    // D = (Z W) Z^T over the first n_w states: the local columns of Z scaled by
    // their weights, the product distributed.
    farray<double, 2> zw, dd;
    alloc_matrix_bc_distr_r(d, zw, "zw");
    alloc_matrix_bc_distr_r(d, dd, "density_matrix");
    for (int lc = 1; lc <= d.l_n; ++lc) {
        const int g = bc_global(lc, d.nb, d.npcol, d.mycol);
        const double wg = g <= n_w ? w[g - 1] : 0.0;
        for (int lr = 1; lr <= d.l_m; ++lr) zw(lr, lc) = wg * eig.z_loc(lr, lc);
    }
    const double alpha = 1.0, beta = 0.0;
    pdgemm_("N", "T", &n, &n, &n_w, &alpha, zw.data(), &one, &one, d.desc, eig.z_loc.data(), &one,
            &one, d.desc, &beta, dd.data(), &one, &one, d.desc);
    // Each process fills the block elements it holds; the global sum completes them.
    const long rows = dm.extent(0);
    for (int il = 1; il <= pd.l_n; ++il) std::fill(&dm(1, il), &dm(1, il) + rows, 0.0);
    for_held_elements(
        sd, d, [&](int il, int, int, int l, int, int, int lr, int lc) { dm(l, il) = dd(lr, lc); });
    gsum_real_ptr(dm.data(), rows * pd.l_n);
    if (dm_diag != nullptr) {
        dm_diag->fill(0.0);
        for (int r = 1; r <= n; ++r)
            if (bc_owner(r, d.mb, d.nprow) == d.myrow && bc_owner(r, d.nb, d.npcol) == d.mycol)
                (*dm_diag)(r) = dd(bc_local(r, d.mb, d.nprow), bc_local(r, d.nb, d.npcol));
        gsum_real_vec(*dm_diag);
    }
    cd_real_2d(zw, "zw", proc, mod);
    cd_real_2d(dd, "density_matrix", proc, mod);
#endif
}

void pdiag_form_s_z([[maybe_unused]] const hamiltonian_type& ham,
                    [[maybe_unused]] eig_state_type& eig) {
#if defined(LYRT_MPI)
    const phase_timer wall(phase_density);
    const blacs_distr_type& d = eig.d;
    // The solver left its factor of S in s_loc: S again from the blocks.
    eig.s_loc.fill(0.0);
    for_held_elements(ham.desc, d, [&](int il, int, int, int l, int, int, int lr, int lc) {
        eig.s_loc(lr, lc) = ham.s_ab(l, il);
    });
    if (!eig.sz_loc.allocated()) alloc_matrix_bc_distr_r(d, eig.sz_loc, "eig_state%sz_loc");
    const int n = d.n, ns = eig.n_states, one = 1;
    const double alpha = 1.0, beta = 0.0;
    pdgemm_("N", "N", &n, &ns, &n, &alpha, eig.s_loc.data(), &one, &one, d.desc, eig.z_loc.data(),
            &one, &one, d.desc, &beta, eig.sz_loc.data(), &one, &one, d.desc);
#endif
}

void eig_calc_local_proj_dist(const hamiltonian_type& ham, const eig_state_type& eig,
                              const farray<double, 1>& w, farray<double, 1>& out) {
    const char* proc = "eig_calc_local_proj_dist";
    const blacs_distr_type& d = eig.d;
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const int n_ions = sd.row_pdist->n;
    // Each process sums w(j) z(mu, j) (S z)(mu, j) over the elements it holds (S z is
    // z itself in an orthogonal model), by the ion of the row; one global sum.
    const bool non_orth = ham.tb_model->non_orthogonal;
    if (non_orth && !eig.sz_loc.allocated())
        fatal_error("S z of the distributed states is not formed", -1, proc, mod);
    const farray<double, 2>& y = non_orth ? eig.sz_loc : eig.z_loc;
    farray<double, 1> part;
    ca_real_1d(part, 1, n_ions, "part", proc, mod);
    part.fill(0.0);
    for (int ig = 1; ig <= n_ions; ++ig) {
        const int r0 = sd.row_block_offset(ig);
        for (int r = r0; r < r0 + sd.row_block_dim(ig); ++r) {
            if (bc_owner(r, d.mb, d.nprow) != d.myrow) continue;
            const int lr = bc_local(r, d.mb, d.nprow);
            for (int lc = 1; lc <= d.l_n; ++lc) {
                const int g = bc_global(lc, d.nb, d.npcol, d.mycol);
                if (g <= eig.n_states) part(ig) += w(g) * eig.z_loc(lr, lc) * y(lr, lc);
            }
        }
    }
    gsum_real_vec(part);
    for (int ig = 1; ig <= n_ions; ++ig) out(ig) += part(ig);
    cd_real_1d(part, "part", proc, mod);
}

void eig_gather_column(const eig_state_type& eig, int j, double* col) {
    const blacs_distr_type& d = eig.d;
    std::vector<double> v(static_cast<std::size_t>(d.n), 0.0);
    if (bc_owner(j, d.nb, d.npcol) == d.mycol) {
        const int lc = bc_local(j, d.nb, d.npcol);
        for (int lr = 1; lr <= d.l_m; ++lr)
            v[static_cast<std::size_t>(bc_global(lr, d.mb, d.nprow, d.myrow) - 1)] =
                eig.z_loc(lr, lc);
    }
    gsum_real_ptr(v.data(), d.n);
    if (i_am_master) std::copy(v.begin(), v.end(), col);
}

} // namespace lyrt
