// The stress against finite differences of the energy under strain, and the
// unrolled contraction kernels against their general loop.
#include "base/allocate_module.hpp"
#include "diag/eig_state_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model_support.hpp"
#include "operators/acum_delem_module_1.hpp"
#include "parallel/threads_module.hpp"
#include "run_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

// A model system with its electronic records, strained at will.
class StrainedSystem : public lyrt_test::program_test, public electronic_records {
  protected:
    // k: points in cell units (none: the gamma point on lists of summed images).
    void set_up(const std::string& poslyrt, const std::string& tbparam, int n_states, double sigma,
                bool charges = false, const std::vector<double>& k = {}) {
        s.box.explicit_images = !k.empty();
        build_system(s, dir, poslyrt, tbparam);
        if (!k.empty())
            kpt_set_points(kpt, s.box.cell.b, k, std::vector<double>(k.size() / 3, 1.0), false);
        electronic_records_init(*this, s, sigma, charges, n_states);
        a0 = s.box.cell.a.copy();
        r0 = s.box.ions.r.copy();
    }
    // Cell and positions strained by (1 + e), e symmetric (3 x 3, row-major).
    void strain(const double e[3][3]) {
        farray<double, 2> a;
        a.allocate({1, 1}, {3, 3});
        for (int j = 1; j <= 3; ++j)
            for (int i = 1; i <= 3; ++i) {
                a(i, j) = a0(i, j);
                for (int k = 1; k <= 3; ++k) a(i, j) += e[i - 1][k - 1] * a0(k, j);
            }
        cell_init_cell(s.box.cell, a);
        for (int n = 1; n <= s.box.ions.total_n_ions; ++n)
            for (int i = 1; i <= 3; ++i) {
                s.box.ions.r(i, n) = r0(i, n);
                for (int k = 1; k <= 3; ++k) s.box.ions.r(i, n) += e[i - 1][k - 1] * r0(k, n);
            }
        rebuild(s);
    }
    double energy() {
        gs_calc(s.box, st, elec, ea, s.ham, false);
        return st.e_pot;
    }
    // The stress of the unstrained system against -(1/V) dE/de by central differences.
    void check(double tol, const char* what) {
        const double none[3][3] = {};
        strain(none);
        energy();
        i_algo_type ia;
        ia.calc_stress = true;
        forces_calc(s.ham, s.box.ions, s.box, ia, elec, ea);
        const farray<double, 2> sig = s.box.cell.sig.copy();
        const double vol = cell_vol(s.box.cell);
        const int comp[6][2] = {{0, 0}, {1, 1}, {2, 2}, {0, 1}, {1, 2}, {0, 2}};
        const double h = 1e-5;
        for (const auto& c : comp) {
            double ep[3][3] = {}, em[3][3] = {};
            ep[c[0]][c[1]] = ep[c[1]][c[0]] = h;
            em[c[0]][c[1]] = em[c[1]][c[0]] = -h;
            strain(ep);
            const double e_plus = energy();
            strain(em);
            const double e_minus = energy();
            const double de = (e_plus - e_minus) / (2 * h);
            // A shear strain moves both (i, j) and (j, i): dE/dx = -2 V sig(i, j).
            const double expected = -de / vol / (c[0] == c[1] ? 1.0 : 2.0);
            EXPECT_NEAR(sig(c[0] + 1, c[1] + 1), expected, tol)
                << what << " component " << c[0] + 1 << c[1] + 1;
        }
        strain(none);
    }
    void TearDown() override {
        electronic_records_free(*this);
        program_test::TearDown();
    }
    model_system s;
    farray<double, 2> a0, r0;
};

const char* si8_rattled =
    "number_of_ions = 8\na_1 = 5.30 0 0\na_2 = 0.1 5.35 0\na_3 = 0.05 -0.1 5.42\n"
    "positions\n0.01 0 0.02\n0 0.5 0.49\n0.5 0.01 0.5\n0.51 0.5 0\n"
    "0.25 0.26 0.25\n0.24 0.75 0.75\n0.75 0.25 0.74\n0.75 0.76 0.25\n";

TEST_F(StrainedSystem, SiliconStressIsMinusTheStrainDerivative) {
    set_up(si8_rattled, one_species_file(read_species_set("Si")), 16, 0.0);
    check(1e-5, "Si 8 triclinic, rattled");
}

const char* fcc4_rattled(double a) {
    static std::string text;
    text = "number_of_ions = 4\na0 = " + std::to_string(a) +
           "\na_1 = 1 0 0\na_2 = 0 1 0.02\na_3 = 0 0 1\npositions\n0.01 0 0\n0 0.5 0.51\n"
           "0.5 0.01 0.5\n0.49 0.5 0\n";
    return text.c_str();
}

TEST_F(StrainedSystem, MixedSpeciesStress) {
    std::string pos = fcc4_rattled(3.8);
    pos.replace(pos.find("number_of_ions = 4"), 18, "number_of_ions = 3 1");
    set_up(pos, read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/CuAu.tbparam"), 26,
           0.1);
    check(2e-5, "Cu3Au with smearing");
}

// With self-consistent charges the charge term of H enters the strain derivative
// (with smearing: of the free energy).
TEST_F(StrainedSystem, SelfConsistentChargesStress) {
    species_set si = read_species_set("Si");
    si.electrons += " 6.0";
    set_up(si8_rattled, one_species_file(si), 32, 0.1, true);
    check(2e-5, "Si 8 with charges, U 6 eV, sigma 0.1");
    double q_max = 0.0;
    for (const double q : s.box.ions.qion) q_max = std::max(q_max, std::fabs(q));
    EXPECT_GT(q_max, 1e-3);
}

// The threaded loops (assembly of H and S, gradient blocks, density matrix blocks,
// force and stress contractions) give the energy, forces and stress of one thread
// on two, to rounding: Si with its environment-dependent on-site terms, and Cu3Au
// with smearing. Each ion's force is summed by one thread, so those agree exactly.
TEST_F(StrainedSystem, OneAndTwoThreadsAgree) {
    const int threads = thread_count();
    set_thread_count(2);
    if (thread_count() < 2) GTEST_SKIP() << "built without OpenMP: one thread only";
    std::string cu3au = fcc4_rattled(3.8);
    cu3au.replace(cu3au.find("number_of_ions = 4"), 18, "number_of_ions = 3 1");
    struct result {
        double e = 0.0;
        farray<double, 2> f, sig;
    };
    auto evaluate = [&](int n) {
        set_thread_count(n);
        const double none[3][3] = {};
        strain(none);
        result r;
        r.e = energy();
        i_algo_type ia;
        ia.calc_stress = true;
        forces_calc(s.ham, s.box.ions, s.box, ia, elec, ea);
        r.f = s.box.ions.f.copy();
        r.sig = s.box.cell.sig.copy();
        return r;
    };
    for (int c = 0; c < 2; ++c) {
        if (c == 0)
            set_up(si8_rattled, one_species_file(read_species_set("Si")), 16, 0.0);
        else
            set_up(cu3au,
                   read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/CuAu.tbparam"),
                   26, 0.1);
        const result one = evaluate(1), two = evaluate(2);
        EXPECT_NEAR(two.e, one.e, 1e-12 * std::fabs(one.e)) << c;
        double f_max = 0.0;
        for (int i = 1; i <= s.box.ions.total_n_ions; ++i)
            for (int x = 1; x <= 3; ++x) {
                EXPECT_EQ(two.f(x, i), one.f(x, i)) << c << " ion " << i;
                f_max = std::max(f_max, std::fabs(one.f(x, i)));
            }
        EXPECT_GT(f_max, 0.05) << c; // the rattled cells have forces
        for (int i = 1; i <= 3; ++i)
            for (int j = 1; j <= 3; ++j)
                EXPECT_NEAR(two.sig(i, j), one.sig(i, j), 1e-12 * (1 + std::fabs(one.sig(i, j))))
                    << c << " sigma " << i << j;
        electronic_records_free(*this);
        hamiltonian_free(s.ham);
        s = model_system{};
    }
    set_thread_count(threads);
}

// A model with the core-repulsion pair potential: the classical part of the stress too.
TEST_F(StrainedSystem, StressWithThePairPotential) {
    species_set si = read_species_set("Si");
    std::string file = one_species_file(si, 0, "NN00011");
    file.insert(file.find(si.r0_l0) + si.r0_l0.size() + 1, "3.0 5.5\n"); // Bohr
    set_up(si8_rattled, file, 16, 0.0);
    ASSERT_TRUE(s.model.pair_pot);
    s.model.pair_pot_used = true;
    check(1e-5, "Si 8 with the pair potential");
    EXPECT_GT(st.e_pair, 0.1); // the pair term takes part
}

// The routine that walks the stored lists alone gives the classical stress of the
// pair loop wherever the pair potential (2.9 Angstrom) ends within half the cell.
TEST_F(StrainedSystem, ClassicalStressOfTheListsEqualsThatOfThePairLoop) {
    species_set si = read_species_set("Si");
    std::string file = one_species_file(si, 0, "NN00011");
    file.insert(file.find(si.r0_l0) + si.r0_l0.size() + 1, "3.0 5.5\n"); // Bohr
    model_system m;
    build_system(m, dir, poslyrt(cube(6.2), shaken(diamond(6.2, 1), 0.15), 1), file, 2.95);
    farray<double, 2> a, b;
    a.allocate({1, 1}, {3, 3});
    b.allocate({1, 1}, {3, 3});
    calc_classical_forces(m.box, m.box.ions, m.model, &a);
    calc_classical_stress(m.box, m.box.ions, m.model, b);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j)
            EXPECT_NEAR(b(i, j), a(i, j), 1e-12 * (1 + std::fabs(a(i, j)))) << i << j;
    EXPECT_GT(std::fabs(a(2, 1)), 1e-6); // a shear, so that both triangles count
}

// The blocks of the density matrix that the forces read, formed by rank-k updates
// over the states with weight, equal sum_s w_s psi(a, s) psi(b, s) summed by hand,
// with weights of both signs and some states without weight, in a two-species cell.
TEST_F(StrainedSystem, DensityMatrixBlocksEqualTheSumOverStates) {
    std::string pos = fcc4_rattled(3.8);
    pos.replace(pos.find("number_of_ions = 4"), 18, "number_of_ions = 3 1");
    model_system m;
    build_system(m, dir, pos,
                 read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/CuAu.tbparam"));
    const int n = m.ham.desc.n_dim, ns = 20;
    farray<double, 2> psi;
    psi.allocate({1, 1}, {n, ns});
    std::vector<double> w(static_cast<std::size_t>(ns));
    for (int j = 1; j <= ns; ++j) {
        w[static_cast<std::size_t>(j - 1)] = j % 5 == 0 ? 0.0 : (j % 3 == 0 ? -0.7 : 2.0 / j);
        for (int r = 1; r <= n; ++r) psi(r, j) = std::cos(0.41 * j * r + 0.2 * r);
    }
    farray<double, 2> dm;
    dm.allocate({1, 1}, {m.ham.desc.u_n_dim, m.ham.desc.row_pdist->max_l_n});
    farray<double, 1> diag;
    diag.allocate({1}, {n});
    setup_dh_dm_r(m.ham, psi, w.data(), dm, &diag);
    const auto& sd = m.ham.desc;
    auto by_hand = [&](int a, int b) {
        double x = 0.0;
        for (int j = 1; j <= ns; ++j)
            x += w[static_cast<std::size_t>(j - 1)] * psi(a, j) * psi(b, j);
        return x;
    };
    for (int il = 1; il <= sd.row_pdist->l_n; ++il) {
        const int ig = sd.row_pdist->l2g(il);
        const int no = sd.row_block_dim(ig), row0 = sd.row_block_offset(ig);
        for (int jb = 1; jb <= sd.n_blocks(ig); ++jb) {
            const int c0 = sd.sblock_offset(jb, ig), no2 = sd.pblock_dim(jb, ig);
            int l = sd.ublock_offset(jb, ig);
            for (int b = 0; b < no2; ++b)
                for (int a = 0; a < no; ++a, ++l)
                    EXPECT_NEAR(dm(l, il), by_hand(row0 + a, c0 + b), 1e-12) << ig << " " << jb;
        }
    }
    for (int r = 1; r <= n; ++r) EXPECT_NEAR(diag(r), by_hand(r, r), 1e-12) << r;
}

// On a shifted grid of complex points, with charges and smearing: the real-space
// density matrices of all points against the strain gradients.
TEST_F(StrainedSystem, StressOnAShiftedGridWithCharges) {
    species_set si = read_species_set("Si");
    si.electrons += " 6.0";
    const int n[3] = {2, 2, 2};
    const double half[3] = {0.5, 0.5, 0.5};
    set_up(si8_rattled, one_species_file(si), 32, 0.1, true, kpt_grid_points(n, half));
    ASSERT_EQ(kpt.n_k, 4);
    check(2e-5, "Si 8 on 2 x 2 x 2 shifted, charges, sigma 0.1");
}

} // namespace
