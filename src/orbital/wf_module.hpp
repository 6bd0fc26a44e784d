// A stand-alone orbital block: n_1 rows (orbitals of the basis) by n_2 columns.
#pragma once

#include "base/farray.hpp"

#include <memory>

namespace lyrt {

struct wf_type {
    int n_1 = 0, n_2 = 0;  // rows and columns
    farray<double, 2> mat; // (n_1, n_2)
};

// A block on the heap; the matrix is allocated when both sizes are positive.
// status is 0, or 1 when the memory could not be had.
void wf_create(std::unique_ptr<wf_type>& wf, int n_1, int n_2, int& status);
// Frees the block and nulls the handle; status 1 when there was none.
void wf_destroy(std::unique_ptr<wf_type>& wf, int& status);
// The same for a record in place; wf_deallocate zeroes the dimensions.
void wf_allocate(wf_type& wf, int n_1, int n_2);
void wf_deallocate(wf_type& wf);

} // namespace lyrt
