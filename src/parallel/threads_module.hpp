// Threads of the shared-memory loops (OpenMP when built with LYRT_OPENMP): how many
// a parallel loop may use, and which one is running. Without OpenMP there is one.
#pragma once

namespace lyrt {

int thread_count();           // threads a parallel loop started now would use
int thread_index();           // 0-based number of the calling thread in its team
void set_thread_count(int n); // for the loops that follow; n >= 1
// Threads of the BLAS library's own calls (OpenBLAS), and setting them (n >= 1).
int blas_thread_count();
void set_blas_thread_count(int n);

} // namespace lyrt
