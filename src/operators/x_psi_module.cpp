#include "operators/x_psi_module.hpp"

namespace lyrt {

namespace {

// The unrolled product for N orbitals on every ion: N accumulators, each block
// read once in storage order.
template <int N, bool Cheby>
inline void x_psi_fixed(const x_psi_layout& m, const double* __restrict x, int ldx,
                        const double* __restrict z, int ldz, double* __restrict y, int ldy,
                        int n_col, double alpha) {
    const int* __restrict offset = m.offset;
    const int* __restrict nb = m.n_blocks;
    const int* __restrict index = m.block_index;
    for (int il = 0; il < m.n_ions; ++il) {
        const int ig = m.ion_list[il];
        const int r = offset[ig - 1] - 1;
        const int* __restrict row = index + static_cast<long>(m.ld_index) * (ig - 1);
        const double* __restrict col = m.blocks + static_cast<long>(m.ld_blocks) * il;
        const int n_k = nb[ig - 1];
        for (int j = 0; j < n_col; ++j) {
            double acc[N] = {};
            const double* __restrict xj = x + static_cast<long>(ldx) * j;
            for (int k = 0; k < n_k; ++k) {
                const int s = offset[row[k] - 1] - 1;
                const double* __restrict b = col + N * N * k;
                for (int q = 0; q < N; ++q) {
                    const double xv = xj[s + q];
                    for (int a = 0; a < N; ++a) acc[a] += b[a + N * q] * xv;
                }
            }
            double* __restrict yj = y + static_cast<long>(ldy) * j + r;
            if constexpr (Cheby) {
                const double* __restrict zj = z + static_cast<long>(ldz) * j + r;
                for (int a = 0; a < N; ++a) yj[a] = alpha * acc[a] - zj[a];
            } else {
                for (int a = 0; a < N; ++a) yj[a] += alpha * acc[a];
            }
        }
    }
}

// The general form: true block sizes, blocks at running offsets.
template <bool Cheby>
inline void x_psi_general(const x_psi_layout& m, const double* __restrict x, int ldx,
                          const double* __restrict z, int ldz, double* __restrict y, int ldy,
                          int n_col, double alpha) {
    for (int il = 0; il < m.n_ions; ++il) {
        const int ig = m.ion_list[il];
        const int r = m.offset[ig - 1] - 1;
        const int no = m.dim[ig - 1];
        const int* row = m.block_index + static_cast<long>(m.ld_index) * (ig - 1);
        const double* col = m.blocks + static_cast<long>(m.ld_blocks) * il;
        for (int j = 0; j < n_col; ++j) {
            const double* xj = x + static_cast<long>(ldx) * j;
            double* yj = y + static_cast<long>(ldy) * j + r;
            const double* zj = Cheby ? z + static_cast<long>(ldz) * j + r : nullptr;
            for (int a = 0; a < no; ++a) {
                double acc = 0.0;
                long u = 0;
                for (int k = 0; k < m.n_blocks[ig - 1]; ++k) {
                    const int jg = row[k];
                    const int s = m.offset[jg - 1] - 1, no2 = m.dim[jg - 1];
                    for (int q = 0; q < no2; ++q)
                        acc += col[u + a + static_cast<long>(no) * q] * xj[s + q];
                    u += static_cast<long>(no) * no2;
                }
                if constexpr (Cheby)
                    yj[a] = alpha * acc - zj[a];
                else
                    yj[a] += alpha * acc;
            }
        }
    }
}

template <int N>
void chrec_fixed(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    const long slab = static_cast<long>(ld) * n_col;
    for (int t = 3; t <= t_max; ++t)
        x_psi_fixed<N, true>(m, c + slab * (t - 2), ld, c + slab * (t - 3), ld, c + slab * (t - 1),
                             ld, n_col, 1.0);
}

template <int N>
void dx_fixed(const x_psi_layout& m, int il, const double* __restrict dblocks, long d_stride,
              const double* __restrict x, int ldx, double* __restrict out, int ld_out, int n_col) {
    const int ig = m.ion_list[il - 1];
    const int* row = m.block_index + static_cast<long>(m.ld_index) * (ig - 1);
    const int n_k = m.n_blocks[ig - 1];
    for (int d = 0; d < 3; ++d) {
        const double* __restrict col =
            dblocks + d * d_stride + static_cast<long>(m.ld_blocks) * (il - 1);
        for (int j = 0; j < n_col; ++j) {
            double acc[N] = {};
            const double* __restrict xj = x + static_cast<long>(ldx) * j;
            for (int k = 1; k < n_k; ++k) {
                const int s = m.offset[row[k] - 1] - 1;
                const double* __restrict b = col + N * N * k;
                for (int q = 0; q < N; ++q) {
                    const double xv = xj[s + q];
                    for (int a = 0; a < N; ++a) acc[a] += b[a + N * q] * xv;
                }
            }
            double* __restrict o =
                out + static_cast<long>(ld_out) * n_col * d + static_cast<long>(ld_out) * j;
            for (int a = 0; a < N; ++a) o[a] = 2.0 * acc[a];
        }
    }
}

} // namespace

void x_psi_gen_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                 double alpha) {
    x_psi_general<false>(m, x, ldx, nullptr, 0, y, ldy, n_col, alpha);
}
void x_psi_four_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha) {
    x_psi_fixed<4, false>(m, x, ldx, nullptr, 0, y, ldy, n_col, alpha);
}
void x_psi_five_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha) {
    x_psi_fixed<5, false>(m, x, ldx, nullptr, 0, y, ldy, n_col, alpha);
}
void x_psi_six_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                    double alpha) {
    x_psi_fixed<6, false>(m, x, ldx, nullptr, 0, y, ldy, n_col, alpha);
}
void x_psi_nine_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha) {
    x_psi_fixed<9, false>(m, x, ldx, nullptr, 0, y, ldy, n_col, alpha);
}

void x_psi_77_r(const x_psi_layout& m, int n_orb, const double* x, int ldx, double* y, int ldy,
                int n_col, double alpha) {
    switch (n_orb) {
    case 4: x_psi_four_77_r(m, x, ldx, y, ldy, n_col, alpha); break;
    case 5: x_psi_five_77_r(m, x, ldx, y, ldy, n_col, alpha); break;
    case 6: x_psi_six_77_r(m, x, ldx, y, ldy, n_col, alpha); break;
    case 9: x_psi_nine_77_r(m, x, ldx, y, ldy, n_col, alpha); break;
    default: x_psi_gen_r(m, x, ldx, y, ldy, n_col, alpha); break;
    }
}

void x_psi_cheby_gen_r(const x_psi_layout& m, const double* x, int ldx, const double* z, int ldz,
                       double* y, int ldy, int n_col, double alpha) {
    x_psi_general<true>(m, x, ldx, z, ldz, y, ldy, n_col, alpha);
}
void x_psi_cheby_four_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha) {
    x_psi_fixed<4, true>(m, x, ldx, z, ldz, y, ldy, n_col, alpha);
}
void x_psi_cheby_five_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha) {
    x_psi_fixed<5, true>(m, x, ldx, z, ldz, y, ldy, n_col, alpha);
}
void x_psi_cheby_six_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z, int ldz,
                          double* y, int ldy, int n_col, double alpha) {
    x_psi_fixed<6, true>(m, x, ldx, z, ldz, y, ldy, n_col, alpha);
}
void x_psi_cheby_nine_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha) {
    x_psi_fixed<9, true>(m, x, ldx, z, ldz, y, ldy, n_col, alpha);
}

void x_psi_cheby_77_r(const x_psi_layout& m, int n_orb, const double* x, int ldx, const double* z,
                      int ldz, double* y, int ldy, int n_col, double alpha) {
    switch (n_orb) {
    case 4: x_psi_cheby_four_77_r(m, x, ldx, z, ldz, y, ldy, n_col, alpha); break;
    case 5: x_psi_cheby_five_77_r(m, x, ldx, z, ldz, y, ldy, n_col, alpha); break;
    case 6: x_psi_cheby_six_77_r(m, x, ldx, z, ldz, y, ldy, n_col, alpha); break;
    case 9: x_psi_cheby_nine_77_r(m, x, ldx, z, ldz, y, ldy, n_col, alpha); break;
    default: x_psi_cheby_gen_r(m, x, ldx, z, ldz, y, ldy, n_col, alpha); break;
    }
}

void x_psi_chrec_four_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    chrec_fixed<4>(m, c, ld, n_col, t_max);
}
void x_psi_chrec_five_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    chrec_fixed<5>(m, c, ld, n_col, t_max);
}
void x_psi_chrec_six_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    chrec_fixed<6>(m, c, ld, n_col, t_max);
}
void x_psi_chrec_nine_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    chrec_fixed<9>(m, c, ld, n_col, t_max);
}
void x_psi_chrec_gen_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max) {
    const long slab = static_cast<long>(ld) * n_col;
    for (int t = 3; t <= t_max; ++t)
        x_psi_general<true>(m, c + slab * (t - 2), ld, c + slab * (t - 3), ld, c + slab * (t - 1),
                            ld, n_col, 1.0);
}

void dx_psi_xyz_gen(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                    const double* x, int ldx, double* out, int ld_out, int n_col) {
    const int ig = m.ion_list[il - 1];
    const int no = m.dim[ig - 1];
    const int* row = m.block_index + static_cast<long>(m.ld_index) * (ig - 1);
    for (int d = 0; d < 3; ++d) {
        const double* col = dblocks + d * d_stride + static_cast<long>(m.ld_blocks) * (il - 1);
        for (int j = 0; j < n_col; ++j) {
            const double* xj = x + static_cast<long>(ldx) * j;
            double* o = out + static_cast<long>(ld_out) * n_col * d + static_cast<long>(ld_out) * j;
            for (int a = 0; a < no; ++a) {
                double acc = 0.0;
                long u = static_cast<long>(no) * m.dim[row[0] - 1];
                for (int k = 1; k < m.n_blocks[ig - 1]; ++k) {
                    const int s = m.offset[row[k] - 1] - 1, no2 = m.dim[row[k] - 1];
                    for (int q = 0; q < no2; ++q)
                        acc += col[u + a + static_cast<long>(no) * q] * xj[s + q];
                    u += static_cast<long>(no) * no2;
                }
                o[a] = 2.0 * acc;
            }
        }
    }
}

void dx_psi_xyz_four_77_r(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                          const double* x, int ldx, double* out, int ld_out, int n_col) {
    dx_fixed<4>(m, il, dblocks, d_stride, x, ldx, out, ld_out, n_col);
}
void dx_psi_xyz_nine_77_r(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                          const double* x, int ldx, double* out, int ld_out, int n_col) {
    dx_fixed<9>(m, il, dblocks, d_stride, x, ldx, out, ld_out, n_col);
}

void dx_psi_xyz(const x_psi_layout& m, int n_orb, int il, const double* dblocks, long d_stride,
                const double* x, int ldx, double* out, int ld_out, int n_col) {
    switch (n_orb) {
    case 4: dx_psi_xyz_four_77_r(m, il, dblocks, d_stride, x, ldx, out, ld_out, n_col); break;
    case 9: dx_psi_xyz_nine_77_r(m, il, dblocks, d_stride, x, ldx, out, ld_out, n_col); break;
    default: dx_psi_xyz_gen(m, il, dblocks, d_stride, x, ldx, out, ld_out, n_col); break;
    }
}

void setzero_r(double* a, long n) {
    for (long k = 0; k < n; ++k) a[k] = 0.0;
}

} // namespace lyrt
