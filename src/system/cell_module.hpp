// The periodic supercell: lattice vectors in columns, their inverse, the stress
// and the volume, each with a short time history (slot 1 is the newest).
#pragma once

#include "base/farray.hpp"

#include <string_view>

namespace lyrt {

struct cell_type {
    farray<double, 2> a;      // view of a_of_t slot 1: lattice vectors in columns, Angstrom
    farray<double, 2> b;      // view: inverse of a (reduced = b times Cartesian)
    farray<double, 2> sig;    // view: stress tensor, eV/Angstrom^3
    farray<double, 3> a_of_t; // 3 x 3 x n_t
    farray<double, 3> b_of_t;
    farray<double, 3> sig_of_t;
    farray<double, 1> vol_of_t; // volumes, Angstrom^3; the current one is vol_of_t(1)
    int n_t = 0;
};

void cell_allocate(cell_type& cell, int n_t = 3);
void cell_deallocate(cell_type& cell);
inline double cell_vol(const cell_type& cell) {
    return cell.vol_of_t(1);
}

// Sets the current vectors, then the volume and the inverse.
void cell_init_a(cell_type& cell, const double* a1, const double* a2, const double* a3);
void cell_init_cell(cell_type& cell, const farray<double, 2>& a);
// "sc"/"SC", "fcc", "bcc" with scale s; any other name leaves the cell as it is.
void cell_init_lattice_type(cell_type& cell, double scale, std::string_view name);
void cell_roll(cell_type& cell);
void cell_multiply(cell_type& cell, int n1, int n2, int n3);
void cell_divide(cell_type& cell, int n1, int n2, int n3);
double cell_calc_volume(const cell_type& cell);
// b = inverse of a; both 3 x 3 column-major.
void cell_calc_reciprocal(const double* a, double* b);
void cell_calc_min_distances(double* d, const cell_type& cell);
double calc_interplan_distance(const double* u, const double* v, const double* w);
void cell_latvec_123(double* out, const cell_type& cell, int n1, int n2, int n3);
void cell_latvec_ijk(double* out, const cell_type& cell, const int* n);
void cell_print(const cell_type& cell, int unit);

} // namespace lyrt
