// Index distributions: the worked examples, the invariants for many sizes, and
// the one-process message layer.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/blacs_module.hpp"
#include "parallel/mpi_module.hpp"
#include "parallel/pdist_module.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace lyrt;

std::vector<int> globals_of(const pdist_type& pd, int p) {
    std::vector<int> g;
    for (int k = 1; k <= pd.l_n_on_pe(p); ++k) g.push_back(pd.l2g_on_pe(k, p));
    return g;
}

std::vector<int> local_list(const pdist_type& pd) {
    return std::vector<int>(pd.l2g.begin(), pd.l2g.end());
}

// For every size, block size and processor count, the columns of l2g_on_pe
// partition 1..n and each processor's own maps agree with them.
TEST(PdistModule, InvariantsHoldForManyShapes) {
    for (const char* method : {"bc", "bl"})
        for (int np = 1; np <= 4; ++np)
            for (int bs = 1; bs <= 4; ++bs)
                for (int n = 0; n <= 11; ++n) {
                    std::vector<int> seen(static_cast<std::size_t>(n) + 1, 0);
                    for (int me = 0; me < np; ++me) {
                        pdist_type pd;
                        pdist_init(pd, n, bs, np, me, method);
                        int total = 0;
                        for (int p = 0; p < np; ++p) total += pd.l_n_on_pe(p);
                        ASSERT_EQ(total, n);
                        for (int i = 1; i <= pd.l_n; ++i) {
                            ASSERT_EQ(pd.pe_map(pd.l2g(i)), me);
                            ASSERT_EQ(pd.g2l(pd.l2g(i)), i);
                            ++seen[static_cast<std::size_t>(pd.l2g(i))];
                        }
                        if (std::string(method) == "bl") { // contiguous runs
                            for (int i = 2; i <= pd.l_n; ++i)
                                ASSERT_EQ(pd.l2g(i), pd.l2g(i - 1) + 1);
                        }
                    }
                    for (int g = 1; g <= n; ++g) ASSERT_EQ(seen[static_cast<std::size_t>(g)], 1);
                }
}

TEST(PdistModule, GenerateKeepsBlocksWhole) {
    farray<int, 1> dim;
    dim.allocate({1}, {3});
    dim(1) = 4;
    dim(2) = 1;
    dim(3) = 4;
    pdist_type blk, pd;
    pdist_init(blk, 3, 1, 1, 0, "bl");
    farray<int, 1> off, bdim;
    off.allocate({1}, {3});
    bdim.allocate({1}, {3});
    pdist_generate(pd, blk, dim, &off, &bdim);
    EXPECT_EQ(pd.n, 9);
    for (int i = 1; i <= 9; ++i) {
        EXPECT_EQ(pd.l2g(i), i);
        EXPECT_EQ(pd.map(i), i);
    }
    EXPECT_EQ(off(2), 5);
    EXPECT_EQ(off(3), 6);
    EXPECT_EQ(bdim(3), 4);

    // On two processors with blocks dealt round-robin, processor 1 holds block 2 whole.
    pdist_type blk2, pd2;
    pdist_init(blk2, 3, 1, 2, 1, "bc");
    pdist_generate(pd2, blk2, dim, nullptr, nullptr);
    EXPECT_EQ(local_list(pd2), (std::vector<int>{5}));
    EXPECT_EQ(globals_of(pd2, 0), (std::vector<int>{1, 2, 3, 4, 6, 7, 8, 9}));

    farray<int, 1> index, l_index, index_map;
    index.allocate({1}, {9});
    l_index.allocate({1}, {1});
    index_map.allocate({1}, {9});
    for (int i = 1; i <= 9; ++i) index(i) = 10 * i;
    pdist_dist_index(pd2, index, l_index, &index_map);
    EXPECT_EQ(l_index(1), 50);
    EXPECT_EQ(index_map(5), 60); // position 5 of map is global 6
}

} // namespace
