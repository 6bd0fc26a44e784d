// Periodic boundary conditions: the minimum-image rule and the neighbour lists
// of every ion (full lists and lists of higher-numbered neighbours).
#pragma once

#include "system/box_module.hpp"
#include "system/constants_module.hpp"

#include <cmath>

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
// The box of a new cell or cut-off, its image cells and sub-boxes with the ions in
// them, then the lists, each allocated for twice the largest count (at most every ion).
void pbc_build_nn_lists(box_type& box, double r_cut, std::optional<double> lo_rad = std::nullopt);
// Replaces each list by one entry per image within the cut-off (the ion's own
// images included), each with its lattice vector in trans, from box.ic_all.
void pbc_expand_images(box_type& box);
// The sub-box search: the same pairs from the ions of the neighbouring sub-boxes.
void pbc_calc_sb_ion_nn(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                        const sub_box_type& sb);
void pbc_calc_sb_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                            const sub_box_type& sb);
void pbc_calc_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list);
// Compares pbc_min_vec and min_vec on every pair; a difference of 1e-6 stops the run.
void pbc_test_min_vec(const box_type& box);
void pbc_print(const box_type& box, int unit);

// Ions closer than this are an input error (a repeated line, a wrong unit), Angstrom.
constexpr double min_ion_distance = 0.1;
// The closest pair of the present lists (i < j) and its distance; i = 0 and
// d = -1 when no ion has a neighbour.
void pbc_min_dist_pair(const box_type& box, int& i, int& j, double& d);
// Stops the run when two ions are closer than min_ion_distance, naming both.
void pbc_check_min_dist(const box_type& box);

// Visits every pair within the cut-off, periodic images included, as
// f(i, n, vector from i to the partner, its length, self), where self marks an
// ion's own image. With one image cell the neighbour lists hold the pairs; with
// several, every image of every neighbour (and of the ion itself) is tried.
template <class F>
void pbc_for_pair_terms(const box_type& box, F&& f) {
    const ions_type& ions = box.ions;
    const nn_list_type& ic = box.ic_list;
    const double r_cut2 = box.r_cut * box.r_cut;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const nn_list_type& nl = ions_nn_list(ions, i);
        if (ic.n_nn < 2) {
            // Lists with explicit images hold an ion's own images as entries of itself.
            for (int n = 1; n <= nl.n_nn; ++n)
                f(i, nl.index(n), &nl.r_ij(1, n), nl.dist(n), nl.index(n) == i);
            continue;
        }
        for (int c = 1; c <= ic.n_nn; ++c) {
            const double* tr = &ic.r_ij(1, c);
            const double d2 = tr[0] * tr[0] + tr[1] * tr[1] + tr[2] * tr[2];
            if (d2 <= r_cut2 && d2 > self_image_min) f(i, i, tr, std::sqrt(d2), true);
            for (int n = 1; n <= nl.n_nn; ++n) {
                const double v[3] = {nl.r_ij(1, n) + tr[0], nl.r_ij(2, n) + tr[1],
                                     nl.r_ij(3, n) + tr[2]};
                const double v2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                if (v2 <= r_cut2 && v2 > self_image_min) f(i, nl.index(n), v, std::sqrt(v2), false);
            }
        }
    }
}

} // namespace lyrt
