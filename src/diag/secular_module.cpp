#include "diag/secular_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "diag/diag_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "secular_module";

void debug_print_hs() {}

// A matrix element that is not finite comes from a model coefficient too large for
// the distances at hand; the solver would return garbage for it.
void check_finite(const farray<double, 2>& m, int n, const char* name) {
    for (int j = 1; j <= n; ++j)
        for (int i = 1; i <= n; ++i)
            if (!std::isfinite(m(i, j)))
                fatal_error(std::string(name) + " holds a number that is not finite at row " +
                                std::to_string(i) + ", column " + std::to_string(j) +
                                ": a coefficient of the parameter file is out of range",
                            -1, "solve_secular_eqn", mod);
}

} // namespace

void solve_secular_eqn(hamiltonian_type& ham, ions_type& ions, const box_type& box,
                       eig_state_type& eig, scc_type& scc, const elec_algo_type& elec_algo,
                       char hs_mode, char jobz, bool calc_elocal, farray<double, 1>& elocal) {
    const char* proc = "solve_secular_eqn";
    const trace_guard trace(proc, mod);
    const double mix = elec_algo.charge_mixing, keep = 1.0 - mix;
    const double tol = elec_algo.energy_tol;
    double e_new = 0.0, e_old = 0.0, rel = 1.0;
    const int n_dim = eig.n_dim, n_states = eig.n_states, n_kpt = eig.kpt->n_k;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool vectors = jobz == 'v' || jobz == 'V';
    const bool direct = hs_mode == 'c' || hs_mode == 'C';
    const bool scc_used = elec_algo.scc_used;
    int iter_max = 1, iter_min = 1;
    if (scc_used) {
        calc_gamma(scc);
        for (int i = 1; i <= ions.total_n_ions; ++i) scc.qi_1(i) = ions.qion(i);
        cal_charge_aux(scc, ions.qion, scc.qaux);
        iter_max = elec_algo.max_iter;
        iter_min = elec_algo.min_iter;
    } else {
        ions.qion.fill(0.0);
    }
    const scc_type* scc_arg = scc_used ? &scc : nullptr;
    farray<double, 2>* s_arg = non_orth ? &eig.s_ij : nullptr;
    // The projections on the ions need S as blocks, which the direct route doesn't build.
    if (direct && non_orth && (scc_used || calc_elocal)) calc_hs_real(ham, ions, box, "S");
    if (non_orth) {
        // Close ions make the overlap singular: name the closest pair should it fail.
        int i_min, j_min;
        double d_min;
        pbc_min_dist_pair(box, i_min, j_min, d_min);
        eig.d.failure_hint.clear();
        if (i_min > 0)
            eig.d.failure_hint = "ions may be too close: the closest pair, ions " +
                                 std::to_string(i_min) + " and " + std::to_string(j_min) + ", is " +
                                 format_items("(F8.4)", {d_min}) + " Angstrom apart";
    }
    // Only the vectors of the states are used: the solver back-transforms no more.
    eig.d.n_vectors = n_states;
    int iter = 0;
    for (;;) {
        if (scc_used) {
            scc.qi_1.fill(0.0);
            scc.qi_2.fill(0.0);
        }
        for (int k = 1; k <= n_kpt; ++k) {
            if (debug > 0) std::fputs(".", stdout);
            if (direct) {
                calc_hs_ij_real(ham, ions, box, scc_arg, &eig.h_ij, s_arg);
            } else {
                if (n_kpt > 1 || iter == 0) calc_hs_real(ham, ions, box);
                get_hs_ij_real(ham, &eig.h_ij, s_arg, scc_arg);
            }
            if (debug > 2) debug_print_hs();
            check_finite(eig.h_ij, n_dim, "the Hamiltonian");
            if (non_orth) check_finite(eig.s_ij, n_dim, "the overlap");
            if (vectors && non_orth)
                calc_gen_eigen_vectors_real(eig.h_ij, eig.s_ij, n_dim, eig.ework, eig.x, eig.d);
            else if (vectors)
                calc_eigen_vectors_real(eig.h_ij, n_dim, eig.ework, eig.x, eig.d);
            else if (non_orth)
                calc_gen_eigen_values_real(eig.h_ij, eig.s_ij, n_dim, eig.ework, eig.d);
            else
                calc_eigen_values_real(eig.h_ij, n_dim, eig.ework, eig.d);
            for (int i = 1; i <= n_states; ++i) eig.en_i(i, k) = eig.ework(i);
            eig_set_psi(eig, k);
            if (vectors) {
                for (int j = 1; j <= n_states; ++j)
                    for (int r = 1; r <= n_dim; ++r) eig.psi(r, j) = eig.x(r, j);
                if (eig.n_psi < n_kpt) eig_state_write_psi_k(eig, k, wfs_unit, "WFS", true);
            }
        }
        eig_calc_energy(eig);
        for (int k = 1; k <= n_kpt; ++k) {
            if (eig.n_psi < n_kpt)
                eig_state_read_psi_k(eig, k, wfs_unit, "WFS", true);
            else
                eig_set_psi(eig, k);
            if (scc_used) {
                eig_calc_qion(ham, eig, k, scc.qi_1);
                eig_calc_elocal(ham, eig, k, scc.qi_2);
            } else if (calc_elocal) {
                eig_calc_qion(ham, eig, k, ions.qion);
                eig_calc_elocal(ham, eig, k, elocal);
            }
        }
        if (scc_used) {
            // Linear mixing of the net charges.
            for (int i = 1; i <= ions.total_n_ions; ++i) {
                scc.qi_1(i) -= scc.qi0(i);
                ions.qion(i) = keep * ions.qion(i) + mix * scc.qi_1(i);
            }
            cal_charge_aux(scc, ions.qion, scc.qaux);
        }
        e_old = e_new;
        if (scc_used) {
            e_new = get_scc_detot(scc, 0.0, ions.qion) + eig.e_band;
            rel = (e_old - e_new) / e_new;
            if (elec_algo.output_level > 2) write_free(stdout_unit, {iter, e_new, rel});
        } else {
            e_new = eig.e_band;
            rel = 0.0;
        }
        if (debug > 0) std::puts("done!");
        if (iter >= iter_min && tol > std::fabs(rel)) break;
        ++iter;
        if (iter >= iter_max) break;
    }
    if (scc_used) {
        eig.e_band = e_new;
        if (calc_elocal) {
            for (int i = 1; i <= ions.total_n_ions; ++i) elocal(i) += scc.qi_2(i);
            get_scc_deloc(scc, 0.0, ions.qion, elocal);
        }
    } else if (calc_elocal) {
        for (int i = 1; i <= ions.total_n_ions; ++i) ions.qion(i) -= scc.qi0(i);
    }
}

} // namespace lyrt
