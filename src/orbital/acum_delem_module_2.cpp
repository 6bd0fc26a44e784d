#include "orbital/acum_delem_module_2.hpp"

namespace lyrt {

void acum_dm_boost_r(const hamiltonian_type& ham, double factor, farray<double, 2>& forces,
                     const farray<double, 2>& dm, const farray<double, 3>& dh, double boost,
                     const farray<bool, 1>* boost_active, const farray<double, 1>* dm_diag,
                     const farray<double, 3>* dh_aa) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const double scale = factor * boost;
    const long u_dim = dh.extent(0), l_dim = dh.extent(1);
    const double* __restrict dhp = dh.data();
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        const bool boosted = boost_active != nullptr && (*boost_active)(ig);
        const double f1 = boosted ? scale : factor;
        const int n_blk = sd.n_blocks(ig);
        if (dm_diag != nullptr && dh_aa != nullptr) {
            for (int x = 1; x <= 3; ++x) {
                double s = 0.0;
                for (int j = 1; j <= n_blk; ++j) {
                    const int jg = sd.block_index(j, ig);
                    const int r0 = sd.row_block_offset(jg), p0 = sd.pblock_offset(j, ig);
                    for (int b = 0; b < sd.pblock_dim(j, ig); ++b)
                        s += (*dm_diag)(r0 + b) * (*dh_aa)(p0 + b, il, x);
                }
                forces(x, ig) -= s * f1;
            }
        }
        // Blocks of the neighbours, each standing for itself and its transpose.
        const int first = sd.ublock_offset(2 <= n_blk ? 2 : 1, ig);
        const int last = sd.ublock_offset(n_blk, ig) + sd.ublock_dim(n_blk, ig) - 1;
        if (n_blk < 2) continue;
        const double* __restrict dmc = &dm(1, il);
        for (int x = 1; x <= 3; ++x) {
            const double* __restrict g = dhp + u_dim * ((il - 1) + l_dim * (x - 1));
            double dot = 0.0;
            for (int l = first - 1; l < last; ++l) dot += dmc[l] * g[l];
            forces(x, ig) -= 2.0 * f1 * dot;
        }
    }
}

} // namespace lyrt
