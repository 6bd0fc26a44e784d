// Message layer: every exchange between processes goes through here.
//
// In the one-process build (and in a distributed build started on one process)
// the sender's data are the data, a global sum or maximum is the local value,
// and nothing moves. Built with LYRT_MPI, the same calls are MPI operations on
// the run's communicator: all processes of the run, or this process alone while
// a caller has asked for the one-process form (the reference of the tests).
#pragma once

#include "base/farray.hpp"
#include "base/io_module.hpp"

#include <complex>
#include <cstddef>
#include <string>
#include <vector>

#if defined(LYRT_MPI)
#include <mpi.h>
#endif

namespace lyrt {

void init_mpi();
void close_mpi();
void barrier();
// Ends every process of the run at once with the exit status given.
[[noreturn]] void abort_mpi(int status);
// true: the layer works on this process alone (n_proc 1, my_proc 0) until called
// with false, which returns to all processes of the run.
void mpi_use_self(bool self);
#if defined(LYRT_MPI)
MPI_Comm mpi_comm(); // the communicator the layer works on
#endif
// The same communicator as a Fortran handle, the form the distributed eigensolver
// takes (0 without MPI).
int mpi_comm_f();

// Broadcasts from a root process: scalars, vectors, matrices, rank-3 arrays, strings.
// The receivers of an array hold it with the sender's shape already.
void bcast_int(int& x, int root = 0);
void bcast_logical(bool& x, int root = 0);
void bcast_real(double& x, int root = 0);
void bcast_complex(std::complex<double>& x, int root = 0);
void bcast_string(std::string& x, int root = 0);
void bcast_int_vec(farray<int, 1>& x, int root = 0);
void bcast_int_mat(farray<int, 2>& x, int root = 0);
void bcast_logical_vec(farray<bool, 1>& x, int root = 0);
void bcast_logical_mat(farray<bool, 2>& x, int root = 0);
void bcast_real_vec(farray<double, 1>& x, int root = 0);
void bcast_real_mat(farray<double, 2>& x, int root = 0);
void bcast_real_ten(farray<double, 3>& x, int root = 0);
void bcast_complex_vec(farray<std::complex<double>, 1>& x, int root = 0);
void bcast_complex_mat(farray<std::complex<double>, 2>& x, int root = 0);
void bcast_complex_ten(farray<std::complex<double>, 3>& x, int root = 0);
// A packed message of any length: the receivers' buffers take the sender's size.
void bcast_bytes(std::vector<char>& x, int root = 0);

// Global sums and maxima over all processes; every process gets the result.
void gsum_int(int& x);
void gsum_real(double& x);
void gsum_complex(std::complex<double>& x);
void gsum_int_vec(farray<int, 1>& x);
void gsum_real_vec(farray<double, 1>& x);
void gsum_complex_vec(farray<std::complex<double>, 1>& x);
void gsum_int_mat(farray<int, 2>& x);
void gsum_real_mat(farray<double, 2>& x);
void gsum_complex_mat(farray<std::complex<double>, 2>& x);
void gsum_real_ptr(double* x, long n); // n contiguous reals
void gmax_int(int& x);
void gmax_real(double& x);
void gmax_int_vec(farray<int, 1>& x);
void gmax_real_vec(farray<double, 1>& x);
void gmax_real_mat(farray<double, 2>& x);

// Point-to-point transfers of real arrays; with one process there is no partner.
void send_real_vec(const farray<double, 1>& x, int dest, int tag = 0);
void recv_real_vec(farray<double, 1>& x, int source, int tag = 0);
void sendrecv_real_mat(farray<double, 2>& send_buf, int dest, farray<double, 2>& recv_buf,
                       int source);
void sendrecv_real_tens(farray<double, 3>& send_buf, int dest, farray<double, 3>& recv_buf,
                        int source);
void sendrecv_complex_mat(farray<std::complex<double>, 2>& send_buf, int dest,
                          farray<std::complex<double>, 2>& recv_buf, int source);
void sendrecv_complex_tens(farray<std::complex<double>, 3>& send_buf, int dest,
                           farray<std::complex<double>, 3>& recv_buf, int source);

// Distributed matrix printing has no output.
inline void print_real_mat(const farray<double, 2>& /*m*/, int /*unit*/) {}
inline void print_complex_mat(const farray<std::complex<double>, 2>& /*m*/, int /*unit*/) {}

} // namespace lyrt
