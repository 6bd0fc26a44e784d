// The two-centre integrals of a pair and the Slater-Koster blocks built from them.
#pragma once

#include "model/ao_module.hpp"

namespace lyrt {

// Positions of the 14 integrals in record order (0-based). A name reads first
// orbital, second orbital, bond kind.
constexpr int sk_sss = 0, sk_sps = 1, sk_pss = 2, sk_pps = 3, sk_ppp = 4, sk_sds = 5, sk_dss = 6;
constexpr int sk_pds = 7, sk_pdp = 8, sk_dps = 9, sk_dpp = 10, sk_dds = 11, sk_ddp = 12,
              sk_ddd = 13;
constexpr int n_sk = 14;

struct sk_param_type {
    double v[n_sk] = {}; // record order: sss sps pss pps ppp sds dss pds pdp dps dpp dds ddp ddd
};

// Record order to atom order (sss sps sds pss pps ppp pds pdp dss dps dpp dds ddp ddd) and back.
void sk_param_map_p2a(const double* p, double* a);
void sk_param_map_a2p(const double* a, double* p);
void sk_param_set(sk_param_type& p, double x);
void sk_param_scale(sk_param_type& p, double x);
void sk_param_square(sk_param_type& p);

// The block between two atoms for the unit vector lmn from atom 1 to atom 2 and
// the integrals sk (record order). block(row, col) = block[(row-1) + ld*(col-1)],
// rows from ao1 and columns from ao2; only entries of present orbitals are written.
// different: the atoms are of different species (the mirror integrals pss, dss,
// dps, dpp are then used for the mirrored blocks).
void calc_sk_block(const double* lmn, const double* sk, double* block, int ld, const ao_type& ao1,
                   const ao_type& ao2, bool different);
// Partial derivatives of every element with respect to l, m or n, taken as
// independent variables at fixed integrals.
void calc_sk_block_derivative_l(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different);
void calc_sk_block_derivative_m(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different);
void calc_sk_block_derivative_n(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different);
// All three derivative blocks at once (one evaluation of the table).
void calc_sk_block_derivatives(const double* lmn, const double* sk, double* bl, double* bm,
                               double* bn, int ld, const ao_type& ao1, const ao_type& ao2,
                               bool different);

} // namespace lyrt
