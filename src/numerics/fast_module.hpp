// Traces of products of equally shaped arrays, as long dot products.
#pragma once

#include "base/farray.hpp"

namespace lyrt {

double trace_ab_mat(const farray<double, 2>& a, const farray<double, 2>& b);
double trace_ab_vec(const farray<double, 1>& a, const farray<double, 1>& b);
double trace_ab_hand(const double* a, const double* b, long n);
double trace_ab_4(const double* a, const double* b, long n);
double trace_ab_2(const double* a, const double* b, long n);

} // namespace lyrt
