#include "parallel/bsm_module.hpp"

#include "base/error_module.hpp"
#include "parallel/mpi_module.hpp"
#include "parallel/threads_module.hpp"

#include <algorithm>
#include <cmath>

#if defined(LYRT_DBCSR)
#include <dbcsr.h>
#endif

namespace lyrt {

namespace {

constexpr const char* mod = "bsm_module";

#if !defined(LYRT_DBCSR)
[[noreturn]] void unavailable() {
    fatal_error("the linear-scaling solver (elec_gs_algo = 5) needs the block-sparse matrices of "
                "DBCSR, which the distributed build carries (make build-mpi)",
                -1, "bsm_module", mod);
}
#endif

} // namespace

#if defined(LYRT_DBCSR)

namespace {
bool library_started = false;
}

bool bsm_available() {
    return true;
}

void bsm_layout_init(bsm_layout_type& lay, const std::vector<int>& block_dim) {
    if (!library_started) {
        // DBCSR takes the world; its distributions want a Cartesian grid.
        c_dbcsr_init_lib(mpi_comm(), nullptr);
        library_started = true;
    }
    bsm_layout_free(lay);
    lay.block_dim = block_dim;
    int size = 1;
    MPI_Comm_size(mpi_comm(), &size);
    int dims[2] = {0, 0}, periods[2] = {1, 1};
    MPI_Dims_create(size, 2, dims);
    MPI_Comm cart;
    MPI_Cart_create(mpi_comm(), 2, dims, periods, 0, &cart);
    lay.cart = static_cast<int>(MPI_Comm_c2f(cart));
    const int n = static_cast<int>(block_dim.size());
    std::vector<int> row_dist(static_cast<std::size_t>(n)), col_dist(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        row_dist[static_cast<std::size_t>(i)] = i % dims[0];
        col_dist[static_cast<std::size_t>(i)] = i % dims[1];
    }
    c_dbcsr_distribution_new(&lay.dist, cart, row_dist.data(), n, col_dist.data(), n);
    std::vector<int> diag(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) diag[static_cast<std::size_t>(i)] = i;
    bsm_create(lay.id, lay, "identity");
    bsm_fill(lay.id, diag, diag, [](int, int, double* blk, int nr, int nc) {
        for (int c = 0; c < nc; ++c)
            for (int r = 0; r < nr; ++r) blk[r + nr * c] = r == c ? 1.0 : 0.0;
    });
}

void bsm_layout_free(bsm_layout_type& lay) {
    bsm_release(lay.id);
    if (lay.dist != nullptr) c_dbcsr_distribution_release(&lay.dist);
    lay.dist = nullptr;
    if (lay.cart != 0) {
        MPI_Comm cart = MPI_Comm_f2c(lay.cart);
        MPI_Comm_free(&cart);
        lay.cart = 0;
    }
}

void bsm_create(bsm_type& a, const bsm_layout_type& lay, const char* name) {
    bsm_release(a);
    std::vector<int> dims = lay.block_dim;
    const int n = static_cast<int>(dims.size());
    c_dbcsr_create_new(&a.m, name, lay.dist, dbcsr_type_no_symmetry, dims.data(), n, dims.data(), n,
                       nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void bsm_release(bsm_type& a) {
    if (a.m != nullptr) c_dbcsr_release(&a.m);
    a.m = nullptr;
}

void bsm_copy(bsm_type& a, const bsm_type& b, const char* name) {
    bsm_release(a);
    c_dbcsr_copy(&a.m, b.m, name, nullptr, nullptr, nullptr, nullptr);
}

void bsm_fill(bsm_type& a, const std::vector<int>& rows, const std::vector<int>& cols,
              const std::function<void(int, int, double*, int, int)>& fill) {
    int me = 0;
    MPI_Comm_rank(mpi_comm(), &me);
    std::vector<int> r, c;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        int owner = -1;
        c_dbcsr_get_stored_coordinates(a.m, rows[k], cols[k], &owner);
        if (owner != me) continue;
        r.push_back(rows[k]);
        c.push_back(cols[k]);
    }
    c_dbcsr_reserve_blocks(a.m, r.data(), c.data(), static_cast<int>(r.size()));
    void* it = nullptr;
    c_dbcsr_iterator_start(&it, a.m, nullptr, nullptr, nullptr, nullptr, nullptr);
    while (c_dbcsr_iterator_blocks_left(it)) {
        int i = 0, j = 0, nblk = 0, nr = 0, nc = 0, ro = 0, co = 0;
        bool tr = false;
        double* blk = nullptr;
        c_dbcsr_iterator_next_2d_block_d(it, &i, &j, &blk, &tr, &nblk, &nr, &nc, &ro, &co);
        fill(i, j, blk, nr, nc);
    }
    c_dbcsr_iterator_stop(&it);
    c_dbcsr_finalize(a.m);
}

void bsm_for_each(const bsm_type& a,
                  const std::function<void(int, int, const double*, int, int)>& f) {
    void* it = nullptr;
    const bool read_only = true;
    c_dbcsr_iterator_start(&it, a.m, nullptr, nullptr, nullptr, nullptr, &read_only);
    while (c_dbcsr_iterator_blocks_left(it)) {
        int i = 0, j = 0, nblk = 0, nr = 0, nc = 0, ro = 0, co = 0;
        bool tr = false;
        double* blk = nullptr;
        c_dbcsr_iterator_next_2d_block_d(it, &i, &j, &blk, &tr, &nblk, &nr, &nc, &ro, &co);
        f(i, j, blk, nr, nc);
    }
    c_dbcsr_iterator_stop(&it);
}

long long bsm_multiply(char ta, char tb, double alpha, const bsm_type& a, const bsm_type& b,
                       double beta, bsm_type& c, double eps) {
    long long flop = 0;
    // DBCSR calls dgemm from its own OpenMP threads: a threaded BLAS beneath them
    // would start threads of its own on the same cores.
    const int blas = blas_thread_count();
    set_blas_thread_count(1);
    c_dbcsr_multiply_d(ta, tb, alpha, a.m, b.m, beta, c.m, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr, nullptr, eps > 0.0 ? &eps : nullptr, &flop);
    set_blas_thread_count(blas);
    return flop;
}

void bsm_add(bsm_type& a, const bsm_type& b, double alpha, double beta) {
    c_dbcsr_add_d(a.m, b.m, alpha, beta);
}

// DBCSR's own c_dbcsr_add_on_diag_d takes the scalar by address while its header
// passes it by value: the identity is added instead.
void bsm_add_on_diag(bsm_type& a, const bsm_layout_type& lay, double x) {
    c_dbcsr_add_d(a.m, lay.id.m, 1.0, x);
}

void bsm_scale(bsm_type& a, double x) {
    c_dbcsr_scale_d(a.m, x, nullptr);
}

void bsm_filter(bsm_type& a, double eps) {
    c_dbcsr_filter(a.m, &eps, nullptr, nullptr, nullptr);
}

double bsm_trace(const bsm_type& a) {
    double t = 0.0;
    c_dbcsr_trace_d(a.m, &t);
    return t;
}

double bsm_dot(const bsm_type& a, const bsm_type& b) {
    double t = 0.0;
    c_dbcsr_dot_d(a.m, b.m, &t);
    return t;
}

double bsm_gershgorin(const bsm_type& a) {
    return c_dbcsr_gershgorin_norm(a.m);
}

void bsm_gershgorin_interval(const bsm_type& a, const bsm_layout_type& lay, double& lo,
                             double& hi) {
    // Each row's diagonal element and the sum of |a_ij| beside it, over the processes.
    std::vector<long> first(lay.block_dim.size() + 1, 0);
    for (std::size_t i = 0; i < lay.block_dim.size(); ++i)
        first[i + 1] = first[i] + lay.block_dim[i];
    const long n = first.back();
    std::vector<double> row(static_cast<std::size_t>(2 * n), 0.0); // diagonal, radius
    bsm_for_each(a, [&](int bi, int bj, const double* blk, int nr, int nc) {
        for (int c = 0; c < nc; ++c)
            for (int r = 0; r < nr; ++r) {
                const long i = first[static_cast<std::size_t>(bi)] + r;
                const double x = blk[r + static_cast<long>(nr) * c];
                if (bi == bj && r == c)
                    row[static_cast<std::size_t>(i)] += x;
                else
                    row[static_cast<std::size_t>(n + i)] += std::fabs(x);
            }
    });
    gsum_real_ptr(row.data(), 2 * n);
    lo = 1e300;
    hi = -1e300;
    for (long i = 0; i < n; ++i) {
        lo = std::min(lo, row[static_cast<std::size_t>(i)] - row[static_cast<std::size_t>(n + i)]);
        hi = std::max(hi, row[static_cast<std::size_t>(i)] + row[static_cast<std::size_t>(n + i)]);
    }
}

double bsm_frobenius(const bsm_type& a) {
    return c_dbcsr_frobenius_norm(a.m, nullptr);
}

void bsm_matvec(const bsm_type& a, const bsm_layout_type& lay, const std::vector<double>& x,
                std::vector<double>& y) {
    std::vector<long> first(lay.block_dim.size() + 1, 0);
    for (std::size_t i = 0; i < lay.block_dim.size(); ++i)
        first[i + 1] = first[i] + lay.block_dim[i];
    y.assign(x.size(), 0.0);
    bsm_for_each(a, [&](int bi, int bj, const double* blk, int nr, int nc) {
        double* yi = y.data() + first[static_cast<std::size_t>(bi)];
        const double* xj = x.data() + first[static_cast<std::size_t>(bj)];
        for (int c = 0; c < nc; ++c)
            for (int r = 0; r < nr; ++r) yi[r] += blk[r + static_cast<long>(nr) * c] * xj[c];
    });
    gsum_real_ptr(y.data(), static_cast<long>(y.size()));
}

double bsm_occupation(const bsm_type& a) {
    return c_dbcsr_get_occupation(a.m);
}

#else

bool bsm_available() {
    return false;
}
void bsm_layout_init(bsm_layout_type&, const std::vector<int>&) {
    unavailable();
}
void bsm_layout_free(bsm_layout_type&) {}
void bsm_create(bsm_type&, const bsm_layout_type&, const char*) {
    unavailable();
}
void bsm_release(bsm_type&) {}
void bsm_copy(bsm_type&, const bsm_type&, const char*) {
    unavailable();
}
void bsm_fill(bsm_type&, const std::vector<int>&, const std::vector<int>&,
              const std::function<void(int, int, double*, int, int)>&) {
    unavailable();
}
void bsm_for_each(const bsm_type&, const std::function<void(int, int, const double*, int, int)>&) {
    unavailable();
}
long long bsm_multiply(char, char, double, const bsm_type&, const bsm_type&, double, bsm_type&,
                       double) {
    unavailable();
}
void bsm_add(bsm_type&, const bsm_type&, double, double) {
    unavailable();
}
void bsm_add_on_diag(bsm_type&, const bsm_layout_type&, double) {
    unavailable();
}
void bsm_scale(bsm_type&, double) {
    unavailable();
}
void bsm_filter(bsm_type&, double) {
    unavailable();
}
double bsm_trace(const bsm_type&) {
    unavailable();
}
double bsm_dot(const bsm_type&, const bsm_type&) {
    unavailable();
}
double bsm_gershgorin(const bsm_type&) {
    unavailable();
}
void bsm_gershgorin_interval(const bsm_type&, const bsm_layout_type&, double&, double&) {
    unavailable();
}
double bsm_frobenius(const bsm_type&) {
    unavailable();
}
void bsm_matvec(const bsm_type&, const bsm_layout_type&, const std::vector<double>&,
                std::vector<double>&) {
    unavailable();
}
double bsm_occupation(const bsm_type&) {
    unavailable();
}

#endif

} // namespace lyrt
