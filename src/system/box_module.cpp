#include "system/box_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/constants_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "box_module";
constexpr double degenerate_volume = single_1e_6; // Angstrom^3

// Whole part of the nearest integer, halves rounded away from zero.
int nearest(double x) {
    return static_cast<int>(std::lround(x));
}

} // namespace

void box_init(box_type& box, double r_cut, std::optional<double> lo_rad, const int* sb_override) {
    const char* proc = "box_init";
    const trace_guard trace(proc, mod);
    box.volume = cell_vol(box.cell);
    if (std::fabs(box.volume) < degenerate_volume)
        fatal_error("Cell is degenerate, volume = 0", 0, proc, mod);
    box.r_cut = r_cut;
    box.r_cut2 = r_cut * r_cut;
    box.lo_rad = lo_rad ? *lo_rad : r_cut;
    box.lo_rad2 = box.lo_rad * box.lo_rad;

    if (!(r_cut > 0.0) || !std::isfinite(r_cut))
        fatal_error("the cut-off r_cut = " + format_items("(ES11.4)", {r_cut}) +
                        " Angstrom is not a positive number",
                    -1, proc, mod);

    double min_dist[3];
    cell_calc_min_distances(min_dist, box.cell);
    // Counts of image cells and sub-boxes in floating point first: a cut-off far
    // beyond the cell (or far below it) would overflow the integer grids.
    double n_images = 1.0, n_sub_boxes = 1.0;
    for (int k = 0; k < 3; ++k) {
        const double x = min_dist[k] / (2.0 * r_cut);
        if (x < 1.0)
            n_images *= 2.0 * (std::round(0.5 / x) + 1.0) + 1.0;
        else
            n_sub_boxes *= std::round(x) + 1.0;
    }
    if (!(n_images <= max_image_cells) || !(n_sub_boxes <= max_sub_boxes)) {
        const bool images = !(n_images <= max_image_cells);
        fatal_error(
            "the cut-off r_cut = " + format_items("(ES11.4)", {r_cut}) + " Angstrom needs " +
                format_items("(ES10.3)", {images ? n_images : n_sub_boxes}) +
                (images ? " image cells" : " sub-boxes") + " of a cell whose shortest width is " +
                format_items("(ES11.4)",
                             {std::min(min_dist[0], std::min(min_dist[1], min_dist[2]))}) +
                " Angstrom (at most " +
                format_items("(I8)", {images ? max_image_cells : max_sub_boxes}) +
                "): check r_cut and the cell (lattice constant, units)",
            -1, proc, mod);
    }
    int sb[3], ic[3];
    for (int k = 0; k < 3; ++k) {
        const double x = min_dist[k] / (2.0 * r_cut);
        if (x < 1.0) {
            sb[k] = 1;
            ic[k] = nearest(0.5 / x) + 1;
        } else {
            sb[k] = nearest(x) + 1;
            ic[k] = 0;
        }
    }
    if (sb_override != nullptr)
        for (int k = 0; k < 3; ++k) sb[k] = sb_override[k];
    grid_init_range(box.sb_grid, 1, 1, 1, sb[0], sb[1], sb[2]);
    grid_init_range(box.ic_grid, -ic[0], -ic[1], -ic[2], ic[0], ic[1], ic[2]);

    // The shape of one sub-box must hold a cut-off sphere's reach.
    cell_type sub;
    cell_allocate(sub, 1);
    cell_init_cell(sub, box.cell.a);
    cell_divide(sub, sb[0], sb[1], sb[2]);
    double sb_dist[3];
    cell_calc_min_distances(sb_dist, sub);
    for (int k = 0; k < 3; ++k) {
        if (sb[k] > 1 && r_cut > 1.5 * sb_dist[k]) {
            std::string field = format_items("(3F8.3,A,F8.3)",
                                             {1.5 * sb_dist[0], 1.5 * sb_dist[1], 1.5 * sb_dist[2],
                                              " should not be smaller than r_cut = ", r_cut});
            field.resize(80, ' ');
            warning_error("Subbox grid division is too small 1.5*minimum distances = " + field,
                          proc, mod);
        }
    }
    cell_deallocate(sub);
}

void box_reset(box_type& box) {
    for (sub_box_type& sb : box.sb_list) {
        if (sb.ions.allocated()) cd_integer_1d(sb.ions, "sb%ions", "box_reset", mod);
        nn_deallocate(sb.nn_sb_list);
    }
    box.sb_list.clear();
    box.n_sb = 0;
}

void box_calc_ic_list(box_type& box) {
    const char* proc = "box_calc_ic_list";
    const trace_guard trace(proc, mod);
    nn_list_type tmp;
    nn_allocate(tmp, grid_get_n_pts(box.ic_grid), "tmp_ic_list:box_calc_ic_list:box_module");
    int lo[3], hi[3];
    grid_get_ijk_min(lo, box.ic_grid);
    grid_get_ijk_max(hi, box.ic_grid);
    int n = 0;
    for (int k = lo[2]; k <= hi[2]; ++k)
        for (int j = lo[1]; j <= hi[1]; ++j)
            for (int i = lo[0]; i <= hi[0]; ++i) {
                double r[3];
                cell_latvec_123(r, box.cell, i, j, k);
                const int t[3] = {i, j, k};
                nn_add_is(tmp, ++n, std::sqrt(r[0] * r[0] + r[1] * r[1] + r[2] * r[2]), r, t);
            }
    if (box.ic_list.index.allocated()) nn_deallocate(box.ic_list);
    if (box.ic_all.index.allocated()) nn_deallocate(box.ic_all);
    box.ic_list.name = "box%ic_list";
    box.ic_all.name = "box%ic_all";
    nn_list_copy(box.ic_all, tmp);
    if (box.explicit_images) {
        // The lists carry every image: the interactions see the cell itself only.
        const double zero[3] = {0.0, 0.0, 0.0};
        const int origin[3] = {0, 0, 0};
        nn_allocate(box.ic_list, 1, box.ic_list.name);
        nn_add_is(box.ic_list, 1, 0.0, zero, origin);
    } else {
        nn_list_copy(box.ic_list, tmp);
    }
    nn_deallocate(tmp);
}

void box_init_sb_list(box_type& box) {
    const char* proc = "box_init_sb_list";
    const trace_guard trace(proc, mod);
    box.n_sb = grid_get_n_pts(box.sb_grid);
    box.sb_list.clear();
    box.sb_list.resize(static_cast<std::size_t>(box.n_sb));
    int count = 1, lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    for (int k = 0; k < 3; ++k)
        if (box.sb_grid.n[k] > 1) {
            count *= 3;
            lo[k] = -1;
            hi[k] = 1;
        }
    grid_init_range(box.nn_sb_grid, lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]);
    int number = 0;
    int smin[3], smax[3];
    grid_get_ijk_min(smin, box.sb_grid);
    grid_get_ijk_max(smax, box.sb_grid);
    for (int k = smin[2]; k <= smax[2]; ++k)
        for (int j = smin[1]; j <= smax[1]; ++j)
            for (int i = smin[0]; i <= smax[0]; ++i) {
                ++number;
                if (number > box.n_sb) {
                    warning_error("Number of subbox > No of points in box%sb_grid", proc, mod);
                    continue;
                }
                sub_box_type& sb = box.sb_list[static_cast<std::size_t>(number - 1)];
                sb.box = &box;
                sb.n_ions = 0;
                sb.ijk[0] = i;
                sb.ijk[1] = j;
                sb.ijk[2] = k;
                sb.n_nn_sb = count;
                box_sb_init_nn_sb_list(box, sb);
            }
}

void box_sb_init_nn_sb_list(box_type& box, sub_box_type& sb) {
    const char* proc = "box_sb_init_nn_sb_list";
    const int length = grid_get_n_pts(box.nn_sb_grid);
    if (sb.nn_sb_list.index.allocated()) nn_deallocate(sb.nn_sb_list);
    nn_allocate(sb.nn_sb_list, length, "sb%nn_sb_list:box_sb_init_nn_sb_list:box_module");
    int lo[3], hi[3];
    grid_get_ijk_min(lo, box.nn_sb_grid);
    grid_get_ijk_max(hi, box.nn_sb_grid);
    for (int dk = lo[2]; dk <= hi[2]; ++dk)
        for (int dj = lo[1]; dj <= hi[1]; ++dj)
            for (int di = lo[0]; di <= hi[0]; ++di) {
                const int off[3] = {di, dj, dk};
                const int raw[3] = {sb.ijk[0] + di, sb.ijk[1] + dj, sb.ijk[2] + dk};
                int wrapped[3];
                grid_get_ijk_modulo(wrapped, box.sb_grid, raw);
                const int index = grid_get_index(box.sb_grid, wrapped[0], wrapped[1], wrapped[2]);
                if (sb.nn_sb_list.n_nn >= length)
                    fatal_error("Too many nn suboxes !", 0, proc, mod);
                int shift = 0;
                for (int a = 0; a < 3; ++a) shift = std::max(shift, std::abs(wrapped[a] - raw[a]));
                double r[3] = {0.0, 0.0, 0.0};
                int t[3] = {0, 0, 0};
                if (shift > 0) {
                    // Whole cells crossed on each axis: only an axis that wrapped moves
                    // the neighbour's ions by a lattice vector.
                    int cells[3];
                    for (int a = 0; a < 3; ++a) cells[a] = (raw[a] - wrapped[a]) / box.sb_grid.n[a];
                    cell_latvec_123(r, box.cell, cells[0], cells[1], cells[2]);
                    for (int a = 0; a < 3; ++a) t[a] = off[a];
                }
                nn_add_is(sb.nn_sb_list, index, std::sqrt(r[0] * r[0] + r[1] * r[1] + r[2] * r[2]),
                          r, t);
            }
}

void box_ions_fill_sb(box_type& box) {
    const char* proc = "box_ions_fill_sb";
    const trace_guard trace(proc, mod);
    const double start = utime();
    ions_type& ions = box.ions;
    const int n_r = ions.r.allocated() ? static_cast<int>(ions.r.extent(1)) : 0;
    if (n_r != ions.total_n_ions)
        fatal_error(format_items("(A,I4,A,I4)", {"Size of r array : ", n_r,
                                                 "/= total_n_ions = ", ions.total_n_ions}),
                    n_r, proc, mod);
    for (sub_box_type& sb : box.sb_list) sb.n_ions = 0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        double rp[3], folded[3], r[3];
        if (!std::isfinite(ions.r(1, i)) || !std::isfinite(ions.r(2, i)) ||
            !std::isfinite(ions.r(3, i)))
            fatal_error("the position of ion " + std::to_string(i) + " is not a finite number", i,
                        proc, mod);
        box_r_to_rp(rp, box, &ions.r(1, i));
        box_rp_to_unit_box(folded, rp);
        box_sb_add_particle_index(box, box_sb_rp_to_index(box, folded), i);
        box_rp_to_r(r, box, folded);
        for (int k = 0; k < 3; ++k) ions.r(k + 1, i) = r[k];
    }
    write_free(timing_unit, {my_proc, "box_ions_fill_sb", utime() - start, "sec"});
}

void box_rescale_ions(box_type& box, int t1, int t2) {
    ions_type& ions = box.ions;
    const cell_type& c = box.cell;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        double rp[3] = {0, 0, 0}, folded[3];
        for (int a = 1; a <= 3; ++a)
            for (int b = 1; b <= 3; ++b) rp[a - 1] += c.b_of_t(a, b, t2) * ions.r(b, i);
        box_rp_to_unit_box(folded, rp);
        for (int a = 1; a <= 3; ++a) {
            double s = 0;
            for (int b = 1; b <= 3; ++b) s += c.a_of_t(a, b, t1) * folded[b - 1];
            ions.r(a, i) = s;
        }
    }
}

void box_rp_to_unit_box(double* out, const double* rp) {
    for (int k = 0; k < 3; ++k) {
        const double x = rp[k];
        double y = x < 0.0 ? x - std::trunc(x) + 1.0 : x - std::trunc(x);
        if (y == 1.0) y = 0.0;
        out[k] = y;
    }
}

void box_r_to_rp(double* rp, const box_type& box, const double* r) {
    const double* b = box.cell.b.data();
    for (int k = 0; k < 3; ++k) rp[k] = b[k] * r[0] + b[k + 3] * r[1] + b[k + 6] * r[2];
}

void box_rp_to_r(double* r, const box_type& box, const double* rp) {
    const double* a = box.cell.a.data();
    for (int k = 0; k < 3; ++k) r[k] = a[k] * rp[0] + a[k + 3] * rp[1] + a[k + 6] * rp[2];
}

void box_sb_rp_to_ijk(int* ijk, const box_type& box, const double* rp) {
    for (int k = 0; k < 3; ++k)
        ijk[k] =
            static_cast<int>(std::trunc(std::trunc(box.sb_grid.n[k] * rp[k]) + box.sb_grid.org[k]));
}

int box_sb_rp_to_index(const box_type& box, const double* rp) {
    int ijk[3];
    box_sb_rp_to_ijk(ijk, box, rp);
    return box_sb_ijk_to_index(box, ijk[0], ijk[1], ijk[2]);
}

int box_sb_ijk_to_index(const box_type& box, int i, int j, int k) {
    const int raw[3] = {i, j, k};
    int w[3];
    grid_get_ijk_modulo(w, box.sb_grid, raw);
    return grid_get_index(box.sb_grid, w[0], w[1], w[2]);
}

void box_sb_add_particle(sub_box_type& sb, int i) {
    ++sb.n_ions;
    if (sb.ions.allocated() && sb.n_ions <= static_cast<int>(sb.ions.extent(0))) {
        sb.ions(sb.n_ions) = i;
        return;
    }
    farray<int, 1> grown;
    ca_integer_1d(grown, 1, sb.n_ions + 5, "sb%ions", "box_sb_add_particle", mod);
    for (int m = 1; m < sb.n_ions; ++m) grown(m) = sb.ions(m);
    if (sb.ions.allocated()) cd_integer_1d(sb.ions, "sb%ions", "box_sb_add_particle", mod);
    sb.ions = std::move(grown);
    sb.ions(sb.n_ions) = i;
}

void box_sb_add_particle_ijk(box_type& box, int i, int j, int k, int ion) {
    box_sb_add_particle_index(box, box_sb_ijk_to_index(box, i, j, k), ion);
}

void box_sb_add_particle_index(box_type& box, int index, int ion) {
    box_sb_add_particle(box.sb_list[static_cast<std::size_t>(index - 1)], ion);
}

void box_print(const box_type& box, int unit) {
    write_free(unit, {"Cell :"});
    cell_print(box.cell, unit);
    write_free(unit, {"Cut-off radius r_cut=", box.r_cut});
    write_free(unit, {"Image cell grid : "});
    grid_print(box.ic_grid, "box%ic_grid", unit);
    write_free(unit, {"Subbox grid : "});
    grid_print(box.sb_grid, "box%sb_grid", unit);
    write_free(unit, {"Number of subboxes : ", box.n_sb});
    for (const sub_box_type& sb : box.sb_list) box_sb_print(sb, unit);
}

void box_sb_print(const sub_box_type& sb, int unit) {
    const int index = grid_get_index(sb.box->sb_grid, sb.ijk[0], sb.ijk[1], sb.ijk[2]);
    write_free(unit, {"  Subbox index : ", index});
    write_free(unit, {"  Number of ions in the subbox : ", sb.n_ions});
    write_free(unit, {"  Ions in the subbox : "});
    fitem_list ions;
    for (int m = 1; m <= sb.n_ions; ++m) ions.emplace_back(sb.ions(m));
    if (!ions.empty()) write_fmt(unit, "(10I5)", ions);
    write_free(unit, {"  Number of neighboring subboxes : ", sb.n_nn_sb});
    fitem_list nn{"  Indices of neighboring subboxes : "};
    for (int m = 1; m <= sb.nn_sb_list.n_nn; ++m) nn.emplace_back(sb.nn_sb_list.index(m));
    write_free(unit, nn);
}

int box_test_module(box_type& box, int unit) {
    int faults = 0;
    std::vector<int> filed(static_cast<std::size_t>(box.ions.total_n_ions) + 1, 0);
    for (std::size_t s = 0; s < box.sb_list.size(); ++s) {
        const sub_box_type& sb = box.sb_list[s];
        for (int m = 1; m <= sb.n_ions; ++m) {
            const int i = sb.ions(m);
            ++filed[static_cast<std::size_t>(i)];
            double rp[3];
            box_r_to_rp(rp, box, &box.ions.r(1, i));
            if (box_sb_rp_to_index(box, rp) != static_cast<int>(s) + 1) ++faults;
        }
    }
    for (int i = 1; i <= box.ions.total_n_ions; ++i)
        if (filed[static_cast<std::size_t>(i)] != 1) ++faults;
    write_free(unit, {"box_test_module faults:", faults});
    return faults;
}

} // namespace lyrt
