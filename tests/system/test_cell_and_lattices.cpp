// The cell, the lattice generator and the k-point list.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/cell_module.hpp"
#include "system/kpt_module.hpp"
#include "system/setlat.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;

double dot(const double* a, const double* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

TEST(Cell, VolumeInverseAndScaling) {
    cell_type c;
    cell_allocate(c);
    // A left-handed set still has a positive volume.
    const double a1[3] = {0, 2, 0}, a2[3] = {3, 0, 0}, a3[3] = {0.5, 0.5, 4};
    cell_init_a(c, a1, a2, a3);
    EXPECT_DOUBLE_EQ(cell_vol(c), 24.0);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) {
            double s = 0;
            for (int k = 1; k <= 3; ++k) s += c.b(i, k) * c.a(k, j);
            EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-15);
        }
    const double b11 = c.b(1, 1), b12 = c.b(1, 2);
    cell_multiply(c, 2, 1, 1);
    EXPECT_DOUBLE_EQ(cell_vol(c), 48.0);
    EXPECT_DOUBLE_EQ(c.b(1, 1), b11 / 2);
    EXPECT_DOUBLE_EQ(c.b(1, 2), b12 / 2);
    cell_divide(c, 2, 1, 1);
    EXPECT_DOUBLE_EQ(cell_vol(c), 24.0);
    // Plane spacings are volume over the area of the other two vectors.
    double d[3];
    cell_calc_min_distances(d, c);
    double cr[3] = {a2[1] * a3[2] - a2[2] * a3[1], a2[2] * a3[0] - a2[0] * a3[2],
                    a2[0] * a3[1] - a2[1] * a3[0]};
    EXPECT_NEAR(d[0], 24.0 / std::sqrt(dot(cr, cr)), 1e-14);
    double v[3];
    cell_latvec_123(v, c, 1, -1, 2);
    EXPECT_DOUBLE_EQ(v[0], 0 - 3 + 1.0);
    // Rolling copies slot 1 back; the newest slot keeps its value.
    cell_roll(c);
    EXPECT_EQ(c.a_of_t(2, 1, 2), 2.0);
    EXPECT_EQ(c.vol_of_t(2), 24.0);
    cell_type one;
    cell_allocate(one, 1);
    cell_init_lattice_type(one, 4.0, "fcc");
    EXPECT_DOUBLE_EQ(cell_vol(one), 16.0);
    cell_roll(one); // one slot: nothing moves
    EXPECT_DOUBLE_EQ(cell_vol(one), 16.0);
    cell_init_lattice_type(one, 4.0, "hcp"); // unknown: unchanged
    EXPECT_DOUBLE_EQ(cell_vol(one), 16.0);
}

class Lattices : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = lyrt_test::fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::current_path(dir);
        io_reset();
    }
    void TearDown() override { io_reset(); }
    // Runs setlat on the given records; returns the status.
    int run(const std::string& records, farray<double, 2>& a, double& volume, std::string& echo) {
        lyrt_test::write_text(dir / "LAT", records);
        unit_open(50, "LAT", "old");
        unit_open(51, "ECHO", "replace");
        if (!a.allocated()) a.allocate({1, 1}, {3, 3});
        int status = 0;
        setlat(a, volume, 50, 51, status);
        unit_close(50);
        unit_close(51);
        echo = lyrt_test::read_text(dir / "ECHO");
        return status;
    }
    std::filesystem::path dir;
};

TEST_F(Lattices, VolumesAndShapes) {
    farray<double, 2> a;
    double vol;
    std::string echo;
    ASSERT_EQ(run("1\n4.0\n0\n", a, vol, echo), 0);
    EXPECT_NEAR(vol, 16.0, 1e-12);
    ASSERT_EQ(run("-1\n16.0\n0\n", a, vol, echo), 0);
    EXPECT_NEAR(a(1, 2), 2.0, 1e-12); // a = 4 recovered from the volume
    ASSERT_EQ(run("4\n2.0\n0\n", a, vol, echo), 0);
    for (int i = 1; i <= 3; ++i)
        for (int j = 1; j <= 3; ++j) EXPECT_EQ(a(i, j), i == j ? 2.0 : 0.0);
    ASSERT_EQ(run("3\n1.0 1.6\n0\n", a, vol, echo), 0);
    EXPECT_NEAR(std::hypot(a(1, 1), a(1, 2), a(1, 3)), 1.0, 1e-14);
    // Every lattice given by its volume has that volume.
    const char* by_volume[] = {"-2\n10\n",     "-3\n10 1.6\n",     "-5\n10 1.3\n",
                               "-6\n10 1.3\n", "-7\n10 1.1 1.3\n", "-8\n10 1.1 1.3\n",
                               "-9\n10 1.3\n", "-10\n10 1.3\n",    "-11\n10 1.3\n",
                               "-12\n10 70\n", "-13\n10 1.3\n"};
    for (const char* rec : by_volume) {
        ASSERT_EQ(run(std::string(rec) + "0\n", a, vol, echo), 0) << rec;
        EXPECT_NEAR(vol, 10.0, 1e-10) << rec;
    }
    // Rhombohedral: all three angles are theta.
    ASSERT_EQ(run("12\n3.0 70\n0\n", a, vol, echo), 0);
    const double v1[3] = {a(1, 1), a(1, 2), a(1, 3)}, v2[3] = {a(2, 1), a(2, 2), a(2, 3)};
    EXPECT_NEAR(std::acos(dot(v1, v2) / dot(v1, v1)) * 180.0 / std::acos(-1.0), 70.0, 1e-10);
    EXPECT_NEAR(std::sqrt(dot(v1, v1)), 3.0, 1e-12);
}

// Voigt strains (six values: e1 stretches x, e6 shears xy); the volume-conserving
// presets keep the volume; each bad record has its status and message.
TEST_F(Lattices, StrainsAndFailures) {
    farray<double, 2> a;
    double vol;
    std::string echo;
    ASSERT_EQ(run("4\n1.0\n1\n0.1 0 0 0 0 0.2\n", a, vol, echo), 0);
    EXPECT_NEAR(a(1, 1), 1.1, 1e-15);
    EXPECT_NEAR(a(1, 2), 0.1, 1e-15);
    EXPECT_NEAR(a(2, 1), 0.1, 1e-15);
    for (const char* preset : {"2\n0.03\n", "3\n0.05\n", "4\n0.02\n", "21\n0.04\n"}) {
        ASSERT_EQ(run(std::string("4\n2.0\n") + preset, a, vol, echo), 0) << preset;
        EXPECT_NEAR(vol, 8.0, 1e-12) << preset;
    }
    const std::pair<const char*, const char*> bad[] = {
        {"99\n1.0\n0\n", "Unknown lattice type"},
        {"4\nxyz\n0\n", "setlat:  error in lattice parameter input"},
        {"4\n1.0\n7\n0.1\n", "Unknown strain type"},
        {"4\n1.0\n1\n0.1 x\n", "setlat:  error in strain input"},
        {"abc\n", "setlat:  error in latnum input"}};
    for (const auto& [records, message] : bad) {
        EXPECT_NE(run(records, a, vol, echo), 0) << records;
        EXPECT_NE(echo.find(message), std::string::npos) << records;
    }
}

TEST(Kpoints, GammaPointOnly) {
    kpt_type kpt;
    farray<double, 2> b;
    b.allocate({1, 1}, {3, 3});
    b(1, 1) = b(2, 2) = b(3, 3) = 0.2;
    kpt_read_and_allocate(kpt, b, "KPTS", kpt_unit);
    EXPECT_EQ(kpt.n_k, 1);
    EXPECT_EQ(kpt.weight(1), 1.0);
    EXPECT_EQ(kpt.k_cart(1, 1), 0.0);
    testing::internal::CaptureStdout();
    kpt_print(kpt, b, stdout_unit);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("GAMMA POINT ASSUMED"),
              std::string::npos);
}

} // namespace
