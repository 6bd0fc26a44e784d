// Assembly of H and S: a copied species against the one-species model, crystals
// and isolated atoms against analytic limits. (The gradients are proved where they
// are used: forces and stress against finite differences of the energy.)
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "test_support.hpp"

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
};

// Species 2 an exact copy of species 1 gives the H and S of the one-species model for
// any labelling (the on-site density terms, own-species by design, and the overlap's
// constant term, of one-species pairs only, are off).
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

} // namespace
