// Boosted dynamics: the boost potential and its force factor against their
// closed forms, and the factor acting on the band forces of boosted ions only; the
// thermostats' own steps against the laws they follow.
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "dynamics/ions_dyn_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "system/constants_module.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

// The boost potential written out on its own: dV(E) = (f - 1) x + g.
double boost_potential(double e, double e_boost, double a) {
    const double x = e - e_boost, y = a * x;
    const double f = 1.0 / (1.0 + std::exp(-y));
    return (f - 1.0) * x + std::exp(-y * y / 9.0) / a;
}

// The Nose-Hoover friction obeys dxi/dt = 2 (E_kin - E_target) / Q: under a constant
// excess it grows at that rate (to the half step of its three-point derivative).
TEST(NoseHoover, FrictionGrowsAtTwiceTheKineticExcessOverTheMass) {
    i_algo_type ia;
    ia.q_nose_ions = 40.0;
    ia.target_e_kin = 1.0;
    ions_state_type st;
    st.e_kin = 1.3;
    for (int n = 0; n < 20; ++n) ions_move_nose_eom(st, ia); // dt = 1 fs
    EXPECT_NEAR(ia.dxi, 2.0 * 0.3 * 20.0 / 40.0, 0.03 * 0.3);
}

// The velocity-rescaling step alone, applied again and again, samples the canonical
// distribution of the kinetic energy of nf degrees of freedom: mean nf kT / 2 and
// variance nf (kT)^2 / 2; from far above the target it relaxes as exp(-t / tau).
TEST(VelocityRescaling, KineticEnergySamplesTheCanonicalDistribution) {
    init_random(3, 9);
    const int nf = 24;
    const double k_target = 1.2, c = std::exp(-0.2);
    auto step = [&](double k) {
        const double r1 = random_norm();
        double s = 0.0;
        for (int i = 1; i < nf; ++i) s += std::pow(random_norm(), 2);
        return csvr_kinetic(k, k_target, nf, c, r1, s);
    };
    double k = 50.0, sum = 0.0, sum2 = 0.0;
    for (int n = 0; n < 5; ++n) k = step(k);
    // Five steps of relaxation take the excess down by about c^5.
    EXPECT_NEAR((k - k_target) / (50.0 - k_target), std::pow(c, 5), 0.1);
    const int samples = 40000;
    for (int n = 0; n < 100; ++n) k = step(k);
    for (int n = 0; n < samples; ++n) {
        k = step(k);
        sum += k;
        sum2 += k * k;
    }
    const double mean = sum / samples, var = sum2 / samples - mean * mean;
    EXPECT_NEAR(mean, k_target, 0.02 * k_target);
    EXPECT_NEAR(var, 2.0 * k_target * k_target / nf, 0.05 * 2.0 * k_target * k_target / nf);
}

TEST(HyperDynamics, FactorIsTheDerivativeOfTheBoostedEnergy) {
    const double e_boost = -3.0, a = 4.0, t = 450.0;
    for (double e : {-3.8, -3.2, -3.0, -2.9, -2.5, -1.0}) {
        ions_state_type st;
        st.e_local_sum = e;
        const double factor = calc_fboost_factor(st, e_boost, a, t);
        const double h = 1e-6;
        const double fd =
            1.0 +
            (boost_potential(e + h, e_boost, a) - boost_potential(e - h, e_boost, a)) / (2 * h);
        EXPECT_NEAR(factor, fd, 1e-7) << e;
        EXPECT_NEAR(st.e_boost, boost_potential(e, e_boost, a), 1e-14) << e;
        EXPECT_NEAR(st.time_factor, std::exp(st.e_boost * k_b_inverse / t), 1e-12 * st.time_factor)
            << e;
    }
    // Far above the threshold: plain dynamics.
    ions_state_type above;
    above.e_local_sum = 50.0;
    EXPECT_EQ(calc_fboost_factor(above, e_boost, a, t), 1.0);
    EXPECT_EQ(above.time_factor, 1.0);
    EXPECT_EQ(above.e_boost, 0.0);
    // Far below: no band force on the boosted ions, and a clock that runs fast.
    ions_state_type below;
    below.e_local_sum = -30.0;
    EXPECT_NEAR(calc_fboost_factor(below, e_boost, a, t), 0.0, 1e-12);
    EXPECT_NEAR(below.time_factor, std::exp(27.0 * k_b_inverse / t), 1e-9 * below.time_factor);
}

// Silicon 8 with its electronic records, for the routines that need a ground state.
class BoostedForces : public lyrt_test::program_test, public electronic_records {
  protected:
    void set_up(const std::string& positions) {
        build_system(s, dir,
                     "number_of_ions = 8\na0 = 5.431\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 1\n"
                     "positions\n" +
                         positions,
                     one_species_file(read_species_set("Si")));
        electronic_records_init(*this, s, 0.0);
    }
    void TearDown() override {
        electronic_records_free(*this);
        program_test::TearDown();
    }
    model_system s;
    i_algo_type ia;
};

// The boost multiplies the band forces of the boosted ions by the factor and
// leaves every other ion alone.
TEST_F(BoostedForces, FactorScalesTheBandForcesOfBoostedIonsOnly) {
    set_up("0.01 0 0.02\n0 0.5 0.5\n0.5 0.01 0.5\n0.5 0.5 0\n0.25 0.26 0.25\n0.25 0.75 0.75\n"
           "0.75 0.25 0.74\n0.75 0.75 0.25\n");
    s.box.ions.boost(2) = s.box.ions.boost(5) = true;
    gs_calc(s.box, st, elec, ea, s.ham, true);
    forces_calc(s.ham, s.box.ions, s.box, ia, elec, ea, 1.0);
    const farray<double, 2> plain = s.box.ions.f.copy();
    forces_calc(s.ham, s.box.ions, s.box, ia, elec, ea, 0.37);
    for (int i = 1; i <= 8; ++i)
        for (int k = 1; k <= 3; ++k) {
            const double expected = s.box.ions.boost(i) ? 0.37 * plain(k, i) : plain(k, i);
            EXPECT_NEAR(s.box.ions.f(k, i), expected, 1e-12) << "ion " << i;
        }
    // The boosted ions feel a force at all (the test is not trivially satisfied).
    EXPECT_GT(std::fabs(plain(1, 2)) + std::fabs(plain(2, 2)) + std::fabs(plain(3, 2)), 1e-3);
}

} // namespace
