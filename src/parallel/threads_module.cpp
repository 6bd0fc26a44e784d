#include "parallel/threads_module.hpp"

#if defined(_OPENMP)
#include <omp.h>
#endif

namespace lyrt {

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
