// Fatal stops, warnings, the trace stack and accounted allocation.
#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using lyrt_test::read_lines;

// Each test starts with an empty stack, fresh report files and no allocation limit.
class ErrorModule : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        allocate_set_test_limit(-1);
    }
    void TearDown() override {
        allocate_set_test_limit(-1);
        io_reset();
        trace_reset();
    }
};

TEST_F(ErrorModule, AllocationFailureStopsWithSizeAndName) {
    allocate_set_test_limit(799);
    farray<double, 2> r_of_t;
    try {
        ca_real_2d(r_of_t, 1, 3, 1, 33, "ions%r_of_t", "ions_allocate_physical", "ions_module");
        // 3 x 33 reals are 792 bytes: under the limit.
        cd_real_2d(r_of_t, "ions%r_of_t", "ions_allocate_physical", "ions_module");
        ca_real_2d(r_of_t, 1, 2, 1, 50, "ions%r_of_t", "ions_allocate_physical", "ions_module");
        FAIL() << "an 800-byte request above the limit must stop";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "Attempt to allocate ions%r_of_thas failed.");
        EXPECT_EQ(stop.number, 800);
        EXPECT_EQ(stop.procedure, "ions_allocate_physical");
        EXPECT_EQ(stop.module, "ions_module");
    }
    auto err = read_lines(dir / "ERRLYRT");
    ASSERT_GE(err.size(), 4u);
    const std::size_t k = err.size() - 4;
    EXPECT_EQ(err[k], " FATAL ERROR No  800");
    EXPECT_EQ(err[k + 1], "Occured in procedure ions_allocate_physical in module ions_module");
    EXPECT_EQ(err[k + 2], "        Attempt to allocate ions%r_of_thas failed.");
    EXPECT_EQ(err[k + 3], " ABORTING LYRT !");
    // The stop closed the report with lines that say the run stopped, and why.
    auto out = read_lines(dir / "OUTLYRT");
    ASSERT_GE(out.size(), 6u);
    EXPECT_EQ(out.back(), " -- LYRT stopped with an error --");
    EXPECT_EQ(out[out.size() - 6], " *** THE RUN STOPPED WITH A FATAL ERROR ***");
    EXPECT_EQ(out[out.size() - 5], " Attempt to allocate ions%r_of_thas failed.");
    EXPECT_FALSE(unit_is_open(report_unit));
}

TEST_F(ErrorModule, DeallocatingAnUnallocatedArrayStops) {
    farray<double, 1> a;
    try {
        cd_real_1d(a, "box%r", "box_free", "box_module");
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "While attempting to deallocate box%r.");
        EXPECT_EQ(stop.number, -1);
    }
}

TEST_F(ErrorModule, WarningWritesThreeRecordsAndReturns) {
    warning_error("something odd", "ions_init", "ions_module");
    flush(error_unit);
    auto err = read_lines(dir / "ERRLYRT");
    ASSERT_GE(err.size(), 3u);
    const std::size_t k = err.size() - 3;
    EXPECT_EQ(err[k], " !!! WARNING !!!  ");
    EXPECT_EQ(err[k].size(), 18u);
    EXPECT_EQ(err[k + 1], "Occured in procedure ions_init in module ions_module");
    EXPECT_EQ(err[k + 2], "        something odd");
    EXPECT_TRUE(unit_is_open(report_unit));
}

// A routine that leaves early, normally or by a fatal stop, through the guard.
int guarded_routine(int mode) {
    const trace_guard trace("guarded_routine", "test_module");
    if (mode == 1) return 1;
    if (mode == 2) fatal_error("stopped inside", 7, "guarded_routine", "test_module");
    return 0;
}

TEST_F(ErrorModule, TraceGuardBalancesEveryExitAndKeepsTheStopLevel) {
    const int saved = debug;
    debug = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(guarded_routine(0), 0);
    EXPECT_EQ(trace_depth(), 0);
    EXPECT_EQ(guarded_routine(1), 1); // early return
    EXPECT_EQ(trace_depth(), 0);
    EXPECT_THROW(guarded_routine(2), fatal_stop);
    // The stopped routine stays on the stack that the fatal path printed.
    EXPECT_EQ(trace_depth(), 1);
    EXPECT_EQ(trace_procedure(1).substr(0, 15), "guarded_routine");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Entering test_module:guarded_routine"), std::string::npos);
    trace_reset();
    // Without debug the guard traces nothing.
    debug = 0;
    EXPECT_EQ(guarded_routine(1), 1);
    EXPECT_EQ(trace_depth(), 0);
    debug = saved;
}

TEST_F(ErrorModule, PlainStopCarriesItsText) {
    testing::internal::CaptureStdout();
    try {
        plain_stop("fit too poor, reduce dt");
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_TRUE(stop.plain);
        EXPECT_EQ(stop.message, "fit too poor, reduce dt");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " fit too poor, reduce dt\n");
}

} // namespace
