#include "model/hamiltonian_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

namespace lyrt {

namespace {

constexpr const char* mod = "hamiltonian_module";

// Blocks of each ion: the ion itself, then its neighbours in ascending order.
void block_rows(const ions_type& ions, farray<int, 1>& n_blocks, farray<int, 2>& block_index,
                const char* proc) {
    const int n = ions.total_n_ions;
    ca_integer_1d(n_blocks, 1, n, "n_blocks", proc, mod);
    ca_integer_2d(block_index, 1, ions.ub_n_nn + 1, 1, n, "block_index", proc, mod);
    block_index.fill(0);
    for (int i = 1; i <= n; ++i) {
        const nn_list_type& l = ions_nn_list(ions, i);
        if (l.n_nn > ions.ub_n_nn) fatal_error("ions%nn_list(i)%n_nn > ions%ub_n_nn", i, proc, mod);
        n_blocks(i) = l.n_nn + 1;
        block_index(1, i) = i;
        for (int m = 1; m <= l.n_nn; ++m) block_index(m + 1, i) = l.index(m);
    }
}

} // namespace

void hamiltonian_init(hamiltonian_type& ham, const ions_type& ions, const tb_model_type& tb_model,
                      const pdist_type& row_pdist, const pdist_type& col_pdist, bool allocate_h) {
    const char* proc = "hamiltonian_init";
    const trace_guard trace(proc, mod);
    ham.tb_model = &tb_model;
    if (!tb_model.classical) {
        const int n = ions.total_n_ions;
        farray<int, 1> block_dim, n_blocks;
        farray<int, 2> block_index;
        ca_integer_1d(block_dim, 1, n, "block_dim", proc, mod);
        int n_orb = 0;
        for (int i = 1; i <= n; ++i) {
            const int a = ions.type(i);
            block_dim(i) = ao_get_no_type(pair_param(tb_model, a, a).ao1);
            n_orb += block_dim(i);
        }
        block_rows(ions, n_blocks, block_index, proc);
        sparse_1d_matrix_desc_init(ham.desc, n_orb, n_orb, row_pdist, col_pdist, block_dim,
                                   block_dim, n_blocks, block_index, 'R');
        cd_integer_1d(block_dim, "block_dim", proc, mod);
        cd_integer_1d(n_blocks, "n_blocks", proc, mod);
        cd_integer_2d(block_index, "block_index", proc, mod);
        const int l = row_pdist.max_l_n;
        const int u = ham.desc.u_n_dim, s = ham.desc.s_n_dim;
        if (allocate_h) ca_real_2d(ham.h_ab, 1, u, 1, l, "ham%h_ab", proc, mod);
        if (tb_model.on_site_env) ca_real_3d(ham.dh_aa, 1, s, 1, l, 1, 3, "ham%dh_aa", proc, mod);
        ca_real_3d(ham.dh_ab, 1, u, 1, l, 1, 3, "ham%dh_ab", proc, mod);
        if (tb_model.non_orthogonal && allocate_h) {
            ca_real_2d(ham.s_ab, 1, u, 1, l, "ham%s_ab", proc, mod);
            ca_real_3d(ham.ds_ab, 1, u, 1, l, 1, 3, "ham%ds_ab", proc, mod);
        }
    }
    ham.e_atoms = 0.0;
    for (int s = 1; s <= tb_model.n_species && s <= ions.n_species; ++s)
        ham.e_atoms += ions.n_ions(s) * (tb_model.e_atom.allocated() ? tb_model.e_atom(s) : 0.0);
}

void hamiltonian_reinit(hamiltonian_type& ham, const ions_type& ions) {
    const char* proc = "hamiltonian_reinit";
    if (ham.tb_model == nullptr || ham.tb_model->classical) return;
    farray<int, 1> n_blocks;
    farray<int, 2> block_index;
    block_rows(ions, n_blocks, block_index, proc);
    const int u = ham.desc.u_n_dim, s = ham.desc.s_n_dim;
    sparse_1d_matrix_desc_reinit(ham.desc, n_blocks, block_index);
    cd_integer_1d(n_blocks, "n_blocks", proc, mod);
    cd_integer_2d(block_index, "block_index", proc, mod);
    if (u != ham.desc.u_n_dim || s != ham.desc.s_n_dim)
        fatal_error("hamiltonian has to be reallocated, shouldn't happen!", -1, proc, mod);
    if (ham.h_ab.allocated() && ham.h_ab.extent(0) != ham.desc.u_n_dim)
        fatal_error("Inconsistency size(ham%h_ab) /= ham%desc%u_n_dim", -1, proc, mod);
}

void hamiltonian_free(hamiltonian_type& ham) {
    const char* proc = "hamiltonian_free";
    if (ham.h_ab.allocated()) cd_real_2d(ham.h_ab, "ham%h_ab", proc, mod);
    if (ham.s_ab.allocated()) cd_real_2d(ham.s_ab, "ham%s_ab", proc, mod);
    if (ham.dh_aa.allocated()) cd_real_3d(ham.dh_aa, "ham%dh_aa", proc, mod);
    if (ham.dh_ab.allocated()) cd_real_3d(ham.dh_ab, "ham%dh_ab", proc, mod);
    if (ham.ds_ab.allocated()) cd_real_3d(ham.ds_ab, "ham%ds_ab", proc, mod);
    sparse_1d_matrix_desc_reset(ham.desc);
}

} // namespace lyrt
