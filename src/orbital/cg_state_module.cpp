#include "orbital/cg_state_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/lapack_module.hpp"
#include "numerics/random_module.hpp"
#include "operators/hs_psi_module.hpp"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>

namespace lyrt {

namespace {

constexpr const char* mod = "cg_state_module";

int rows(const farray<double, 2>& a) {
    return static_cast<int>(a.extent(0));
}
int cols(const farray<double, 2>& a) {
    return static_cast<int>(a.extent(1));
}

struct named_matrix {
    farray<double, 2> cg_state_type::*member;
    const char* name;
    bool orbital; // n_dim x n_occ, else n_occ x n_occ
};

// The matrices of the state in the order they are set up.
constexpr named_matrix matrices[] = {
    {&cg_state_type::psi, "cg%psi", true},           {&cg_state_type::psi_old, "cg%psi_old", true},
    {&cg_state_type::q_psi, "cg%q_psi", true},       {&cg_state_type::grad, "cg%grad", true},
    {&cg_state_type::grad_old, "cg%grad_old", true}, {&cg_state_type::dir, "cg%dir", true},
    {&cg_state_type::s_psi, "cg%s_psi", true},       {&cg_state_type::h_psi, "cg%h_psi", true},
    {&cg_state_type::hq_psi, "cg%hq_psi", true},     {&cg_state_type::sh_psi, "cg%sh_psi", true},
    {&cg_state_type::s_dm, "cg%s_dm", false},        {&cg_state_type::h_dm, "cg%h_dm", false},
    {&cg_state_type::q_dm, "cg%q_dm", false},        {&cg_state_type::a_dm, "cg%a_dm", false},
    {&cg_state_type::b_dm, "cg%b_dm", false},        {&cg_state_type::c_dm, "cg%c_dm", false},
    {&cg_state_type::d_dm, "cg%d_dm", false},
};

constexpr named_matrix extra_matrices[] = {
    {&cg_state_type::aux_psi, "cg%aux_psi", true},
    {&cg_state_type::aux_dm, "cg%aux_dm", false},
    {&cg_state_type::aux_orb_1, "cg%aux_orb_1", true},
    {&cg_state_type::aux_orb_2, "cg%aux_orb_2", true},
    {&cg_state_type::aux_orb_3, "cg%aux_orb_3", true},
    {&cg_state_type::aux_orb_4, "cg%aux_orb_4", true},
    {&cg_state_type::aux_orb_5, "cg%aux_orb_5", true},
};

void allocate_matrix(cg_state_type& cg, const named_matrix& m, const char* proc) {
    const int n_row = m.orbital ? cg.psi_desc.n_row : cg.n_occ;
    ca_real_2d(cg.*(m.member), 1, n_row, 1, cg.n_occ, m.name, proc, mod);
}

// The orbital file: record j is column j, 8 bytes per row.
void open_orbital_file(const cg_state_type& cg, int unit, const std::string& file, bool old) {
    const int n_row = cg.psi_desc.n_row;
    const int ios = unit_open(unit, file, old ? "old" : "unknown", "asis", "direct", 8 * n_row);
    if (ios != 0) {
        if (old) fatal_error("problem opening " + file, ios, "cg_state_read", mod);
        fatal_error("problem creating " + file, ios, "cg_state_write", mod);
    }
    if (!old) return;
    // A direct-access file doesn't keep its record length: a file of n_occ whole
    // records of this row count has exactly this size, any other row count not.
    std::error_code ec;
    const auto size = std::filesystem::file_size(file, ec);
    const auto recl = static_cast<std::uintmax_t>(n_row) * 8;
    if (ec || size != recl * static_cast<std::uintmax_t>(cg.n_occ)) {
        unit_close(unit);
        fatal_error("record length in " + file + " not equal to # of dim",
                    static_cast<long long>(size), "cg_state_read", mod);
    }
}

} // namespace

void cg_state_allocate(cg_state_type& cg, const hamiltonian_type& ham, int n_occ, double /*lo_rad*/,
                       int /*nh*/, int start) {
    const char* proc = "wf_cg_allocate";
    const trace_guard trace(proc, mod);
    cg_state_deallocate(cg);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const int n_ions = sd.row_pdist->n;
    const int n_dim = sd.n_row;
    cg.n_occ = n_occ;
    cg.non_orthogonal = ham.tb_model->non_orthogonal;
    if (!allocation_possible(8LL * (10LL * n_dim * n_occ + 7LL * n_occ * n_occ)))
        allocation_failed("cg%psi", 8LL * 10 * n_dim * n_occ, proc, mod);
    pdist_init(cg.row_pdist, n_ions, 1, 1, 0, "bl");
    pdist_init(cg.col_pdist, n_occ, 1, 1, 0, "bl");
    farray<int, 1> ones;
    ones.allocate({1}, {n_occ});
    ones.fill(1);
    matrix_desc_init(cg.psi_desc, n_dim, n_occ, cg.row_pdist, cg.col_pdist, sd.row_block_dim, ones);
    matrix_desc_init(cg.dm_desc, n_occ, n_occ, cg.col_pdist, cg.col_pdist, ones, ones);
    for (const named_matrix& m : matrices) allocate_matrix(cg, m, proc);
    if (start != 1) cg_state_init(cg, ham, start);
}

void cg_state_deallocate(cg_state_type& cg) {
    const char* proc = "wf_cg_deallocate";
    for (const named_matrix& m : matrices)
        if ((cg.*(m.member)).allocated()) cd_real_2d(cg.*(m.member), m.name, proc, mod);
    for (const named_matrix& m : extra_matrices)
        if ((cg.*(m.member)).allocated()) cd_real_2d(cg.*(m.member), m.name, proc, mod);
    matrix_desc_reset(cg.psi_desc);
    matrix_desc_reset(cg.dm_desc);
    pdist_deallocate(cg.row_pdist);
    pdist_deallocate(cg.col_pdist);
    cg.n_occ = 0;
}

void check_aux_orbital(cg_state_type& cg) {
    if (cg.aux_orb_1.allocated()) return;
    for (std::size_t k = 2; k < std::size(extra_matrices); ++k)
        allocate_matrix(cg, extra_matrices[k], "check_aux_orbital");
}

void cg_state_init(cg_state_type& cg, const hamiltonian_type& ham, int start) {
    const int n_dim = cg.psi_desc.n_row, n_occ = cg.n_occ;
    const int n_ions = cg.row_pdist.n;
    switch (start) {
    case 0:
        random_mat(cg.psi);
        for (int j = 1; j <= n_occ; ++j) {
            double norm = 0.0;
            for (int r = 1; r <= n_dim; ++r) {
                cg.psi(r, j) -= 0.5;
                norm += cg.psi(r, j) * cg.psi(r, j);
            }
            norm = std::sqrt(norm);
            if (norm > 0.0)
                for (int r = 1; r <= n_dim; ++r) cg.psi(r, j) /= norm;
        }
        break;
    case 3:
        // One orbital per ion: columns beyond the ion count stay zero.
        cg.psi.fill(0.0);
        for (int j = 1; j <= std::min(n_occ, n_ions); ++j)
            cg.psi(ham.desc.row_block_offset(j), j) = 1.0;
        break;
    case 4:
        // Two orbitals per group of four rows (the s and p shell of one ion): an odd
        // count leaves the last orbital zero, rows beyond the basis are not written.
        cg.psi.fill(0.0);
        for (int k = 1; k <= n_occ / 2; ++k) {
            const int r = 4 * k - 3;
            for (int m = 0; m < 4 && r + m <= n_dim; ++m) {
                cg.psi(r + m, 2 * k - 1) = 0.5;
                cg.psi(r + m, 2 * k) = m < 2 ? 0.5 : -0.5;
            }
        }
        break;
    default: break;
    }
}

void cg_state_write(cg_state_type& cg, int unit, std::string_view file_name) {
    const std::string file(file_name);
    open_orbital_file(cg, unit, file, false);
    const std::size_t bytes = static_cast<std::size_t>(cg.psi_desc.n_row) * 8;
    // Both passes start at record 1: the second, psi_old, is what stays on disk.
    for (const farray<double, 2>* a : {&cg.psi, &cg.psi_old})
        for (int j = 1; j <= cg.n_occ; ++j)
            if (unit_write_direct(unit, j, &(*a)(1, j), bytes) != 0) {
                unit_close(unit);
                fatal_error("problem creating " + file, j, "cg_state_write", mod);
            }
    unit_close(unit);
}

void cg_state_read(cg_state_type& cg, int unit, std::string_view file_name) {
    const std::string file(file_name);
    open_orbital_file(cg, unit, file, true);
    const std::size_t bytes = static_cast<std::size_t>(cg.psi_desc.n_row) * 8;
    for (farray<double, 2>* a : {&cg.psi, &cg.psi_old})
        for (int j = 1; j <= cg.n_occ; ++j)
            if (unit_read_direct(unit, j, &(*a)(1, j), bytes) != 0) {
                unit_close(unit);
                fatal_error("problem reading " + file, j, "cg_state_read", mod);
            }
    unit_close(unit);
}

void reset_cg_state(cg_state_type& cg) {
    std::copy(cg.psi.begin(), cg.psi.end(), cg.psi_old.begin());
    cg.grad.fill(0.0);
    cg.grad_old.fill(0.0);
    cg.dir.fill(0.0);
}

void update_cg_state(cg_state_type& cg, double x, int step) {
    const trace_guard trace("update_cg_state", mod);
    const std::size_t n = cg.psi.size();
    double* psi = cg.psi.data();
    double* psi_old = cg.psi_old.data();
    double* grad = cg.grad.data();
    double* grad_old = cg.grad_old.data();
    double* dir = cg.dir.data();
    if (step == 0) {
        for (std::size_t k = 0; k < n; ++k) grad_old[k] = dir[k] = grad[k];
    } else if (step > 0) {
        for (std::size_t k = 0; k < n; ++k) {
            dir[k] = grad[k] + x * dir[k];
            grad_old[k] = grad[k];
        }
    } else {
        for (std::size_t k = 0; k < n; ++k) {
            psi_old[k] = psi[k];
            psi[k] = psi_old[k] + x * dir[k];
        }
    }
}

void update_cp_state(cg_state_type& cg, double coeff) {
    const trace_guard trace("update_cg_state", mod);
    const std::size_t n = cg.psi.size();
    double* psi = cg.psi.data();
    double* psi_old = cg.psi_old.data();
    double* prev = cg.dir.data(); // the orbitals before last, in scratch
    const double* grad = cg.grad.data();
    for (std::size_t k = 0; k < n; ++k) {
        prev[k] = psi_old[k];
        psi_old[k] = psi[k];
        psi[k] = 2.0 * psi_old[k] - prev[k] + coeff * grad[k];
    }
}

void calc_dm_ab(const cg_state_type& /*cg*/, const farray<double, 2>& a, const farray<double, 2>& b,
                farray<double, 2>& dm, char symm) {
    const int m = cols(a), n = cols(b), k = rows(a), lda = rows(a), ldb = rows(b), ldc = rows(dm);
    const double one = 1.0, zero = 0.0;
    dgemm_("T", "N", &m, &n, &k, &one, a.data(), &lda, b.data(), &ldb, &zero, dm.data(), &ldc);
    if (symm == 'S' || symm == 's') symm_dm(dm);
}

void symm_dm(farray<double, 2>& dm) {
    const long n = dm.extent(0);
    for (long j = 1; j <= n; ++j) {
        dm(j, j) *= 2.0;
        for (long i = j + 1; i <= n; ++i) dm(i, j) = dm(j, i) = dm(i, j) + dm(j, i);
    }
}

void calc_dm_aa(const cg_state_type& /*cg*/, const farray<double, 2>& a, farray<double, 2>& dm) {
    const int n = cols(a), k = rows(a), lda = rows(a), ldc = rows(dm);
    const double one = 1.0, zero = 0.0;
    dsyrk_("U", "T", &n, &k, &one, a.data(), &lda, &zero, dm.data(), &ldc);
    for (int j = 1; j <= n; ++j)
        for (int i = j + 1; i <= n; ++i) dm(i, j) = dm(j, i);
}

void calc_q_dm(const cg_state_type& /*cg*/, const farray<double, 2>& s_dm,
               farray<double, 2>& q_dm) {
    if (debug > 0) write_free(stdout_unit, {"calc_Qmatrix (Q=2I - S)"});
    const long n = s_dm.extent(0);
    for (long j = 1; j <= n; ++j)
        for (long i = 1; i <= n; ++i) q_dm(i, j) = -s_dm(i, j);
    for (long i = 1; i <= n; ++i) q_dm(i, i) += 2.0;
}

void wf_mult_dm_ab(const cg_state_type& /*cg*/, const farray<double, 2>& a,
                   const farray<double, 2>& dm, farray<double, 2>& b) {
    const int m = rows(a), n = cols(dm), k = cols(a), lda = rows(a), ldb = rows(dm), ldc = rows(b);
    const double one = 1.0, zero = 0.0;
    dgemm_("N", "N", &m, &n, &k, &one, a.data(), &lda, dm.data(), &ldb, &zero, b.data(), &ldc);
}

void wf_mult_dm_aa(cg_state_type& cg, farray<double, 2>& a, const farray<double, 2>& dm) {
    if (!cg.aux_psi.allocated()) allocate_matrix(cg, extra_matrices[0], "wf_mult_dm_aa");
    std::copy(a.begin(), a.end(), cg.aux_psi.begin());
    wf_mult_dm_ab(cg, cg.aux_psi, dm, a);
}

void wf_mult_dm_ab_xx(const cg_state_type& /*cg*/, const farray<double, 2>& a,
                      const farray<double, 2>& dm, farray<double, 2>& b, double x) {
    // b = (1 - x) a first, then the product is added with the scale x.
    const std::size_t n = a.size();
    const double* ap = a.data();
    double* bp = b.data();
    for (std::size_t k = 0; k < n; ++k) bp[k] = (1.0 - x) * ap[k];
    const int m = rows(a), nn = cols(dm), kk = cols(a), lda = rows(a), ldb = rows(dm),
              ldc = rows(b);
    const double one = 1.0;
    dgemm_("N", "N", &m, &nn, &kk, &x, a.data(), &lda, dm.data(), &ldb, &one, b.data(), &ldc);
}

void sum_gradient(cg_state_type& cg, const farray<double, 2>& a, const farray<double, 2>& b) {
    const std::size_t n = cg.grad.size();
    const double* ap = a.data();
    const double* bp = b.data();
    double* g = cg.grad.data();
    for (std::size_t k = 0; k < n; ++k) g[k] = 2.0 * (bp[k] - ap[k]);
}

void hs_psi_cg(const hamiltonian_type& ham, const cg_state_type& /*cg*/, const farray<double, 2>& a,
               const farray<double, 2>& x, farray<double, 2>& b) {
    hs_psi_rmat(ham, x, a, b);
}

double trace_abdm(const cg_state_type& /*cg*/, const farray<double, 2>& a,
                  const farray<double, 2>& b) {
    const std::size_t n = a.size();
    const double* ap = a.data();
    const double* bp = b.data();
    double s = 0.0;
    for (std::size_t k = 0; k < n; ++k) s += ap[k] * bp[k];
    return s;
}

double trace_dm(const cg_state_type& /*cg*/, const farray<double, 2>& a) {
    double s = 0.0;
    for (long i = 1; i <= a.extent(0); ++i) s += a(i, i);
    return s;
}

void project_on_atom_gen(const hamiltonian_type& ham, const cg_state_type& cg, bool /*flag*/,
                         const farray<double, 2>& a, const farray<double, 2>& b,
                         farray<double, 1>& q) {
    // The non-orthogonal form differs only in what the caller passes as b (S0 P).
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const int n_ions = cg.row_pdist.n;
    q.fill(0.0);
    for (int k = 1; k <= cg.n_occ; ++k)
        for (int i = 1; i <= n_ions; ++i) {
            const int r0 = sd.row_block_offset(i), d = sd.row_block_dim(i);
            double s = 0.0;
            for (int o = r0; o < r0 + d; ++o) s += a(o, k) * b(o, k);
            q(i) += 2.0 * s;
        }
}

void project_on_atom_orth(const hamiltonian_type& ham, const cg_state_type& cg,
                          const farray<double, 2>& a, const farray<double, 2>& b,
                          farray<double, 1>& q) {
    project_on_atom_gen(ham, cg, false, a, b, q);
}

void project_on_atom_nonorth(const hamiltonian_type& ham, const cg_state_type& cg,
                             const farray<double, 2>& a, const farray<double, 2>& b,
                             farray<double, 1>& q) {
    project_on_atom_gen(ham, cg, true, a, b, q);
}

void calc_atomic_charge(const hamiltonian_type& ham, const cg_state_type& cg,
                        farray<double, 1>& q) {
    project_on_atom_gen(ham, cg, cg.non_orthogonal, cg.q_psi, cg.non_orthogonal ? cg.s_psi : cg.psi,
                        q);
}

double qsum(const cg_state_type& /*cg*/, const farray<double, 1>& a, const farray<double, 1>& b) {
    double s = 0.0;
    for (long i = 1; i <= a.extent(0); ++i) s += a(i) * b(i);
    return s;
}

void setup_dh_dm(const hamiltonian_type& ham, const cg_state_type& cg, const farray<double, 2>& a,
                 const farray<double, 2>& b, farray<double, 2>& dh_dm, farray<double, 1>* dm_diag) {
    const trace_guard trace("calc_ionic_forces", mod);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const int n_occ = cg.n_occ;
    const long lda = a.extent(0), ldb = b.extent(0);
    const double* ap = a.data();
    const double* bp = b.data();
    dh_dm.fill(0.0);
#pragma omp parallel for schedule(dynamic, 4)
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        const int ri = sd.row_block_offset(ig) - 1, di = sd.row_block_dim(ig);
        double* col = &dh_dm(1, il);
        for (int k = 1; k <= sd.n_blocks(ig); ++k) {
            const int jg = sd.block_index(k, ig);
            const int rj = sd.row_block_offset(jg) - 1, dj = sd.row_block_dim(jg);
            double* blk = col + (sd.ublock_offset(k, ig) - 1);
            for (int m = 0; m < n_occ; ++m) {
                const double* am = ap + lda * m;
                const double* bm = bp + ldb * m;
                for (int o2 = 0; o2 < dj; ++o2) {
                    const double x = am[rj + o2];
                    for (int o = 0; o < di; ++o) blk[o + di * o2] += x * bm[ri + o];
                }
            }
        }
    }
    if (dm_diag == nullptr) return;
    const long n_dim = a.extent(0);
    dm_diag->fill(0.0);
    for (int m = 0; m < n_occ; ++m)
        for (long r = 0; r < n_dim; ++r) (*dm_diag)(r + 1) += ap[lda * m + r] * bp[ldb * m + r];
}

} // namespace lyrt
