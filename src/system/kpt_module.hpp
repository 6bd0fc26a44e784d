// Points of the Brillouin zone and the electronic smearing width. This build
// works at the gamma point: the list is one point of weight 1, and the phase
// factors of image cells are all 1.
#pragma once

#include "base/allocate_module.hpp"
#include "base/farray.hpp"

#include <string_view>
#include <vector>

namespace lyrt {

struct box_type;
struct cell_type;

// Phase factors of one k-point: per ion (cos_kr, sin_kr) and per image cell (cos_kl, sin_kl).
struct kpt_phase_type {
    farray<double, 2> cos_kr, sin_kr;
    farray<double, 1> cos_kl, sin_kl;
};

struct kpt_type {
    int n_k = 0;              // number of points
    farray<double, 2> k_cart; // 3 x n_k, Cartesian, 1/Angstrom
    farray<double, 2> k_cell; // 3 x n_k, cell units
    farray<double, 1> weight; // normalised weights, sum 1
    double sigma = 0.0;       // smearing width kT, eV; 0 or less means none
    std::vector<kpt_phase_type> phase;
};

void kpt_allocate(kpt_type& kpt, int n);
void kpt_deallocate(kpt_type& kpt);
// b is the cell's inverse matrix (3 x 3, column-major); file and unit are not used here.
void kpt_read_and_allocate(kpt_type& kpt, const farray<double, 2>& b, std::string_view file,
                           int unit);
void kpt_print(const kpt_type& kpt, const farray<double, 2>& b, int unit);
void kpt_bcast(kpt_type& kpt);
void kpt_init_phase(kpt_type& kpt, const box_type& box);
void kpt_reinit_phase(kpt_type& kpt, const box_type& box);
// Phase factor of neighbour nn of ion i (or of ion i with itself when nn is 0).
dcomplex kpt_get_phase(const kpt_type& kpt, const box_type& box, int ik, int i, int j, int nn);
void kpt_calc_phase(double& c, double& s, const kpt_type& kpt, int ik, const double* r);
void kpt_calc_phase_factors(kpt_type& kpt, const box_type& box);

} // namespace lyrt
