#include "system/cell_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/utility_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "cell_module";

void bind_views(cell_type& cell) {
    cell.a = cell.a_of_t.slice_last(1);
    cell.b = cell.b_of_t.slice_last(1);
    cell.sig = cell.sig_of_t.slice_last(1);
}

// Volume and inverse of the current vectors.
void update_derived(cell_type& cell) {
    cell.vol_of_t(1) = cell_calc_volume(cell);
    cell_calc_reciprocal(cell.a.data(), cell.b.data());
}

} // namespace

void cell_allocate(cell_type& cell, int n_t) {
    const char* proc = "cell_allocate";
    cell.n_t = n_t;
    ca_real_3d(cell.a_of_t, 1, 3, 1, 3, 1, n_t, "cell%a_of_t", proc, mod);
    ca_real_3d(cell.b_of_t, 1, 3, 1, 3, 1, n_t, "cell%b_of_t", proc, mod);
    ca_real_3d(cell.sig_of_t, 1, 3, 1, 3, 1, n_t, "cell%sig_of_t", proc, mod);
    ca_real_1d(cell.vol_of_t, 1, n_t, "cell%vol_of_t", proc, mod);
    bind_views(cell);
}

void cell_deallocate(cell_type& cell) {
    const char* proc = "cell_deallocate";
    cell.a.deallocate();
    cell.b.deallocate();
    cell.sig.deallocate();
    cd_real_3d(cell.a_of_t, "cell%a_of_t", proc, mod);
    cd_real_3d(cell.b_of_t, "cell%b_of_t", proc, mod);
    cd_real_3d(cell.sig_of_t, "cell%sig_of_t", proc, mod);
    cd_real_1d(cell.vol_of_t, "cell%vol_of_t", proc, mod);
    cell.n_t = 0;
}

void cell_init_a(cell_type& cell, const double* a1, const double* a2, const double* a3) {
    for (int k = 1; k <= 3; ++k) {
        cell.a(k, 1) = a1[k - 1];
        cell.a(k, 2) = a2[k - 1];
        cell.a(k, 3) = a3[k - 1];
    }
    update_derived(cell);
}

void cell_init_cell(cell_type& cell, const farray<double, 2>& a) {
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) cell.a(i, j) = a(i, j);
    update_derived(cell);
}

void cell_init_lattice_type(cell_type& cell, double scale, std::string_view name) {
    double a1[3], a2[3], a3[3], f;
    if (name == "sc" || name == "SC") {
        const double c1[3] = {1, 0, 0}, c2[3] = {0, 1, 0}, c3[3] = {0, 0, 1};
        std::copy(c1, c1 + 3, a1);
        std::copy(c2, c2 + 3, a2);
        std::copy(c3, c3 + 3, a3);
        f = scale;
    } else if (name == "fcc" || name == "bcc") {
        // Both carry the fcc pattern; "bcc" keeps the whole scale.
        const double c1[3] = {0, 1, 1}, c2[3] = {1, 0, 1}, c3[3] = {1, 1, 0};
        std::copy(c1, c1 + 3, a1);
        std::copy(c2, c2 + 3, a2);
        std::copy(c3, c3 + 3, a3);
        f = name == "fcc" ? scale / 2.0 : scale;
    } else {
        return;
    }
    for (int k = 0; k < 3; ++k) {
        a1[k] *= f;
        a2[k] *= f;
        a3[k] *= f;
    }
    cell_init_a(cell, a1, a2, a3);
}

void cell_roll(cell_type& cell) {
    for (int t = cell.n_t; t >= 2; --t) {
        for (int j = 1; j <= 3; ++j)
            for (int i = 1; i <= 3; ++i) {
                cell.a_of_t(i, j, t) = cell.a_of_t(i, j, t - 1);
                cell.b_of_t(i, j, t) = cell.b_of_t(i, j, t - 1);
                cell.sig_of_t(i, j, t) = cell.sig_of_t(i, j, t - 1);
            }
        cell.vol_of_t(t) = cell.vol_of_t(t - 1);
    }
}

void cell_multiply(cell_type& cell, int n1, int n2, int n3) {
    const int n[3] = {n1, n2, n3};
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) cell.a(i, j) *= n[j - 1];
    update_derived(cell);
}

void cell_divide(cell_type& cell, int n1, int n2, int n3) {
    const int n[3] = {n1, n2, n3};
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) cell.a(i, j) /= n[j - 1];
    update_derived(cell);
}

double cell_calc_volume(const cell_type& cell) {
    const double* a = cell.a.data();
    double c[3];
    cross_product(c, a + 3, a + 6);
    return std::fabs(a[0] * c[0] + a[1] * c[1] + a[2] * c[2]);
}

void cell_calc_reciprocal(const double* a, double* b) {
    inverse_matrix_3by3(b, a);
}

double calc_interplan_distance(const double* u, const double* v, const double* w) {
    double c[3];
    cross_product(c, v, w);
    return std::fabs(u[0] * c[0] + u[1] * c[1] + u[2] * c[2]) / abs_vector(c);
}

void cell_calc_min_distances(double* d, const cell_type& cell) {
    const double* a = cell.a.data();
    d[0] = calc_interplan_distance(a, a + 3, a + 6);
    d[1] = calc_interplan_distance(a + 3, a + 6, a);
    d[2] = calc_interplan_distance(a + 6, a, a + 3);
}

void cell_latvec_123(double* out, const cell_type& cell, int n1, int n2, int n3) {
    for (int k = 1; k <= 3; ++k)
        out[k - 1] = n1 * cell.a(k, 1) + n2 * cell.a(k, 2) + n3 * cell.a(k, 3);
}

void cell_latvec_ijk(double* out, const cell_type& cell, const int* n) {
    cell_latvec_123(out, cell, n[0], n[1], n[2]);
}

void cell_print(const cell_type& cell, int unit) {
    write_fmt(unit, "(A)", {"        A1          A2          A3"});
    for (int i = 1; i <= 3; ++i)
        write_fmt(unit, "(3F12.6)", {cell.a(i, 1), cell.a(i, 2), cell.a(i, 3)});
}

} // namespace lyrt
