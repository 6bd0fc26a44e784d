#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cstdlib>

namespace lyrt {

namespace {

#if defined(LYRT_MPI)
MPI_Comm comm = MPI_COMM_NULL;
int world_size = 1;
bool started_here = false; // MPI_Init was called by init_mpi (and MPI_Finalize is ours)

// Messages of at most this many elements at a time: MPI counts are int.
constexpr long max_count = 1L << 28;

template <class T>
MPI_Datatype type_of();
template <>
MPI_Datatype type_of<int>() {
    return MPI_INT;
}
template <>
MPI_Datatype type_of<long>() {
    return MPI_LONG;
}
template <>
MPI_Datatype type_of<double>() {
    return MPI_DOUBLE;
}
template <>
MPI_Datatype type_of<std::complex<double>>() {
    return MPI_CXX_DOUBLE_COMPLEX;
}
template <>
MPI_Datatype type_of<char>() {
    return MPI_CHAR;
}
template <>
MPI_Datatype type_of<bool>() {
    return MPI_CXX_BOOL;
}

template <class T>
void bcast_n(T* x, long n, int root) {
    if (n_proc < 2) return;
    for (long k = 0; k < n; k += max_count)
        MPI_Bcast(x + k, static_cast<int>(std::min(max_count, n - k)), type_of<T>(), root, comm);
}

template <class T>
void reduce_n(T* x, long n, MPI_Op op) {
    if (n_proc < 2) return;
    for (long k = 0; k < n; k += max_count)
        MPI_Allreduce(MPI_IN_PLACE, x + k, static_cast<int>(std::min(max_count, n - k)),
                      type_of<T>(), op, comm);
}

template <class T>
void sendrecv_n(T* s, long ns, int dest, T* r, long nr, int source) {
    if (n_proc < 2) return;
    MPI_Sendrecv(s, static_cast<int>(ns), type_of<T>(), dest, 0, r, static_cast<int>(nr),
                 type_of<T>(), source, 0, comm, MPI_STATUS_IGNORE);
}

void set_identity(MPI_Comm c) {
    comm = c;
    MPI_Comm_size(comm, &n_proc);
    MPI_Comm_rank(comm, &my_proc);
    i_am_master = my_proc == 0;
}
#else
template <class T>
void bcast_n(T*, long, int) {}
template <class T>
void reduce_n(T*, long, int) {}
template <class T>
void sendrecv_n(T*, long, int, T*, long, int) {}
constexpr int MPI_SUM = 0, MPI_MAX = 0;
#endif

template <class T, int R>
void bcast_array(farray<T, R>& x, int root) {
    bcast_n(x.data(), static_cast<long>(x.size()), root);
}

// A container whose length only the root knows: the length first, then the contents.
template <class C>
void bcast_sized(C& x, int root) {
    if (n_proc < 2) return;
    long n = static_cast<long>(x.size());
    bcast_n(&n, 1, root);
    x.resize(static_cast<std::size_t>(n));
    bcast_n(x.data(), n, root);
}

template <class T, int R, class Op>
void reduce_array(farray<T, R>& x, Op op) {
    reduce_n(x.data(), static_cast<long>(x.size()), op);
}

} // namespace

void init_mpi() {
#if defined(LYRT_MPI)
    int ready = 0;
    MPI_Initialized(&ready);
    if (!ready) {
        int argc = 0;
        char** argv = nullptr;
        MPI_Init(&argc, &argv);
        started_here = true;
    }
    set_identity(MPI_COMM_WORLD);
    world_size = n_proc;
#else
    n_proc = 1;
    my_proc = 0;
    i_am_master = true;
#endif
}

void close_mpi() {
#if defined(LYRT_MPI)
    int done = 0;
    MPI_Finalized(&done);
    if (started_here && !done) MPI_Finalize();
    started_here = false;
#endif
}

void barrier() {
#if defined(LYRT_MPI)
    if (n_proc >= 2) MPI_Barrier(comm);
#endif
}

void abort_mpi(int status) {
#if defined(LYRT_MPI)
    int ready = 0;
    MPI_Initialized(&ready);
    if (ready && world_size >= 2) MPI_Abort(MPI_COMM_WORLD, status);
#endif
    std::exit(status);
}

void mpi_use_self([[maybe_unused]] bool self) {
#if defined(LYRT_MPI)
    if (comm == MPI_COMM_NULL) return; // the layer was never started: one process already
    set_identity(self ? MPI_COMM_SELF : MPI_COMM_WORLD);
#endif
}

#if defined(LYRT_MPI)
MPI_Comm mpi_comm() {
    return comm == MPI_COMM_NULL ? MPI_COMM_SELF : comm;
}

int mpi_comm_f() {
    return static_cast<int>(MPI_Comm_c2f(mpi_comm()));
}
#else
int mpi_comm_f() {
    return 0;
}
#endif

void bcast_int(int& x, int root) {
    bcast_n(&x, 1, root);
}
void bcast_logical(bool& x, int root) {
    bcast_n(&x, 1, root);
}
void bcast_real(double& x, int root) {
    bcast_n(&x, 1, root);
}
void bcast_complex(std::complex<double>& x, int root) {
    bcast_n(&x, 1, root);
}
void bcast_string(std::string& x, int root) {
    bcast_sized(x, root);
}
void bcast_bytes(std::vector<char>& x, int root) {
    bcast_sized(x, root);
}
void bcast_int_vec(farray<int, 1>& x, int root) {
    bcast_array(x, root);
}
void bcast_int_mat(farray<int, 2>& x, int root) {
    bcast_array(x, root);
}
void bcast_logical_vec(farray<bool, 1>& x, int root) {
    bcast_array(x, root);
}
void bcast_logical_mat(farray<bool, 2>& x, int root) {
    bcast_array(x, root);
}
void bcast_real_vec(farray<double, 1>& x, int root) {
    bcast_array(x, root);
}
void bcast_real_mat(farray<double, 2>& x, int root) {
    bcast_array(x, root);
}
void bcast_real_ten(farray<double, 3>& x, int root) {
    bcast_array(x, root);
}
void bcast_complex_vec(farray<std::complex<double>, 1>& x, int root) {
    bcast_array(x, root);
}
void bcast_complex_mat(farray<std::complex<double>, 2>& x, int root) {
    bcast_array(x, root);
}
void bcast_complex_ten(farray<std::complex<double>, 3>& x, int root) {
    bcast_array(x, root);
}

void gsum_int(int& x) {
    reduce_n(&x, 1, MPI_SUM);
}
void gsum_real(double& x) {
    reduce_n(&x, 1, MPI_SUM);
}
void gsum_complex(std::complex<double>& x) {
    reduce_n(&x, 1, MPI_SUM);
}
void gsum_int_vec(farray<int, 1>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_real_vec(farray<double, 1>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_complex_vec(farray<std::complex<double>, 1>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_int_mat(farray<int, 2>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_real_mat(farray<double, 2>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_complex_mat(farray<std::complex<double>, 2>& x) {
    reduce_array(x, MPI_SUM);
}
void gsum_real_ptr(double* x, long n) {
    reduce_n(x, n, MPI_SUM);
}
void gmax_int(int& x) {
    reduce_n(&x, 1, MPI_MAX);
}
void gmax_real(double& x) {
    reduce_n(&x, 1, MPI_MAX);
}
void gmax_int_vec(farray<int, 1>& x) {
    reduce_array(x, MPI_MAX);
}
void gmax_real_vec(farray<double, 1>& x) {
    reduce_array(x, MPI_MAX);
}
void gmax_real_mat(farray<double, 2>& x) {
    reduce_array(x, MPI_MAX);
}

void send_real_vec([[maybe_unused]] const farray<double, 1>& x, [[maybe_unused]] int dest,
                   [[maybe_unused]] int tag) {
#if defined(LYRT_MPI)
    if (n_proc >= 2) MPI_Send(x.data(), static_cast<int>(x.size()), MPI_DOUBLE, dest, tag, comm);
#endif
}
void recv_real_vec([[maybe_unused]] farray<double, 1>& x, [[maybe_unused]] int source,
                   [[maybe_unused]] int tag) {
#if defined(LYRT_MPI)
    if (n_proc >= 2)
        MPI_Recv(x.data(), static_cast<int>(x.size()), MPI_DOUBLE, source, tag, comm,
                 MPI_STATUS_IGNORE);
#endif
}
void sendrecv_real_mat(farray<double, 2>& send_buf, int dest, farray<double, 2>& recv_buf,
                       int source) {
    sendrecv_n(send_buf.data(), static_cast<long>(send_buf.size()), dest, recv_buf.data(),
               static_cast<long>(recv_buf.size()), source);
}
void sendrecv_real_tens(farray<double, 3>& send_buf, int dest, farray<double, 3>& recv_buf,
                        int source) {
    sendrecv_n(send_buf.data(), static_cast<long>(send_buf.size()), dest, recv_buf.data(),
               static_cast<long>(recv_buf.size()), source);
}
void sendrecv_complex_mat(farray<std::complex<double>, 2>& send_buf, int dest,
                          farray<std::complex<double>, 2>& recv_buf, int source) {
    sendrecv_n(send_buf.data(), static_cast<long>(send_buf.size()), dest, recv_buf.data(),
               static_cast<long>(recv_buf.size()), source);
}
void sendrecv_complex_tens(farray<std::complex<double>, 3>& send_buf, int dest,
                           farray<std::complex<double>, 3>& recv_buf, int source) {
    sendrecv_n(send_buf.data(), static_cast<long>(send_buf.size()), dest, recv_buf.data(),
               static_cast<long>(recv_buf.size()), source);
}

} // namespace lyrt
