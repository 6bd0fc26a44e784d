#include "numerics/matrix_operation_module.hpp"

#include "numerics/lapack_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

namespace lyrt {

void ring_matmul_trans(const farray<double, 2>& a, const farray<double, 2>& b,
                       farray<double, 2>& c) {
    const int m = static_cast<int>(a.extent(0)), k = static_cast<int>(a.extent(1));
    const int n = static_cast<int>(b.extent(0));
    if (b.extent(1) != k || c.extent(0) != m || c.extent(1) != n) {
        write_free(error_unit, {"ring_matmul : a and b should be conformable"});
        plain_stop("ring_matmul : a and b should be conformable");
    }
    if (m == 0 || n == 0) return;
    const double one = 1.0, zero = 0.0;
    const int lda = m > 0 ? m : 1, ldb = n > 0 ? n : 1, ldc = lda;
    dgemm_("N", "T", &m, &n, &k, &one, a.data(), &lda, b.data(), &ldb, &zero, c.data(), &ldc);
}

} // namespace lyrt
