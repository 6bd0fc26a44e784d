// The orbital minimiser against the dense solver (energy, occupied subspace, forces)
// and against its functional (line polynomial, gradient, finite differences).
#include "base/error_module.hpp"
#include "diag/eig_state_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "model_support.hpp"
#include "numerics/lapack_module.hpp"
#include "numerics/random_module.hpp"
#include "orbital/min_module.hpp"
#include "orbital/unconst_ftn_module.hpp"
#include "run_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <iostream>

extern "C" {
void dposv_(const char* uplo, const int* n, const int* nrhs, double* a, const int* lda, double* b,
            const int* ldb, int* info);
}

namespace {

using namespace lyrt;
using namespace lyrt_test;

// Diamond silicon of n^3 cubic cells (a = 5.43), each ion moved by up to `rattle`
// Angstrom in a fixed pattern.
std::string diamond_si(int n, double rattle) {
    return poslyrt(cube(n * 5.43), shaken(diamond(5.43, n), rattle), 1);
}

std::string model_file(const std::string& name, const std::string& hubbard = "") {
    species_set si = read_species_set(name);
    if (!hubbard.empty()) si.electrons += " " + hubbard;
    return one_species_file(si);
}

// Generalized symmetric eigenproblem H c = e S c (S = 1 when sm is empty):
// eigenvalues ascending and S-orthonormal vectors in the columns of c.
std::vector<double> eigen(const farray<double, 2>& h, const farray<double, 2>& sm,
                          farray<double, 2>& c) {
    const int n = static_cast<int>(h.extent(0)), one = 1, lwork = 64 * n;
    c = h.copy();
    farray<double, 2> b;
    if (sm.allocated()) {
        b = sm.copy();
    } else {
        b.allocate({1, 1}, {n, n});
        for (int i = 1; i <= n; ++i) b(i, i) = 1.0;
    }
    std::vector<double> w(static_cast<std::size_t>(n)), work(static_cast<std::size_t>(lwork));
    int info = 0;
    dsygv_(&one, "V", "U", &n, c.data(), &n, b.data(), &n, w.data(), work.data(), &lwork, &info);
    EXPECT_EQ(info, 0);
    return w;
}

class OrbitalSolver : public lyrt_test::program_test {
  protected:
    void set_up(const std::string& pos, const std::string& tbparam, bool scc_used = false) {
        on_site_reset();
        build_system(s, dir, pos, tbparam);
        const int n_ions = s.box.ions.total_n_ions;
        scc_model_init(scc, s.box.ions, scc_used, true);
        n_occ = static_cast<int>(scc.q_total) / 2;
        q.allocate({1}, {n_ions});
        elocal.allocate({1}, {n_ions});
        init_random(5, 7);
        cg_state_allocate(cg, s.ham, n_occ, 0.0, -1, 4);
        // The two sp3-like orbitals per ion at half their length: a start of unit
        // length puts the components along empty levels on top of the barrier of
        // the functional (along one empty level of energy e > 0 above eta, E =
        // 2 e (2 b^2 - b^4) peaks at b = 1), from where the search can run away.
        for (double& v : cg.psi) v *= 0.5;
        ea.md = 1;
        ea.energy_tol = 1e-15;
        ea.charge_tol = 1e-13;
        ea.max_iter = 20000;
        reference();
        ea.eta = 0.5 * (levels[n_occ - 1] + levels[n_occ]);
    }
    void TearDown() override {
        cg_state_deallocate(cg);
        scc_model_fine(scc);
        unconst_ftn_reset();
        program_test::TearDown();
    }
    // The dense levels and states of the present positions.
    void reference() {
        farray<double, 2> h, sm;
        dense(s, h, sm);
        levels = eigen(h, sm, states);
        ASSERT_GT(levels[n_occ] - levels[n_occ - 1], 0.1) << "the test needs a gap";
    }
    double minimise(bool first = true) {
        const double e = min_cg_wf(s.ham, cg, scc, ea, first, false, elocal, q);
        iterations = min_cg_wf_iterations();
        return e;
    }
    double occupied_sum() const {
        double e = 0.0;
        for (int i = 0; i < n_occ; ++i) e += 2.0 * levels[static_cast<std::size_t>(i)];
        return e;
    }
    // Largest element of P (P' S0 P)^-1 P' - C C' over the occupied states C.
    double projector_difference() {
        const int n = static_cast<int>(cg.psi.extent(0)), m = n_occ;
        farray<double, 2> sdm = cg.s_dm.copy(), y;
        y.allocate({1, 1}, {m, n});
        for (int i = 1; i <= m; ++i)
            for (int r = 1; r <= n; ++r) y(i, r) = cg.psi(r, i);
        int info = 0;
        dposv_("U", &m, &n, sdm.data(), &m, y.data(), &m, &info);
        EXPECT_EQ(info, 0);
        double diff = 0.0;
        for (int c = 1; c <= n; ++c)
            for (int r = 1; r <= n; ++r) {
                double p = 0.0, ref = 0.0;
                for (int i = 1; i <= m; ++i) {
                    p += cg.psi(r, i) * y(i, c);
                    ref += states(r, i) * states(c, i);
                }
                diff = std::max(diff, std::fabs(p - ref));
            }
        return diff;
    }
    // The functional at P + l D (the orbitals are restored).
    double functional_along(const farray<double, 2>& p0, const farray<double, 2>& d, double l) {
        for (std::size_t k = 0; k < cg.psi.size(); ++k)
            cg.psi.data()[k] = p0.data()[k] + l * d.data()[k];
        if (!scc.used) setup_heff(s.ham, scc, ea.eta);
        const double e = calc_gradient(s.ham, cg, scc, ea.eta, q);
        std::copy(p0.begin(), p0.end(), cg.psi.begin());
        return e;
    }
    // Forces of the minimised orbitals through the driver's force door.
    farray<double, 2> orbital_forces() {
        elec_algo_type orbital = ea;
        orbital.algo = elec_algo_cg;
        elec_state_type elec;
        elec.cg = &cg;
        elec.scc = &scc;
        forces_calc(s.ham, s.box.ions, s.box, i_algo_type{}, elec, orbital);
        return s.box.ions.f.copy();
    }
    // The dense solver on the same positions (its charge loop when charges are on,
    // from zero charges): checks its energy, charges and forces against the
    // orbital ones.
    void against_dense(double e_orb, const farray<double, 1>& q_orb,
                       const farray<double, 2>& f_orb) {
        ions_type& ions = s.box.ions;
        electronic_records d;
        electronic_records_init(d, s, 0.0, scc.used);
        gs_calc(s.box, d.st, d.elec, d.ea, s.ham, false);
        EXPECT_NEAR(e_orb - s.ham.e_atoms, d.elec.e, 1e-7);
        for (long i = 1; scc.used && i <= q_orb.extent(0); ++i)
            EXPECT_NEAR(q_orb(i), ions.qion(i), 1e-7);
        forces_calc(s.ham, ions, s.box, i_algo_type{}, d.elec, d.ea);
        for (long i = 1; i <= f_orb.extent(1); ++i)
            for (int x = 1; x <= 3; ++x) EXPECT_NEAR(f_orb(x, i), ions.f(x, i), 1e-5);
        electronic_records_free(d);
    }
    // The forces of the given ions against minus the central differences of the
    // re-minimised energy.
    void against_differences(const farray<double, 2>& f, std::initializer_list<int> which) {
        for (const int i : which)
            for (int x = 1; x <= 3; ++x)
                EXPECT_NEAR(
                    f(x, i),
                    minus_central_difference(s, i, x, 1e-4, [&] { return minimise(false); }), 1e-5)
                    << i << " " << x;
    }
    model_system s;
    scc_type scc;
    cg_state_type cg;
    elec_algo_type ea;
    farray<double, 1> q, elocal;
    farray<double, 2> states;
    std::vector<double> levels;
    int n_occ = 0, iterations = 0;
};

TEST_F(OrbitalSolver, MinimumIsTheOccupiedSubspace) {
    struct sample {
        int cells;
        const char* model;
    };
    for (const sample c :
         {sample{1, "Si_orth"}, sample{1, "Si"}, sample{2, "Si_orth"}, sample{2, "Si"}}) {
        SCOPED_TRACE(std::string(c.model) + " cells " + std::to_string(c.cells));
        set_up(diamond_si(c.cells, 0.05), model_file(c.model));
        const double e = minimise();
        std::cout << "[ orbital ] Si " << 8 * c.cells * c.cells * c.cells << " " << c.model << ": "
                  << iterations << " iterations, eta " << ea.eta << " eV\n";
        EXPECT_LT(iterations, ea.max_iter);
        EXPECT_NEAR(e, occupied_sum(), 1e-7);
        EXPECT_LT(projector_difference(), 1e-6);
        // The orbitals are orthonormal at the minimum: Q = S = I, and the count is right.
        EXPECT_NEAR(charge_total(cg, scc, q), scc.q_total, 1e-8);
        // The energies per ion sum to the energy.
        elocal.fill(0.0);
        calc_elocal_cg(s.ham, cg, scc, ea.eta, q, elocal);
        double sum = 0.0;
        for (long i = 1; i <= elocal.extent(0); ++i) sum += elocal(i);
        EXPECT_NEAR(sum, e, 1e-8);
        cg_state_deallocate(cg);
        scc_model_fine(scc);
    }
}

// Along a line the energy is the polynomial of calc_line_poly exactly: a quartic,
// of degree 8 with the charge terms. The gradient is -1/2 dE/dP.
TEST_F(OrbitalSolver, LinePolynomialAndGradientAreThoseOfTheFunctional) {
    struct sample {
        const char* model;
        const char* hubbard;
    };
    for (const sample c :
         {sample{"Si_orth", ""}, sample{"Si", ""}, sample{"Si_orth", "6.0"}, sample{"Si", "6.0"}}) {
        const bool charges = *c.hubbard != 0;
        SCOPED_TRACE(std::string(c.model) + (charges ? " with charges" : ""));
        set_up(diamond_si(1, 0.15), model_file(c.model, c.hubbard), charges);
        setup_heff(s.ham, scc, ea.eta);
        // Random orbitals near the start and a random direction.
        const farray<double, 2> p0 = cg.psi.copy();
        farray<double, 2> d = cg.psi.copy();
        random_mat(d);
        for (double& v : d) v = 0.3 * (v - 0.5);
        std::vector<double> poly(charges ? 9 : 5, 0.0);
        poly[0] = functional_along(p0, d, 0.0);
        const farray<double, 2> grad = cg.grad.copy();
        calc_gradient(s.ham, cg, scc, ea.eta, q); // the state of l = 0 for the polynomial
        std::copy(d.begin(), d.end(), cg.dir.begin());
        calc_line_poly(s.ham, cg, scc, ea.eta, poly);
        if (charges) {
            EXPECT_NE(poly[8], 0.0);
        }
        double scale = 0.0;
        for (const double l : {-0.7, -0.2, 0.3, 0.8, 1.5}) {
            const double ref = functional_along(p0, d, l);
            double e = 0.0;
            for (std::size_t k = poly.size(); k-- > 0;) e = e * l + poly[k];
            scale = std::max(scale, std::fabs(ref - poly[0]));
            EXPECT_NEAR(e, ref, 1e-9 * (1.0 + std::fabs(ref))) << "l = " << l;
        }
        EXPECT_GT(scale, 1.0); // the line is not flat
        // The gradient against central differences along single elements.
        const double h = 1e-5;
        for (const auto& [r, k] : {std::pair{1, 1}, std::pair{7, 3}, std::pair{30, n_occ}}) {
            farray<double, 2> e1 = cg.psi.copy();
            e1.fill(0.0);
            e1(r, k) = 1.0;
            const double de =
                (functional_along(p0, e1, h) - functional_along(p0, e1, -h)) / (2.0 * h);
            EXPECT_NEAR(-2.0 * grad(r, k), de, 1e-5 * (1.0 + std::fabs(de)));
        }
        cg_state_deallocate(cg);
        scc_model_fine(scc);
    }
}

// At convergence the orbital forces equal the dense forces and minus the finite
// differences of the minimised energy.
TEST_F(OrbitalSolver, ForcesAreThoseOfTheDenseSolverAndTheEnergyGradient) {
    for (const char* model : {"Si_orth", "Si"}) {
        SCOPED_TRACE(model);
        set_up(diamond_si(1, 0.12), model_file(model));
        const double e = minimise();
        const farray<double, 2> f = orbital_forces();
        double f_max = 0.0;
        for (const double v : f) f_max = std::max(f_max, std::fabs(v));
        EXPECT_GT(f_max, 0.1);
        against_dense(e, q, f);
        against_differences(f, {2, 7});
        cg_state_deallocate(cg);
        scc_model_fine(scc);
    }
}

} // namespace

namespace {

// With charges the minimum of the functional is the self-consistent state of the
// dense solver's charge loop (energy, Mulliken charges, forces), orthogonal model
// or not; its forces are minus the gradient of the minimised energy.
TEST_F(OrbitalSolver, ChargeSelfConsistentMinimum) {
    for (const char* model : {"Si_orth", "Si"}) {
        SCOPED_TRACE(model);
        set_up(diamond_si(1, 0.15), model_file(model, "6.0"), true);
        const double e = minimise();
        std::cout << "[ orbital ] Si 8 " << model << " with charges: " << iterations
                  << " iterations\n";
        EXPECT_LT(iterations, ea.max_iter);
        const farray<double, 1> q_orb = q.copy();
        double q_max = 0.0;
        for (const double v : q_orb) q_max = std::max(q_max, std::fabs(v));
        EXPECT_GT(q_max, 1e-3); // the distortion moves charge
        const farray<double, 2> f = orbital_forces();
        against_dense(e, q_orb, f);
        against_differences(f, {3, 8});
        cg_state_deallocate(cg);
        scc_model_fine(scc);
    }
}

} // namespace
