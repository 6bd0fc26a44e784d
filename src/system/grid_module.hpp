// Boxes of integer lattice points: points run from org(k) to org(k)+n(k)-1 on
// each axis; linear indices run from 1 with axis 1 fastest.
#pragma once

#include <string_view>

namespace lyrt {

struct grid_type {
    int n[3] = {0, 0, 0};   // points along each axis
    int org[3] = {0, 0, 0}; // lowest point along each axis
};

void grid_init_def(grid_type& grid, int n1, int n2, int n3);
void grid_init_range(grid_type& grid, int lo1, int lo2, int lo3, int hi1, int hi2, int hi3);
// 0 inside; else 1 if i lies outside, plus 2 for j, plus 4 for k.
int grid_is_inside(const grid_type& grid, int i, int j, int k);
int grid_get_index(const grid_type& grid, int i, int j, int k);
void grid_get_ijk_indices(int* ijk, const grid_type& grid, int index);
void grid_get_ijk_modulo(int* out, const grid_type& grid, const int* ijk);
void grid_get_ijk_max(int* out, const grid_type& grid);
void grid_get_ijk_min(int* out, const grid_type& grid);
int grid_get_n_pts(const grid_type& grid);
void grid_print(const grid_type& grid, std::string_view name, int unit);
// Self-test: index and modulo round trips on a few grids; returns the number of faults.
int grid_test_module(int unit);

} // namespace lyrt
