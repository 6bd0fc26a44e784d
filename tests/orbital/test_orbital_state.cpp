// The orbital state: its steps and the line search's edge cases.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "operators/hs_psi_module.hpp"
#include "orbital/min_module.hpp"
#include "orbital/no_basis_module.hpp"
#include "orbital/unconst_ftn_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

const char* si8 = "number_of_ions = 8\na0 = 5.43\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 1\n"
                  "positions\n0.01 0 0\n0 0.5 0.5\n0.5 0 0.5\n0.5 0.5 0\n"
                  "0.25 0.25 0.25\n0.25 0.75 0.75\n0.75 0.25 0.75\n0.75 0.75 0.25\n";

class OrbitalState : public lyrt_test::program_test {
  protected:
    void build(const std::string& model, const std::string& pos = si8) {
        on_site_reset();
        build_system(s, dir, pos, one_species_file(read_species_set(model)));
    }
    void TearDown() override {
        cg_state_deallocate(cg);
        program_test::TearDown();
    }
    model_system s;
    cg_state_type cg;
};

TEST_F(OrbitalState, StepsOfTheState) {
    build("Si_orth");
    init_random(5, 6);
    cg_state_allocate(cg, s.ham, 4, 0.0, -1, 0);
    // A Car-Parrinello step without force keeps the velocity.
    random_mat(cg.psi_old);
    const farray<double, 2> v0 = [&] {
        farray<double, 2> v = cg.psi.copy();
        for (std::size_t k = 0; k < v.size(); ++k) v.data()[k] -= cg.psi_old.data()[k];
        return v;
    }();
    cg.grad.fill(0.0);
    update_cp_state(cg, 0.3);
    for (std::size_t k = 0; k < v0.size(); ++k)
        EXPECT_NEAR(cg.psi.data()[k] - cg.psi_old.data()[k], v0.data()[k], 1e-15);
    // With a force the step is x(t+dt) = 2 x - x(t-dt) + coeff grad.
    random_mat(cg.grad);
    const farray<double, 2> p1 = cg.psi.copy(), pm = cg.psi_old.copy();
    update_cp_state(cg, 0.3);
    for (std::size_t k = 0; k < p1.size(); ++k)
        EXPECT_NEAR(cg.psi.data()[k], 2 * p1.data()[k] - pm.data()[k] + 0.3 * cg.grad.data()[k],
                    1e-15);
    // Conjugate-gradient updates.
    reset_cg_state(cg);
    for (const double v : cg.dir) EXPECT_EQ(v, 0.0);
    random_mat(cg.grad);
    update_cg_state(cg, 0.0, 0);
    const farray<double, 2> g1 = cg.grad.copy();
    random_mat(cg.grad);
    update_cg_state(cg, 0.5, 1);
    for (std::size_t k = 0; k < g1.size(); ++k) {
        EXPECT_EQ(cg.dir.data()[k], cg.grad.data()[k] + 0.5 * g1.data()[k]);
        EXPECT_EQ(cg.grad_old.data()[k], cg.grad.data()[k]);
    }
    const farray<double, 2> before = cg.psi.copy();
    update_cg_state(cg, 0.25, -1);
    for (std::size_t k = 0; k < before.size(); ++k) {
        EXPECT_EQ(cg.psi_old.data()[k], before.data()[k]);
        EXPECT_EQ(cg.psi.data()[k], before.data()[k] + 0.25 * cg.dir.data()[k]);
    }
    // Purification of orthonormal orbitals leaves them: 1.5 P - 0.5 P I = P.
    cg_state_allocate(cg, s.ham, 16, 0.0, -1, 4);
    const farray<double, 2> hyb = cg.psi.copy();
    purify_cg_state(cg, s.ham);
    for (std::size_t k = 0; k < hyb.size(); ++k)
        EXPECT_NEAR(cg.psi.data()[k], hyb.data()[k], 1e-15);
}

TEST_F(OrbitalState, LineSearchEdgeCases) {
    std::vector<double> ext;
    double lambda = -1.0;
    // A zero direction: the polynomial is constant, no step.
    solve_line_min({-3.0, 0.0, 0.0, 0.0, 0.0}, ext, lambda);
    EXPECT_EQ(lambda, 0.0);
    // E = 6 l + l^2/2 - 4/3 l^3 + l^4/4, slope (l + 1)(l - 2)(l - 3): stationary at
    // -1 (the first one found is negative), 2 and 3, both above E(0) = 0: no step.
    std::vector<double> p = {0.0, 6.0, 0.5, -4.0 / 3.0, 0.25};
    solve_line_min(p, ext, lambda);
    EXPECT_EQ(ext.size(), 3u);
    EXPECT_EQ(lambda, 0.0);
    // -E goes downhill: its minimum at 2 and its maximum at 3 both lie below E(0);
    // the smallest positive one is taken.
    for (double& c : p) c = -c;
    solve_line_min(p, ext, lambda);
    EXPECT_NEAR(lambda, 2.0, 1e-9);
    // A minimum beyond 10 is a failed search.
    solve_line_min({0.0, -1.0, 0.0, 0.0, 1.0 / 48000.0}, ext, lambda);
    EXPECT_EQ(lambda, 0.0);
    // A quartic whose minimum is at 0.5: E = (l - 0.5)^2 (l^2 + 1) - 0.25.
    solve_line_min({0.0, -1.0, 1.25, -1.0, 1.0}, ext, lambda);
    EXPECT_NEAR(lambda, 0.5, 1e-9);
}

} // namespace
