#include "operators/acum_delem_module_2.hpp"

#include "base/timing_module.hpp"

namespace lyrt {

namespace {

// Sum over the blocks j of local ion il of d_diag(orbitals of j) . dh_aa(block j, x):
// the change of the on-site energies of ion il and its neighbours as il moves.
double onsite_sum(const sparse_1d_matrix_desc_type& sd, int il, int ig, int x,
                  const farray<double, 1>& d_diag, const farray<double, 3>& dh_aa) {
    double s = 0.0;
    for (int j = 1; j <= sd.n_blocks(ig); ++j) {
        const int jg = sd.block_index(j, ig);
        const int r0 = sd.row_block_offset(jg), p0 = sd.pblock_offset(j, ig);
        for (int b = 0; b < sd.pblock_dim(j, ig); ++b) s += d_diag(r0 + b) * dh_aa(p0 + b, il, x);
    }
    return s;
}

} // namespace

void acum_dm_boost_r(const hamiltonian_type& ham, double factor, farray<double, 2>& forces,
                     const farray<double, 2>& dm, const farray<double, 3>& dh, double boost,
                     const farray<bool, 1>* boost_active, const farray<double, 1>* dm_diag,
                     const farray<double, 3>* dh_aa) {
    const phase_timer wall(phase_contract);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const double scale = factor * boost;
    const long u_dim = dh.extent(0), l_dim = dh.extent(1);
    const double* __restrict dhp = dh.data();
    const int n_local = pd.l_n;
    // Each ion's force is summed by one thread from its own column of blocks, so the
    // result does not depend on the number of threads.
#pragma omp parallel for schedule(dynamic, 8)
    for (int il = 1; il <= n_local; ++il) {
        const int ig = pd.l2g(il);
        const bool boosted = boost_active != nullptr && (*boost_active)(ig);
        const double f1 = boosted ? scale : factor;
        const int n_blk = sd.n_blocks(ig);
        if (dm_diag != nullptr && dh_aa != nullptr)
            for (int x = 1; x <= 3; ++x)
                forces(x, ig) -= onsite_sum(sd, il, ig, x, *dm_diag, *dh_aa) * f1;
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

void acum_dmu_dr(const hamiltonian_type& ham, const double* w, int ldw, int il_first, int n_chunk,
                 farray<double, 2>& forces) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    const farray<double, 3>& dh = ham.dh_ab;
    const long u_dim = dh.extent(0), l_dim = dh.extent(1);
    long col = 0; // first column of the ion in w
    for (int il = il_first; il < il_first + n_chunk; ++il) {
        const int ig = pd.l2g(il);
        const int no = sd.row_block_dim(ig);
        const double* __restrict wi = w + static_cast<long>(ldw) * col;
        for (int x = 1; x <= 3; ++x) {
            const double* __restrict g = dh.data() + u_dim * ((il - 1) + l_dim * (x - 1));
            double acc = 0.0;
            for (int k = 2; k <= sd.n_blocks(ig); ++k) {
                const int s0 = sd.sblock_offset(k, ig) - 1, no2 = sd.pblock_dim(k, ig);
                const double* __restrict gk = g + (sd.ublock_offset(k, ig) - 1);
                // Block element (a, b) pairs orbital a of the ion with orbital b of
                // the neighbour: w(row of b, column of a).
                for (int b = 0; b < no2; ++b)
                    for (int a = 0; a < no; ++a)
                        acc += gk[a + no * b] * wi[static_cast<long>(ldw) * a + s0 + b];
            }
            forces(x, ig) -= 2.0 * acc;
        }
        col += no;
    }
}

void acum_dmu_dr_ons(const hamiltonian_type& ham, const farray<double, 1>& w_diag,
                     farray<double, 2>& forces) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        for (int x = 1; x <= 3; ++x) forces(x, ig) -= onsite_sum(sd, il, ig, x, w_diag, ham.dh_aa);
    }
}

} // namespace lyrt
