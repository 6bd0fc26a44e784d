#include "operators/acum_delem_module_1.hpp"

#include "base/allocate_module.hpp"
#include "base/timing_module.hpp"
#include "parallel/threads_module.hpp"

#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "acum_delem_module_1";

// dxc(s, a) += sum_b g(a, b) psi_t(s, c0 + b) over the states of one block; the
// orbital counts no (rows) and no2 (columns) are compile-time in the kernels.
template <int NO, int NO2>
void block_kernel(const double* __restrict g, const double* __restrict pc, int ns,
                  double* __restrict dxc) {
    for (int a = 0; a < NO; ++a) {
        double* __restrict out = dxc + static_cast<long>(a) * ns;
        for (int b = 0; b < NO2; ++b) {
            const double gab = g[a + NO * b];
            const double* __restrict col = pc + static_cast<long>(b) * ns;
            for (int s = 0; s < ns; ++s) out[s] += gab * col[s];
        }
    }
}

void block_general(const double* __restrict g, int no, int no2, const double* __restrict pc, int ns,
                   double* __restrict dxc) {
    for (int a = 0; a < no; ++a) {
        double* __restrict out = dxc + static_cast<long>(a) * ns;
        for (int b = 0; b < no2; ++b) {
            const double gab = g[a + no * b];
            const double* __restrict col = pc + static_cast<long>(b) * ns;
            for (int s = 0; s < ns; ++s) out[s] += gab * col[s];
        }
    }
}

// The contraction; uniform > 0 selects the kernel of that many orbitals per ion.
void contract(const hamiltonian_type& ham, const farray<double, 2>& psi_t, const double* w,
              const farray<double, 3>& dh, const farray<double, 3>* dh_aa, double factor,
              double* sig3, int uniform) {
    const char* proc = "stress_diag_r";
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const int ns = static_cast<int>(psi_t.extent(0));
    const int max_no = ham.tb_model->max_no;
    // One block of partial sums per thread; the ions are shared among the threads
    // and the three sums reduced at the end.
    std::vector<farray<double, 2>> work(static_cast<std::size_t>(thread_count()));
    for (farray<double, 2>& x : work) ca_real_2d(x, 1, ns, 1, max_no, "dxc", proc, mod);
    const long u_dim = dh.extent(0), l_dim = dh.extent(1);
    const int n_local = pd.l_n;
    for (int d = 1; d <= 3; ++d) {
        double onsite = 0.0, offsite = 0.0;
#pragma omp parallel for schedule(dynamic, 4) reduction(+ : onsite, offsite)
        for (int il = 1; il <= n_local; ++il) {
            farray<double, 2>& dxc = work[static_cast<std::size_t>(thread_index())];
            const int ig = pd.l2g(il);
            const int no = sd.row_block_dim(ig), r0 = sd.row_block_offset(ig);
            const double* pi = &psi_t(1, r0);
            if (dh_aa != nullptr) {
                // The diagonal of the ion itself (the first packed block).
                const int p0 = sd.pblock_offset(1, ig);
                for (int a = 0; a < no; ++a) {
                    const double g = (*dh_aa)(p0 + a, il, d);
                    const double* col = pi + static_cast<long>(a) * ns;
                    double s = 0.0;
                    for (int k = 0; k < ns; ++k) s += col[k] * col[k] * w[k];
                    onsite += g * s;
                }
            }
            dxc.fill(0.0);
            const double* gbase = dh.data() + u_dim * ((il - 1) + l_dim * (d - 1));
            for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
                const int c0 = sd.sblock_offset(jb, ig), no2 = sd.pblock_dim(jb, ig);
                const double* g = gbase + (sd.ublock_offset(jb, ig) - 1);
                const double* pc = &psi_t(1, c0);
                switch (no == no2 ? uniform : 0) {
                case 4: block_kernel<4, 4>(g, pc, ns, dxc.data()); break;
                case 5: block_kernel<5, 5>(g, pc, ns, dxc.data()); break;
                case 6: block_kernel<6, 6>(g, pc, ns, dxc.data()); break;
                case 9: block_kernel<9, 9>(g, pc, ns, dxc.data()); break;
                default: block_general(g, no, no2, pc, ns, dxc.data()); break;
                }
            }
            for (int a = 0; a < no; ++a) {
                const double* x = &dxc(1, a + 1);
                const double* col = pi + static_cast<long>(a) * ns;
                double s = 0.0;
                for (int k = 0; k < ns; ++k) s += x[k] * col[k] * w[k];
                offsite += s;
            }
        }
        sig3[d - 1] += onsite + factor * offsite;
    }
    for (farray<double, 2>& x : work) cd_real_2d(x, "dxc", proc, mod);
}

} // namespace

void stress_diag_r(const hamiltonian_type& ham, const farray<double, 2>& psi_t, const double* w,
                   const farray<double, 3>& dh, const farray<double, 3>* dh_aa, double factor,
                   double* sig3) {
    const tb_model_type& m = *ham.tb_model;
    const int uniform =
        m.same_orbitals && (m.max_no == 4 || m.max_no == 5 || m.max_no == 6 || m.max_no == 9)
            ? m.max_no
            : 0;
    contract(ham, psi_t, w, dh, dh_aa, factor, sig3, uniform);
}

void stress_diag_r_general(const hamiltonian_type& ham, const farray<double, 2>& psi_t,
                           const double* w, const farray<double, 3>& dh,
                           const farray<double, 3>* dh_aa, double factor, double* sig3) {
    contract(ham, psi_t, w, dh, dh_aa, factor, sig3, 0);
}

void stress_dm_r(const hamiltonian_type& ham, const farray<double, 2>& dm,
                 const farray<double, 1>* dm_diag, const farray<double, 3>& dh,
                 const farray<double, 3>* dh_aa, double* sig3) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int d = 1; d <= 3; ++d) {
        double sum = 0.0;
        for (int il = 1; il <= pd.l_n; ++il) {
            const int ig = pd.l2g(il);
            const int no = sd.row_block_dim(ig), r0 = sd.row_block_offset(ig);
            if (dh_aa != nullptr && dm_diag != nullptr) {
                const int p0 = sd.pblock_offset(1, ig);
                for (int a = 0; a < no; ++a) sum += (*dh_aa)(p0 + a, il, d) * (*dm_diag)(r0 + a);
            }
            for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
                const int l0 = sd.ublock_offset(jb, ig), count = no * sd.pblock_dim(jb, ig);
                for (int l = l0; l < l0 + count; ++l) sum += dh(l, il, d) * dm(l, il);
            }
        }
        sig3[d - 1] += sum;
    }
}

void local_proj_dm_r(const hamiltonian_type& ham, const farray<double, 2>& dm, double factor,
                     farray<double, 1>& out) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const bool non_orth = ham.tb_model->non_orthogonal;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il), l0 = sd.ublock_offset(1, ig);
        double q = 0.0;
        if (non_orth) {
            const int nb = sd.n_blocks(ig);
            const int l1 = sd.ublock_offset(nb, ig) + sd.ublock_dim(nb, ig);
            for (int l = l0; l < l1; ++l) q += dm(l, il) * ham.s_ab(l, il);
        } else {
            const int no = sd.row_block_dim(ig);
            for (int a = 0; a < no; ++a) q += dm(l0 + a * (no + 1), il);
        }
        out(ig) += factor * q;
    }
}

} // namespace lyrt
