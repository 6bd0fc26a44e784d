// Block layout of matrices over atoms: which blocks exist, their sizes and
// where each block sits, in packed, unrolled and scattered form.
#pragma once

#include "base/allocate_module.hpp"
#include "base/farray.hpp"
#include "parallel/pdist_module.hpp"

#include <string_view>

namespace lyrt {

struct matrix_desc_type {
    const pdist_type* row_pdist = nullptr;             // distribution of the row blocks
    const pdist_type* col_pdist = nullptr;             // distribution of the column blocks
    int n_row = 0, n_col = 0;                          // global sizes in orbitals
    int ln_row = 0, ln_col = 0;                        // orbitals of the local blocks
    int ld_row = 0, ld_col = 0;                        // leading dimensions (the same values)
    farray<int, 1> row_block_dim, col_block_dim;       // size of each global block
    farray<int, 1> row_block_offset, col_block_offset; // first orbital of each block, from 1
    farray<int, 1> lrow_block_dim, lcol_block_dim;     // the same over the local blocks
    farray<int, 1> lrow_block_offset, lcol_block_offset;
};

// A block-sparse layout with one distributed direction ("major").
struct sparse_1d_matrix_desc_type : matrix_desc_type {
    char major = 'R';                         // 'R': rows distributed, else 'C'
    int n_dim = 0, ln_dim = 0;                // orbitals along the major direction, total and local
    int max_n_blocks = 0;                     // first dimension of block_index
    int s_n_dim = 0;                          // max_n_blocks times the largest block size
    int u_n_dim = 0;                          // s_n_dim times the largest block size
    farray<int, 1> n_blocks;                  // blocks in each major block row
    farray<int, 2> block_index;               // (max_n_blocks, n_major): minor block of each block
    farray<int, 2> pblock_dim, pblock_offset; // packed: minor size, running offset in a row
    farray<int, 2> ublock_dim, ublock_offset; // unrolled: elements, running offset
    farray<int, 2> sblock_dim, sblock_offset; // scattered: minor size, offset in the full matrix
};

// The major and minor views of a sparse layout.
inline const pdist_type& sd_major_pdist(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? *sd.row_pdist : *sd.col_pdist;
}
inline const pdist_type& sd_minor_pdist(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? *sd.col_pdist : *sd.row_pdist;
}
inline const farray<int, 1>& sd_major_block_dim(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? sd.row_block_dim : sd.col_block_dim;
}
inline const farray<int, 1>& sd_major_block_offset(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? sd.row_block_offset : sd.col_block_offset;
}
inline const farray<int, 1>& sd_minor_block_dim(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? sd.col_block_dim : sd.row_block_dim;
}
inline const farray<int, 1>& sd_minor_block_offset(const sparse_1d_matrix_desc_type& sd) {
    return sd.major == 'R' ? sd.col_block_offset : sd.row_block_offset;
}

// Dense matrices with their layout.
struct r_matrix_type {
    matrix_desc_type desc;
    farray<double, 2> mat;
};
struct ri_matrix_type {
    matrix_desc_type desc;
    farray<double, 2> rmat, imat;
};
struct c_matrix_type {
    matrix_desc_type desc;
    farray<dcomplex, 2> mat;
};
// A sparse real matrix: one column of u_n_dim per local major block.
struct s1dr_matrix_type {
    sparse_1d_matrix_desc_type desc;
    farray<double, 2> mat;
};

void matrix_desc_init(matrix_desc_type& desc, int n_row, int n_col, const pdist_type& row_pdist,
                      const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                      const farray<int, 1>& col_block_dim);
void matrix_desc_reinit(matrix_desc_type& desc);
void matrix_desc_reset(matrix_desc_type& desc);
void r_matrix_allocate_only(r_matrix_type& m);
void ri_matrix_allocate_only(ri_matrix_type& m);
void c_matrix_allocate_only(c_matrix_type& m);
void r_matrix_init_allocate(r_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                            const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                            const farray<int, 1>& col_block_dim);
void ri_matrix_init_allocate(ri_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                             const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                             const farray<int, 1>& col_block_dim);
void c_matrix_init_allocate(c_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                            const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                            const farray<int, 1>& col_block_dim);
void r_matrix_deallocate(r_matrix_type& m);
void ri_matrix_deallocate(ri_matrix_type& m);
void c_matrix_deallocate(c_matrix_type& m);

void sparse_1d_matrix_desc_init(sparse_1d_matrix_desc_type& sd, int n_row, int n_col,
                                const pdist_type& row_pdist, const pdist_type& col_pdist,
                                const farray<int, 1>& row_block_dim,
                                const farray<int, 1>& col_block_dim, const farray<int, 1>& n_blocks,
                                const farray<int, 2>& index_blocks, char major);
void sparse_1d_matrix_desc_reinit(sparse_1d_matrix_desc_type& sd, const farray<int, 1>& n_blocks,
                                  const farray<int, 2>& index_blocks);
void sparse_1d_matrix_desc_reset(sparse_1d_matrix_desc_type& sd);
void s1dr_matrix_allocate_only(s1dr_matrix_type& m);
void s1dr_matrix_init_allocate(s1dr_matrix_type& m, int n_row, int n_col,
                               const pdist_type& row_pdist, const pdist_type& col_pdist,
                               const farray<int, 1>& row_block_dim,
                               const farray<int, 1>& col_block_dim, const farray<int, 1>& n_blocks,
                               const farray<int, 2>& index_blocks, char major);
void s1dr_matrix_deallocate(s1dr_matrix_type& m);

} // namespace lyrt
