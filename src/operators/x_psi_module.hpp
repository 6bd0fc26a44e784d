// Products of block-sparse matrices with orbital blocks: the loops that set the
// run time of the linear-scaling paths.
//
// Common arguments: the ions of this processor (n_ions, ion_list: global numbers),
// per global ion its first orbital (offset, from 1) and orbital count (dim), its
// block count (n_blocks) and the ions of its blocks (block_index, leading
// dimension ld_index), the blocks (column il of `blocks`, leading dimension
// ld_blocks, blocks one after the other with the ion's orbital fastest), the
// input x and output y with leading dimensions and the number of columns, and the
// scale alpha. Outputs are accumulated: the caller clears them. All arrays are
// addressed through raw pointers; nothing is allocated or called inside.
#pragma once

namespace lyrt {

struct x_psi_layout {
    int n_ions;             // ions of this processor
    const int* ion_list;    // their global numbers (1-based values)
    const int* offset;      // first orbital of each global ion, from 1 ([ion-1])
    const int* dim;         // orbitals of each global ion
    const int* n_blocks;    // blocks of each global ion
    const int* block_index; // (ld_index, n_ions_global): ion of each block
    int ld_index;
    const double* blocks; // (ld_blocks, n_ions local)
    int ld_blocks;
};

// y += alpha H x for n_col columns.
void x_psi_gen_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                 double alpha);
void x_psi_four_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha);
void x_psi_five_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha);
void x_psi_six_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                    double alpha);
void x_psi_nine_77_r(const x_psi_layout& m, const double* x, int ldx, double* y, int ldy, int n_col,
                     double alpha);
// The kernel for n_orb orbitals on every ion (4, 5, 6, 9), or the general form.
void x_psi_77_r(const x_psi_layout& m, int n_orb, const double* x, int ldx, double* y, int ldy,
                int n_col, double alpha);

// One step of a Chebyshev recurrence: y = alpha H x - z.
void x_psi_cheby_gen_r(const x_psi_layout& m, const double* x, int ldx, const double* z, int ldz,
                       double* y, int ldy, int n_col, double alpha);
void x_psi_cheby_four_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha);
void x_psi_cheby_five_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha);
void x_psi_cheby_six_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z, int ldz,
                          double* y, int ldy, int n_col, double alpha);
void x_psi_cheby_nine_77_r(const x_psi_layout& m, const double* x, int ldx, const double* z,
                           int ldz, double* y, int ldy, int n_col, double alpha);
void x_psi_cheby_77_r(const x_psi_layout& m, int n_orb, const double* x, int ldx, const double* z,
                      int ldz, double* y, int ldy, int n_col, double alpha);

// A whole recurrence on c(row, column, time), time 1..t_max (ld rows, n_col
// columns per time): c(t) = H c(t-1) - c(t-2) for t = 3..t_max, all ions of
// one time before the next.
void x_psi_chrec_four_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max);
void x_psi_chrec_five_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max);
void x_psi_chrec_six_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max);
void x_psi_chrec_nine_77_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max);
void x_psi_chrec_gen_r(const x_psi_layout& m, double* c, int ld, int n_col, int t_max);

// Gradient products of local ion il (global ig): out(a, col, d) = 2 sum over the
// neighbour blocks k >= 2 of dblk_d(a, b) x(s_k + b, col); dblocks holds the three
// directions at a distance of d_stride doubles. out has leading dimension ld_out
// and ld_out*n_col doubles per direction.
void dx_psi_xyz_gen(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                    const double* x, int ldx, double* out, int ld_out, int n_col);
void dx_psi_xyz_four_77_r(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                          const double* x, int ldx, double* out, int ld_out, int n_col);
void dx_psi_xyz_nine_77_r(const x_psi_layout& m, int il, const double* dblocks, long d_stride,
                          const double* x, int ldx, double* out, int ld_out, int n_col);
void dx_psi_xyz(const x_psi_layout& m, int n_orb, int il, const double* dblocks, long d_stride,
                const double* x, int ldx, double* out, int ld_out, int n_col);

void setzero_r(double* a, long n);

} // namespace lyrt
