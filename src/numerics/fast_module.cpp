#include "numerics/fast_module.hpp"

#include "numerics/lapack_module.hpp"

namespace lyrt {

double trace_ab_mat(const farray<double, 2>& a, const farray<double, 2>& b) {
    const int n = static_cast<int>(a.size()), one = 1;
    return n > 0 ? ddot_(&n, a.data(), &one, b.data(), &one) : 0.0;
}

double trace_ab_vec(const farray<double, 1>& a, const farray<double, 1>& b) {
    const int n = static_cast<int>(a.size()), one = 1;
    return n > 0 ? ddot_(&n, a.data(), &one, b.data(), &one) : 0.0;
}

double trace_ab_hand(const double* a, const double* b, long n) {
    double s = 0.0;
    for (long k = 0; k < n; ++k) s += a[k] * b[k];
    return s;
}

double trace_ab_4(const double* a, const double* b, long n) {
    double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
    long k = 0;
    for (; k + 3 < n; k += 4) {
        s0 += a[k] * b[k];
        s1 += a[k + 1] * b[k + 1];
        s2 += a[k + 2] * b[k + 2];
        s3 += a[k + 3] * b[k + 3];
    }
    for (; k < n; ++k) s0 += a[k] * b[k];
    return (s0 + s1) + (s2 + s3);
}

double trace_ab_2(const double* a, const double* b, long n) {
    double s0 = 0, s1 = 0;
    long k = 0;
    for (; k + 1 < n; k += 2) {
        s0 += a[k] * b[k];
        s1 += a[k + 1] * b[k + 1];
    }
    if (k < n) s0 += a[k] * b[k];
    return s0 + s1;
}

} // namespace lyrt
