// The simulation box: the cell, the cut-off, the image cells that an interaction
// can reach and the sub-boxes into which the cell is divided, with the ions filed
// into them. Every ionic step folds the ions back into the cell here.
#pragma once

#include "system/cell_module.hpp"
#include "system/grid_module.hpp"
#include "system/ions_module.hpp"
#include "system/nn_module.hpp"

#include <optional>
#include <vector>

namespace lyrt {

struct sub_box_type {
    box_type* box = nullptr; // owning box
    int ijk[3] = {0, 0, 0};  // position in sb_grid
    int n_nn_sb = 0;         // neighbouring sub-boxes, itself included
    nn_list_type nn_sb_list; // one entry per neighbouring sub-box
    int n_ions = 0;          // ions now in the sub-box
    farray<int, 1> ions;     // ion numbers; grows in steps of 5
};

struct box_type {
    cell_type cell;
    double volume = 0.0; // copy of the cell volume, Angstrom^3
    double r_cut = 0.0;  // neighbour cut-off, Angstrom
    double r_cut2 = 0.0;
    double lo_rad = 0.0; // localisation radius, Angstrom
    double lo_rad2 = 0.0;
    ions_type ions;
    grid_type ic_grid;    // image cells, -ic(k)..ic(k)
    nn_list_type ic_list; // one entry per image cell (only the cell itself when explicit_images)
    // Neighbour lists with one entry per image (an ion's own images included), as a
    // sampling of k-points needs: every entry then has one lattice vector, in its
    // trans, and ic_list holds only the zero vector; ic_all holds every image cell.
    bool explicit_images = false;
    nn_list_type ic_all;
    int n_sb = 0;
    grid_type sb_grid;    // sub-boxes, 1..sb(k)
    grid_type nn_sb_grid; // neighbour offsets of a sub-box
    std::vector<sub_box_type> sb_list;
};

// Largest image-cell and sub-box grids a run accepts: beyond them the cut-off and
// the cell do not fit together (a unit mistake, a cut-off of kilometres).
constexpr int max_image_cells = 1000000;
constexpr int max_sub_boxes = 1000000;

void box_init(box_type& box, double r_cut, std::optional<double> lo_rad = std::nullopt,
              const int* sb_override = nullptr);
void box_reset(box_type& box);
void box_calc_ic_list(box_type& box);
void box_init_sb_list(box_type& box);
void box_sb_init_nn_sb_list(box_type& box, sub_box_type& sb);
void box_ions_fill_sb(box_type& box);
void box_rescale_ions(box_type& box, int t1 = 1, int t2 = 2);
void box_rp_to_unit_box(double* out, const double* rp);
void box_r_to_rp(double* rp, const box_type& box, const double* r);
void box_rp_to_r(double* r, const box_type& box, const double* rp);
void box_sb_rp_to_ijk(int* ijk, const box_type& box, const double* rp);
int box_sb_rp_to_index(const box_type& box, const double* rp);
int box_sb_ijk_to_index(const box_type& box, int i, int j, int k);
void box_sb_add_particle(sub_box_type& sb, int i);
void box_sb_add_particle_ijk(box_type& box, int i, int j, int k, int ion);
void box_sb_add_particle_index(box_type& box, int index, int ion);
void box_print(const box_type& box, int unit);
void box_sb_print(const sub_box_type& sb, int unit);
// Self-test: every ion is filed once and lies in its sub-box; returns the faults.
int box_test_module(box_type& box, int unit);

} // namespace lyrt
