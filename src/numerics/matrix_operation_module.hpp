// Products of distributed matrices, kept for a run over several processors.
#pragma once

#include "base/farray.hpp"

namespace lyrt {

// c = a b^T for block-distributed a (m x k) and b (n x k); with one processor
// the product is one local step. Non-conformable shapes stop the run.
void ring_matmul_trans(const farray<double, 2>& a, const farray<double, 2>& b,
                       farray<double, 2>& c);

} // namespace lyrt
