// Image cells, sub-boxes and neighbour lists against crystallography and the
// invariants of the lists.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "numerics/random_module.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class Neighbours : public lyrt_test::program_test {
  protected:
    // A crystal of conventional cubic cells (lattice constant a) repeated n times.
    void crystal(box_type& box, const std::vector<std::array<double, 3>>& basis, double a, int n) {
        std::string text = "number_of_ions = " + std::to_string(basis.size()) + "\n";
        text += "a0 = " + std::to_string(a) + "\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 1\n";
        text += "unit_cell_grid = " + std::to_string(n) + " " + std::to_string(n) + " " +
                std::to_string(n) + "\npositions\n";
        for (const auto& p : basis)
            text += std::to_string(p[0]) + " " + std::to_string(p[1]) + " " + std::to_string(p[2]) +
                    "\n";
        lyrt_test::write_text(dir / "POSLYRT", text);
        ions_read_in(box, box.ions, "POSLYRT");
    }
    // Every ion has the same number of neighbours; returns it.
    int uniform_count(const box_type& box) {
        const int n0 = box.ions.nn_list[0].n_nn;
        for (const auto& l : box.ions.nn_list) EXPECT_EQ(l.n_nn, n0);
        return n0;
    }
    void check_invariants(const box_type& box) {
        const ions_type& ions = box.ions;
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            const nn_list_type& li = ions_nn_list(ions, i);
            int n_hi = 0;
            for (int m = 1; m <= li.n_nn; ++m) {
                const int j = li.index(m);
                ASSERT_NE(j, i);
                if (m > 1) {
                    ASSERT_GT(j, li.index(m - 1)); // strictly ascending
                }
                if (j > i) ++n_hi;
                ASSERT_LT(li.dist(m), box.r_cut);
                EXPECT_NEAR(li.dist(m),
                            std::sqrt(li.r_ij(1, m) * li.r_ij(1, m) +
                                      li.r_ij(2, m) * li.r_ij(2, m) +
                                      li.r_ij(3, m) * li.r_ij(3, m)),
                            1e-12);
                const nn_list_type& lj = ions_nn_list(ions, j);
                int p = 0;
                for (int q = 1; q <= lj.n_nn; ++q)
                    if (lj.index(q) == i) p = q;
                ASSERT_GT(p, 0) << "pair " << i << "," << j << " is one-sided";
                EXPECT_EQ(lj.dist(p), li.dist(m));
                for (int k = 1; k <= 3; ++k) {
                    EXPECT_EQ(lj.r_ij(k, p), -li.r_ij(k, m));
                    EXPECT_EQ(lj.trans(k, p), -li.trans(k, m));
                }
            }
            EXPECT_EQ(ions_nn_hi_list(ions, i).n_nn, n_hi);
        }
    }
};

const std::vector<std::array<double, 3>> diamond = {
    {0, 0, 0},          {0, 0.5, 0.5},      {0.5, 0, 0.5},      {0.5, 0.5, 0},
    {0.25, 0.25, 0.25}, {0.25, 0.75, 0.75}, {0.75, 0.25, 0.75}, {0.75, 0.75, 0.25}};
const std::vector<std::array<double, 3>> fcc = {
    {0, 0, 0}, {0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}};

// Shells of diamond (4, 12, 12, 6, 12 neighbours at a*sqrt(3)/4, a/sqrt(2), a*sqrt(11)/4,
// a, a*sqrt(19)/4) and of fcc (12, 6, 24 at a/sqrt(2), a, a*sqrt(3/2)).
TEST_F(Neighbours, CrystalShellCounts) {
    const std::pair<double, int> si[] = {{2.5, 4}, {4.0, 16}, {4.6, 28}, {5.5, 34}, {6.6, 46}};
    for (const auto& [r_cut, expected] : si) {
        box_type box;
        crystal(box, diamond, 5.431, 3);
        ASSERT_EQ(box.ions.total_n_ions, 216);
        pbc_build_nn_lists(box, r_cut);
        EXPECT_EQ(uniform_count(box), expected) << "Si r_cut " << r_cut;
        EXPECT_EQ(box.ions.max_n_nn, expected);
        if (r_cut == 6.6) check_invariants(box);
    }
    const std::pair<double, int> cu[] = {{3.0, 12}, {4.0, 18}, {4.5, 42}};
    for (const auto& [r_cut, expected] : cu) {
        box_type box;
        crystal(box, fcc, 3.61, 3);
        pbc_build_nn_lists(box, r_cut);
        EXPECT_EQ(uniform_count(box), expected) << "Cu r_cut " << r_cut;
    }
}

// Random positions in a skewed cell: the lists agree with a brute-force search over
// lattice translations, and satisfy every invariant.
TEST_F(Neighbours, RandomSkewedCellsAgreeWithBruteForce) {
    init_random(77, 88);
    for (int trial = 0; trial < 3; ++trial) {
        box_type box;
        std::string text = "number_of_ions = 40\na_1 = 9.0 0.0 0.0\na_2 = 2.5 8.5 0.0\n"
                           "a_3 = -1.5 2.0 10.0\npositions\n";
        for (int i = 0; i < 40; ++i)
            text += std::to_string(3 * lyrt::random() - 1) + " " + std::to_string(lyrt::random()) +
                    " " + std::to_string(lyrt::random()) + "\n";
        lyrt_test::write_text(dir / "POSLYRT", text);
        ions_read_in(box, box.ions, "POSLYRT");
        const double r_cut = 3.0 + trial;
        pbc_build_nn_lists(box, r_cut);
        check_invariants(box);
        // Brute force: the shortest image of each pair, if inside the cut-off.
        const ions_type& ions = box.ions;
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            std::vector<int> expected;
            for (int j = 1; j <= ions.total_n_ions; ++j) {
                if (j == i) continue;
                double best = 1e300;
                for (int a = -2; a <= 2; ++a)
                    for (int b = -2; b <= 2; ++b)
                        for (int c = -2; c <= 2; ++c) {
                            double d2 = 0;
                            for (int k = 1; k <= 3; ++k) {
                                const double d = ions.r(k, j) - ions.r(k, i) +
                                                 a * box.cell.a(k, 1) + b * box.cell.a(k, 2) +
                                                 c * box.cell.a(k, 3);
                                d2 += d * d;
                            }
                            best = std::min(best, d2);
                        }
                if (best < r_cut * r_cut) expected.push_back(j);
            }
            const nn_list_type& l = ions_nn_list(ions, i);
            std::vector<int> got(l.index.data(), l.index.data() + l.n_nn);
            EXPECT_EQ(got, expected) << "ion " << i;
        }
        // Wrapped positions lie inside the cell.
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            double rp[3];
            box_r_to_rp(rp, box, &ions.r(1, i));
            for (double x : rp) {
                EXPECT_GE(x, -1e-12);
                EXPECT_LT(x, 1.0 + 1e-12);
            }
        }
        EXPECT_EQ(box_test_module(box, error_unit), 0);
        pbc_test_min_vec(box);
    }
}

TEST_F(Neighbours, BoxSizingRules) {
    struct sizing {
        double width; // cube edge in units of 2 r_cut
        int sb, ic;
    };
    const sizing cases[] = {{1.0, 2, 0}, {0.999, 1, 2}, {0.5, 1, 2}, {0.2, 1, 4},
                            {1.4, 2, 0}, {1.5, 3, 0},   {99, 100, 0}}; // 100^3: the limit
    for (const sizing& c : cases) {
        box_type box;
        cell_allocate(box.cell);
        const double e = 2.0 * c.width, a1[3] = {e, 0, 0}, a2[3] = {0, e, 0}, a3[3] = {0, 0, e};
        cell_init_a(box.cell, a1, a2, a3);
        testing::internal::CaptureStdout();
        box_init(box, 1.0);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(box.sb_grid.n[0], c.sb) << c.width;
        EXPECT_EQ(box.ic_grid.n[0], 2 * c.ic + 1) << c.width;
        EXPECT_EQ(box.ic_grid.org[0], -c.ic);
    }
    // ic = 1 on every axis: 27 image cells, the 14th the zero vector.
    box_type box;
    cell_allocate(box.cell);
    const double a1[3] = {2.5, 0, 0}, a2[3] = {0, 2.5, 0}, a3[3] = {0, 0, 2.5};
    cell_init_a(box.cell, a1, a2, a3);
    box_init(box, 1.0);
    grid_init_range(box.ic_grid, -1, -1, -1, 1, 1, 1);
    box_calc_ic_list(box);
    ASSERT_EQ(box.ic_list.n_nn, 27);
    EXPECT_EQ(box.ic_list.dist(14), 0.0);
    EXPECT_EQ(box.ic_list.trans(1, 1), -1);
    // A degenerate cell stops.
    box_type flat;
    cell_allocate(flat.cell);
    const double f3[3] = {1.0, 0, 0};
    cell_init_a(flat.cell, a1, a2, f3);
    EXPECT_THROW(box_init(flat, 1.0), fatal_stop);
}

TEST_F(Neighbours, SingleSubBoxAndFolding) {
    box_type box;
    crystal(box, {{0, 0, 0}}, 3.0, 1);
    pbc_build_nn_lists(box, 2.0);
    EXPECT_EQ(box.ions.max_n_nn, 0);
    EXPECT_EQ(box.ions.ub_n_nn, 0);
    EXPECT_EQ(box.nn_sb_grid.n[0] * box.nn_sb_grid.n[1] * box.nn_sb_grid.n[2], 1);
    EXPECT_EQ(box.sb_list[0].n_nn_sb, 1);
    EXPECT_EQ(box.sb_list[0].nn_sb_list.index(1), 1);
    auto err = lyrt_test::read_lines(dir / "ERRLYRT");
    flush(error_unit);
    err = lyrt_test::read_lines(dir / "ERRLYRT");
    EXPECT_EQ(err.back(), "        Number of nearest neighbors is zero");
    double out[3];
    const double rp[3] = {-1.0, 1.0, -0.25};
    box_rp_to_unit_box(out, rp);
    EXPECT_EQ(out[0], 0.0);
    EXPECT_EQ(out[1], 0.0);
    EXPECT_EQ(out[2], 0.75);
    grid_type g;
    grid_init_range(g, 1, 1, 1, 3, 3, 3);
    const int p[3] = {-1, 4, 3};
    int w[3];
    grid_get_ijk_modulo(w, g, p);
    EXPECT_EQ(w[0], 2);
    EXPECT_EQ(w[1], 1);
    EXPECT_EQ(w[2], 3);
    EXPECT_EQ(grid_test_module(error_unit), 0);
}

// The bound of the neighbour count is min(2 max_n_nn, n_ions - 1), and a count
// above it stops the run.
TEST_F(Neighbours, NeighbourCountBound) {
    box_type big;
    crystal(big, diamond, 5.431, 3);
    pbc_build_nn_lists(big, 2.5);
    EXPECT_EQ(big.ions.max_n_nn, 4);
    EXPECT_EQ(big.ions.ub_n_nn, 8); // twice the count
    box_type small;
    crystal(small, diamond, 5.431, 1);
    pbc_build_nn_lists(small, 4.0);
    EXPECT_EQ(small.ions.max_n_nn, 7);
    EXPECT_EQ(small.ions.ub_n_nn, 7); // every other ion
    // Sixteen neighbours within 4 A exceed the bound of 8 set at 2.5 A.
    big.r_cut = 4.0;
    big.r_cut2 = 16.0;
    try {
        pbc_calc_nn_lists(big);
        FAIL() << "a count above the bound went through";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "The maximum # of NN is larger than the maximum allowed!");
    }
}

} // namespace
