// Assembly of H and S and of their gradients: invariances, symmetry, analytic
// limits and finite differences.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace lyrt;
using namespace lyrt_test;

class Hamiltonian : public lyrt_test::program_test {
  protected:
    // Positions (Cartesian) with species, in a cubic cell of edge `cell`.
    static std::string positions(const std::vector<std::array<double, 4>>& ions, double cell,
                                 int n_species) {
        std::ostringstream f;
        f.precision(17);
        std::vector<int> count(static_cast<std::size_t>(n_species), 0);
        for (const auto& p : ions) ++count[static_cast<std::size_t>(p[0]) - 1];
        f << "number_of_ions =";
        for (int c : count) f << " " << c;
        f << "\na_1 = " << cell << " 0 0\na_2 = 0 " << cell << " 0\na_3 = 0 0 " << cell
          << "\npositions = cartesian\n";
        for (const auto& p : ions)
            f << static_cast<int>(p[0]) << " " << p[1] << " " << p[2] << " " << p[3] << "\n";
        return f.str();
    }
    // A mixed model: species 1 with s p d (copper set), species 2 with s p (silicon
    // set), the cross pair with its own coefficients.
    std::string mixed_model() {
        species_set cu = read_species_set("Cu"), si = read_species_set("Si");
        std::vector<double> h = copy_cross(cu.h), s = copy_cross(cu.s);
        for (std::size_t k = 40; k < 56; ++k) {
            // Mirror integrals of their own: a, b, c scaled, exponents kept.
            if ((k - 40) % 4 != 3) {
                h[k] *= 0.8;
                s[k] *= 0.9;
            }
        }
        return two_species_file(cu, si, h, s);
    }
};

// A random cluster of s p d and s p atoms: the spectra of H and S do not change
// when the whole cluster is rotated.
TEST_F(Hamiltonian, RotationOfAClusterKeepsTheSpectra) {
    init_random(31, 41);
    std::vector<std::array<double, 4>> ions;
    // Seven atoms near the corners of a cube of edge 2.4 Angstrom, at bonding distances.
    for (int i = 0; i < 7; ++i)
        ions.push_back({1.0 + (i % 2), 19 + 2.4 * (i % 2) + 0.6 * (lyrt::random() - 0.5),
                        19 + 2.4 * ((i / 2) % 2) + 0.6 * (lyrt::random() - 0.5),
                        19 + 2.4 * (i / 4) + 0.6 * (lyrt::random() - 0.5)});
    model_system a;
    build_system(a, dir, positions(ions, 40.0, 2), mixed_model());
    farray<double, 2> h1, s1, h2, s2;
    dense(a, h1, s1);
    // A random rotation (about the cell centre) from three angles.
    const double al = 0.7, be = -1.1, ga = 2.3;
    const double rz1[9] = {std::cos(al), std::sin(al), 0, -std::sin(al), std::cos(al), 0, 0, 0, 1};
    const double ry[9] = {std::cos(be), 0, -std::sin(be), 0, 1, 0, std::sin(be), 0, std::cos(be)};
    const double rz2[9] = {std::cos(ga), std::sin(ga), 0, -std::sin(ga), std::cos(ga), 0, 0, 0, 1};
    auto mul = [](const double* x, const double* y, double* z) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                z[i + 3 * j] = 0;
                for (int k = 0; k < 3; ++k) z[i + 3 * j] += x[i + 3 * k] * y[k + 3 * j];
            }
    };
    double t[9], rot[9];
    mul(ry, rz1, t);
    mul(rz2, t, rot);
    for (auto& p : ions) {
        const double v[3] = {p[1] - 20, p[2] - 20, p[3] - 20};
        for (int i = 0; i < 3; ++i)
            p[static_cast<std::size_t>(i) + 1] =
                20 + rot[i] * v[0] + rot[i + 3] * v[1] + rot[i + 6] * v[2];
    }
    model_system b;
    build_system(b, dir, positions(ions, 40.0, 2), mixed_model());
    dense(b, h2, s2);
    const auto e1 = symmetric_eigenvalues(h1), e2 = symmetric_eigenvalues(h2);
    const auto f1 = symmetric_eigenvalues(s1), f2 = symmetric_eigenvalues(s2);
    ASSERT_EQ(e1.size(), 7u / 2 * 4 + (7u - 7u / 2) * 9);
    for (std::size_t k = 0; k < e1.size(); ++k) {
        EXPECT_NEAR(e1[k], e2[k], 1e-10);
        EXPECT_NEAR(f1[k], f2[k], 1e-10);
    }
    // H and S are symmetric.
    for (long i = 1; i <= h1.extent(0); ++i)
        for (long j = 1; j <= h1.extent(1); ++j) {
            EXPECT_NEAR(h1(i, j), h1(j, i), 1e-12);
            EXPECT_NEAR(s1(i, j), s1(j, i), 1e-12);
        }
}

// Species 2 an exact copy of species 1 (mirror integrals written with the signs of
// the format) gives the H and S of the one-species model for any labelling. The
// density terms of the on-site energies are switched off: they are a polynomial of
// each species' own density and so differ between one and two species by design.
// So is the constant-term overlap, which only pairs of one species have: the
// plain form is used for both.
TEST_F(Hamiltonian, CopiedSpeciesGivesTheOneSpeciesModel) {
    for (const char* set : {"Cu", "Si"}) {
        species_set sp = read_species_set(set);
        zero_onsite_density(sp);
        init_random(5, 7);
        std::vector<std::array<double, 4>> one, two;
        for (int i = 0; i < 6; ++i) {
            const double x = 6 * lyrt::random(), y = 6 * lyrt::random(), z = 6 * lyrt::random();
            one.push_back({1, x, y, z});
            two.push_back({lyrt::random() < 0.5 ? 1.0 : 2.0, x, y, z});
        }
        two[0][0] = 1;
        two[1][0] = 2;
        model_system a, b;
        build_system(a, dir, positions(one, 7.0, 1), one_species_file(sp, 0, "NN00000"));
        on_site_reset();
        build_system(b, dir, positions(two, 7.0, 2),
                     two_species_file(sp, sp, copy_cross(sp.h), copy_cross(sp.s), "NN00000"));
        farray<double, 2> h1, s1, h2, s2;
        dense(a, h1, s1);
        dense(b, h2, s2);
        // Ions keep their order but the block order follows the species: compare by ion.
        for (long i = 1; i <= h1.extent(0); ++i)
            for (long j = 1; j <= h1.extent(1); ++j) {
                ASSERT_NEAR(h1(i, j), h2(i, j), 1e-11) << set << " " << i << "," << j;
                ASSERT_NEAR(s1(i, j), s2(i, j), 1e-12) << set << " " << i << "," << j;
            }
        on_site_reset();
    }
}

TEST_F(Hamiltonian, CrystalsAndIsolatedAtoms) {
    // Far-apart atoms: S is the unit matrix and H the on-site energies.
    species_set si = read_species_set("Si");
    model_system far;
    build_system(far, dir, positions({{1, 1, 1, 1}, {1, 11, 11, 11}}, 40.0, 1),
                 one_species_file(si));
    farray<double, 2> h, s;
    dense(far, h, s);
    const offsite_param_type& p = far.model.param[0];
    for (long i = 1; i <= 8; ++i)
        for (long j = 1; j <= 8; ++j) {
            EXPECT_EQ(s(i, j), i == j ? 1.0 : 0.0);
            if (i != j) {
                EXPECT_EQ(h(i, j), 0.0);
            }
        }
    EXPECT_DOUBLE_EQ(h(1, 1), p.s.a);
    EXPECT_DOUBLE_EQ(h(2, 2), p.p.a);
    // Crystals at normal density have a positive definite overlap.
    for (const char* ex : {"si8", "cu4"}) {
        on_site_reset();
        model_system c;
        build_system(
            c, dir, read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "examples" / ex / "POSLYRT"),
            read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "examples" / ex / "TBPARAM"));
        farray<double, 2> hc, sc;
        dense(c, hc, sc);
        const auto w = symmetric_eigenvalues(sc);
        EXPECT_GT(w.front(), 0.0) << ex;
        for (long i = 1; i <= hc.extent(0); ++i)
            for (long j = 1; j <= hc.extent(1); ++j) ASSERT_NEAR(hc(i, j), hc(j, i), 1e-12);
    }
}

// The gradient arrays against central finite differences of the assembled blocks,
// by ion position (force mode) and by cell strain (strain modes), in a small
// periodic cell where every pair has several images and each ion self images.
TEST_F(Hamiltonian, GradientsMatchFiniteDifferences) {
    init_random(2, 3);
    std::vector<std::array<double, 4>> ions = {
        {1, 0.2, 0.1, 0.3}, {2, 2.1, 1.9, 0.2}, {2, 0.1, 2.2, 1.8}, {1, 1.9, 0.3, 2.1}};
    for (auto& p : ions)
        for (int k = 1; k <= 3; ++k) p[static_cast<std::size_t>(k)] += 0.2 * (lyrt::random() - 0.5);
    model_system s;
    build_system(s, dir, positions(ions, 4.3, 2), mixed_model());
    const sparse_1d_matrix_desc_type& sd = s.ham.desc;
    const int n = s.box.ions.total_n_ions;
    ASSERT_GT(s.box.ic_list.n_nn, 27); // pairs reach through many images
    for (int i = 1; i <= n; ++i) ASSERT_EQ(sd.n_blocks(i), n);
    // Copies of the blocks of a build.
    auto snapshot = [&](farray<double, 2>& h, farray<double, 2>& sm) {
        h = s.ham.h_ab.copy();
        sm = s.ham.s_ab.copy();
    };
    calc_hs_grad_real(s.ham, s.box.ions, s.box);
    farray<double, 3> dh = s.ham.dh_ab.copy(), ds = s.ham.ds_ab.copy(), daa = s.ham.dh_aa.copy();
    const double delta = 1e-5;
    for (int ig = 1; ig <= n; ++ig)
        for (int k = 1; k <= 3; ++k) {
            farray<double, 2> hp, sp, hm, sm;
            s.box.ions.r(k, ig) += delta;
            rebuild(s);
            snapshot(hp, sp);
            s.box.ions.r(k, ig) -= 2 * delta;
            rebuild(s);
            snapshot(hm, sm);
            s.box.ions.r(k, ig) += delta;
            rebuild(s);
            const int il = ig;
            // Neighbour blocks of ig.
            for (int j = 2; j <= sd.n_blocks(ig); ++j)
                for (int l = sd.ublock_offset(j, ig);
                     l < sd.ublock_offset(j, ig) + sd.ublock_dim(j, ig); ++l) {
                    const double fh = (hp(l, il) - hm(l, il)) / (2 * delta);
                    const double fs = (sp(l, il) - sm(l, il)) / (2 * delta);
                    EXPECT_NEAR(dh(l, il, k), fh, 2e-6 * (1 + std::fabs(fh)));
                    EXPECT_NEAR(ds(l, il, k), fs, 2e-6 * (1 + std::fabs(fs)));
                }
            // The diagonal energies: of ig itself (block 1) and of each neighbour j.
            for (int j = 1; j <= sd.n_blocks(ig); ++j) {
                const int jg = sd.block_index(j, ig), nj = sd.row_block_dim(jg);
                for (int a = 1; a <= nj; ++a) {
                    const int l = sd.ublock_offset(1, jg) + (a - 1) * nj + a - 1;
                    const double fd = (hp(l, jg) - hm(l, jg)) / (2 * delta);
                    EXPECT_NEAR(daa(sd.pblock_offset(j, ig) + a - 1, il, k), fd,
                                2e-6 * (1 + std::fabs(fd)))
                        << "ion " << ig << " block " << j;
                }
            }
        }

    // Strain: r -> (1 + e E_ab) r for cell and ions; the arrays hold minus the derivative.
    const int pairs[2][3][2] = {{{0, 0}, {1, 1}, {2, 2}}, {{0, 1}, {1, 2}, {0, 2}}};
    const char* modes[2] = {"D", "O"};
    for (int mde = 0; mde < 2; ++mde) {
        calc_hs_grad_real(s.ham, s.box.ions, s.box, "", modes[mde]);
        farray<double, 3> gh = s.ham.dh_ab.copy(), gs = s.ham.ds_ab.copy(), ga = s.ham.dh_aa.copy();
        for (int c = 0; c < 3; ++c) {
            const int al = pairs[mde][c][0], bt = pairs[mde][c][1];
            farray<double, 2> hp, sp, hm, sm;
            const double eps = 1e-6;
            auto strain = [&](double e) {
                double a[3][3];
                for (int j = 1; j <= 3; ++j)
                    for (int i = 0; i < 3; ++i) a[j - 1][i] = s.box.cell.a(i + 1, j);
                for (int j = 0; j < 3; ++j) a[j][al] += e * a[j][bt];
                cell_init_a(s.box.cell, a[0], a[1], a[2]);
                for (int i = 1; i <= n; ++i) s.box.ions.r(al + 1, i) += e * s.box.ions.r(bt + 1, i);
                rebuild(s);
            };
            // Exact inverse of the shear: (1 + e E)^-1 = 1 - e E for a != b; for a == b
            // divide by (1 + e).
            farray<double, 2> r0 = s.box.ions.r.copy();
            double a0[3][3];
            for (int j = 1; j <= 3; ++j)
                for (int i = 0; i < 3; ++i) a0[j - 1][i] = s.box.cell.a(i + 1, j);
            auto restore = [&]() {
                cell_init_a(s.box.cell, a0[0], a0[1], a0[2]);
                for (int i = 1; i <= n; ++i)
                    for (int k = 1; k <= 3; ++k) s.box.ions.r(k, i) = r0(k, i);
                rebuild(s);
            };
            strain(eps);
            snapshot(hp, sp);
            restore();
            strain(-eps);
            snapshot(hm, sm);
            restore();
            for (int ig = 1; ig <= n; ++ig) {
                const int no = sd.row_block_dim(ig);
                for (int j = 1; j <= sd.n_blocks(ig); ++j)
                    for (int l = sd.ublock_offset(j, ig);
                         l < sd.ublock_offset(j, ig) + sd.ublock_dim(j, ig); ++l) {
                        double expect_h = gh(l, ig, c + 1);
                        if (j == 1) {
                            const int q = l - sd.ublock_offset(1, ig); // (a-1) + no (b-1)
                            if (q % no == q / no)
                                expect_h += ga(sd.pblock_offset(1, ig) + q % no, ig, c + 1);
                        }
                        const double fh = -(hp(l, ig) - hm(l, ig)) / (2 * eps);
                        const double fs = -(sp(l, ig) - sm(l, ig)) / (2 * eps);
                        EXPECT_NEAR(expect_h, fh, 1e-5 * (1 + std::fabs(fh)))
                            << modes[mde] << c << " ion " << ig << " block " << j;
                        EXPECT_NEAR(gs(l, ig, c + 1), fs, 1e-5 * (1 + std::fabs(fs)));
                    }
            }
        }
    }
}

} // namespace
