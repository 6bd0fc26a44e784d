// The distributed build against itself on one process: the message layer, the model
// broadcast, the dense path over ELPA and ScaLAPACK, the polynomial moments and
// forces equal the same code on this process alone to 1e-10 relative. Run under
// mpirun on 1, 2 and 3 processes; assertions come after the collectives.
#include "base/io_module.hpp"
#include "diag/eig_state_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "diag/pdiag_module.hpp"
#include "kpm/kpm_module.hpp"
#include "kpm/moments_module.hpp"
#include "linear/ls_module.hpp"
#include "model/tb_hs_module.hpp"
#include "model/tb_model_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run_support.hpp"
#include "system/constants_module.hpp"
#include "test_support.hpp"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

// Diamond Si (8-atom cells) or fcc (4) of n^3 cubic cells of edge a0, each ion moved
// by up to amp a0 in a fixed pattern.
std::string rattled(bool silicon, int n, double a0, double amp) {
    return poslyrt(cube(n * a0), shaken(silicon ? diamond(a0, n) : fcc(a0, n), amp * a0), 1);
}

// Largest |a - b| over the largest |a|: the relative difference of two results.
double rel_diff(const std::vector<double>& a, const std::vector<double>& b) {
    double d = 0.0, scale = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        d = std::max(d, std::fabs(a[i] - b[i]));
        scale = std::max(scale, std::fabs(a[i]));
    }
    return scale > 0.0 ? d / scale : d;
}

// Every process's verdict, so that all agree on success (a process alone that
// fails must fail the test everywhere).
bool all_true(bool ok) {
    int bad = ok ? 0 : 1;
    gmax_int(bad);
    return bad == 0;
}

class Distributed : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        constants_init();
        on_site_reset();
    }
    void TearDown() override {
        mpi_use_self(false);
        program_test::TearDown();
    }
};

TEST_F(Distributed, MessageLayerCollectives) {
    const int n = n_proc, r = my_proc;
    double x = r + 1.0;
    gsum_real(x);
    EXPECT_EQ(x, n * (n + 1) / 2.0);
    int m = 10 * r;
    gmax_int(m);
    EXPECT_EQ(m, 10 * (n - 1));
    farray<double, 2> a;
    a.allocate({1, 1}, {2, 3});
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 2; ++i) a(i, j) = i + 10 * j + 100 * r;
    gsum_real_mat(a);
    EXPECT_EQ(a(2, 3), n * 32.0 + 100.0 * n * (n - 1) / 2);
    std::string s = r == 0 ? "from process zero" : "";
    bcast_string(s);
    EXPECT_EQ(s, "from process zero");
    std::vector<char> bytes(static_cast<std::size_t>(r == 0 ? 5 : 1), static_cast<char>(r + 1));
    bcast_bytes(bytes);
    EXPECT_EQ(bytes, std::vector<char>(5, 1));
    // A ring: each process sends its number on and hears the one before it.
    farray<double, 2> out, in;
    out.allocate({1, 1}, {1, 1});
    in.allocate({1, 1}, {1, 1});
    out(1, 1) = r;
    in(1, 1) = -1.0;
    sendrecv_real_mat(out, (r + 1) % n, in, (r + n - 1) % n);
    EXPECT_EQ(in(1, 1), n > 1 ? (r + n - 1) % n : -1.0);
}

// Process 0 alone reads the parameter file; the others receive every number of the
// model and of the species it completed.
TEST_F(Distributed, ModelReachesEveryProcessWhole) {
    model_system ref;
    mpi_use_self(true);
    build_system(ref, dir, rattled(true, 1, 5.43, 0.01), tbparam("Si"));
    mpi_use_self(false);
    std::vector<atomic_type> species = ref.box.ions.species;
    if (!i_am_master) species.assign(species.size(), atomic_type{});
    tb_model_type m;
    tb_model_read_param(species, m, "TBPARAM", ref.box.ions.n_species);
    ASSERT_EQ(m.n_pairs, ref.model.n_pairs);
    EXPECT_EQ(m.max_no, ref.model.max_no);
    EXPECT_EQ(m.non_orthogonal, ref.model.non_orthogonal);
    EXPECT_EQ(m.on_site_env, ref.model.on_site_env);
    EXPECT_EQ(m.r_cut, ref.model.r_cut);
    for (int p = 0; p < m.n_pairs; ++p)
        EXPECT_EQ(std::memcmp(&m.param[static_cast<std::size_t>(p)],
                              &ref.model.param[static_cast<std::size_t>(p)],
                              sizeof(offsite_param_type)),
                  0)
            << "pair " << p + 1;
    ASSERT_EQ(species.size(), ref.box.ions.species.size());
    for (std::size_t k = 0; k < species.size(); ++k) {
        EXPECT_EQ(species[k].mass, ref.box.ions.species[k].mass);
        EXPECT_EQ(species[k].symbol, ref.box.ions.species[k].symbol);
        EXPECT_EQ(species[k].n_val_elec, ref.box.ions.species[k].n_val_elec);
    }
    EXPECT_EQ(m.e_atom(1), ref.model.e_atom(1));
}

// Energy, Fermi level, charges, forces and stress of one ground state.
struct dense_result {
    std::vector<double> energy, forces, stress, charges;
    bool distributed = false;
    int solver = -1;
};

dense_result dense_point(const std::filesystem::path& dir, const std::string& pos,
                         const std::string& tbparam, double sigma, bool charges, int solver) {
    model_system s;
    build_system(s, dir, pos, tbparam);
    ions_type& ions = s.box.ions;
    electronic_records rec;
    electronic_records_init(rec, s, sigma, charges);
    auto& [kpt, eig, scc, elec, ea, st] = rec;
    ea.charge_mixing = 0.3;
    pdiag_set_solver(solver);
    gs_calc(s.box, st, elec, ea, s.ham, false);
    i_algo_type ia;
    ia.calc_stress = true;
    forces_calc(s.ham, ions, s.box, ia, elec, ea);
    dense_result r;
    r.energy = {st.e_pot, eig.e_fermi, eig.e_band};
    r.forces.assign(ions.f.begin(), ions.f.end());
    r.stress.assign(s.box.cell.sig.begin(), s.box.cell.sig.end());
    r.charges.assign(ions.qion.begin(), ions.qion.end());
    r.distributed = eig_distributed(eig);
    r.solver = pdiag_last_solver();
    pdiag_set_solver(pdiag_elpa);
    electronic_records_free(rec);
    return r;
}

// Si 64 (non-orthogonal, on-site terms, a gap), Cu 32 with smearing, and Si 64 of
// the orthogonal model with self-consistent charges: over all processes, by ELPA
// and by ScaLAPACK, as on one process.
TEST_F(Distributed, DensePathEqualsTheOneProcessPath) {
    struct sample {
        std::string name, pos, tbparam;
        double sigma;
        bool charges;
    };
    const std::vector<sample> samples = {
        {"Si64", rattled(true, 2, 5.43, 0.02), tbparam("Si"), 0.0, false},
        {"Cu32", rattled(false, 2, 3.61, 0.02), tbparam("Cu"), 0.2, false},
        {"Si64 charges", rattled(true, 2, 5.43, 0.03), tbparam("Si_orth"), 0.1, true},
    };
    for (const sample& c : samples) {
        mpi_use_self(true);
        const dense_result ref = dense_point(dir, c.pos, c.tbparam, c.sigma, c.charges, 0);
        mpi_use_self(false);
        for (const int solver : {pdiag_elpa, pdiag_scalapack}) {
            const dense_result r = dense_point(dir, c.pos, c.tbparam, c.sigma, c.charges, solver);
            const double de = rel_diff(ref.energy, r.energy), df = rel_diff(ref.forces, r.forces);
            const double ds = rel_diff(ref.stress, r.stress);
            const double dq = rel_diff(ref.charges, r.charges);
            const bool ok = de < 1e-10 && df < 1e-10 && ds < 1e-10 && dq < 1e-10;
            EXPECT_TRUE(all_true(ok)) << c.name << " solver " << solver << ": energy " << de
                                      << " forces " << df << " stress " << ds << " charges " << dq;
            EXPECT_EQ(r.distributed, n_proc > 1);
            if (n_proc > 1) {
                EXPECT_EQ(r.solver, solver) << c.name;
            }
            // The results are not empty: forces and stress are there to compare.
            EXPECT_GT(std::fabs(ref.forces[0]) + std::fabs(ref.forces[1]), 1e-4) << c.name;
        }
    }
}

// The density matrix of the block-sparse purification against the dense states:
// band energy and the electronic forces of Si 64 (non-orthogonal model, on-site
// terms) and of the orthogonal model, over the processes as on one; and the forces
// against the finite differences of the solver's own energy at the default filter.
TEST_F(Distributed, LinearScalingMatchesTheDenseState) {
    for (const char* model : {"Si", "Si_orth"}) {
        const std::string pos = rattled(true, 2, 5.43, 0.02);
        // The dense reference on each process alone.
        mpi_use_self(true);
        model_system d;
        build_system(d, dir, pos, tbparam(model));
        electronic_records dense;
        electronic_records_init(dense, d, 0.0);
        gs_calc(d.box, dense.st, dense.elec, dense.ea, d.ham, false);
        eig_forces_dm(d.ham, d.box.ions, d.box, dense.eig, false, 1.0, nullptr);
        const std::vector<double> f_dense(d.box.ions.f.begin(), d.box.ions.f.end());
        const double e_dense = dense.eig.e_band, n_el = dense.eig.n_el;
        electronic_records_free(dense);
        mpi_use_self(false);
        model_system s;
        build_system(s, dir, pos, tbparam(model));
        ions_type& ions = s.box.ions;
        ls_state_type ls;
        ls.eps_filter = 1e-9;
        ls.block_orbitals = 8; // 27 groups of about two ions
        ls_init(ls, s.ham, s.box, n_el);
        ASSERT_EQ(ls.members.size(), 27u);
        calc_hs_real(s.ham, ions, s.box);
        ls_calc(ls, s.ham);
        ls_forces(ls, s.ham, ions, s.box, 1.0);
        double df = 0.0;
        for (std::size_t k = 0; k < f_dense.size(); ++k)
            df = std::max(df, std::fabs(f_dense[k] - ions.f.data()[k]));
        const double de = std::fabs(ls.e_band - e_dense) / ions.total_n_ions;
        EXPECT_TRUE(all_true(de < 1e-7 && df < 1e-5))
            << model << ": energy " << de << " eV/atom, forces " << df << " eV/A; steps "
            << ls.ns_steps << " " << ls.sp2_steps << " idempotency " << ls.idempotency;
        EXPECT_NEAR(ls.n_found, n_el, 1e-6) << model;
        // At the default filter the forces are minus the derivative of this solver's
        // own energy (27 groups: the filter drops blocks of the products).
        ls.eps_filter = 1e-6;
        ls_calc(ls, s.ham);
        ls_forces(ls, s.ham, ions, s.box, 1.0);
        const double f = ions.f(1, 2), fd = minus_central_difference(s, 2, 1, 1e-3, [&] {
                                           calc_hs_real(s.ham, ions, s.box);
                                           ls_calc(ls, s.ham);
                                           return ls.e_band;
                                       });
        EXPECT_TRUE(all_true(std::fabs(f - fd) < 1e-4))
            << model << ": force " << f << " against " << fd << ", fill " << ls.fill;
        EXPECT_GT(std::fabs(f_dense[0]) + std::fabs(f_dense[1]), 1e-3) << model;
        ls_free(ls);
    }
}

// With smearing (Cu 32, sigma 0.2 eV) the series of the Fermi function gives the
// dense free energy E - T S, its chemical potential, and forces that are minus the
// derivative of that free energy (central differences of the dense one) and, at
// the default filter, of the solver's own.
TEST_F(Distributed, LinearScalingSmearedGivesTheFreeEnergy) {
    const std::string pos = rattled(false, 2, 3.61, 0.03);
    const double sigma = 0.2;
    const std::vector<std::pair<int, int>> comps = {{2, 1}, {5, 3}};
    mpi_use_self(true);
    model_system d;
    build_system(d, dir, pos, tbparam("Cu"));
    electronic_records dense;
    electronic_records_init(dense, d, sigma);
    const auto dense_free = [&] {
        gs_calc(d.box, dense.st, dense.elec, dense.ea, d.ham, false);
        return dense.eig.e_band - dense.eig.e_ts;
    };
    const double e_dense = dense_free(), mu_dense = dense.eig.e_fermi, n_el = dense.eig.n_el;
    std::vector<double> f_dense;
    for (const auto& [i, x] : comps)
        f_dense.push_back(minus_central_difference(d, i, x, 1e-3, dense_free));
    electronic_records_free(dense);
    mpi_use_self(false);
    model_system s;
    build_system(s, dir, pos, tbparam("Cu"));
    ions_type& ions = s.box.ions;
    ls_state_type ls;
    ls.eps_filter = 1e-9;
    ls.sigma = sigma;
    ls_init(ls, s.ham, s.box, n_el);
    calc_hs_real(s.ham, ions, s.box);
    ls_calc(ls, s.ham);
    ls_forces(ls, s.ham, ions, s.box, 1.0);
    const double de = std::fabs(ls.e_band - ls.e_ts - e_dense) / ions.total_n_ions;
    double df = 0.0;
    for (std::size_t k = 0; k < comps.size(); ++k)
        df = std::max(df, std::fabs(ions.f(comps[k].second, comps[k].first) - f_dense[k]));
    EXPECT_TRUE(all_true(de < 1e-7 && df < 1e-5 && std::fabs(ls.mu - mu_dense) < 1e-6))
        << "free energy " << de << " eV/atom, forces " << df << " eV/A, mu " << ls.mu << " against "
        << mu_dense << ", " << ls.cheb_terms << " terms";
    EXPECT_NEAR(ls.n_found, n_el, 1e-6);
    EXPECT_GT(ls.e_ts, 1e-3);
    EXPECT_GT(std::fabs(f_dense[0]) + std::fabs(f_dense[1]), 1e-2);
    ls.eps_filter = 1e-6;
    ls_calc(ls, s.ham);
    ls_forces(ls, s.ham, ions, s.box, 1.0);
    const double f = ions.f(1, 2), fd = minus_central_difference(s, 2, 1, 1e-3, [&] {
                                       calc_hs_real(s.ham, ions, s.box);
                                       ls_calc(ls, s.ham);
                                       return ls.e_band - ls.e_ts;
                                   });
    EXPECT_TRUE(all_true(std::fabs(f - fd) < 1e-4)) << "force " << f << " against " << fd;
    ls_free(ls);
}

// The moments and the forces of the kernel polynomial method, the unit-vector
// columns dealt to the processes, as on one process (Si 64, orthogonal model).
TEST_F(Distributed, PolynomialColumnsOverProcesses) {
    init_random(11, 17);
    model_system s;
    build_system(s, dir, rattled(true, 2, 5.43, 0.02), tbparam("Si_orth"));
    farray<double, 2> h, sm;
    dense(s, h, sm);
    const std::vector<double> w = symmetric_eigenvalues(h);
    const auto run = [&](std::vector<double>& mu, std::vector<double>& f, std::vector<double>& e) {
        kpm_state_type ks;
        kpm_state_alloc(ks, 120);
        kpm_state_init(ks, s.ham, 'J', s.ham.desc.n_row, 128.0, false, 3, w.front() - 0.3,
                       w.back() + 0.3);
        double e_band = 0.0, e_fermi = 0.0;
        kpm_calc_energy(ks, s.ham, e_band, e_fermi);
        mu.assign(ks.mu.begin(), ks.mu.end());
        calc_hs_grad_real(s.ham, s.box.ions, s.box);
        farray<double, 2> forces = s.box.ions.f.copy();
        kpm_calc_forces(ks, s.ham, forces);
        f.assign(forces.begin(), forces.end());
        e = {e_band, e_fermi};
        kpm_state_dealloc(ks);
    };
    std::vector<double> mu1, f1, e1, mu, f, e;
    mpi_use_self(true);
    run(mu1, f1, e1);
    mpi_use_self(false);
    run(mu, f, e);
    const double dm = rel_diff(mu1, mu), df = rel_diff(f1, f), de = rel_diff(e1, e);
    EXPECT_TRUE(all_true(dm < 1e-10 && df < 1e-10 && de < 1e-10))
        << "moments " << dm << " forces " << df << " energy " << de;
    EXPECT_GT(std::fabs(f1[0]), 1e-4);
}

} // namespace
