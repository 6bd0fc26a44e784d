#include "diag/gs_module.hpp"

#include "diag/secular_module.hpp"
#include "model/tb_hs_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/error_module.hpp"
#include "run/io_module.hpp"
#include "run/timing_module.hpp"

#include <cmath>

namespace lyrt {

namespace {
constexpr const char* mod = "gs_module";
constexpr double self_image_min = 9.999999974752427e-07;
} // namespace

void gs_calc(box_type& box, ions_state_type& ions_state, elec_state_type& elec,
             elec_algo_type& elec_algo, hamiltonian_type& ham, bool calc_elocal) {
    const char* proc = "gs_calc";
    if (debug > 0) trace_in(proc, mod);
    const double start = utime();
    ions_type& ions = *ions_state.ions;
    const tb_model_type& model = *ham.tb_model;
    ions_state.e_pot = 0.0;
    if (!model.classical) {
        hamiltonian_reinit(ham, ions);
        if (calc_elocal) ions.e_local.fill(0.0);
        const char jobz = elec_algo.eigen_vect ? 'v' : 'n';
        switch (elec_algo.algo) {
        case elec_algo_sd:
        case elec_algo_cg:
            // The orbital minimiser needs the sparse H built before it; until then
            // these codes can't run through this door.
            plain_stop("FIX CALL TO TB_HS_CALC FIRST");
        case elec_algo_diag:
            solve_secular_eqn(ham, ions, box, *elec.eig, *elec.scc, elec_algo, 'g', jobz,
                              calc_elocal, ions.e_local);
            elec.e = elec.eig->e_band;
            break;
        case elec_algo_diag_b:
            solve_secular_eqn(ham, ions, box, *elec.eig, *elec.scc, elec_algo, 'c', jobz,
                              calc_elocal, ions.e_local);
            elec.e = elec.eig->e_band;
            break;
        case elec_algo_kpm:
            fatal_error("the kernel polynomial solver (elec_gs_algo = 4) is not built yet",
                        elec_algo.algo, proc, mod);
        default: break;
        }
        ions_state.e_atoms = ham.e_atoms;
        elec.e -= ham.e_atoms;
        ions_state.e_pot += elec.e;
    }
    if (model.pair_pot_used)
        gs_calc_classical_energy(box, ions_state, model, calc_elocal, ions.e_local);
    write_free(timing_unit, {my_proc, "gs_calc", utime() - start, "sec"});
    if (debug > 0) trace_out(proc, mod);
}

void gs_calc_classical_energy(const box_type& box, ions_state_type& ions_state,
                              const tb_model_type& model, bool calc_elocal,
                              farray<double, 1>& e_local) {
    const ions_type& ions = box.ions;
    const double r_cut2 = box.r_cut * box.r_cut;
    const nn_list_type& ic = box.ic_list;
    ions_state.e_pair = 0.0;
    double e = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const int t = ions.type(i);
        const nn_list_type& nl = ions.nn_list[static_cast<std::size_t>(i - 1)];
        double phi = 0.0;
        if (ic.n_nn < 2) {
            for (int n = 1; n <= nl.n_nn; ++n)
                phi += pair_pot(pair_param(model, t, ions.type(nl.index(n))), nl.dist(n));
        } else {
            for (int c = 1; c <= ic.n_nn; ++c) {
                const double* tr = &ic.r_ij(1, c);
                const double d2 = tr[0] * tr[0] + tr[1] * tr[1] + tr[2] * tr[2];
                if (d2 <= r_cut2 && d2 > self_image_min)
                    phi += pair_pot(pair_param(model, t, t), std::sqrt(d2));
                for (int n = 1; n <= nl.n_nn; ++n) {
                    const double v[3] = {nl.r_ij(1, n) + tr[0], nl.r_ij(2, n) + tr[1],
                                         nl.r_ij(3, n) + tr[2]};
                    const double v2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                    if (v2 <= r_cut2 && v2 > self_image_min)
                        phi +=
                            pair_pot(pair_param(model, t, ions.type(nl.index(n))), std::sqrt(v2));
                }
            }
        }
        const double e_i = sum_pair_pot(0.0, phi);
        e += e_i;
        if (calc_elocal) e_local(i) += e_i;
    }
    ions_state.e_pair = e;
    ions_state.e_pot += e;
}

} // namespace lyrt
