// File units: reopened reports, directories, and the run of the bare program.
#include "base/io_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using lyrt_test::read_lines;

class IoModule : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = lyrt_test::fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::current_path(dir);
        io_reset();
    }
    void TearDown() override { io_reset(); }
    std::filesystem::path dir;
};

TEST_F(IoModule, ReopenAppendsToReports) {
    open_units();
    unit_write(report_unit, "before");
    reopen_units();
    unit_write(report_unit, "after");
    close_units();
    auto out = read_lines(dir / "OUTLYRT");
    EXPECT_EQ(out[20], "before");
    EXPECT_EQ(out[21], "after");
}

// The program writes its reports with their headers, traces main_lyrt on
// standard output and ends with the timing lines.
TEST_F(IoModule, ProgramRunsOnKeywordFile) {
    for (const char* f : {"INLYRT", "POSLYRT", "TBPARAM"})
        std::filesystem::copy_file(std::filesystem::path(LYRT_SOURCE_DIR) / "examples/si8" / f,
                                   dir / f);
    ASSERT_EQ(lyrt_test::run_lyrt_in(dir), 0);
    auto out = read_lines(dir / "OUTLYRT");
    ASSERT_GE(out.size(), 20u);
    EXPECT_EQ(out[17], "   THIS IS THE SERIAL VERSION");
    EXPECT_EQ(out.back(), " -- LYRT end --");
    // The phases' timing lines, then the two lines of a normal end.
    auto timings = read_lines(dir / "timings");
    ASSERT_GE(timings.size(), 2u);
    EXPECT_EQ(timings[timings.size() - 2].rfind(" Time of day interval ", 0), 0u);
    EXPECT_EQ(timings.back().rfind(" main_lyrt ", 0), 0u);
    auto std_out = read_lines(dir / "stdout.txt");
    ASSERT_EQ(std_out.size(), 3u);
    EXPECT_EQ(std_out[0], " Entering main_lyrt:main_lyrt on PE= 0");
    EXPECT_EQ(std_out[1], " After pbc_calc_max_nn, max_n_nn= 7"); // every other ion of 8
    EXPECT_EQ(std_out[2], " Leaving main_lyrt:main_lyrt on PE= 0");
}

// A directory that bears a file's name is no file: opening it fails in every mode.
TEST_F(IoModule, DirectoryIsNoFile) {
    std::filesystem::create_directory(dir / "INLYRT");
    for (const char* status : {"old", "unknown", "replace"})
        EXPECT_NE(unit_open(40, "INLYRT", status), 0) << status;
    EXPECT_FALSE(unit_is_open(40));
}

} // namespace
