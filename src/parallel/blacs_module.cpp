#include "parallel/blacs_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>

#if defined(LYRT_MPI)
extern "C" {
int Csys2blacs_handle(MPI_Comm comm);
void Cblacs_gridinit(int* ctxt, const char* order, int nprow, int npcol);
void Cblacs_gridinfo(int ctxt, int* nprow, int* npcol, int* myrow, int* mycol);
void Cblacs_gridexit(int ctxt);
int numroc_(const int* n, const int* nb, const int* iproc, const int* isrcproc, const int* nprocs);
void descinit_(int* desc, const int* m, const int* n, const int* mb, const int* nb,
               const int* irsrc, const int* icsrc, const int* ictxt, const int* lld, int* info);
}
#endif

namespace lyrt {

namespace {
constexpr const char* mod = "blacs_module";
}

void init_blacs_distr(blacs_distr_type& d, int m, int n, int mb, int nb) {
    if (d.ctxt < 0) {
        d.nprow = 1;
        d.npcol = 1;
        d.myrow = 0;
        d.mycol = 0;
    }
    d.m = m;
    d.n = n;
    d.mb = mb;
    d.nb = nb;
    // A zero block size gives no blocks rather than a division by zero.
    d.n_blk_row = mb != 0 ? m / mb : 0;
    d.n_blk_col = nb != 0 ? n / nb : 0;
    d.l_m = m;
    d.l_n = n;
#if defined(LYRT_MPI)
    if (d.ctxt >= 0 && mb > 0 && nb > 0) {
        int zero = 0, info = 0;
        d.l_m = numroc_(&m, &mb, &d.myrow, &zero, &d.nprow);
        d.l_n = numroc_(&n, &nb, &d.mycol, &zero, &d.npcol);
        int lld = std::max(1, d.l_m);
        descinit_(d.desc, &m, &n, &mb, &nb, &zero, &zero, &d.ctxt, &lld, &info);
        if (info != 0) fatal_error("descinit failed", info, "init_blacs_distr", mod);
    }
#endif
}

void bc_grid_shape(int n, int& nprow, int& npcol) {
    nprow = 1;
    for (int r = 1; r * r <= n; ++r)
        if (n % r == 0) nprow = r;
    npcol = n / nprow;
}

void free_blacs_distr(blacs_distr_type& d) {
    const char* proc = "free_blacs_distr";
    if (d.work.allocated()) cd_real_1d(d.work, "d%work", proc, mod);
    if (d.cwork.allocated()) cd_complex_1d(d.cwork, "d%cwork", proc, mod);
    if (d.iwork.allocated()) cd_integer_1d(d.iwork, "d%iwork", proc, mod);
    d.lwork = -1;
    d.lcwork = -1;
    d.liwork = -1;
}

void reset_blacs_distr(blacs_distr_type& d) {
    free_blacs_distr(d);
#if defined(LYRT_MPI)
    if (d.ctxt >= 0) Cblacs_gridexit(d.ctxt);
#endif
    d.ctxt = -1;
    init_blacs_distr(d, 0, 0, 0, 0);
}

void set_proc_grid(blacs_distr_type& d, [[maybe_unused]] int nprow, [[maybe_unused]] int npcol) {
    d.nprow = 1;
    d.npcol = 1;
    d.myrow = 0;
    d.mycol = 0;
#if defined(LYRT_MPI)
    if (d.ctxt >= 0) Cblacs_gridexit(d.ctxt);
    d.ctxt = -1;
    if (n_proc < 2 || nprow * npcol != n_proc) return;
    // Column-major numbering of the places, as the distributed solvers expect.
    d.ctxt = Csys2blacs_handle(mpi_comm());
    Cblacs_gridinit(&d.ctxt, "C", nprow, npcol);
    Cblacs_gridinfo(d.ctxt, &d.nprow, &d.npcol, &d.myrow, &d.mycol);
#endif
}

void alloc_matrix_bc_distr_r(const blacs_distr_type& d, farray<double, 2>& a,
                             std::string_view name) {
    ca_real_2d(a, 1, std::max(1, d.l_m), 1, std::max(1, d.l_n), name, "alloc_matrix_bc_distr_r",
               mod);
}

void alloc_matrix_bc_distr_c(const blacs_distr_type& d, farray<dcomplex, 2>& a,
                             std::string_view name) {
    ca_complex_2d(a, 1, std::max(1, d.l_m), 1, std::max(1, d.l_n), name, "alloc_matrix_bc_distr_c",
                  mod);
}

void allocate_work_arrays(blacs_distr_type& d, std::string_view kind) {
    const char* proc = "allocate_work_arrays";
    d.lwork = 5 * d.n;
    ca_real_1d(d.work, 1, d.lwork, "d%work", proc, mod);
    if (kind == "c" || kind == "C") {
        d.lcwork = 5 * d.n;
        ca_complex_1d(d.cwork, 1, d.lcwork, "d%cwork", proc, mod);
    } else {
        d.lcwork = -1;
    }
}

int get_lwork(const blacs_distr_type& /*d*/) {
    return 0;
}
int get_lcwork(const blacs_distr_type& /*d*/) {
    return 0;
}
int get_liwork(const blacs_distr_type& /*d*/) {
    return 0;
}

void print_matrix_bc_distr_r(const blacs_distr_type& /*d*/, const farray<double, 2>& /*a*/,
                             int unit) {
    write_free(unit, {"NO BLACS ..."});
}

void print_matrix_bc_distr_c(const blacs_distr_type& /*d*/, const farray<dcomplex, 2>& /*a*/,
                             int unit) {
    write_free(unit, {"NO BLACS ..."});
}

void report_matrix_bc_distr(const blacs_distr_type& d, int unit) {
    write_free(unit, {"blacs distribution: grid", d.nprow, "x", d.npcol, " matrix", d.m, "x", d.n,
                      " blocks", d.mb, "x", d.nb});
}

} // namespace lyrt
