// Block-sparse matrices of the ions' orbital blocks on DBCSR (the distributed build):
// block (i, j) holds the orbitals of ion i against those of ion j. The layout (the
// block sizes and their distribution over a 2-d grid of the processes) is made
// once per system; matrices are created on it, filled block by block (each
// process the blocks it stores), multiplied with filtering, added, traced.
// Without DBCSR every call stops the run with the message that the linear-scaling
// solver needs the distributed build.
#pragma once

#include <functional>
#include <vector>

namespace lyrt {

struct bsm_type {
    void* m = nullptr; // DBCSR matrix
};

struct bsm_layout_type {
    std::vector<int> block_dim; // orbitals of each block (ion)
    void* dist = nullptr;       // DBCSR distribution
    int cart = 0;               // Fortran handle of the 2-d Cartesian communicator
    bsm_type id;                // the identity, for adding to the diagonal
};

// True when the program was built with DBCSR.
bool bsm_available();
void bsm_layout_init(bsm_layout_type& lay, const std::vector<int>& block_dim);
void bsm_layout_free(bsm_layout_type& lay);

void bsm_create(bsm_type& a, const bsm_layout_type& lay, const char* name);
void bsm_release(bsm_type& a);
// a = b (same layout; a created if need be).
void bsm_copy(bsm_type& a, const bsm_type& b, const char* name);
// Reserves the blocks (rows[k], cols[k]) (0-based ion numbers) that this process
// stores and calls fill(row, col, block, rows, cols) on each (column-major); then
// finalises the matrix. Blocks not listed stay absent.
void bsm_fill(bsm_type& a, const std::vector<int>& rows, const std::vector<int>& cols,
              const std::function<void(int, int, double*, int, int)>& fill);
// Calls f(row, col, block, rows, cols) on every block this process stores.
void bsm_for_each(const bsm_type& a,
                  const std::function<void(int, int, const double*, int, int)>& f);
// c = alpha op(a) op(b) + beta c, blocks below eps (Frobenius) dropped; returns the
// flops of this process.
long long bsm_multiply(char ta, char tb, double alpha, const bsm_type& a, const bsm_type& b,
                       double beta, bsm_type& c, double eps);
void bsm_add(bsm_type& a, const bsm_type& b, double alpha, double beta); // a = alpha a + beta b
// a = a + x I
void bsm_add_on_diag(bsm_type& a, const bsm_layout_type& lay, double x);
void bsm_scale(bsm_type& a, double x);
void bsm_filter(bsm_type& a, double eps);
double bsm_trace(const bsm_type& a);
double bsm_dot(const bsm_type& a, const bsm_type& b); // sum of a_ij b_ij
double bsm_gershgorin(const bsm_type& a);             // largest row sum of |a_ij|
// [lo, hi] holding every eigenvalue of the symmetric a: the Gershgorin discs of its rows.
void bsm_gershgorin_interval(const bsm_type& a, const bsm_layout_type& lay, double& lo, double& hi);
double bsm_frobenius(const bsm_type& a);
// y = a x for vectors of all rows, the same on every process.
void bsm_matvec(const bsm_type& a, const bsm_layout_type& lay, const std::vector<double>& x,
                std::vector<double>& y);
double bsm_occupation(const bsm_type& a); // share of the blocks present

} // namespace lyrt
