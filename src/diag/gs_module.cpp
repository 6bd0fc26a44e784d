#include "diag/gs_module.hpp"

#include "linear/ls_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "diag/orbital_run_module.hpp"
#include "diag/secular_module.hpp"
#include "kpm/kpm_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cmath>
#include <vector>

namespace lyrt {

namespace {
constexpr const char* mod = "gs_module";
} // namespace

void gs_calc(box_type& box, ions_state_type& ions_state, elec_state_type& elec,
             elec_algo_type& elec_algo, hamiltonian_type& ham, bool calc_elocal) {
    const char* proc = "gs_calc";
    const trace_guard trace(proc, mod);
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
            // The orbital minimiser works on the sparse H, built first; the orbitals of
            // the last call start this one.
            calc_hs_real(ham, ions, box);
            elec.e = orbital_ground_state(ham, *elec.cg, *elec.scc, elec_algo, ions, calc_elocal,
                                          ions_state.e_fict);
            break;
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
        case elec_algo_kpm: {
            calc_hs_real(ham, ions, box);
            kpm_state_type& ks = *elec.kpm;
            double e_fermi = 0.0;
            if (elec_algo.n_moments > 0) {
                kpm_calc_energy(ks, ham, elec.e, e_fermi);
            } else {
                // A negative count asks for a table of the energy against the number
                // of moments, once; the energy of this step is that of all of them.
                elec_algo.n_moments = -elec_algo.n_moments;
                kpm_calc_energy(ks, ham, elec.e, e_fermi);
                kpm_test_conv(ks, ham, 5, 5, elec.e, 80);
            }
            break;
        }
        case elec_algo_ls:
            calc_hs_real(ham, ions, box);
            elec.e = ls_ground_state(*elec.ls, ham, ions, *elec.scc, elec_algo);
            if (calc_elocal) ls_local(*elec.ls, ham, *elec.scc, ions, ions.e_local);
            break;
        default: break; // a guard: read_input refuses codes outside elec_algo_codes
        }
        ions_state.e_atoms = ham.e_atoms;
        elec.e -= ham.e_atoms;
        ions_state.e_pot += elec.e;
    }
    if (model.pair_pot_used)
        gs_calc_classical_energy(box, ions_state, model, calc_elocal, ions.e_local);
    if (!std::isfinite(ions_state.e_pot))
        fatal_error("the energy is not a finite number: a coefficient of the parameter file is "
                    "out of range",
                    -1, proc, mod);
    write_free(timing_unit, {my_proc, "gs_calc", utime() - start, "sec"});
}

void gs_calc_classical_energy(const box_type& box, ions_state_type& ions_state,
                              const tb_model_type& model, bool calc_elocal,
                              farray<double, 1>& e_local) {
    const ions_type& ions = box.ions;
    ions_state.e_pair = 0.0;
    std::vector<double> phi(static_cast<std::size_t>(ions.total_n_ions) + 1, 0.0);
    pbc_for_pair_terms(box, [&](int i, int m, const double*, double r, bool) {
        phi[static_cast<std::size_t>(i)] +=
            pair_pot(pair_param(model, ions.type(i), ions.type(m)), r);
    });
    double e = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double e_i = sum_pair_pot(0.0, phi[static_cast<std::size_t>(i)]);
        e += e_i;
        if (calc_elocal) e_local(i) += e_i;
    }
    ions_state.e_pair = e;
    ions_state.e_pot += e;
}

} // namespace lyrt
