#include "parallel/threads_module.hpp"

#if defined(_OPENMP)
#include <omp.h>
#endif

extern "C" {
int openblas_get_num_threads();
void openblas_set_num_threads(int n);
}

namespace lyrt {

int blas_thread_count() {
    return openblas_get_num_threads();
}

void set_blas_thread_count(int n) {
    if (n >= 1) openblas_set_num_threads(n);
}

int thread_count() {
#if defined(_OPENMP)
    return omp_get_max_threads();
#else
    return 1;
#endif
}

int thread_index() {
#if defined(_OPENMP)
    return omp_get_thread_num();
#else
    return 0;
#endif
}

void set_thread_count([[maybe_unused]] int n) {
#if defined(_OPENMP)
    if (n >= 1) omp_set_num_threads(n);
#endif
}

} // namespace lyrt
