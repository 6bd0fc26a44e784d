// Periodic boundary conditions: the minimum-image rule and the neighbour lists
// of every ion (full lists and lists of higher-numbered neighbours).
#pragma once

#include "neighbours/box_module.hpp"

namespace lyrt {

// Minimum-image vector from r_i to r_j over the 27 nearest cell shifts; the first
// of equal candidates wins. trans, when given, is the candidate's point on the
// sub-box offset grid.
void pbc_min_vec(double* r_ij, const box_type& box, const double* r_i, const double* r_j,
                 int* trans = nullptr);
double pbc_min_dist(const box_type& box, const double* r_i, const double* r_j);
double pbc_min_dist_sq(const box_type& box, const double* r_i, const double* r_j);
void pbc_min_vec_old(double* r_ij, const box_type& box, const double* r_i, const double* r_j);
// The folded eight-shift search, for comparison in the self-test.
void min_vec(double* r_ij, const box_type& box, const double* r_i, const double* r_j);
void pbc_trans_vec(double* out, const double* rp);
void pbc_count_ion_nn(const box_type& box, int i, int& n);
void pbc_calc_max_nn(box_type& box);
void pbc_calc_ion_nn(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list);
void pbc_calc_nn_lists(box_type& box, std::optional<int> n_alloc = std::nullopt, bool check = true);
// The sub-box search: the same pairs from the ions of the neighbouring sub-boxes.
void pbc_calc_sb_ion_nn(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                        const sub_box_type& sb);
void pbc_calc_sb_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                            const sub_box_type& sb);
void pbc_calc_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list);
// Compares pbc_min_vec and min_vec on every pair; a difference of 1e-6 stops the run.
void pbc_test_min_vec(const box_type& box);
void pbc_print(const box_type& box, int unit);

} // namespace lyrt
