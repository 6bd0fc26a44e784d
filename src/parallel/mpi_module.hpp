// Message layer of the one-process run.
//
// Every exchange of a parallel run keeps its call here, so that the units above
// keep the shape of a parallel program; with one process the sender's data are
// the data, a global sum or maximum is the local value, and nothing moves.
#pragma once

#include "base/farray.hpp"
#include "base/io_module.hpp"

#include <complex>
#include <string>

namespace lyrt {

void init_mpi();
void close_mpi();
inline void barrier() {}

// Broadcasts from a root process: scalars, vectors, matrices, rank-3 arrays, strings.
template <class T>
inline void bcast(T& /*data*/, int /*root*/ = 0) {}
inline void bcast_int(int& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_logical(bool& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_real(double& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_complex(std::complex<double>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_string(std::string& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_int_vec(farray<int, 1>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_int_mat(farray<int, 2>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_logical_vec(farray<bool, 1>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_logical_mat(farray<bool, 2>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_real_vec(farray<double, 1>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_real_mat(farray<double, 2>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_real_ten(farray<double, 3>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_complex_vec(farray<std::complex<double>, 1>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_complex_mat(farray<std::complex<double>, 2>& x, int root = 0) {
    bcast(x, root);
}
inline void bcast_complex_ten(farray<std::complex<double>, 3>& x, int root = 0) {
    bcast(x, root);
}

// Global sums and maxima over all processes: the local value is the global one.
inline void gsum_int(int& /*x*/) {}
inline void gsum_real(double& /*x*/) {}
inline void gsum_complex(std::complex<double>& /*x*/) {}
inline void gsum_int_vec(farray<int, 1>& /*x*/) {}
inline void gsum_real_vec(farray<double, 1>& /*x*/) {}
inline void gsum_complex_vec(farray<std::complex<double>, 1>& /*x*/) {}
inline void gsum_int_mat(farray<int, 2>& /*x*/) {}
inline void gsum_real_mat(farray<double, 2>& /*x*/) {}
inline void gsum_complex_mat(farray<std::complex<double>, 2>& /*x*/) {}
inline void gmax_int(int& /*x*/) {}
inline void gmax_real(double& /*x*/) {}
inline void gmax_int_vec(farray<int, 1>& /*x*/) {}
inline void gmax_real_vec(farray<double, 1>& /*x*/) {}
inline void gmax_real_mat(farray<double, 2>& /*x*/) {}

// Point-to-point transfers; with one process there is no partner.
template <class T>
inline void send(const T& /*data*/, int /*dest*/, int /*tag*/ = 0) {}
template <class T>
inline void recv(T& /*data*/, int /*source*/, int /*tag*/ = 0) {}
inline void sendrecv_real_mat(farray<double, 2>& /*send_buf*/, int /*dest*/,
                              farray<double, 2>& /*recv_buf*/, int /*source*/) {}
inline void sendrecv_real_tens(farray<double, 3>& /*send_buf*/, int /*dest*/,
                               farray<double, 3>& /*recv_buf*/, int /*source*/) {}
inline void sendrecv_complex_mat(farray<std::complex<double>, 2>& /*send_buf*/, int /*dest*/,
                                 farray<std::complex<double>, 2>& /*recv_buf*/, int /*source*/) {}
inline void sendrecv_complex_tens(farray<std::complex<double>, 3>& /*send_buf*/, int /*dest*/,
                                  farray<std::complex<double>, 3>& /*recv_buf*/, int /*source*/) {}

// Distributed matrix printing has no output with one process.
inline void print_real_mat(const farray<double, 2>& /*m*/, int /*unit*/) {}
inline void print_complex_mat(const farray<std::complex<double>, 2>& /*m*/, int /*unit*/) {}

} // namespace lyrt
