#include "operators/hs_psi_module.hpp"

#include "base/timing_module.hpp"

namespace lyrt {

namespace {
double product_seconds = 0.0;

// Orbitals per ion when every ion has the same number, else 0.
int uniform_orbitals(const hamiltonian_type& ham) {
    return ham.tb_model->same_orbitals ? ham.tb_model->max_no : 0;
}

void dx_product(const hamiltonian_type& ham, const farray<double, 3>& d, int il,
                const farray<double, 2>& x, farray<double, 3>& out) {
    const farray<const double, 2> col0 = d.slice_last(1);
    const x_psi_layout m = hs_layout(ham, col0);
    const long stride = static_cast<long>(d.extent(0)) * d.extent(1);
    dx_psi_xyz(m, uniform_orbitals(ham), il, d.data(), stride, x.data(),
               static_cast<int>(x.extent(0)), out.data(), static_cast<int>(out.extent(0)),
               static_cast<int>(x.extent(1)));
}

} // namespace

x_psi_layout hs_layout(const hamiltonian_type& ham, const farray<double, 2>& m) {
    return hs_layout(ham, m.view());
}

x_psi_layout hs_layout(const hamiltonian_type& ham, const farray<const double, 2>& m) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    // One process: the local rows of the output are the global rows.
    return x_psi_layout{pd.l_n,
                        pd.l2g.data(),
                        sd.row_block_offset.data(),
                        sd.row_block_dim.data(),
                        sd.n_blocks.data(),
                        sd.block_index.data(),
                        sd.max_n_blocks,
                        m.data(),
                        static_cast<int>(m.extent(0))};
}

void hs_psi_r(const hamiltonian_type& ham, const farray<double, 2>& m, const double* x, int ldx,
              double* y, int ldy, int n_col) {
    const double start = utime();
    x_psi_77_r(hs_layout(ham, m), uniform_orbitals(ham), x, ldx, y, ldy, n_col, 1.0);
    product_seconds += utime() - start;
}

void hs_psi_cheby_r(const hamiltonian_type& ham, const farray<double, 2>& m, const double* x,
                    int ldx, const double* z, int ldz, double* y, int ldy, int n_col) {
    const double start = utime();
    x_psi_cheby_77_r(hs_layout(ham, m), uniform_orbitals(ham), x, ldx, z, ldz, y, ldy, n_col, 1.0);
    product_seconds += utime() - start;
}

void hs_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& m,
                 const farray<double, 2>& x, farray<double, 2>& y) {
    y.fill(0.0);
    hs_psi_r(ham, m, x.data(), static_cast<int>(x.extent(0)), y.data(),
             static_cast<int>(y.extent(0)), static_cast<int>(x.extent(1)));
}

void h_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& x, farray<double, 2>& y) {
    hs_psi_rmat(ham, ham.h_ab, x, y);
}

void s_psi_rmat(const hamiltonian_type& ham, const farray<double, 2>& x, farray<double, 2>& y) {
    hs_psi_rmat(ham, ham.s_ab, x, y);
}

void h_psi_one(const hamiltonian_type& ham, const farray<double, 1>& x, farray<double, 1>& y) {
    y.fill(0.0);
    hs_psi_r(ham, ham.h_ab, x.data(), static_cast<int>(x.extent(0)), y.data(),
             static_cast<int>(y.extent(0)), 1);
}

void s_psi_one(const hamiltonian_type& ham, const farray<double, 1>& x, farray<double, 1>& y) {
    y.fill(0.0);
    hs_psi_r(ham, ham.s_ab, x.data(), static_cast<int>(x.extent(0)), y.data(),
             static_cast<int>(y.extent(0)), 1);
}

void h_psi_cheby_rmat(const hamiltonian_type& ham, const farray<double, 2>& x,
                      const farray<double, 2>& z, farray<double, 2>& y) {
    hs_psi_cheby_r(ham, ham.h_ab, x.data(), static_cast<int>(x.extent(0)), z.data(),
                   static_cast<int>(z.extent(0)), y.data(), static_cast<int>(y.extent(0)),
                   static_cast<int>(x.extent(1)));
}

void dh_psi_fast(const hamiltonian_type& ham, int il, const farray<double, 2>& x,
                 farray<double, 3>& out) {
    dx_product(ham, ham.dh_ab, il, x, out);
}

void ds_psi_fast(const hamiltonian_type& ham, int il, const farray<double, 2>& x,
                 farray<double, 3>& out) {
    dx_product(ham, ham.ds_ab, il, x, out);
}

double hs_psi_time() {
    return product_seconds;
}

} // namespace lyrt
