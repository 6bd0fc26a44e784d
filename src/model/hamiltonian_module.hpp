// H, S and their gradients in the block-sparse form that every solver reads:
// per ion a run of blocks, block 1 the ion itself, block j+1 its j-th neighbour.
// Inside a block the orbital of the ion runs fastest.
#pragma once

#include "model/matrix_module.hpp"
#include "model/tb_model_module.hpp"
#include "system/ions_module.hpp"

namespace lyrt {

struct hamiltonian_type {
    double e_atoms = 0.0; // sum over species of count times e_atom, eV
    const tb_model_type* tb_model = nullptr;
    sparse_1d_matrix_desc_type desc; // over orbitals, rows distributed
    farray<double, 2> h_ab;          // (u_n_dim, l): H blocks, eV
    farray<double, 2> s_ab;          // (u_n_dim, l): S blocks
    farray<double, 2> u_ab;          // owned by the change of basis of the orbital solver
    farray<double, 3> dh_aa;         // (s_n_dim, l, 3): derivatives of the diagonals
    farray<double, 3> dh_ab;         // (u_n_dim, l, 3): derivatives of the H blocks
    farray<double, 3> ds_ab;         // (u_n_dim, l, 3): derivatives of the S blocks
};

// row_pdist: the ion blocks of the rows (local ions); col_pdist: the ions.
void hamiltonian_init(hamiltonian_type& ham, const ions_type& ions, const tb_model_type& tb_model,
                      const pdist_type& row_pdist, const pdist_type& col_pdist,
                      bool allocate_h = true);
void hamiltonian_reinit(hamiltonian_type& ham, const ions_type& ions);
void hamiltonian_free(hamiltonian_type& ham);

} // namespace lyrt
