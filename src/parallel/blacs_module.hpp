// Block-cyclic matrix distributions: the processor grid, the local pieces of a
// distributed matrix, and the work arrays of the dense solvers. With one process
// the grid is 1 x 1 and matrices are held whole. In a distributed run
// set_proc_grid makes a BLACS grid over all processes; element (r, c) then lives
// on grid place ((r-1)/mb mod nprow, (c-1)/nb mod npcol).
#pragma once

#include "base/allocate_module.hpp"
#include "base/farray.hpp"

#include <string>
#include <string_view>

namespace lyrt {

struct blacs_distr_type {
    int nprow = 1, npcol = 1; // processor grid
    int myrow = 0, mycol = 0; // own place in the grid
    int ctxt = -1;            // BLACS context of a distributed grid; -1: one process
    int desc[9] = {};         // ScaLAPACK descriptor of an m x n matrix on the grid
    int l_m = 0, l_n = 0;     // local rows and columns of such a matrix
    int m = 0, n = 0;         // global rows and columns
    int mb = 0, nb = 0;       // block sizes
    int n_blk_row = 0;        // m / mb
    int n_blk_col = 0;        // n / nb
    farray<double, 1> work;   // real workspace, 5 n
    int lwork = -1;
    farray<dcomplex, 1> cwork; // complex workspace, 5 n when asked for
    int lcwork = -1;
    farray<int, 1> iwork; // integer workspace (divide-and-conquer solvers)
    int liwork = -1;
    std::string failure_hint; // what the caller knows of a failure's likely cause, for its message
    int n_vectors = 0;        // eigenvectors the caller uses (the first ones); 0 or n: all
};

void init_blacs_distr(blacs_distr_type& d, int m, int n, int mb, int nb);
void free_blacs_distr(blacs_distr_type& d);
void reset_blacs_distr(blacs_distr_type& d);
void set_proc_grid(blacs_distr_type& d, int nprow, int npcol);
void alloc_matrix_bc_distr_r(const blacs_distr_type& d, farray<double, 2>& a,
                             std::string_view name);
void alloc_matrix_bc_distr_c(const blacs_distr_type& d, farray<dcomplex, 2>& a,
                             std::string_view name);
// kind "c" or "C" adds the complex workspace.
void allocate_work_arrays(blacs_distr_type& d, std::string_view kind);
int get_lwork(const blacs_distr_type& d);
int get_lcwork(const blacs_distr_type& d);
int get_liwork(const blacs_distr_type& d);
void print_matrix_bc_distr_r(const blacs_distr_type& d, const farray<double, 2>& a, int unit);
void print_matrix_bc_distr_c(const blacs_distr_type& d, const farray<dcomplex, 2>& a, int unit);
void report_matrix_bc_distr(const blacs_distr_type& d, int unit);

// Block-cyclic index arithmetic (1-based global index g, block size nb over np
// places of the grid): the owning place, and the local index there.
inline int bc_owner(int g, int nb, int np) {
    return ((g - 1) / nb) % np;
}
inline int bc_local(int g, int nb, int np) {
    return ((g - 1) / (nb * np)) * nb + (g - 1) % nb + 1;
}
// The global index of local index l on place p.
inline int bc_global(int l, int nb, int np, int p) {
    return ((l - 1) / nb) * nb * np + p * nb + (l - 1) % nb + 1;
}
// A processor grid of n processes, as square as the count allows (rows <= columns).
void bc_grid_shape(int n, int& nprow, int& npcol);

} // namespace lyrt
