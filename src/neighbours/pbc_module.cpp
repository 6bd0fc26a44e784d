#include "neighbours/pbc_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "numerics/utility_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "pbc_module";
constexpr double symmetry_tolerance = 1e-10;

double norm2(const double* r) {
    return r[0] * r[0] + r[1] * r[1] + r[2] * r[2];
}

} // namespace

void pbc_min_vec(double* r_ij, const box_type& box, const double* r_i, const double* r_j,
                 int* trans) {
    const double* a = box.cell.a.data();
    const double* b = box.cell.b.data();
    double d[3];
    for (int k = 0; k < 3; ++k)
        d[k] = (b[k] * r_j[0] + b[k + 3] * r_j[1] + b[k + 6] * r_j[2]) -
               (b[k] * r_i[0] + b[k + 3] * r_i[1] + b[k + 6] * r_i[2]);
    double best = 0.0, best_c[3] = {0.0, 0.0, 0.0};
    int best_n = 0, n = 0;
    for (int sk = -1; sk <= 1; ++sk)
        for (int sj = -1; sj <= 1; ++sj)
            for (int si = -1; si <= 1; ++si) {
                ++n;
                const double x = d[0] + si, y = d[1] + sj, z = d[2] + sk;
                const double c[3] = {a[0] * x + a[3] * y + a[6] * z, a[1] * x + a[4] * y + a[7] * z,
                                     a[2] * x + a[5] * y + a[8] * z};
                const double l2 = norm2(c);
                if (best_n == 0 || l2 < best) {
                    best = l2;
                    best_n = n;
                    best_c[0] = c[0];
                    best_c[1] = c[1];
                    best_c[2] = c[2];
                }
            }
    r_ij[0] = best_c[0];
    r_ij[1] = best_c[1];
    r_ij[2] = best_c[2];
    // The candidate number read on the sub-box offset grid, as the lists carry it.
    if (trans != nullptr) grid_get_ijk_indices(trans, box.nn_sb_grid, best_n);
}

double pbc_min_dist_sq(const box_type& box, const double* r_i, const double* r_j) {
    double r[3];
    pbc_min_vec(r, box, r_i, r_j);
    return norm2(r);
}

double pbc_min_dist(const box_type& box, const double* r_i, const double* r_j) {
    return std::sqrt(pbc_min_dist_sq(box, r_i, r_j));
}

namespace {

// The shortest Cartesian image of the fractional difference d over the cell
// shifts lo..hi on each axis (axis 3 outermost); the first of equal ones wins.
void shortest_shift(double* r_ij, const box_type& box, const double* d, int lo, int hi) {
    double best = -1.0;
    for (int sk = lo; sk <= hi; ++sk)
        for (int sj = lo; sj <= hi; ++sj)
            for (int si = lo; si <= hi; ++si) {
                const double dp[3] = {d[0] + si, d[1] + sj, d[2] + sk};
                double c[3];
                box_rp_to_r(c, box, dp);
                if (best < 0.0 || norm2(c) < best) {
                    best = norm2(c);
                    r_ij[0] = c[0];
                    r_ij[1] = c[1];
                    r_ij[2] = c[2];
                }
            }
}

} // namespace

void pbc_min_vec_old(double* r_ij, const box_type& box, const double* r_i, const double* r_j) {
    double rp_i[3], rp_j[3], d[3];
    box_r_to_rp(rp_i, box, r_i);
    box_r_to_rp(rp_j, box, r_j);
    for (int k = 0; k < 3; ++k) d[k] = rp_j[k] - rp_i[k];
    shortest_shift(r_ij, box, d, -1, 1);
}

void pbc_trans_vec(double* out, const double* rp) {
    for (int k = 0; k < 3; ++k) {
        double t = std::trunc(rp[k]);
        if (rp[k] < 0.0) t -= 1.0;
        out[k] = rp[k] - t;
    }
}

void min_vec(double* r_ij, const box_type& box, const double* r_i, const double* r_j) {
    double rp_i[3], rp_j[3], d[3], f[3];
    box_r_to_rp(rp_i, box, r_i);
    box_r_to_rp(rp_j, box, r_j);
    for (int k = 0; k < 3; ++k) d[k] = rp_j[k] - rp_i[k];
    pbc_trans_vec(f, d);
    shortest_shift(r_ij, box, f, -1, 0);
}

void pbc_count_ion_nn(const box_type& box, int i, int& n) {
    n = 0;
    const ions_type& ions = box.ions;
    for (int j = 1; j <= ions.total_n_ions; ++j) {
        if (j == i) continue;
        double r[3];
        pbc_min_vec(r, box, &ions.r(1, i), &ions.r(1, j));
        if (box.r_cut2 > norm2(r)) ++n;
    }
}

void pbc_calc_max_nn(box_type& box) {
    const char* proc = "pbc_calc_max_nn";
    const trace_guard trace(proc, mod);
    const double start = utime();
    ions_type& ions = box.ions;
    int largest = 0;
    // Every ion is local to the one process.
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        int n;
        pbc_count_ion_nn(box, i, n);
        largest = std::max(largest, n);
    }
    if (largest == 0) warning_error("Number of nearest neighbors is zero", proc, mod);
    ions.max_n_nn = largest;
    ions.ub_n_nn = std::min(2 * largest, ions.total_n_ions - 1);
    write_free(timing_unit, {my_proc, "pbc_calc_max_nn", utime() - start, "sec"});
}

void pbc_calc_ion_nn(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list) {
    ions_type& ions = box.ions;
    for (int j = i + 1; j <= ions.total_n_ions; ++j) {
        double r[3];
        int t[3];
        pbc_min_vec(r, box, &ions.r(1, i), &ions.r(1, j), t);
        const double r2 = norm2(r);
        if (box.r_cut2 > r2) {
            const double d = std::sqrt(r2);
            nn_add_is(nn_hi_list, j, d, r, t);
            nn_add_is(nn_list, j, d, r, t);
            const double mr[3] = {-r[0], -r[1], -r[2]};
            const int mt[3] = {-t[0], -t[1], -t[2]};
            nn_add_is(ions_nn_list(ions, j), i, d, mr, mt);
        }
    }
}

void pbc_min_dist_pair(const box_type& box, int& i_min, int& j_min, double& d_min) {
    const ions_type& ions = box.ions;
    i_min = j_min = 0;
    d_min = -1.0;
    for (int i = 1; i <= ions.total_n_ions && i <= static_cast<int>(ions.nn_hi_list.size()); ++i) {
        const nn_list_type& l = ions_nn_hi_list(ions, i);
        for (int m = 1; m <= l.n_nn; ++m)
            if (d_min < 0.0 || l.dist(m) < d_min) {
                d_min = l.dist(m);
                i_min = i;
                j_min = l.index(m);
            }
    }
}

void pbc_check_min_dist(const box_type& box) {
    int i, j;
    double d;
    pbc_min_dist_pair(box, i, j, d);
    if (i > 0 && d < min_ion_distance)
        fatal_error("ions " + std::to_string(i) + " and " + std::to_string(j) + " are " +
                        format_items("(F10.6)", {d}) + " Angstrom apart, closer than " +
                        format_items("(F4.2)", {min_ion_distance}) +
                        " Angstrom: two ions cannot sit there; check the positions",
                    static_cast<long long>(i) * 10000 + j, "pbc_check_min_dist", mod);
}

void pbc_build_nn_lists(box_type& box, double r_cut, std::optional<double> lo_rad) {
    box_init(box, r_cut, lo_rad);
    box_calc_ic_list(box);
    box_init_sb_list(box);
    box_ions_fill_sb(box);
    pbc_calc_max_nn(box);
    pbc_calc_nn_lists(box, std::min(2 * box.ions.max_n_nn, box.ions.total_n_ions));
}

void pbc_expand_images(box_type& box) {
    ions_type& ions = box.ions;
    const nn_list_type& ic = box.ic_all;
    const double r_cut2 = box.r_cut * box.r_cut;
    const double* b = box.cell.b.data();
    nn_list_type out;
    nn_allocate(out, 1, "explicit_list");
    int largest = 0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        nn_list_type& nl = ions_nn_list(ions, i);
        nn_reset(out);
        // The ion's own images, then every image of each neighbour.
        for (int c = 1; c <= ic.n_nn; ++c) {
            const double* tr = &ic.r_ij(1, c);
            const double d2 = norm2(tr);
            if (r_cut2 >= d2 && d2 > self_image_min)
                nn_add_is(out, i, std::sqrt(d2), tr, &ic.trans(1, c));
        }
        for (int n = 1; n <= nl.n_nn; ++n) {
            const int j = nl.index(n);
            // The lattice vector of the listed image: r_ij - (r_j - r_i) in cell units.
            int l0[3];
            double d[3];
            for (int k = 0; k < 3; ++k)
                d[k] = nl.r_ij(k + 1, n) - ions.r(k + 1, j) + ions.r(k + 1, i);
            for (int k = 0; k < 3; ++k)
                l0[k] =
                    static_cast<int>(std::lround(b[k] * d[0] + b[k + 3] * d[1] + b[k + 6] * d[2]));
            for (int c = 1; c <= ic.n_nn; ++c) {
                const double v[3] = {nl.r_ij(1, n) + ic.r_ij(1, c), nl.r_ij(2, n) + ic.r_ij(2, c),
                                     nl.r_ij(3, n) + ic.r_ij(3, c)};
                const double v2 = norm2(v);
                if (!(r_cut2 >= v2)) continue;
                const int t[3] = {l0[0] + ic.trans(1, c), l0[1] + ic.trans(2, c),
                                  l0[2] + ic.trans(3, c)};
                nn_add_is(out, j, std::sqrt(v2), v, t);
            }
        }
        const std::string name = nl.name;
        nn_list_copy(nl, out);
        nl.name = name;
        largest = std::max(largest, nl.n_nn);
    }
    nn_deallocate(out);
    ions.max_n_nn = largest;
    // Room for the lists to grow as the ions move, as for the minimum-image lists.
    if (largest > ions.ub_n_nn) ions.ub_n_nn = 2 * largest;
}

void pbc_calc_nn_lists(box_type& box, std::optional<int> n_alloc, bool check) {
    const char* proc = "pbc_init_nn_lists";
    const trace_guard trace(proc, mod);
    const double start = utime();
    ions_type& ions = box.ions;
    const auto n = static_cast<std::size_t>(ions.total_n_ions);
    if (ions.nn_list.size() != n) ions.nn_list.resize(n);
    if (ions.nn_hi_list.size() != n) ions.nn_hi_list.resize(n);
    if (n_alloc) {
        for (std::size_t i = 0; i < n; ++i) {
            nn_deallocate(ions.nn_list[i]);
            nn_deallocate(ions.nn_hi_list[i]);
            nn_allocate(ions.nn_list[i], *n_alloc,
                        "box%ions%nn_list(" + std::to_string(i + 1) + ")");
            nn_allocate(ions.nn_hi_list[i], *n_alloc,
                        "box%ions%nn_hi_list(" + std::to_string(i + 1) + ")");
        }
    }
    for (std::size_t i = 0; i < n; ++i) {
        nn_reset(ions.nn_list[i]);
        nn_reset(ions.nn_hi_list[i]);
    }
    for (int i = 1; i <= ions.total_n_ions; ++i)
        pbc_calc_ion_nn(box, i, ions_nn_list(ions, i), ions_nn_hi_list(ions, i));

    if (check) {
        // Both ends of a pair must agree; the entry of the lower-numbered ion wins.
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            nn_list_type& li = ions_nn_list(ions, i);
            for (int m = 1; m <= li.n_nn; ++m) {
                const int j = li.index(m);
                nn_list_type& lj = ions_nn_list(ions, j);
                const int p = iscan(
                    i, std::span<const int>(lj.index.data(), static_cast<std::size_t>(lj.n_nn)));
                if (p < 1 || std::fabs(li.dist(m) - lj.dist(p)) > symmetry_tolerance)
                    fatal_error("d_ij /= d_ji", static_cast<long long>(i) * 10000 + j, proc, mod);
                if (j > i) {
                    lj.dist(p) = li.dist(m);
                    for (int k = 1; k <= 3; ++k) {
                        lj.r_ij(k, p) = -li.r_ij(k, m);
                        lj.trans(k, p) = -li.trans(k, m);
                    }
                } else {
                    li.dist(m) = lj.dist(p);
                    for (int k = 1; k <= 3; ++k) {
                        li.r_ij(k, m) = -lj.r_ij(k, p);
                        li.trans(k, m) = -lj.trans(k, p);
                    }
                }
            }
        }
    }
    // Lists with explicit images are counted afresh (they are expanded below).
    if (box.explicit_images) ions.max_n_nn = 0;
    for (std::size_t i = 0; i < n; ++i)
        ions.max_n_nn = std::max(ions.max_n_nn, ions.nn_list[i].n_nn);
    pbc_check_min_dist(box);
    if (ions.max_n_nn > ions.total_n_ions)
        fatal_error("The maximum # of NN is larger than # of ions!", ions.max_n_nn, proc, mod);
    if (box.explicit_images) pbc_expand_images(box);
    if (ions.max_n_nn > ions.ub_n_nn)
        fatal_error("The maximum # of NN is larger than the maximum allowed!", ions.max_n_nn, proc,
                    mod);
    write_free(timing_unit, {my_proc, "pbc_init_nn_lists", utime() - start, "sec"});
}

namespace {

// Calls f(j, r, r2, s) for every ion j of the sub-boxes around sb (j /= i), with r
// the vector from ion i to j as the sub-box sees it and s its translation.
template <class F>
void for_sb_partners(const box_type& box, int i, const sub_box_type& sb, F&& f) {
    const ions_type& ions = box.ions;
    for (int n = 1; n <= sb.nn_sb_list.n_nn; ++n) {
        const sub_box_type& other =
            box.sb_list[static_cast<std::size_t>(sb.nn_sb_list.index(n) - 1)];
        const double* shift = &sb.nn_sb_list.r_ij(1, n);
        const int* s = &sb.nn_sb_list.trans(1, n);
        for (int m = 1; m <= other.n_ions; ++m) {
            const int j = other.ions(m);
            if (j == i) continue;
            double r[3];
            for (int k = 0; k < 3; ++k) r[k] = ions.r(k + 1, j) + shift[k] - ions.r(k + 1, i);
            f(j, r, norm2(r), s);
        }
    }
}

} // namespace

void pbc_calc_sb_ion_nn(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                        const sub_box_type& sb) {
    ions_type& ions = box.ions;
    for_sb_partners(box, i, sb, [&](int j, const double* r, double r2, const int* s) {
        if (j < i || !(box.r_cut2 > r2)) return;
        const double d = std::sqrt(r2);
        nn_add_is(nn_hi_list, j, d, r, s);
        nn_add_is(nn_list, j, d, r, s);
        const double mr[3] = {-r[0], -r[1], -r[2]};
        const int ms[3] = {-s[0], -s[1], -s[2]};
        nn_add_is(ions_nn_list(ions, j), i, d, mr, ms);
    });
}

void pbc_calc_sb_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list,
                            const sub_box_type& sb) {
    for_sb_partners(box, i, sb, [&](int j, const double* r, double r2, const int* s) {
        if (!(box.r_cut2 > r2)) return;
        nn_add_is(nn_list, j, std::sqrt(r2), r, s);
        if (j > i) nn_add_is(nn_hi_list, j, std::sqrt(r2), r, s);
    });
}

void pbc_calc_ion_nn_old(box_type& box, int i, nn_list_type& nn_list, nn_list_type& nn_hi_list) {
    ions_type& ions = box.ions;
    for (int j = 1; j <= ions.total_n_ions; ++j) {
        if (j == i) continue;
        double r[3];
        int t[3];
        pbc_min_vec(r, box, &ions.r(1, i), &ions.r(1, j), t);
        if (box.r_cut2 > norm2(r)) {
            nn_add_is(nn_list, j, std::sqrt(norm2(r)), r, t);
            if (j > i) nn_add_is(nn_hi_list, j, std::sqrt(norm2(r)), r, t);
        }
    }
}

void pbc_test_min_vec(const box_type& box) {
    const ions_type& ions = box.ions;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        for (int j = 1; j <= ions.total_n_ions; ++j) {
            double r1[3], r2[3];
            pbc_min_vec(r1, box, &ions.r(1, i), &ions.r(1, j));
            min_vec(r2, box, &ions.r(1, i), &ions.r(1, j));
            for (int k = 0; k < 3; ++k)
                if (std::fabs(r1[k] - r2[k]) >= 1e-6)
                    fatal_error("pbc_min_vec and min_vec disagree", i * 10000 + j,
                                "pbc_test_min_vec", mod);
        }
}

void pbc_print(const box_type& box, int unit) {
    const ions_type& ions = box.ions;
    auto print_lists = [&](const std::vector<nn_list_type>& lists) {
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            const nn_list_type& l = lists[static_cast<std::size_t>(i - 1)];
            if (l.n_nn == 0) {
                write_fmt(unit, "(A,I4,A)", {"Ion ", i, " has no neighbors."});
                continue;
            }
            write_fmt(unit, "(A,I4,A,I4,A)", {"Ion ", i, " has ", l.n_nn, " nearest neighbors."});
            for (int m = 1; m <= l.n_nn; ++m)
                write_fmt(unit, "(I4,5F11.4)",
                          {l.index(m), l.dist(m), l.r_ij(1, m), l.r_ij(2, m), l.r_ij(3, m),
                           std::sqrt(l.r_ij(1, m) * l.r_ij(1, m) + l.r_ij(2, m) * l.r_ij(2, m) +
                                     l.r_ij(3, m) * l.r_ij(3, m))});
        }
    };
    write_free(unit, {"The nearest neighbor list :"});
    print_lists(ions.nn_list);
    write_fmt(unit, "(80(\"=\"))", {});
    write_free(unit, {"The high nearest neighbor list :"});
    print_lists(ions.nn_hi_list);
}

} // namespace lyrt
