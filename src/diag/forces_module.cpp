#include "diag/forces_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "kpm/kpm_module.hpp"
#include "linear/ls_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "orbital/unconst_ftn_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "forces_module";

} // namespace

void calc_classical_forces(const box_type& box, ions_type& ions, const tb_model_type& model,
                           farray<double, 2>* sig) {
    const int n = ions.total_n_ions;
    // First pass: the derivative of the embedding function of each ion.
    std::vector<double> phi(static_cast<std::size_t>(n) + 1, 0.0), df(phi.size(), 0.0);
    pbc_for_pair_terms(box, [&](int i, int m, const double*, double r, bool) {
        phi[static_cast<std::size_t>(i)] +=
            pair_pot(pair_param(model, ions.type(i), ions.type(m)), r);
    });
    for (int i = 1; i <= n; ++i) df[static_cast<std::size_t>(i)] = sum_pair_pot_derivative();
    // Second pass: the force on i from each term, -dE/dr_i with v pointing from i
    // to its partner; an ion's own images move with it and exert no force.
    pbc_for_pair_terms(box, [&](int i, int m, const double* v, double r, bool self) {
        const double dphi = pair_pot_derivative(pair_param(model, ions.type(i), ions.type(m)), r);
        const double weight =
            self ? df[static_cast<std::size_t>(i)]
                 : df[static_cast<std::size_t>(i)] + df[static_cast<std::size_t>(m)];
        const double fac = dphi * weight / r;
        if (!self)
            for (int k = 1; k <= 3; ++k) ions.f(k, i) += fac * v[k - 1];
        if (sig != nullptr)
            // Each pair is met from both ends: half of its term each time.
            for (int a = 1; a <= 3; ++a)
                for (int b = a; b <= 3; ++b) (*sig)(a, b) -= 0.5 * fac * v[a - 1] * v[b - 1];
    });
    if (sig != nullptr)
        for (int a = 1; a <= 3; ++a)
            for (int b = a + 1; b <= 3; ++b) (*sig)(b, a) = (*sig)(a, b);
}

void calc_classical_stress(const box_type& /*box*/, const ions_type& ions,
                           const tb_model_type& model, farray<double, 2>& sig) {
    const double half = sum_pair_pot_derivative();
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const nn_list_type& nl = ions_nn_list(ions, i);
        for (int n = 1; n <= nl.n_nn; ++n) {
            const double r = nl.dist(n);
            const double fac =
                pair_pot_derivative(pair_param(model, ions.type(i), ions.type(nl.index(n))), r) *
                2.0 * half / r;
            for (int a = 1; a <= 3; ++a)
                for (int b = a; b <= 3; ++b) sig(a, b) -= 0.5 * fac * nl.r_ij(a, n) * nl.r_ij(b, n);
        }
    }
    for (int a = 1; a <= 3; ++a)
        for (int b = a + 1; b <= 3; ++b) sig(b, a) = sig(a, b);
}

void forces_calc(hamiltonian_type& ham, ions_type& ions, box_type& box, const i_algo_type& i_algo,
                 elec_state_type& elec, const elec_algo_type& elec_algo,
                 std::optional<double> fboost) {
    const char* proc = "calc_ionic_forces";
    const trace_guard trace(proc, "forces_module");
    const double start = utime();
    const double boost = fboost ? *fboost : 1.0;
    const tb_model_type& model = *ham.tb_model;
    // The kernel polynomial method has no eigenvectors and needs none; the orbital
    // solver has its orbitals.
    const bool own_states = elec_algo.algo == elec_algo_kpm || elec_algo.algo == elec_algo_sd ||
                            elec_algo.algo == elec_algo_cg || elec_algo.algo == elec_algo_ls;
    if (!elec_algo.eigen_vect && !(own_states && !model.classical))
        fatal_error("The eigenvectors have not been calculated cannot compute forces", -1, proc,
                    mod);
    if (!model.classical) {
        switch (elec_algo.algo) {
        case elec_algo_sd:
        case elec_algo_cg:
            calc_hs_grad_real(ham, ions, box);
            forces_cg_min(ham, ions.f, *elec.cg, *elec.scc, elec_algo.eta, boost, &ions.boost);
            if (i_algo.calc_stress) box.cell.sig.fill(0.0);
            break;
        case elec_algo_diag:
        case elec_algo_diag_b:
            eig_forces_dm(ham, ions, box, *elec.eig, i_algo.calc_stress, boost, elec.scc);
            if (i_algo.calc_stress) eig_stress(ham, ions, box, *elec.eig, elec.scc);
            break;
        case elec_algo_kpm:
            calc_hs_grad_real(ham, ions, box);
            kpm_calc_forces(*elec.kpm, ham, ions.f);
            // The method has no electronic stress: what the report shows is the pair
            // terms' alone.
            if (i_algo.calc_stress) box.cell.sig.fill(0.0);
            break;
        case elec_algo_ls:
            ls_forces(*elec.ls, ham, ions, box, boost, elec.scc);
            if (i_algo.calc_stress) ls_stress(*elec.ls, ham, ions, box, elec.scc);
            break;
        default: break; // a guard: read_input refuses codes outside elec_algo_codes
        }
    }
    if (model.classical || model.pair_pot_used) {
        if (model.classical) {
            ions.f.fill(0.0);
            box.cell.sig.fill(0.0);
        }
        if (!model.pair_pot_used) {
            // A classical model without its pair potential has no forces at all.
        } else if (i_algo.calc_stress) {
            farray<double, 2> sig_classical;
            sig_classical.allocate({1, 1}, {3, 3});
            calc_classical_forces(box, ions, model, &sig_classical);
            const double vol = cell_vol(box.cell);
            for (int a = 1; a <= 3; ++a)
                for (int b = 1; b <= 3; ++b) box.cell.sig(a, b) += sig_classical(a, b) / vol;
        } else {
            calc_classical_forces(box, ions, model);
        }
    }
    write_free(timing_unit, {my_proc, "calc_ionic_forces", utime() - start, "sec"});
}

void print_ionic_forces(const ions_type& ions, int unit) {
    write_free(unit, {"ionic forces:"});
    double sum[3] = {0, 0, 0};
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        write_fmt(unit, "('ion: ',i4,3e18.10)", {i, ions.f(1, i), ions.f(2, i), ions.f(3, i)});
        for (int k = 0; k < 3; ++k) sum[k] += ions.f(k + 1, i);
    }
    write_fmt(unit, "('total force: ',3e13.5)", {sum[0], sum[1], sum[2]});
}

} // namespace lyrt
