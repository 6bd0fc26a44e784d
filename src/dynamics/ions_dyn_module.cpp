#include "dynamics/ions_dyn_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "run/output_module.hpp"

namespace lyrt {

namespace {
constexpr const char* mod = "ions_dyn_module";
}

void ions_static(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_static";
    const trace_guard trace(proc, mod);
    box_ions_fill_sb(box);
    pbc_calc_nn_lists(box);
    if (debug > 1) pbc_print(box, report_unit);
    elec_algo.algo = elec_algo.gs;
    // A classical model has no electronic state: an empty one stands in.
    elec_state_type none;
    elec_state_type& e = elec != nullptr ? *elec : none;
    gs_calc(box, ions_state, e, elec_algo, ham, i_algo.calc_elocal);
    if (i_algo.calc_forces) forces_calc(ham, box.ions, box, i_algo, e, elec_algo);
    ions_calc_energies(ions_state, i_algo);
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

void ions_main_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                    elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_main_loop";
    const trace_guard trace(proc, mod);
    if (i_algo.n_steps > 0) {
        ions_state.final_call = 0;
        ions_state.skip_save = -1;
        // The ionic loops (dynamics, relaxation, fixed velocities, the tests) join
        // here; a mode without its loop goes straight to the final report.
        switch (i_algo.algo) {
        default: break;
        }
        ions_state.final_call = -1;
        print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
    } else {
        ions_static(box, ions_state, i_algo, elec, elec_algo, ham);
    }
}

double sum_local_energy(const ions_type& ions) {
    double s = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        if (ions.boost(i)) s += ions.e_local(i);
    return s;
}

} // namespace lyrt
