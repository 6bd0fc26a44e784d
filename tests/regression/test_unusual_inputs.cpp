// Unusual inputs: valid ones give right numbers, invalid ones a clear stop.
#include "run_support.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace lyrt_test;

class UnusualInputs : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    // The message of the fatal stop, as ERRLYRT records it below the procedure line.
    static std::string fatal_message(const std::filesystem::path& run) {
        const auto err = read_lines(run / "ERRLYRT");
        for (std::size_t k = 0; k + 2 < err.size(); ++k)
            if (err[k].rfind(" FATAL ERROR No ", 0) == 0) return err[k + 2].substr(8);
        return "";
    }
    // Replaces line `line` (1-based) of a text.
    static std::string with_line(const std::string& text, int line, const std::string& value) {
        std::istringstream in(text);
        std::string out, l;
        for (int k = 1; std::getline(in, l); ++k) out += (k == line ? value : l) + "\n";
        return out;
    }
    std::filesystem::path dir;
};

// A pair whose own reach ends inside the neighbour search (a long keyword r_cut, or
// a species pair that ends sooner than the others) adds nothing to the gradients:
// the forces stay the derivative of the energy.
TEST_F(UnusualInputs, ForcesWherePairsEndInsideTheSearch) {
    check_forces(dir, "si8_rcut12", cube(5.431), shaken(diamond(5.431, 1), 0.05), 1, "r_cut = 12\n",
                 tbparam("Si"), 3);
    const double h = 5.431 / 2;
    const cell3 primitive = {{{0, h, h}, {h, 0, h}, {h, h, 0}}};
    check_forces(dir, "si2_rcut15", primitive,
                 {{1, 0.03, -0.02, 0.01}, {1, h / 2 - 0.04, h / 2 + 0.02, h / 2}}, 1,
                 "r_cut = 15\n", tbparam("Si"), 1);
    // Cu2Au2 with the Au-Au pair ending at 10.5 Bohr instead of 12.5.
    const std::string cuau = with_line(tbparam("CuAu"), 5, "10.5 0.25");
    std::vector<atom> atoms = shaken(fcc(3.9, 1), 0.05);
    atoms[2].species = atoms[3].species = 2;
    check_forces(dir, "cu2au2", cube(3.9), atoms, 2, "sigma = 0.1\n", cuau, 2);
    check_forces(dir, "cu2au2_cu", cube(3.9), atoms, 2, "sigma = 0.1\n", cuau, 0);
}

TEST_F(UnusualInputs, IonsOnTopOfEachOtherStop) {
    const std::string pos = poslyrt(cube(5.431), {{1, 1, 1, 1}, {1, 3, 3, 3}, {1, 1.02, 1, 1}}, 1);
    const run_result r = run_case(dir / "coincident", pos, "n_steps = 0\n", tbparam("Si"));
    EXPECT_EQ(r.status, 1);
    const std::string m = fatal_message(dir / "coincident");
    EXPECT_EQ(m.rfind("ions 1 and 3 are   0.020000 Angstrom apart", 0), 0u) << m;
    // The report and standard output say so too.
    EXPECT_NE(r.report.find("*** THE RUN STOPPED WITH A FATAL ERROR ***"), std::string::npos);
    EXPECT_NE(read_text(dir / "coincident" / "stdout.txt").find(" FATAL ERROR: ions 1 and 3"),
              std::string::npos);
}

TEST_F(UnusualInputs, NumbersThatAreNoNumbersStop) {
    const std::string si = tbparam("Si");
    const std::string pos = poslyrt(cube(5.431), diamond(5.431, 1), 1);
    // Line 9 of the file is the first on-site coefficient.
    for (const char* bad : {"nan", "inf", "1e999"}) {
        const auto run = dir / ("param_" + std::string(bad));
        EXPECT_EQ(run_case(run, pos, "n_steps = 0\n", with_line(si, 9, bad)).status, 1);
        EXPECT_EQ(fatal_message(run),
                  "error reading parameter file TBPARAM: on-site section of pair 1-1, s a (not a "
                  "number)")
            << bad;
    }
    // A coefficient that is finite in the file but not once converted to eV.
    const auto huge = dir / "huge";
    EXPECT_EQ(run_case(huge, pos, "n_steps = 0\n", with_line(si, 9, "-1e308")).status, 1);
    EXPECT_NE(fatal_message(huge).find("not finite"), std::string::npos) << fatal_message(huge);
    EXPECT_EQ(read_text(huge / "OUTLYRT").find("NaN"), std::string::npos);
    // A code the program does not have stops the whole run with status 1.
    EXPECT_EQ(run_case(dir / "code", pos, "elec_gs_algo = 7\n", si).status, 1);
    EXPECT_EQ(fatal_message(dir / "code").rfind("elec_gs_algo = 7 is not a code", 0), 0u);
    // More electrons than twice the basis functions.
    const auto many = dir / "electrons";
    EXPECT_EQ(run_case(many, pos, "n_electrons = 1e6\nsigma = 0.1\n", si).status, 1);
    EXPECT_EQ(fatal_message(many),
              "more electrons than the basis functions can hold (twice their number, 64)");
}

TEST_F(UnusualInputs, CutOffsAndCellsBeyondReasonStopQuickly) {
    const std::string si = tbparam("Si");
    const std::string pos = poslyrt(cube(5.431), diamond(5.431, 1), 1);
    const auto far = dir / "far";
    EXPECT_EQ(run_case(far, pos, "r_cut = 1e5\n", si).status, 1);
    EXPECT_NE(fatal_message(far).find("image cells"), std::string::npos) << fatal_message(far);
    const auto tiny = dir / "tiny";
    EXPECT_EQ(run_case(tiny, poslyrt(cube(0.05), diamond(0.05, 1), 1), "n_steps = 0\n", si).status,
              1);
    EXPECT_NE(fatal_message(tiny).find("image cells"), std::string::npos) << fatal_message(tiny);
    // A grid whose ion count overflows 32 bits, and a count with no lines behind it.
    const auto grid = dir / "grid";
    EXPECT_EQ(run_case(grid, pos + "unit_cell_grid = 2000 2000 2000\n", "", si).status, 1);
    EXPECT_EQ(fatal_message(grid), "Attempt to allocate ions%r_of_thas failed.");
    const auto count = dir / "count";
    std::string big = pos;
    big.replace(big.find("number_of_ions = 8"), 18, "number_of_ions = 2000000000");
    EXPECT_EQ(run_case(count, big, "", si).status, 1);
    EXPECT_NE(fatal_message(count).find("number_of_ions asks for 2000000000 ions"),
              std::string::npos);
}

} // namespace

namespace {

// Inputs found by fuzzing the readers (tests/data/fuzz) end with the program's message:
// counts beyond an int or a long long, grids whose ion count times its bytes overflow.
TEST_F(UnusualInputs, FuzzFindingsStopWithAMessage) {
    const auto fuzz = std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/fuzz";
    const auto example = std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8";
    struct finding {
        const char* file;
        const char* replaces;
        const char* message;
    };
    const finding findings[] = {
        {"INLYRT.repeat_count_overflow", "INLYRT", "error reading keyword ions_algo"},
        {"POSLYRT.huge_integer_count", "POSLYRT", "error reading keyword number_of_ions"},
        {"POSLYRT.grid_count_overflow", "POSLYRT", "Attempt to allocate ions%r_of_t"},
        {"POSLYRT.grid_beyond_memory", "POSLYRT", "error reading file POSLYRT"}};
    for (const auto& f : findings) {
        const auto run = dir / f.file;
        std::filesystem::create_directories(run);
        for (const char* name : {"INLYRT", "POSLYRT", "TBPARAM"})
            std::filesystem::copy_file(example / name, run / name);
        std::filesystem::copy_file(fuzz / f.file, run / f.replaces,
                                   std::filesystem::copy_options::overwrite_existing);
        EXPECT_EQ(run_lyrt_in(run), 1) << f.file;
        EXPECT_EQ(fatal_message(run).rfind(f.message, 0), 0u)
            << f.file << ": " << fatal_message(run);
    }
}

} // namespace
