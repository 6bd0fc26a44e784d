// Position files: every form of POSLYRT and the bad-input stops. (POSCONT read
// back is proved by the continued runs and the Python round trip.)
#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/box_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class PositionFiles : public lyrt_test::program_test {
  protected:
    // Reads text as POSLYRT into a fresh box.
    void read(box_type& box, const std::string& text) {
        lyrt_test::write_text(dir / "POSLYRT", text);
        ions_read_in(box, box.ions, "POSLYRT");
    }
    std::string stop_message(const std::string& text) {
        box_type box;
        try {
            testing::internal::CaptureStdout();
            read(box, text);
            testing::internal::GetCapturedStdout();
        } catch (const fatal_stop& stop) {
            testing::internal::GetCapturedStdout();
            io_reset();
            open_units();
            return stop.message;
        }
        return "";
    }
};

TEST_F(PositionFiles, ReducedAndCartesianCoordinates) {
    const std::string cell =
        "number_of_ions = 1 1\na0 = 2.0\na_1 = 1 0 0\na_2 = 0 2 0\na_3 = 0.5 0 3\n";
    box_type reduced, unit_word, cartesian;
    read(reduced, cell + "positions\n0.5 0.25 0.5\n0 0 0\n");
    read(unit_word, cell + "positions = Unit\n0.5 0.25 0.5\n0 0 0\n");
    read(cartesian, cell + "positions = cartesian\n1.5 1.0 3.0\n0 0 0\n");
    EXPECT_DOUBLE_EQ(cell_vol(reduced.cell), 2.0 * 4.0 * 6.0);
    for (const box_type* b : {&reduced, &unit_word, &cartesian}) {
        EXPECT_DOUBLE_EQ(b->ions.r(1, 1), 1.5); // 0.5*2 + 0.5*1
        EXPECT_DOUBLE_EQ(b->ions.r(2, 1), 1.0);
        EXPECT_DOUBLE_EQ(b->ions.r(3, 1), 3.0);
        EXPECT_EQ(b->ions.type(1), 1);
        EXPECT_EQ(b->ions.type(2), 2);
    }
    EXPECT_FALSE(ions_velocities_read());
}

TEST_F(PositionFiles, SpeciesOnEachLineAndTheBlockRule) {
    // Three species by blocks: the third block starts after count(2) ions, so ion 4
    // is left without a species and the run stops with a message.
    EXPECT_EQ(
        stop_message("number_of_ions = 2 1 1\na_1 = 5 0 0\na_2 = 0 5 0\na_3 = 0 0 5\n"
                     "positions\n0 0 0\n0.1 0 0\n0.2 0 0\n0.3 0 0\n"),
        "species index out of range in positions of file POSLYRT; give the species on each line");
    // Two species by blocks.
    box_type blocks;
    read(blocks, "number_of_ions = 2 1\na_1 = 5 0 0\na_2 = 0 5 0\na_3 = 0 0 5\n"
                 "positions\n0 0 0\n0.1 0 0\n0.2 0 0\n");
    EXPECT_EQ(blocks.ions.type(1), 1);
    EXPECT_EQ(blocks.ions.type(2), 1);
    EXPECT_EQ(blocks.ions.type(3), 2);
    // The four-item form names the species of every ion.
    box_type named;
    read(named, "number_of_ions = 2 1 1\na_1 = 5 0 0\na_2 = 0 5 0\na_3 = 0 0 5\n"
                "positions\n1 0 0 0\n1 0.1 0 0\n2 0.2 0 0\n3 0.3 0 0\n");
    EXPECT_EQ(named.ions.type(2), 1);
    EXPECT_EQ(named.ions.type(3), 2);
    EXPECT_EQ(named.ions.type(4), 3);
    EXPECT_EQ(named.ions.n_species, 3);
    EXPECT_EQ(named.ions.n_ions(1), 2);
}

TEST_F(PositionFiles, LatticeBlockAndGridRepeats) {
    box_type box;
    testing::internal::CaptureStdout();
    read(box, "number_of_ions = 1\nunit_cell_grid = 2 1 1\nlattice\n1\n4.0\n0\n"
              "positions\n0.0 0.0 0.0\nvelocities\n0.1 0.2 0.3\n"
              "freeze\nT F T\nboost\nT\nqion\n-0.5\n");
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(box.ions.total_n_ions, 2);
    EXPECT_NEAR(cell_vol(box.cell), 32.0, 1e-12); // fcc a = 4 has volume 16, doubled along a_1
    // The repeated ion lies a_1 of the basis cell away and carries all flags.
    EXPECT_NEAR(box.ions.r(1, 2), 0.0, 1e-12);
    EXPECT_NEAR(box.ions.r(2, 2), 2.0, 1e-12);
    EXPECT_NEAR(box.ions.r(3, 2), 2.0, 1e-12);
    EXPECT_TRUE(box.ions.frozen(1, 2));
    EXPECT_FALSE(box.ions.frozen(2, 2));
    EXPECT_TRUE(box.ions.boost(2));
    EXPECT_EQ(box.ions.qion(2), -0.5);
    EXPECT_TRUE(ions_velocities_read());
    // Reduced velocities 0.1 0.2 0.3 in the fcc cell (vectors in columns as read).
    EXPECT_NEAR(box.ions.v(1, 2), box.ions.v(1, 1), 1e-15);
    EXPECT_EQ(box.ions.n_ions(1), 2);
}

TEST_F(PositionFiles, BadInputStops) {
    const std::string cell = "a_1 = 5 0 0\na_2 = 0 5 0\na_3 = 0 0 5\n";
    EXPECT_EQ(stop_message(cell + "positions\n0 0 0\n"),
              "Could not find key word number_of_ions in file POSLYRT");
    EXPECT_EQ(stop_message("number_of_ions = 1\n" + cell), "could not find keyword positions !!");
    EXPECT_EQ(stop_message("number_of_ions = 1\n" + cell + "positions\n0 0 0 0 0\n"),
              "coordinates faulty, only 3 or 4 enrties expected ...");
    // Fewer position lines than ions are found before anything is allocated for them.
    EXPECT_EQ(stop_message("number_of_ions = 2\n" + cell + "positions\n0 0 0\n"),
              "number_of_ions asks for 2 ions, but the positions block of file POSLYRT has "
              "only 1 lines");
    EXPECT_EQ(stop_message("number_of_ions = 2\n" + cell + "positions\n0 0 0\n0 x 0\n"),
              "an error occured while reading ionic coordinates iostat=");
    // Numbers that are no numbers: NaN, infinities, values beyond the double range.
    for (const char* bad : {"nan", "inf", "-Infinity", "1e999"})
        EXPECT_EQ(stop_message("number_of_ions = 1\n" + cell + "positions\n0 " + std::string(bad) +
                               " 0\n"),
                  "an error occured while reading ionic coordinates iostat=")
            << bad;
    EXPECT_EQ(stop_message("number_of_ions = 1\na_1 = 5 0 0\na_3 = 0 0 5\npositions\n0 0 0\n"),
              "error reading file POSLYRT: lattice vector a_2 not found !");
    EXPECT_EQ(stop_message("number_of_ions = 1\n" + cell + "positions\n0 0 0\nfreeze\nT X\n"),
              "An error occured while reading freezing flags");
    EXPECT_EQ(stop_message("number_of_ions = 2 -1\n" + cell + "positions\n0 0 0\n"),
              "number_of_ions needs counts of 0 or more in file POSLYRT");
    EXPECT_EQ(stop_message("number_of_ions = 0\n" + cell + "positions\n"),
              "number_of_ions counts no ions in file POSLYRT");
    EXPECT_EQ(stop_message("number_of_ions = x\n" + cell + "positions\n0 0 0\n"),
              "error reading keyword number_of_ions from file POSLYRT error number 5");
    io_reset();
    box_type box;
    try {
        ions_read_in(box, box.ions, "NO_SUCH_FILE");
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "Problems opening file NO_SUCH_FILE iostat=");
    }
}

} // namespace

namespace {} // namespace
