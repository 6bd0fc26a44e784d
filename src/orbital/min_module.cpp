#include "orbital/min_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "orbital/unconst_ftn_module.hpp"

#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "min_module";

double cp_coefficient = 0.0; // 4 dt^2 / emass of the Car-Parrinello step
int last_iterations = 0;

} // namespace

double min_cg_wf(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                 elec_algo_type& elec_algo, bool first_step, bool calc_elocal,
                 farray<double, 1>& elocal, farray<double, 1>& q) {
    const trace_guard trace("min_cg_wf", mod);
    const double eta = elec_algo.eta;
    double result = 0.0;
    if (first_step) {
        // amu Angstrom^2 / fs^2 in eV.
        elec_algo.emass *= 103.6437626;
        reset_cg_state(cg);
        cp_coefficient = elec_algo.dt * elec_algo.dt * 4.0 / elec_algo.emass;
    }
    if (elec_algo.md == 0) {
        setup_heff(ham, scc, eta);
        calc_gradient(ham, cg, scc, eta, q);
        update_cp_state(cg, cp_coefficient);
    } else if (elec_algo.md == 1) {
        const std::size_t n_poly = scc.used ? 9 : 5;
        std::vector<double> poly(n_poly, 0.0), extrema;
        extrema.reserve(n_poly - 2);
        reset_cg_state(cg);
        double e_old = 100.0, n_old = 0.0, n_el = 0.0, de = 0.0, dn = 0.0, gg = 0.0;
        int iter = 0;
        setup_heff(ham, scc, eta);
        for (;;) {
            std::fill(poly.begin(), poly.end(), 0.0);
            poly[0] = calc_gradient(ham, cg, scc, eta, q);
            n_el = charge_total(cg, scc, q);
            // Relative changes of the energy and of the electron count.
            de = (poly[0] - e_old) / poly[0];
            dn = (n_el - n_old) / n_el;
            if (elec_algo.output_level > 2) write_free(stdout_unit, {iter, poly[0], n_el, de, dn});
            if (iter >= elec_algo.max_iter) break;
            if (std::fabs(de) < elec_algo.energy_tol && std::fabs(dn) < elec_algo.charge_tol) break;
            if (iter == 0) {
                gg = trace_abdm(cg, cg.grad, cg.grad);
                update_cg_state(cg, 0.0, 0);
            } else {
                // Polak-Ribiere.
                const double gg_old = gg;
                gg = trace_abdm(cg, cg.grad, cg.grad);
                const double beta =
                    gg_old > 0.0 ? (gg - trace_abdm(cg, cg.grad, cg.grad_old)) / gg_old : 0.0;
                update_cg_state(cg, beta, iter);
            }
            double lambda = 0.0;
            calc_line_poly(ham, cg, scc, eta, poly);
            solve_line_min(poly, extrema, lambda);
            update_cg_state(cg, lambda, -1);
            e_old = poly[0];
            n_old = n_el;
            ++iter;
        }
        if (elec_algo.output_level > 2)
            write_free(stdout_unit, {"cg =", iter, e_old, n_el, de, dn});
        last_iterations = iter;
        result = poly[0];
    }
    if (calc_elocal) calc_elocal_cg(ham, cg, scc, eta, q, elocal);
    return result;
}

int min_cg_wf_iterations() {
    return last_iterations;
}

} // namespace lyrt
