// Sampling of the Brillouin zone: a supercell at the gamma point against its cell
// on the points that fold onto it, forces against finite differences, invariance
// under reciprocal-lattice shifts and time reversal, and the KPTS file.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "diag/dos_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model_support.hpp"
#include "run_support.hpp"
#include "test_support.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>

namespace {

using namespace lyrt;
using namespace lyrt_test;
namespace fs = std::filesystem;

// A system and its electronic records, sampled at given points (cell units).
struct sampled : electronic_records {
    model_system s;
    ~sampled() { electronic_records_free(*this); }
    double energy() {
        gs_calc(s.box, st, elec, ea, s.ham, false);
        return st.e_pot;
    }
    void forces_and_stress() {
        i_algo_type ia;
        ia.calc_stress = true;
        forces_calc(s.ham, s.box.ions, s.box, ia, elec, ea);
    }
};

// k empty: the gamma point on today's lists; else the points k (3 numbers each)
// with weights w, merged by time reversal unless keep_all.
std::unique_ptr<sampled> make(const fs::path& dir, const std::string& pos, const std::string& param,
                              double sigma, const std::vector<double>& k = {},
                              std::vector<double> w = {}, bool keep_all = false,
                              bool charges = false) {
    auto x = std::make_unique<sampled>();
    fs::create_directories(dir);
    x->s.box.explicit_images = !k.empty();
    build_system(x->s, dir, pos, param);
    if (!k.empty()) {
        if (w.empty()) w.assign(k.size() / 3, 1.0);
        kpt_set_points(x->kpt, x->s.box.cell.b, k, w, keep_all);
    }
    electronic_records_init(*x, x->s, sigma, charges);
    return x;
}

std::vector<double> grid(int n1, int n2, int n3, double s = 0.0) {
    const int n[3] = {n1, n2, n3};
    const double sh[3] = {s, s, s};
    return kpt_grid_points(n, sh);
}

// The cell (vectors in rows) and atoms repeated n x n x n times, in that order:
// atom i of the supercell is a copy of atom i mod (atoms of the cell).
std::string supercell(const cell3& c, const std::vector<atom>& atoms, int n, int n_species) {
    cell3 big = c;
    for (auto& row : big)
        for (double& v : row) v *= n;
    std::vector<atom> all;
    for (int a = 0; a < n; ++a)
        for (int b = 0; b < n; ++b)
            for (int d = 0; d < n; ++d)
                for (const atom& t : atoms) {
                    atom u = t;
                    u.x += a * c[0][0] + b * c[1][0] + d * c[2][0];
                    u.y += a * c[0][1] + b * c[1][1] + d * c[2][1];
                    u.z += a * c[0][2] + b * c[1][2] + d * c[2][2];
                    all.push_back(u);
                }
    return poslyrt(big, all, n_species);
}

class KPoints : public program_test {};

// The n^3 cells of a supercell at the gamma point are the cell on the grid of
// n x n x n points that includes gamma: equal energies per atom, forces of equal
// ions, stress, levels as sets (each point's levels counted by its weight), and
// densities of states per cell, projections included, which add up to the total.
TEST_F(KPoints, SupercellAtGammaEqualsItsCellOnTheFoldedPoints) {
    const double f = 3.82; // Cu3Au
    const cell3 prim = {{{0.0, 2.715, 2.715}, {2.715, 0.0, 2.715}, {2.715, 2.715, 0.0}}};
    std::vector<atom> cu3au = shaken(fcc(f, 1), 0.05);
    cu3au[0].species = 2;
    const struct {
        const char* name;
        cell3 cell;
        std::vector<atom> atoms;
        int n, n_species;
        std::string param;
        double sigma, tol;
    } cases[] = {
        // Every point of 2 x 2 x 2 is real; those of 3 x 3 x 3 but gamma are complex;
        // an orthogonal model with on-site terms.
        {"cu4o", cube(3.61), shaken(fcc(3.61, 1), 0.05), 2, 1, tbparam("Cu_orth"), 0.1, 1e-8},
        {"si8", cube(5.43), shaken(diamond(5.43, 1), 0.05), 2, 1, tbparam("Si"), 0.0, 1e-9},
        {"si2", prim, shaken({{1, 0, 0, 0}, {1, 1.3575, 1.3575, 1.3575}}, 0.04), 3, 1,
         tbparam("Si"), 0.0, 1e-9},
        {"cu4", cube(3.61), shaken(fcc(3.61, 1), 0.05), 2, 1, tbparam("Cu"), 0.1, 1e-8},
        {"cu3au", cube(f), cu3au, 2, 2, tbparam("CuAu"), 0.1, 1e-8},
    };
    for (const auto& c : cases) {
        const int n_cell = static_cast<int>(c.atoms.size()), n_copies = c.n * c.n * c.n;
        auto small = make(dir / (std::string(c.name) + "_k"), poslyrt(c.cell, c.atoms, c.n_species),
                          c.param, c.sigma, grid(c.n, c.n, c.n));
        auto big = make(dir / (std::string(c.name) + "_g"),
                        supercell(c.cell, c.atoms, c.n, c.n_species), c.param, c.sigma);
        const double e_small = small->energy(), e_big = big->energy();
        EXPECT_NEAR(e_small / n_cell, e_big / (n_cell * n_copies), c.tol) << c.name;
        small->forces_and_stress();
        big->forces_and_stress();
        double df = 0.0;
        for (int i = 1; i <= n_cell * n_copies; ++i)
            for (int x = 1; x <= 3; ++x)
                df = std::max(df, std::fabs(big->s.box.ions.f(x, i) -
                                            small->s.box.ions.f(x, (i - 1) % n_cell + 1)));
        EXPECT_LT(df, 10 * c.tol) << c.name;
        for (int a = 1; a <= 3; ++a)
            for (int b = 1; b <= 3; ++b)
                EXPECT_NEAR(small->s.box.cell.sig(a, b), big->s.box.cell.sig(a, b), c.tol)
                    << c.name << " stress " << a << b;
        if (c.sigma > 0.0) continue; // with smearing only the lowest levels are shared
        std::vector<double> folded, levels;
        const eig_state_type& es = small->eig;
        for (int k = 1; k <= es.kpt->n_k; ++k) {
            const int count = static_cast<int>(std::lround(es.kpt->weight(k) * n_copies));
            for (int i = 1; i <= es.n_states; ++i)
                folded.insert(folded.end(), count, es.en_i(i, k));
        }
        for (int i = 1; i <= big->eig.n_states; ++i) levels.push_back(big->eig.en_i(i, 1));
        std::sort(folded.begin(), folded.end());
        ASSERT_EQ(folded.size(), levels.size()) << c.name;
        for (std::size_t i = 0; i < levels.size(); ++i)
            EXPECT_NEAR(folded[i], levels[i], 1e-9) << c.name << " level " << i;
        dos_type d_small, d_big;
        dos_calc(d_small, small->s.ham, small->s.box.ions, small->s.box, small->eig, 0.2);
        dos_calc(d_big, big->s.ham, big->s.box.ions, big->s.box, big->eig, 0.2);
        ASSERT_EQ(d_small.value.size(), d_big.value.size()) << c.name;
        const std::size_t nc = d_small.column.size();
        for (std::size_t i = 0; i < d_small.value.size(); ++i) {
            EXPECT_NEAR(d_small.value[i] * n_copies, d_big.value[i], 1e-6) << c.name << i;
            if (i % nc == 0) {
                EXPECT_NEAR(d_small.value[i + 1] + d_small.value[i + 2], d_small.value[i], 1e-12);
            }
        }
    }
}

// Forces are minus the gradient of the (free) energy on a shifted grid of complex
// points: a rattled triclinic cell with smearing, two species, and charges.
TEST_F(KPoints, ForcesAreMinusTheEnergyGradient) {
    const cell3 tri = {{{0.1, 2.7, 2.75}, {2.68, 0.05, 2.72}, {2.71, 2.74, -0.08}}};
    std::vector<atom> cu3au = shaken(fcc(3.82, 1), 0.05);
    cu3au[0].species = 2;
    species_set si = read_species_set("Si");
    si.electrons += " 6.0";
    const struct {
        const char* name;
        std::string pos, param;
        double sigma;
        bool charges;
    } cases[] = {
        {"si_tri", poslyrt(tri, shaken({{1, 0, 0, 0}, {1, 1.36, 1.35, 1.37}}, 0.03), 1),
         tbparam("Si"), 0.1, false},
        {"cu3au", poslyrt(cube(3.82), cu3au, 2), tbparam("CuAu"), 0.1, false},
        {"si_q", poslyrt(tri, shaken({{1, 0, 0, 0}, {1, 1.36, 1.35, 1.37}}, 0.03), 1),
         one_species_file(si), 0.1, true},
    };
    for (const auto& c : cases) {
        auto x =
            make(dir / c.name, c.pos, c.param, c.sigma, grid(2, 2, 2, 0.5), {}, false, c.charges);
        x->energy();
        x->forces_and_stress();
        const farray<double, 2> f = x->s.box.ions.f.copy();
        const int ion = 2;
        for (int k = 1; k <= 3; ++k)
            EXPECT_NEAR(f(k, ion),
                        minus_central_difference(x->s, ion, k, 1e-4, [&] { return x->energy(); }),
                        1e-5)
                << c.name << " direction " << k;
    }
}

// A point moved by a reciprocal lattice vector is the same point, and k and -k
// give the same levels: the reduced grid equals the full one. States kept in the
// scratch file (memory too small for them) change nothing either.
TEST_F(KPoints, ReciprocalShiftsAndTimeReversalChangeNothing) {
    const cell3 tri = {{{0.1, 2.7, 2.75}, {2.68, 0.05, 2.72}, {2.71, 2.74, -0.08}}};
    const std::string pos = poslyrt(tri, shaken({{1, 0, 0, 0}, {1, 1.36, 1.35, 1.37}}, 0.03), 1);
    const std::vector<double> g = grid(3, 3, 3);
    std::vector<double> moved = g;
    for (std::size_t i = 0; i < moved.size(); ++i)
        moved[i] += i % 3 == 0 ? 1.0 : (i % 3 == 1 ? -2.0 : 0.0);
    auto reduced = make(dir / "reduced", pos, tbparam("Si"), 0.1, g);
    auto full = make(dir / "full", pos, tbparam("Si"), 0.1, g, {}, true);
    auto shifted = make(dir / "shifted", pos, tbparam("Si"), 0.1, moved, {}, true);
    EXPECT_EQ(full->kpt.n_k, 27);
    EXPECT_EQ(reduced->kpt.n_k, 14);
    const double e = reduced->energy();
    EXPECT_NEAR(full->energy(), e, 1e-12);
    EXPECT_NEAR(shifted->energy(), e, 1e-12);
    reduced->forces_and_stress();
    full->forces_and_stress();
    for (int i = 1; i <= 2; ++i)
        for (int x = 1; x <= 3; ++x)
            EXPECT_NEAR(reduced->s.box.ions.f(x, i), full->s.box.ions.f(x, i), 1e-10);
    auto in_memory = make(dir / "memory", pos, tbparam("Si"), 0.1, grid(6, 6, 6));
    allocate_set_test_limit(150000); // the states of the 112 points take 100 kB
    auto on_file = make(dir / "file", pos, tbparam("Si"), 0.1, grid(6, 6, 6));
    allocate_set_test_limit(-1);
    ASSERT_TRUE(on_file->eig.zpsi_on_file && !in_memory->eig.zpsi_on_file);
    EXPECT_NEAR(on_file->energy(), in_memory->energy(), 1e-12);
    on_file->forces_and_stress();
    in_memory->forces_and_stress();
    EXPECT_NEAR(on_file->s.box.ions.f(1, 2), in_memory->s.box.ions.f(1, 2), 1e-12);
    EXPECT_NEAR(on_file->s.box.cell.sig(1, 2), in_memory->s.box.cell.sig(1, 2), 1e-12);
}

// The file KPTS: a grid with its shift, a list with weights, a path; bad files
// stop with a message that says what is wrong.
TEST_F(KPoints, KptsFiles) {
    farray<double, 2> b;
    b.allocate({1, 1}, {3, 3});
    b.fill(0.0);
    for (int i = 1; i <= 3; ++i) b(i, i) = 0.25; // a cubic cell of 4 Angstrom
    kpt_type kpt;
    const auto read = [&](const std::string& text) {
        write_text(dir / "KPTS", text);
        kpt_read_and_allocate(kpt, b, (dir / "KPTS").string(), kpt_unit);
    };
    // 4 x 4 x 4 with gamma: 8 real points and 56 others in pairs.
    read("! a grid\ngrid = 4 4 4\n");
    EXPECT_EQ(kpt.n_k, 36);
    EXPECT_TRUE(kpt_general(kpt));
    double sum = 0.0;
    int real = 0;
    for (int k = 1; k <= kpt.n_k; ++k) {
        sum += kpt.weight(k);
        real += kpt.real_point[k - 1];
    }
    EXPECT_NEAR(sum, 1.0, 1e-14);
    EXPECT_EQ(real, 8);
    // The Monkhorst-Pack grid of even n: no point is its own inverse.
    read("grid = 2 2 2\nshift = 0.5 0.5 0.5 ! half a step\n");
    EXPECT_EQ(kpt.n_k, 4);
    EXPECT_NEAR(std::fabs(kpt.k_cell(1, 1)), 0.25, 1e-15);
    read("points = 2\n0 0 0 1\n0.5 0.5 0 3\n");
    EXPECT_EQ(kpt.n_k, 2);
    EXPECT_NEAR(kpt.weight(2), 0.75, 1e-15);
    read("path = 3\nG 0 0 0 4\nX 0.5 0 0 2\nM 0.5 0.5 0\n");
    EXPECT_EQ(kpt.n_k, 7);
    EXPECT_EQ(kpt.label[4], "X");
    EXPECT_NEAR(kpt.path_x[6], 6.283185307179586 * 0.25, 1e-12);
    const struct {
        const char *text, *message;
    } bad[] = {
        {"points = 1\n0 0 0 0\n", "a weight must be above 0"},
        {"points = 2\n0 0 0 1\n", "the points block announces 2 lines"},
        {"points = 1\n0 nan 0 1\n", "\"nan\" is not a finite number"},
        {"grid = 2 0 2\n", "\"0\" is not a whole number of 1 or more"},
        {"mesh = 2 2 2\n", "unknown keyword \"mesh\""},
        {"grid = 2 2 2\npoints = 1\n0 0 0 1\n", "grid, points and path exclude one another"},
        {"shift = 0.5 0.5 0.5\n", "the file gives no grid, points or path"},
    };
    for (const auto& c : bad) {
        try {
            read(c.text);
            ADD_FAILURE() << c.text;
        } catch (const fatal_stop& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
    kpt_deallocate(kpt);
}

// Whole runs: a path writes BANDS whose levels at its corners are those of the same
// points in a list; the header says the zone is sampled; the solvers of the gamma
// point and bad files stop with their message.
TEST_F(KPoints, WholeRuns) {
    const cell3 prim = {{{0.0, 2.7155, 2.7155}, {2.7155, 0.0, 2.7155}, {2.7155, 2.7155, 0.0}}};
    const std::string pos = poslyrt(prim, {{1, 0, 0, 0}, {1, 1.35775, 1.35775, 1.35775}}, 1);
    const auto run = [&](const std::string& name, const std::string& kpts, const std::string& in) {
        fs::create_directories(dir / name);
        write_text(dir / name / "KPTS", kpts);
        return run_case(dir / name, pos, in, tbparam("Si"));
    };
    const run_result path =
        run("path", "path = 3\nL 0.5 0.5 0.5 4\nG 0 0 0 3\nX 0.5 0 0.5\n", ""); // every band
    ASSERT_EQ(path.status, 0);
    EXPECT_NE(path.report.find("BRILLOUIN ZONE SAMPLED AT THE POINTS OF KPTS"), std::string::npos);
    EXPECT_EQ(path.report.find("GAMMA POINT ONLY"), std::string::npos);
    const auto bands = read_lines(dir / "path" / "BANDS");
    ASSERT_EQ(bands.size(), 2u + 8u);
    const run_result at_x = run("list", "points = 1\n0.5 0 0.5 1\n", "n_states = 8\n");
    ASSERT_EQ(at_x.status, 0);
    std::istringstream x_row(bands.back());
    double x;
    std::string label;
    x_row >> x >> label;
    EXPECT_EQ(label, "X");
    for (std::size_t i = 0; i < 8; ++i) {
        double e = 0.0;
        x_row >> e;
        EXPECT_NEAR(e, at_x.eigenvalues.at(i), 2e-6) << i;
    }
    // DOS of every state (the input limits none): its integral is twice the basis.
    ASSERT_EQ(run("dos", "grid = 3 3 3\n", "save_to_file = DOS\ndos_sigma = 0.2\n").status, 0);
    const auto dos = read_lines(dir / "dos" / "DOS");
    EXPECT_EQ(dos.at(1), "# E (eV)  total  Si_s  Si_p");
    double e0 = 0.0, e1 = 0.0, integral = 0.0, v = 0.0;
    for (std::size_t i = 2; i < dos.size(); ++i) {
        std::istringstream row(dos[i]);
        row >> (i == 2 ? e0 : e1) >> v;
        integral += v;
    }
    EXPECT_NEAR(integral * (e1 - e0) / static_cast<double>(dos.size() - 3), 16.0, 1e-6);
    const run_result kpm = run("kpm", "grid = 2 2 2\n", "elec_gs_algo = 4\n");
    EXPECT_EQ(kpm.status, 1);
    EXPECT_NE(kpm.report.find("which only the diagonalisation"), std::string::npos);
    const run_result bad = run("bad", "points = 1\n0 0 inf 1\n", "");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.report.find("\"inf\" is not a finite number"), std::string::npos);
}

} // namespace
