// Helpers shared by the test suites: folders, files, the program-test fixture.
#include "test_support.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model/tb_model_module.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::filesystem::path work_dir;

void remove_work_dir() {
    // LYRT_KEEP_TEST_DIR keeps the folder for a look after a failure.
    if (std::getenv("LYRT_KEEP_TEST_DIR") != nullptr) {
        std::fprintf(stderr, "test files kept in %s\n", work_dir.c_str());
        return;
    }
    std::error_code ec;
    std::filesystem::current_path("/", ec);
    std::filesystem::remove_all(work_dir, ec);
}

} // namespace

namespace lyrt_test {

bool make_work_dir() {
    char tmpl[] = "/tmp/lyrt_test_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return false;
    work_dir = tmpl;
    std::filesystem::current_path(work_dir);
    std::atexit(remove_work_dir);
    return true;
}

std::filesystem::path fresh_dir(const std::string& name) {
    std::filesystem::path dir = work_dir / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

std::string read_text(const std::filesystem::path& file) {
    std::FILE* f = std::fopen(file.c_str(), "rb");
    if (f == nullptr) return {};
    std::string text;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    return text;
}

std::vector<std::string> read_lines(const std::filesystem::path& file) {
    std::vector<std::string> lines;
    std::string text = read_text(file), line;
    for (char c : text) {
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty()) lines.push_back(line);
    return lines;
}

void write_text(const std::filesystem::path& file, const std::string& text) {
    std::FILE* f = std::fopen(file.c_str(), "wb");
    ASSERT_NE(f, nullptr) << file;
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

void program_test::SetUp() {
    dir = fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::current_path(dir);
    lyrt::io_reset();
    lyrt::trace_reset();
    lyrt::on_site_reset();
    lyrt::open_units();
}

void program_test::TearDown() {
    lyrt::io_reset();
    lyrt::on_site_reset();
}

int run_lyrt_in(const std::filesystem::path& dir, int threads) {
    // One BLAS thread per run: the test runner runs several runs side by side.
    std::string cmd = "cd '" + dir.string() +
                      "' && OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=" + std::to_string(threads) +
                      " '" LYRT_BINARY "' >stdout.txt 2>stderr.txt";
    int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace lyrt_test
