#include "system/grid_module.hpp"

#include "base/io_module.hpp"

namespace lyrt {

void grid_init_def(grid_type& grid, int n1, int n2, int n3) {
    grid.n[0] = n1;
    grid.n[1] = n2;
    grid.n[2] = n3;
    grid.org[0] = grid.org[1] = grid.org[2] = 0;
}

void grid_init_range(grid_type& grid, int lo1, int lo2, int lo3, int hi1, int hi2, int hi3) {
    grid.n[0] = hi1 - lo1 + 1;
    grid.n[1] = hi2 - lo2 + 1;
    grid.n[2] = hi3 - lo3 + 1;
    grid.org[0] = lo1;
    grid.org[1] = lo2;
    grid.org[2] = lo3;
}

int grid_is_inside(const grid_type& grid, int i, int j, int k) {
    const int p[3] = {i, j, k};
    int code = 0;
    for (int a = 0; a < 3; ++a)
        if (p[a] < grid.org[a] || p[a] > grid.org[a] + grid.n[a] - 1) code += 1 << a;
    return code;
}

int grid_get_index(const grid_type& grid, int i, int j, int k) {
    return ((k - grid.org[2]) * grid.n[1] + (j - grid.org[1])) * grid.n[0] + (i - grid.org[0]) + 1;
}

void grid_get_ijk_indices(int* ijk, const grid_type& grid, int index) {
    int m = index - 1;
    ijk[0] = m % grid.n[0] + grid.org[0];
    m /= grid.n[0];
    ijk[1] = m % grid.n[1] + grid.org[1];
    m /= grid.n[1];
    ijk[2] = m + grid.org[2];
}

void grid_get_ijk_modulo(int* out, const grid_type& grid, const int* ijk) {
    for (int a = 0; a < 3; ++a) {
        int r = (ijk[a] - grid.org[a]) % grid.n[a];
        if (r < 0) r += grid.n[a]; // floored modulo
        out[a] = grid.org[a] + r;
    }
}

void grid_get_ijk_max(int* out, const grid_type& grid) {
    for (int a = 0; a < 3; ++a) out[a] = grid.org[a] + grid.n[a] - 1;
}

void grid_get_ijk_min(int* out, const grid_type& grid) {
    for (int a = 0; a < 3; ++a) out[a] = grid.org[a];
}

int grid_get_n_pts(const grid_type& grid) {
    return grid.n[0] * grid.n[1] * grid.n[2];
}

void grid_print(const grid_type& grid, std::string_view name, int unit) {
    int lo[3], hi[3];
    grid_get_ijk_min(lo, grid);
    grid_get_ijk_max(hi, grid);
    write_fmt(unit, "(3X,A)", {"Name of grid_type variable :" + std::string(name)});
    write_fmt(unit, "(3X,A,3I5)", {"Number of point of the grid : ", grid_get_n_pts(grid)});
    write_fmt(unit, "(3X,A,3I5)", {"Dimension of the grid : ", grid.n[0], grid.n[1], grid.n[2]});
    write_fmt(unit, "(3X,A,3I5)",
              {"Origin point of the grid : ", grid.org[0], grid.org[1], grid.org[2]});
    write_fmt(unit, "(3X,A,I5,A,I5,A)", {"Intervals of the grid    : [", lo[0], ":", hi[0], "]"});
    write_fmt(unit, "(30X,A,I5,A,I5,A)", {"[", lo[1], ":", hi[1], "]"});
    write_fmt(unit, "(30X,A,I5,A,I5,A)", {"[", lo[2], ":", hi[2], "]"});
}

int grid_test_module(int unit) {
    int faults = 0;
    grid_type grids[2];
    grid_init_def(grids[0], 3, 4, 2);
    grid_init_range(grids[1], -2, 1, -1, 2, 3, 1);
    for (const grid_type& g : grids) {
        grid_print(g, "test", unit);
        for (int index = 1; index <= grid_get_n_pts(g); ++index) {
            int ijk[3], back[3];
            grid_get_ijk_indices(ijk, g, index);
            if (grid_get_index(g, ijk[0], ijk[1], ijk[2]) != index) ++faults;
            if (grid_is_inside(g, ijk[0], ijk[1], ijk[2]) != 0) ++faults;
            const int shifted[3] = {ijk[0] + 2 * g.n[0], ijk[1] - g.n[1], ijk[2] - 3 * g.n[2]};
            grid_get_ijk_modulo(back, g, shifted);
            if (back[0] != ijk[0] || back[1] != ijk[1] || back[2] != ijk[2]) ++faults;
        }
    }
    write_free(unit, {"grid_test_module faults:", faults});
    return faults;
}

} // namespace lyrt
