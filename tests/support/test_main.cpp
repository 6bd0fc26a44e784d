// Test driver shared by all suites: every test process works in a fresh
// temporary folder, so that files written by the program (reports, fort.<n>
// units, data files) never land outside it; the folder is removed at exit.
#include "test_support.hpp"

#include "parallel/mpi_module.hpp"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
#if defined(LYRT_TEST_MPI)
    // The suite of the distributed build runs on every process of mpirun.
    lyrt::init_mpi();
#endif
    if (!lyrt_test::make_work_dir()) return 2;
    int status = RUN_ALL_TESTS();
#if defined(LYRT_TEST_MPI)
    lyrt::gmax_int(status); // a failure on any process fails the run on all
    lyrt::close_mpi();
#endif
    return status;
}
