// The column-major array: layout with lower bounds, and the bounds check.
#include "base/farray.hpp"

#include <cstdint>
#include <gtest/gtest.h>
#include <type_traits>
#include <utility>

namespace {

using lyrt::farray;

TEST(Farray, ColumnMajorWithLowerBounds) {
    farray<double, 3> a;
    ASSERT_TRUE(a.allocate({1, 0, -1}, {3, 2, 1}));
    EXPECT_EQ(a.size(), 27u);
    EXPECT_EQ(a.extent(1), 3);
    int k = 0;
    for (long i3 = -1; i3 <= 1; ++i3)
        for (long i2 = 0; i2 <= 2; ++i2)
            for (long i1 = 1; i1 <= 3; ++i1) a(i1, i2, i3) = k++;
    // The first index runs fastest through memory.
    for (std::size_t p = 0; p < a.size(); ++p) EXPECT_EQ(a.data()[p], static_cast<double>(p));
}

#ifdef LYRT_BOUNDS_CHECK
TEST(FarrayDeathTest, OutOfBoundsIndexStops) {
    farray<double, 2> a;
    a.allocate({1, 1}, {2, 2});
    EXPECT_DEATH(a(3, 1) = 1.0, "index 3 of dimension 1 outside 1:2");
    EXPECT_DEATH(a(1, 0) = 1.0, "index 0 of dimension 2 outside 1:2");
}
#endif

} // namespace

namespace {} // namespace

// Arrays of several megabytes take aligned storage of their own: zero-filled like
// small ones, aligned to 2 MiB, carried by a move, and freed by either path when
// the array is reallocated to the other size (a free by the wrong path would
// abort in the allocator).
namespace {} // namespace
