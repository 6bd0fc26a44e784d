#include "diag/secular_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "diag/diag_module.hpp"
#include "diag/pdiag_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "numerics/fitpoly.hpp"
#include "operators/acum_delem_module_1.hpp"
#include "parallel/mpi_module.hpp"
#include "parallel/threads_module.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "secular_module";

int last_passes = 0; // passes of the last call
bool last_converged = true;

void debug_print_hs() {}

// A matrix element that is not finite comes from a model coefficient too large for
// the distances at hand; the solver would return garbage for it.
template <class T>
void check_finite(const farray<T, 2>& m, const char* name) {
    for (long j = 1; j <= m.extent(1); ++j)
        for (long i = 1; i <= m.extent(0); ++i)
            if (!std::isfinite(std::abs(m(i, j))))
                fatal_error(std::string(name) + " holds a number that is not finite at row " +
                                std::to_string(i) + ", column " + std::to_string(j) +
                                ": a coefficient of the parameter file is out of range",
                            -1, "solve_secular_eqn", mod);
}

} // namespace

namespace {

// The hint that a failing overlap factorisation gives: the closest pair of ions.
void set_overlap_hint(eig_state_type& eig, const box_type& box) {
    int i_min, j_min;
    double d_min;
    pbc_min_dist_pair(box, i_min, j_min, d_min);
    eig.d.failure_hint.clear();
    if (i_min > 0)
        eig.d.failure_hint = "ions may be too close: the closest pair, ions " +
                             std::to_string(i_min) + " and " + std::to_string(j_min) + ", is " +
                             format_items("(F8.4)", {d_min}) + " Angstrom apart";
}

// The levels (and states) of k-point k: H and S filled (from the blocks, rebuilt on
// the first pass; or straight from the model), then the dense or distributed solver.
void solve_point(hamiltonian_type& ham, ions_type& ions, const box_type& box, eig_state_type& eig,
                 const scc_type* scc_arg, int k, bool first_pass, bool direct, bool vectors,
                 bool projections) {
    const int n_dim = eig.n_dim, n_states = eig.n_states, n_kpt = eig.kpt->n_k;
    const bool non_orth = ham.tb_model->non_orthogonal;
    farray<double, 2>* s_arg = non_orth ? &eig.s_ij : nullptr;
    if (eig_distributed(eig)) {
        if (n_kpt > 1 || first_pass) calc_hs_real(ham, ions, box);
        get_hs_ij_dist(ham, eig, scc_arg);
        check_finite(eig.h_loc, "the Hamiltonian");
        if (non_orth) check_finite(eig.s_loc, "the overlap");
        pdiag_solve(eig, non_orth, vectors, n_states);
        if (non_orth && projections) pdiag_form_s_z(ham, eig);
        for (int i = 1; i <= n_states; ++i) eig.en_i(i, k) = eig.ework(i);
        eig_set_psi(eig, k);
        return;
    }
    if (direct) {
        calc_hs_ij_real(ham, ions, box, scc_arg, &eig.h_ij, s_arg);
    } else {
        if (n_kpt > 1 || first_pass) calc_hs_real(ham, ions, box);
        get_hs_ij_real(ham, &eig.h_ij, s_arg, scc_arg);
    }
    if (debug > 2) debug_print_hs();
    check_finite(eig.h_ij, "the Hamiltonian");
    if (non_orth) check_finite(eig.s_ij, "the overlap");
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

// The levels and states of point k of a k-point run from the blocks (built once
// per pass): the real solver where H(k) is real, the complex one elsewhere. The
// states are kept as complex columns either way. The arrays are eig's own, or
// those of an extra thread (kw).
void solve_point_k(hamiltonian_type& ham, const ions_type& ions, eig_state_type& eig,
                   kpt_work_type* kw, const scc_type* scc_arg, int k, bool vectors) {
    const int n_dim = eig.n_dim, n_states = eig.n_states;
    const kpt_type& kpt = *eig.kpt;
    const bool non_orth = ham.tb_model->non_orthogonal;
    farray<double, 2>& h = kw == nullptr ? eig.h_ij : kw->h_ij;
    farray<double, 2>& s = kw == nullptr ? eig.s_ij : kw->s_ij;
    farray<double, 2>& x = kw == nullptr ? eig.x : kw->x;
    farray<double, 1>& en = kw == nullptr ? eig.ework : kw->ework;
    farray<dcomplex, 2>& zh = kw == nullptr ? eig.zh : kw->zh;
    farray<dcomplex, 2>& zs = kw == nullptr ? eig.zs : kw->zs;
    farray<dcomplex, 2>& zx = kw == nullptr ? eig.zx : kw->zx;
    blacs_distr_type& d = kw == nullptr ? eig.d : kw->d;
    farray<dcomplex, 2>& psi = eig_kpt_slot(eig, k);
    if (kpt.real_point[static_cast<std::size_t>(k - 1)] != 0) {
        get_hs_ij_kreal(ham, ions, kpt, k, &h, non_orth ? &s : nullptr, scc_arg);
        check_finite(h, "the Hamiltonian");
        if (non_orth) check_finite(s, "the overlap");
        if (vectors && non_orth)
            calc_gen_eigen_vectors_real(h, s, n_dim, en, x, d);
        else if (vectors)
            calc_eigen_vectors_real(h, n_dim, en, x, d);
        else if (non_orth)
            calc_gen_eigen_values_real(h, s, n_dim, en, d);
        else
            calc_eigen_values_real(h, n_dim, en, d);
        if (vectors)
            for (int j = 1; j <= n_states; ++j)
                for (int r = 1; r <= n_dim; ++r) psi(r, j) = x(r, j);
    } else {
        get_hs_ij_complex(ham, ions, kpt, k, &zh, non_orth ? &zs : nullptr, scc_arg);
        check_finite(zh, "the Hamiltonian");
        if (non_orth) check_finite(zs, "the overlap");
        if (vectors && non_orth)
            calc_gen_eigen_vectors_complex(zh, zs, n_dim, en, zx, d);
        else if (vectors)
            calc_eigen_vectors_complex(zh, n_dim, en, zx, d);
        else if (non_orth)
            calc_gen_eigen_values_complex(zh, zs, n_dim, en, d);
        else
            calc_eigen_values_complex(zh, n_dim, en, d);
        if (vectors)
            for (int j = 1; j <= n_states; ++j)
                for (int r = 1; r <= n_dim; ++r) psi(r, j) = zx(r, j);
    }
    if (vectors) eig_kpt_keep(eig, k);
    for (int i = 1; i <= n_states; ++i) eig.en_i(i, k) = en(i);
}

// The points of this process, in threads of their own when eig_kpt_threads allows:
// a point that fails in a thread (a stop there reports nothing) is solved again
// outside the team, where its stop reports as usual.
void solve_points_k(hamiltonian_type& ham, const ions_type& ions, eig_state_type& eig,
                    const scc_type* scc_arg, bool vectors) {
    std::vector<int> mine;
    for (int k = 1; k <= eig.kpt->n_k; ++k)
        if (eig_kpt_mine(eig, k)) mine.push_back(k);
    const int nt =
        eig_kpt_threads(eig, static_cast<int>(mine.size()), ham.tb_model->non_orthogonal);
    if (nt <= 1) {
        for (const int k : mine) solve_point_k(ham, ions, eig, nullptr, scc_arg, k, vectors);
        return;
    }
    // The clocks inside the team stand still: the team counts as solver time.
    const phase_timer wall(phase_eigen);
    int failed = 0;
    const int blas = blas_thread_count();
    set_blas_thread_count(1);
#pragma omp parallel for num_threads(nt) schedule(dynamic, 1)
    for (std::size_t m = 0; m < mine.size(); ++m) {
        const int t = thread_index();
        try {
            solve_point_k(ham, ions, eig,
                          t == 0 ? nullptr : &eig.kwork[static_cast<std::size_t>(t - 1)], scc_arg,
                          mine[m], vectors);
        } catch (const fatal_stop&) {
#pragma omp critical(lyrt_failed_point)
            if (failed == 0 || mine[m] < failed) failed = mine[m];
        }
    }
    set_blas_thread_count(blas);
    if (failed > 0) {
        solve_point_k(ham, ions, eig, nullptr, scc_arg, failed, vectors);
        fatal_error("k-point " + std::to_string(failed) + " failed in a thread only", failed,
                    "solve_secular_eqn", mod);
    }
}

// The k-point run's Mulliken charges and band energies per ion, from the real-space
// density matrices of all points (into the charge record in the charge loop).
void project_on_ions_k(hamiltonian_type& ham, ions_type& ions, eig_state_type& eig, scc_type& scc,
                       bool scc_used, farray<double, 1>& elocal) {
    const int nk = eig.kpt->n_k, ns = eig.n_states;
    farray<double, 2> w;
    w.allocate({1, 1}, {ns, nk});
    eig_forces_reserve(eig, ham);
    for (const bool energies : {false, true}) {
        for (int k = 1; k <= nk; ++k)
            for (int i = 1; i <= ns; ++i)
                w(i, k) =
                    2.0 * eig.occ(i, k) * eig.kpt->weight(k) * (energies ? eig.en_i(i, k) : 1.0);
        eig_kpt_density(ham, ions, eig, w, eig.dm, nullptr);
        farray<double, 1>& out =
            energies ? (scc_used ? scc.qi_2 : elocal) : (scc_used ? scc.qi_1 : ions.qion);
        local_proj_dm_r(ham, eig.dm, 1.0, out);
    }
}

// The occupied states projected on the ions, summed over the k-points: Mulliken
// charges and band energies per ion (into the charge record in the charge loop).
void project_on_ions(hamiltonian_type& ham, ions_type& ions, eig_state_type& eig, scc_type& scc,
                     bool scc_used, bool calc_elocal, farray<double, 1>& elocal) {
    for (int k = 1; k <= eig.kpt->n_k; ++k) {
        if (eig.n_psi < eig.kpt->n_k && !eig_distributed(eig))
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
}

} // namespace

void solve_secular_eqn(hamiltonian_type& ham, ions_type& ions, const box_type& box,
                       eig_state_type& eig, scc_type& scc, const elec_algo_type& elec_algo,
                       char hs_mode, char jobz, bool calc_elocal, farray<double, 1>& elocal) {
    const char* proc = "solve_secular_eqn";
    const trace_guard trace(proc, mod);
    const double tol = elec_algo.energy_tol;
    double e_new = 0.0, e_old = 0.0, rel = 1.0, dq_max = 0.0;
    scc_mixer_type mixer;
    mixer.beta = elec_algo.charge_mixing;
    bool converged = false;
    const bool non_orth = ham.tb_model->non_orthogonal;
    const bool vectors = jobz == 'v' || jobz == 'V';
    // The distributed matrices are filled from the blocks.
    const bool general = kpt_general(*eig.kpt);
    const bool direct = (hs_mode == 'c' || hs_mode == 'C') && !eig_distributed(eig) && !general;
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
    // The projections on the ions need S as blocks, which the direct route doesn't build.
    if (direct && non_orth && (scc_used || calc_elocal)) calc_hs_real(ham, ions, box, "S");
    if (non_orth) set_overlap_hint(eig, box);
    // Only the vectors of the states are used: the solver back-transforms no more.
    eig.d.n_vectors = eig.n_states;
    int iter = 0, passes = 0;
    for (;;) {
        ++passes;
        if (scc_used) {
            scc.qi_1.fill(0.0);
            scc.qi_2.fill(0.0);
        }
        if (general) {
            // The blocks do not depend on k: built once, then every point of this
            // process; the levels of the others come from them.
            if (iter == 0) calc_hs_real(ham, ions, box);
            eig.en_i.fill(0.0);
            solve_points_k(ham, ions, eig, scc_arg, vectors);
            if (n_proc > 1) gsum_real_mat(eig.en_i);
        } else {
            for (int k = 1; k <= eig.kpt->n_k; ++k) {
                if (debug > 0) std::fputs(".", stdout);
                solve_point(ham, ions, box, eig, scc_arg, k, iter == 0, direct, vectors,
                            scc_used || calc_elocal);
            }
        }
        eig_calc_energy(eig);
        if (general && (scc_used || calc_elocal))
            project_on_ions_k(ham, ions, eig, scc, scc_used, elocal);
        else if (!general)
            project_on_ions(ham, ions, eig, scc, scc_used, calc_elocal, elocal);
        if (scc_used) dq_max = scc_mix_charges(ions, scc, elec_algo, mixer);
        e_old = e_new;
        if (scc_used) {
            // With smearing the energy is the free energy E - T S: the quantity that
            // is stationary in the charges and whose derivative the forces are.
            e_new = get_scc_detot(scc, 0.0, ions.qion) + eig.e_band;
            if (eig.kpt->sigma > 0.0) e_new -= eig.e_ts;
            rel = e_new - e_old;
            if (elec_algo.output_level > 2) write_free(stdout_unit, {iter, e_new, rel, dq_max});
            converged = iter > 0 && std::fabs(rel) < tol && dq_max < elec_algo.charge_tol;
        } else {
            e_new = eig.e_band;
            rel = 0.0;
            converged = true;
        }
        if (debug > 0) std::puts("done!");
        if (iter >= iter_min && converged) break;
        ++iter;
        if (iter >= iter_max) break;
    }
    last_passes = passes;
    last_converged = converged;
    if (scc_used && !converged) {
        const std::string text = "the charges are not self-consistent after " +
                                 std::to_string(iter) +
                                 " passes (max_elec_iter): last change of the energy " +
                                 format_items("(ES10.2)", {rel}) + " eV, largest charge change " +
                                 format_items("(ES10.2)", {dq_max}) + " e";
        warning_error(text, proc, mod);
        if (i_am_master) write_free(report_unit, {text});
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

int solve_secular_eqn_passes() {
    return last_passes;
}

bool solve_secular_eqn_converged() {
    return last_converged;
}

} // namespace lyrt
