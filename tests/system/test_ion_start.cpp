// The starting state of the ions: masses, degrees of freedom, velocities.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/box_module.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class IonStart : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        i_algo.n_steps = 10;
        i_algo.temperature = 500.0;
        i_algo.temp_seed[0] = 123;
        i_algo.temp_seed[1] = 456;
        i_algo.init_vel = 0;
    }
    void TearDown() override { io_reset(); }
    // Two species on a simple cubic grid, some coordinates frozen.
    void make(const std::string& extra = "") {
        lyrt_test::write_text(dir / "POSLYRT",
                              "number_of_ions = 3 2\nunit_cell_grid = 2 2 1\na_1 = 3 0 0\n"
                              "a_2 = 0 3 0\na_3 = 0 0 3\npositions\n0 0 0\n0.5 0 0\n0 0.5 0\n"
                              "0.5 0.5 0.5\n0 0 0.5\n" +
                                  extra);
        ions_read_in(box, box.ions, "POSLYRT");
        atomic_type_init_sym(box.ions.species[0], "Si");
        atomic_type_init_sym(box.ions.species[1], "Cu");
        state.ions = &box.ions;
        state.box = &box;
    }
    double momentum_max() {
        double p[3];
        ions_total_momentum(p, box.ions);
        return std::max({std::fabs(p[0]), std::fabs(p[1]), std::fabs(p[2])});
    }
    box_type box;
    ions_state_type state;
    i_algo_type i_algo;
};

TEST_F(IonStart, VelocitiesAtTheTargetTemperature) {
    make("freeze\nT F F\nF F F\nF F T\nF F F\nF F F\n");
    ions_init(state, i_algo);
    const ions_type& ions = box.ions;
    EXPECT_EQ(ions.total_n_ions, 20);
    EXPECT_EQ(ions.n_frozen, 8); // two flags per basis, repeated four times
    EXPECT_EQ(ions.dof, 52);
    EXPECT_DOUBLE_EQ(ions.mass(2), 63.546 * 103.6437626);
    EXPECT_DOUBLE_EQ(i_algo.target_e_kin, 0.5 * 52 * 500.0 / 11604.5);
    EXPECT_LT(momentum_max(), 1e-12);
    ions_calc_energies(state, i_algo);
    EXPECT_NEAR(state.e_kin, i_algo.target_e_kin, 1e-12);
    EXPECT_NEAR(state.temperature, 500.0, 1e-6);
    for (int i = 1; i <= ions.total_n_ions; ++i)
        for (int k = 1; k <= 3; ++k) {
            if (ions.frozen(k, i)) {
                EXPECT_EQ(ions.v(k, i), 0.0);
            }
        }
    // The same seeds give the same velocities.
    const double v11 = ions.v(2, 1);
    box.ions.v.fill(0.0);
    ions_init(state, i_algo);
    EXPECT_EQ(box.ions.v(2, 1), v11);
    EXPECT_EQ(i_algo.dt_sq, 1.0);
    EXPECT_EQ(i_algo.half_dt, 0.5);
}

TEST_F(IonStart, RulesOfTheVelocityStart) {
    // Velocities of the file are kept with veloc_start 1 in a dynamics run...
    make("velocities = cartesian\n0.01 0 0\n0 0.01 0\n0 0 0.01\n0 0 0\n0 0 0\n");
    i_algo.init_vel = 1;
    ions_init(state, i_algo);
    EXPECT_EQ(box.ions.v(1, 1), 0.01);
    EXPECT_EQ(box.ions.v(1, 6), 0.01); // repeated with its basis ion
    EXPECT_EQ(box.ions.v(2, 7), 0.01);
    // ...rescaled to the temperature with veloc_start 4, momentum untouched...
    i_algo.init_vel = 4;
    ions_init(state, i_algo);
    ions_calc_energies(state, i_algo);
    EXPECT_NEAR(state.e_kin, i_algo.target_e_kin, 1e-12);
    // ...and zeroed for a relaxation.
    i_algo.init_vel = 1;
    i_algo.algo = ions_algo_cg_relax;
    ions_init(state, i_algo);
    EXPECT_EQ(box.ions.v(1, 1), 0.0);
    EXPECT_EQ(i_algo.temperature, 0.0);
}

TEST_F(IonStart, ZeroTemperatureAndMissingVelocities) {
    make();
    i_algo.temperature = 0.0;
    i_algo.init_vel = 1;
    ions_init(state, i_algo);
    for (double v : box.ions.v) EXPECT_EQ(v, 0.0);
    i_algo.init_vel = 2;
    try {
        ions_init(state, i_algo);
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "i_algo%init_vel == 2 but no velocities found in POSLYRT");
    }
}

TEST_F(IonStart, AllFrozenFailsOnTheScaling) {
    make("freeze\nT T T\nT T T\nT T T\nT T T\nT T T\n");
    EXPECT_THROW(ions_init(state, i_algo), fatal_stop);
    EXPECT_EQ(box.ions.dof, 0);
}

TEST_F(IonStart, CentreOfMassAndHistory) {
    make();
    ions_init(state, i_algo);
    ions_type& ions = box.ions;
    for (int i = 1; i <= ions.total_n_ions; ++i) ions.v(1, i) += 0.01; // a drift
    EXPECT_GT(momentum_max(), 1.0);
    const double e_before = 2.0 * [&] {
        double e = 0;
        for (int i = 1; i <= ions.total_n_ions; ++i)
            for (int k = 1; k <= 3; ++k)
                e += 0.5 * ions.mass(ions.type(i)) * ions.v(k, i) * ions.v(k, i);
        return e;
    }();
    ions_fix_center_of_mass(state);
    EXPECT_LT(momentum_max(), 1e-10);
    ions_calc_energies(state, i_algo);
    // The energy comes back by the ratio E0/E1 itself: the product E1 * (E0/E1)^2 is no
    // longer E0, which is the property the routine keeps.
    EXPECT_GT(std::fabs(2.0 * state.e_kin - e_before), 1e-9);
    ions_roll(ions);
    for (int i = 1; i <= ions.total_n_ions; ++i)
        for (int k = 1; k <= 3; ++k) EXPECT_EQ(ions.r_of_t(k, i, 2), ions.r_of_t(k, i, 1));
    ions_change_nt(ions, 3); // same depth: nothing changes
    EXPECT_EQ(ions.n_t, 3);
    ions_change_nt(ions, 5);
    EXPECT_EQ(ions.n_t, 5);
    EXPECT_EQ(ions.r(1, 2), ions.r_of_t(1, 2, 1));
    EXPECT_EQ(ions.r_of_t(1, 2, 5), 0.0);
}

} // namespace
