// Helpers shared by the test suites.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace lyrt_test {

// Creates the test process's temporary folder, makes it the working folder and
// removes it at exit (LYRT_KEEP_TEST_DIR=1 keeps it); false when it can't.
bool make_work_dir();

// A new empty folder below the test process's own temporary folder.
std::filesystem::path fresh_dir(const std::string& name);
std::string read_text(const std::filesystem::path& file);
std::vector<std::string> read_lines(const std::filesystem::path& file);
void write_text(const std::filesystem::path& file, const std::string& text);
// Runs the lyrt executable in dir (standard output to stdout.txt); returns its exit status.
int run_lyrt_in(const std::filesystem::path& dir, int threads = 1);

// A test that works in its own fresh folder (named after the test), with the unit
// table and the trace stack empty and the report files open.
class program_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    std::filesystem::path dir;
};

} // namespace lyrt_test
