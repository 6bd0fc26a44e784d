// A growable list of neighbours with their vectors: neighbouring ions of an ion,
// image cells of the box, neighbouring sub-boxes of a sub-box.
#pragma once

#include "base/farray.hpp"

#include <string>
#include <string_view>

namespace lyrt {

struct nn_list_type {
    int n_nn = 0;            // entries in use
    int n_os = 0;            // entries in use in index_os
    farray<int, 1> index;    // neighbouring ion, image cell or sub-box
    farray<int, 1> index_os; // a second list of indices (appended by nn_add_os)
    farray<double, 1> dist;  // length of r_ij, Angstrom
    farray<double, 2> r_ij;  // 3 x length: vector from the owner to the neighbour, Angstrom
    farray<int, 2> trans;    // 3 x length: translation indices
    std::string name;        // label of the arrays in allocation messages
};

void nn_allocate(nn_list_type& list, int n, std::string_view name = "nn_list");
void nn_deallocate(nn_list_type& list);
void nn_reset(nn_list_type& list);
void nn_reset_null(nn_list_type& list);
// Points the list's arrays at arrays of the caller (views); null arguments leave them.
void nn_set(nn_list_type& list, farray<int, 1>* index = nullptr, farray<double, 1>* dist = nullptr,
            farray<double, 2>* r_ij = nullptr, farray<int, 2>* trans = nullptr,
            farray<int, 1>* index_os = nullptr, const int* n_nn = nullptr);
void nn_add_is(nn_list_type& list, int index, double dist, const double* r_ij, const int* trans);
void nn_add_os(nn_list_type& list, int index);
void nn_list_copy(nn_list_type& dst, const nn_list_type& src);
void nn_bcast(nn_list_type& list, int root);
inline int nn_length(const nn_list_type& list) {
    return list.index.allocated() ? static_cast<int>(list.index.extent(0)) : 0;
}

} // namespace lyrt
