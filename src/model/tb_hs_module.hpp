// Assembly of H and S from the model, the ions and the image cells, into the
// block arrays of the hamiltonian or into dense matrices, and of their
// derivatives by ion positions (forces) or by cell strain (stress).
#pragma once

#include "model/hamiltonian_module.hpp"
#include "model/scc_model_module.hpp"
#include "system/box_module.hpp"
#include "system/kpt_module.hpp"

#include <string_view>

namespace lyrt {

// which: "H" H alone, "S" S alone, anything else H and, for a non-orthogonal
// model, S.
void calc_hs_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                  std::string_view which = "");
// Dense H and S (rows of the local ions, all columns); with scc the charge term
// 0.5 (qaux(i) + qaux(j)) S of each block of ions i and j (qaux(i) on the
// diagonal of an orthogonal model).
void calc_hs_ij_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                     const scc_type* scc, farray<double, 2>* h_ij, farray<double, 2>* s_ij);
void get_hs_ij_real(const hamiltonian_type& ham, farray<double, 2>* h_ij, farray<double, 2>* s_ij,
                    const scc_type* scc);
void calc_hs_ij_bc2d_real(const hamiltonian_type& ham);

// Dense H(k) and S(k) of point ik from the blocks, whose lists hold one entry per
// image (box.explicit_images): the block of ion i and entry (j, n) adds exp(2 pi i
// k.n) times itself at the rows of i and the columns of j. With scc, the charge
// term 0.5 (qaux(i) + qaux(j)) S of each block (qaux(i) on the diagonal of an
// orthogonal model). The real form serves the points where the phases are +-1.
void get_hs_ij_complex(const hamiltonian_type& ham, const ions_type& ions, const kpt_type& kpt,
                       int ik, farray<dcomplex, 2>* h_ij, farray<dcomplex, 2>* s_ij,
                       const scc_type* scc);
void get_hs_ij_kreal(const hamiltonian_type& ham, const ions_type& ions, const kpt_type& kpt,
                     int ik, farray<double, 2>* h_ij, farray<double, 2>* s_ij, const scc_type* scc);

// Gradient blocks. strain "" (forces): dh_ab(:, il, k) is the derivative of each
// block by the position of ion ig along k; dh_aa holds the derivatives of the
// diagonal energies of the ion (block 1) and of each neighbour (block jn+1).
// strain "D" (xx, yy, zz) or "O" (xy, yz, xz): minus the derivative by the strain
// component (a, b), that is the sum over terms of -(dX/dv_a) v_b, self images in
// block 1, and the ion's own diagonal in dh_aa block 1.
void calc_hs_grad_real(hamiltonian_type& ham, const ions_type& ions, const box_type& box,
                       std::string_view which = "", std::string_view strain = "");

void print_matrix_real(const farray<double, 2>& m, int unit);
void tb_hs_print(const hamiltonian_type& ham, int unit);

} // namespace lyrt
