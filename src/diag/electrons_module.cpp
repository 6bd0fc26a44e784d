#include "diag/electrons_module.hpp"

#include "base/error_module.hpp"
#include "orbital/cg_state_module.hpp"

namespace lyrt {

void elec_state_init(elec_state_type& elec, int n_dim, int n_states, double n_el,
                     const kpt_type& kpt) {
    elec.n_dim = n_dim;
    elec.n_states = n_states;
    elec.n_el = n_el;
    elec.e = 0.0;
    elec.kpt = &kpt;
    elec.eig = nullptr;
    elec.cg = nullptr;
    elec.scc = nullptr;
    elec.kpm = nullptr;
}

void elec_save_state(elec_state_type& elec, const elec_algo_type& elec_algo, int unit,
                     std::string_view file) {
    if (elec_algo.algo < elec_algo_diag) {
        if (elec.cg != nullptr) cg_state_write(*elec.cg, unit, file);
        return;
    }
    if (elec.eig != nullptr) eig_state_write(*elec.eig, unit, file);
}

void elec_load_state(elec_state_type& elec, const elec_algo_type& elec_algo, int unit,
                     std::string_view file) {
    if (elec_algo.algo < elec_algo_diag) {
        if (elec.cg != nullptr) cg_state_read(*elec.cg, unit, file);
        return;
    }
    if (elec.eig != nullptr) eig_state_read(*elec.eig, unit, file);
}

} // namespace lyrt
