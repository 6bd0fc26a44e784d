// Points of the Brillouin zone, their weights and the electronic smearing width.
// Without a file KPTS the list is the gamma point alone, of weight 1, and the
// real path serves it. KPTS gives a Monkhorst-Pack grid, a list of points with
// weights, or a path of labelled corners for band structures; points k and -k are
// merged (time reversal), and a point whose Hamiltonian is real (2k a reciprocal
// lattice vector) is marked for the real solver.
#pragma once

#include "base/allocate_module.hpp"
#include "base/farray.hpp"

#include <string>
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

// How the list was given.
constexpr int kpt_mode_gamma = 0;  // no file: the gamma point
constexpr int kpt_mode_grid = 1;   // grid = n1 n2 n3, shift = s1 s2 s3
constexpr int kpt_mode_points = 2; // points = n, then n lines k1 k2 k3 weight
constexpr int kpt_mode_path = 3;   // path = n, then n lines label k1 k2 k3 count

struct kpt_type {
    int n_k = 0;              // number of points
    farray<double, 2> k_cart; // 3 x n_k, Cartesian, 1/Angstrom
    farray<double, 2> k_cell; // 3 x n_k, cell units
    farray<double, 1> weight; // normalised weights, sum 1
    double sigma = 0.0;       // smearing width kT, eV; 0 or less means none
    double dos_sigma = 0.1;   // Gaussian width of the density of states, eV
    std::vector<kpt_phase_type> phase;
    int mode = kpt_mode_gamma;
    std::vector<int> real_point;       // 1 where H(k) is real
    std::vector<std::string> label;    // path: the corner's label, else empty
    std::vector<double> path_x;        // path: distance along it, 1/Angstrom
    int grid[3] = {1, 1, 1};           // grid mode: divisions
    double shift[3] = {0.0, 0.0, 0.0}; // grid mode: shift in grid steps
};

void kpt_allocate(kpt_type& kpt, int n);
void kpt_deallocate(kpt_type& kpt);
// b is the cell's inverse matrix (3 x 3, column-major). Reads `file` when it exists;
// otherwise the list is the gamma point.
void kpt_read_and_allocate(kpt_type& kpt, const farray<double, 2>& b, std::string_view file,
                           int unit);
// Sets the list from points in cell units and weights (normalised here), merging
// k and -k unless `keep_all`, then the Cartesian points and the real marks.
void kpt_set_points(kpt_type& kpt, const farray<double, 2>& b, const std::vector<double>& k_cell,
                    const std::vector<double>& weight, bool keep_all);
// The Monkhorst-Pack points of an n1 x n2 x n3 grid shifted by s grid steps, in
// cell units, each of weight 1 (before merging).
std::vector<double> kpt_grid_points(const int* n, const double* s);
// Recomputes the Cartesian points for a new cell (the cell-unit points stay).
void kpt_update_cart(kpt_type& kpt, const farray<double, 2>& b);
// True when the run needs more than the gamma point (the k-point path).
bool kpt_general(const kpt_type& kpt);
// exp(2 pi i k.n) of point ik for the lattice vector n (cell units): exactly +-1
// at a real point.
dcomplex kpt_lattice_phase(const kpt_type& kpt, int ik, const int* n);
void kpt_print(const kpt_type& kpt, const farray<double, 2>& b, int unit);
void kpt_bcast(kpt_type& kpt);
void kpt_init_phase(kpt_type& kpt, const box_type& box);
void kpt_reinit_phase(kpt_type& kpt, const box_type& box);
// Phase factor of neighbour nn of ion i (or of ion i with itself when nn is 0).
dcomplex kpt_get_phase(const kpt_type& kpt, const box_type& box, int ik, int i, int j, int nn);
void kpt_calc_phase(double& c, double& s, const kpt_type& kpt, int ik, const double* r);
void kpt_calc_phase_factors(kpt_type& kpt, const box_type& box);

} // namespace lyrt
