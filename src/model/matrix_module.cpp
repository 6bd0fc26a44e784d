#include "model/matrix_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

namespace lyrt {

namespace {

constexpr const char* mod = "matrix_module";

void free_if(farray<int, 1>& a, const char* name, const char* proc) {
    if (a.allocated()) cd_integer_1d(a, name, proc, mod);
}
void free_if(farray<int, 2>& a, const char* name, const char* proc) {
    if (a.allocated()) cd_integer_2d(a, name, proc, mod);
}

// Sizes and running offsets of the global blocks and of the local ones.
void block_tables(const pdist_type& pd, const farray<int, 1>& dim, farray<int, 1>& g_dim,
                  farray<int, 1>& g_off, farray<int, 1>& l_dim, farray<int, 1>& l_off, int& l_sum,
                  const char* which) {
    const char* proc = "matrix_desc_init";
    const std::string w(which);
    ca_integer_1d(g_dim, 1, pd.n, "desc%" + w + "_block_dim", proc, mod);
    ca_integer_1d(g_off, 1, pd.n, "desc%" + w + "_block_offset", proc, mod);
    ca_integer_1d(l_dim, 1, pd.l_n, "desc%l" + w + "_block_dim", proc, mod);
    ca_integer_1d(l_off, 1, pd.l_n, "desc%l" + w + "_block_offset", proc, mod);
    int off = 1;
    for (int b = 1; b <= pd.n; ++b) {
        g_dim(b) = dim(b);
        g_off(b) = off;
        off += dim(b);
    }
    off = 1;
    for (int i = 1; i <= pd.l_n; ++i) {
        l_dim(i) = dim(pd.l2g(i));
        l_off(i) = off;
        off += l_dim(i);
    }
    l_sum = off - 1;
}

void fill_block_tables(sparse_1d_matrix_desc_type& sd, const char* proc) {
    const farray<int, 1>& major_dim = sd_major_block_dim(sd);
    const farray<int, 1>& minor_dim = sd_minor_block_dim(sd);
    const farray<int, 1>& minor_off = sd_minor_block_offset(sd);
    const int n_major = static_cast<int>(sd.n_blocks.extent(0));
    const int n_minor = static_cast<int>(minor_dim.extent(0));
    int max_u = 0, max_p = 0;
    for (int i = 1; i <= n_major; ++i) {
        int p = 1, u = 1;
        for (int j = 1; j <= sd.n_blocks(i); ++j) {
            if (j > sd.max_n_blocks) fatal_error("block index exceeded maximum !", j, proc, mod);
            const int k = sd.block_index(j, i);
            if (k > n_minor || k < 1)
                fatal_error("packed block index exceeded maximum !", k, proc, mod);
            sd.pblock_dim(j, i) = minor_dim(k);
            sd.pblock_offset(j, i) = p;
            p += minor_dim(k);
            sd.sblock_dim(j, i) = minor_dim(k);
            sd.sblock_offset(j, i) = minor_off(k);
            sd.ublock_dim(j, i) = minor_dim(k) * major_dim(i);
            sd.ublock_offset(j, i) = u;
            u += sd.ublock_dim(j, i);
        }
        max_u = std::max(max_u, u - 1);
        max_p = std::max(max_p, p - 1);
    }
    if (max_u > sd.u_n_dim) fatal_error("sd%u_n_dim is too small!", max_u, proc, mod);
    if (max_p > sd.s_n_dim) fatal_error("sd%s_n_dim is too small!", max_p, proc, mod);
}

} // namespace

void matrix_desc_init(matrix_desc_type& desc, int n_row, int n_col, const pdist_type& row_pdist,
                      const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                      const farray<int, 1>& col_block_dim) {
    matrix_desc_reset(desc);
    desc.row_pdist = &row_pdist;
    desc.col_pdist = &col_pdist;
    desc.n_row = n_row;
    desc.n_col = n_col;
    block_tables(row_pdist, row_block_dim, desc.row_block_dim, desc.row_block_offset,
                 desc.lrow_block_dim, desc.lrow_block_offset, desc.ln_row, "row");
    block_tables(col_pdist, col_block_dim, desc.col_block_dim, desc.col_block_offset,
                 desc.lcol_block_dim, desc.lcol_block_offset, desc.ln_col, "col");
    desc.ld_row = desc.ln_row;
    desc.ld_col = desc.ln_col;
}

void matrix_desc_reinit(matrix_desc_type& desc) {
    // The same sizes again from the stored block tables.
    int sum = 0;
    for (long i = 1; i <= desc.lrow_block_dim.extent(0); ++i) sum += desc.lrow_block_dim(i);
    desc.ln_row = desc.ld_row = sum;
    sum = 0;
    for (long i = 1; i <= desc.lcol_block_dim.extent(0); ++i) sum += desc.lcol_block_dim(i);
    desc.ln_col = desc.ld_col = sum;
}

void matrix_desc_reset(matrix_desc_type& desc) {
    const char* proc = "matrix_desc_reset";
    free_if(desc.row_block_dim, "desc%row_block_dim", proc);
    free_if(desc.col_block_dim, "desc%col_block_dim", proc);
    free_if(desc.row_block_offset, "desc%row_block_offset", proc);
    free_if(desc.col_block_offset, "desc%col_block_offset", proc);
    free_if(desc.lrow_block_dim, "desc%lrow_block_dim", proc);
    free_if(desc.lcol_block_dim, "desc%lcol_block_dim", proc);
    free_if(desc.lrow_block_offset, "desc%lrow_block_offset", proc);
    free_if(desc.lcol_block_offset, "desc%lcol_block_offset", proc);
    desc.n_row = desc.n_col = desc.ln_row = desc.ln_col = desc.ld_row = desc.ld_col = 0;
}

void r_matrix_allocate_only(r_matrix_type& m) {
    ca_real_2d(m.mat, 1, m.desc.ln_row, 1, m.desc.n_col, "mat%mat", "r_matrix_allocate_only", mod);
}
void ri_matrix_allocate_only(ri_matrix_type& m) {
    ca_real_2d(m.rmat, 1, m.desc.ln_row, 1, m.desc.n_col, "mat%rmat", "ri_matrix_allocate_only",
               mod);
    ca_real_2d(m.imat, 1, m.desc.ln_row, 1, m.desc.n_col, "mat%imat", "ri_matrix_allocate_only",
               mod);
}
void c_matrix_allocate_only(c_matrix_type& m) {
    ca_complex_2d(m.mat, 1, m.desc.ln_row, 1, m.desc.n_col, "mat%mat", "c_matrix_allocate_only",
                  mod);
}

void r_matrix_init_allocate(r_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                            const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                            const farray<int, 1>& col_block_dim) {
    matrix_desc_init(m.desc, n_row, n_col, row_pdist, col_pdist, row_block_dim, col_block_dim);
    r_matrix_allocate_only(m);
}
void ri_matrix_init_allocate(ri_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                             const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                             const farray<int, 1>& col_block_dim) {
    matrix_desc_init(m.desc, n_row, n_col, row_pdist, col_pdist, row_block_dim, col_block_dim);
    ri_matrix_allocate_only(m);
}
void c_matrix_init_allocate(c_matrix_type& m, int n_row, int n_col, const pdist_type& row_pdist,
                            const pdist_type& col_pdist, const farray<int, 1>& row_block_dim,
                            const farray<int, 1>& col_block_dim) {
    matrix_desc_init(m.desc, n_row, n_col, row_pdist, col_pdist, row_block_dim, col_block_dim);
    c_matrix_allocate_only(m);
}

void r_matrix_deallocate(r_matrix_type& m) {
    if (m.mat.allocated()) cd_real_2d(m.mat, "mat%mat", "r_matrix_deallocate", mod);
    matrix_desc_reset(m.desc);
}
void ri_matrix_deallocate(ri_matrix_type& m) {
    if (m.rmat.allocated()) cd_real_2d(m.rmat, "mat%rmat", "ri_matrix_deallocate", mod);
    if (m.imat.allocated()) cd_real_2d(m.imat, "mat%imat", "ri_matrix_deallocate", mod);
    matrix_desc_reset(m.desc);
}
void c_matrix_deallocate(c_matrix_type& m) {
    if (m.mat.allocated()) cd_complex_2d(m.mat, "mat%mat", "c_matrix_deallocate", mod);
    matrix_desc_reset(m.desc);
}

void sparse_1d_matrix_desc_init(sparse_1d_matrix_desc_type& sd, int n_row, int n_col,
                                const pdist_type& row_pdist, const pdist_type& col_pdist,
                                const farray<int, 1>& row_block_dim,
                                const farray<int, 1>& col_block_dim, const farray<int, 1>& n_blocks,
                                const farray<int, 2>& index_blocks, char major) {
    const char* proc = "sparse_1d_matrix_desc_init";
    sparse_1d_matrix_desc_reset(sd);
    matrix_desc_init(sd, n_row, n_col, row_pdist, col_pdist, row_block_dim, col_block_dim);
    sd.major = (major == 'R' || major == 'r') ? 'R' : 'C';
    const int n_major = sd_major_pdist(sd).n;
    if (n_blocks.extent(0) < n_major)
        fatal_error("The dimension of n_blocks is too small", static_cast<int>(n_blocks.extent(0)),
                    proc, mod);
    if (index_blocks.extent(1) < n_major)
        fatal_error("The dimension of index_blocks is too small",
                    static_cast<int>(index_blocks.extent(1)), proc, mod);
    sd.max_n_blocks = static_cast<int>(index_blocks.extent(0));
    int most = 0;
    for (int i = 1; i <= n_major; ++i) most = std::max(most, n_blocks(i));
    if (sd.max_n_blocks < most) fatal_error("sd%max_n_blocks < maxval(n_blocks)", most, proc, mod);
    ca_integer_1d(sd.n_blocks, 1, n_major, "sd%n_blocks", proc, mod);
    ca_integer_2d(sd.block_index, 1, sd.max_n_blocks, 1, n_major, "sd%block_index", proc, mod);
    if (sd.n_blocks.extent(0) != n_major)
        fatal_error("size of sd%n_blocks incorrect", n_major, proc, mod);
    if (sd.block_index.extent(1) != n_major)
        fatal_error("size of sd%block_index incorrect", n_major, proc, mod);
    sd.block_index.fill(0);
    for (int i = 1; i <= n_major; ++i) {
        sd.n_blocks(i) = n_blocks(i);
        for (int j = 1; j <= n_blocks(i); ++j) sd.block_index(j, i) = index_blocks(j, i);
    }
    const farray<int, 1>& mdim = sd_major_block_dim(sd);
    sd.n_dim = 0;
    for (int i = 1; i <= n_major; ++i) sd.n_dim += mdim(i);
    if (sd.n_dim != (sd.major == 'R' ? n_row : n_col))
        fatal_error("Error in calculating sd%n_dim", sd.n_dim, proc, mod);
    const pdist_type& mp = sd_major_pdist(sd);
    sd.ln_dim = 0;
    for (int i = 1; i <= mp.l_n; ++i) sd.ln_dim += mdim(mp.l2g(i));
    int big = 0;
    for (long i = 1; i <= row_block_dim.extent(0); ++i) big = std::max(big, row_block_dim(i));
    for (long i = 1; i <= col_block_dim.extent(0); ++i) big = std::max(big, col_block_dim(i));
    sd.s_n_dim = sd.max_n_blocks * big;
    sd.u_n_dim = sd.s_n_dim * big;
    for (farray<int, 2>* t : {&sd.pblock_dim, &sd.pblock_offset, &sd.ublock_dim, &sd.ublock_offset,
                              &sd.sblock_dim, &sd.sblock_offset})
        ca_integer_2d(*t, 1, sd.max_n_blocks, 1, n_major, "sd%block_tables", proc, mod);
    fill_block_tables(sd, proc);
}

void sparse_1d_matrix_desc_reinit(sparse_1d_matrix_desc_type& sd, const farray<int, 1>& n_blocks,
                                  const farray<int, 2>& index_blocks) {
    // Reported under the name of the first build, as its checks are the same.
    const char* proc = "sparse_1d_matrix_desc_init";
    const int n_major = static_cast<int>(sd.n_blocks.extent(0));
    if (n_blocks.extent(0) < n_major)
        fatal_error("The dimension of n_blocks is too incorrect",
                    static_cast<int>(n_blocks.extent(0)), proc, mod);
    if (index_blocks.extent(1) < n_major)
        fatal_error("The dimension of index_blocks is incorrect",
                    static_cast<int>(index_blocks.extent(1)), proc, mod);
    int most = 0;
    for (int i = 1; i <= n_major; ++i) most = std::max(most, n_blocks(i));
    if (most > sd.max_n_blocks) fatal_error("max(sd%n_blocks) > sd%max_n_blocks", most, proc, mod);
    sd.block_index.fill(0);
    for (int i = 1; i <= n_major; ++i) {
        sd.n_blocks(i) = n_blocks(i);
        for (int j = 1; j <= n_blocks(i); ++j) sd.block_index(j, i) = index_blocks(j, i);
    }
    fill_block_tables(sd, proc);
}

void sparse_1d_matrix_desc_reset(sparse_1d_matrix_desc_type& sd) {
    const char* proc = "sparse_1d_matrix_desc_reset";
    free_if(sd.n_blocks, "sd%n_blocks", proc);
    free_if(sd.block_index, "sd%block_index", proc);
    for (farray<int, 2>* t : {&sd.pblock_dim, &sd.pblock_offset, &sd.ublock_dim, &sd.ublock_offset,
                              &sd.sblock_dim, &sd.sblock_offset})
        free_if(*t, "sd%block_tables", proc);
    matrix_desc_reset(sd);
    sd.n_dim = sd.ln_dim = sd.max_n_blocks = sd.s_n_dim = sd.u_n_dim = 0;
}

void s1dr_matrix_allocate_only(s1dr_matrix_type& m) {
    ca_real_2d(m.mat, 1, m.desc.u_n_dim, 1, sd_major_pdist(m.desc).max_l_n, "mat%mat",
               "s1dr_matrix_allocate_only", mod);
}

void s1dr_matrix_init_allocate(s1dr_matrix_type& m, int n_row, int n_col,
                               const pdist_type& row_pdist, const pdist_type& col_pdist,
                               const farray<int, 1>& row_block_dim,
                               const farray<int, 1>& col_block_dim, const farray<int, 1>& n_blocks,
                               const farray<int, 2>& index_blocks, char major) {
    sparse_1d_matrix_desc_init(m.desc, n_row, n_col, row_pdist, col_pdist, row_block_dim,
                               col_block_dim, n_blocks, index_blocks, major);
    s1dr_matrix_allocate_only(m);
}

void s1dr_matrix_deallocate(s1dr_matrix_type& m) {
    if (m.mat.allocated()) cd_real_2d(m.mat, "mat%mat", "s1dr_matrix_deallocate", mod);
    sparse_1d_matrix_desc_reset(m.desc);
}

} // namespace lyrt
