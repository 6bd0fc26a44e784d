// Distribution of a global index range 1..n (ions, orbitals, states) over processors.
//
// Every distributed array asks a pdist which processor owns an index and what its
// local number is. Two methods: "BC" deals blocks round-robin (block-cyclic);
// any other method gives each processor one contiguous run, with the sizes of the
// block-cyclic count. With one processor all maps are identities.
#pragma once

#include "base/farray.hpp"

#include <string>
#include <string_view>

namespace lyrt {

struct pdist_type {
    int n_proc = 0;           // processors of this distribution
    int my_proc = 0;          // own processor, 0-based
    int n = 0;                // global size
    int l_n = 0;              // indices on my_proc
    int max_l_n = 0;          // largest l_n_on_pe
    std::string method;       // "BC" or another two-letter code, upper case
    farray<int, 1> l_n_on_pe; // (0:n_proc-1) local size of each processor
    farray<int, 1> l2g;       // (1:l_n) global index of each local index
    farray<int, 1> map;       // (1:n) global indices, processor after processor
    farray<int, 1> g2l;       // (1:n) local index on my_proc, 0 if elsewhere
    farray<int, 2> l2g_on_pe; // (1:max_l_n, 0:n_proc-1) l2g of every processor
    farray<int, 1> pe_map;    // (1:n) owner of each global index
};

// Distributes n indices over n_parts processors (blocks of block_size); this
// process is my_part (0-based).
void pdist_init(pdist_type& pd, int n, int block_size, int n_parts, int my_part,
                std::string_view method);

// Scalar distribution of the indices held by blocks of sizes dim(1..blk_pd.n), each
// block whole on the processor that owns it in blk_pd. blk_offset and blk_dim, when
// given, receive per local block its first local index and its size.
void pdist_generate(pdist_type& pd, const pdist_type& blk_pd, const farray<int, 1>& dim,
                    farray<int, 1>* blk_offset = nullptr, farray<int, 1>* blk_dim = nullptr);

// As pdist_generate, with the scalar numbering following the blocks in the order
// of the sorted list index (block numbers).
void pdist_generate_indexed(pdist_type& pd, const pdist_type& blk_pd, const farray<int, 1>& dim,
                            const farray<int, 1>& index, farray<int, 1>* blk_offset = nullptr,
                            farray<int, 1>* blk_dim = nullptr);

// l_index(i) = index(l2g(i)); index_map(j) = index(map(j)).
void pdist_dist_index(const pdist_type& pd, const farray<int, 1>& index, farray<int, 1>& l_index,
                      farray<int, 1>* index_map = nullptr);

void pdist_deallocate(pdist_type& pd);
void pdist_print(const pdist_type& pd, int unit);
void pdist_test_module(int unit);

} // namespace lyrt
