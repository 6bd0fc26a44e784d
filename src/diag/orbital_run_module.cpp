#include "diag/orbital_run_module.hpp"

#include "base/error_module.hpp"
#include "base/format_module.hpp"
#include "base/io_module.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/lapack_module.hpp"
#include "orbital/min_module.hpp"
#include "orbital/unconst_ftn_module.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "orbital_run_module";

// Cells up to this many orbitals get the dense levels of their first step.
constexpr int dense_levels_max = 4000;

// The bound of the first step: twice the sum of the occupied levels (the minimum of
// the functional with eta in the gap); none (-inf) with charges or without levels.
double first_bound = -HUGE_VAL;

// Whether the orbitals move as Car-Parrinello variables (from the step after a
// minimisation on).
bool cp_moving = false;

// One Verlet step of the orbitals with the gradient of the step before (the
// orbitals start at rest from the last minimum), then the energy and gradient of
// the moved orbitals at the present positions, which the forces use.
double car_parrinello_step(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                           const elec_algo_type& elec_algo, ions_type& ions, bool calc_elocal,
                           double& e_fict) {
    // emass was taken to eV fs^2 by the first minimisation.
    const double coeff = 4.0 * elec_algo.dt * elec_algo.dt / elec_algo.emass;
    if (!cp_moving) {
        std::copy(cg.psi.begin(), cg.psi.end(), cg.psi_old.begin());
        cp_moving = true;
    }
    update_cp_state(cg, coeff);
    setup_heff(ham, scc, elec_algo.eta);
    const double e = calc_gradient(ham, cg, scc, elec_algo.eta, ions.qion);
    // Kinetic energy emass / 4 |dP/dt|^2 (the Lagrangian whose Verlet step this is),
    // from the displacement of this step.
    double v2 = 0.0;
    for (std::size_t k = 0; k < cg.psi.size(); ++k) {
        const double d = cg.psi.data()[k] - cg.psi_old.data()[k];
        v2 += d * d;
    }
    e_fict = 0.25 * elec_algo.emass * v2 / (elec_algo.dt * elec_algo.dt);
    double longest = 0.0;
    for (int i = 1; i <= cg.n_occ; ++i) longest = std::max(longest, cg.s_dm(i, i));
    if (!std::isfinite(e) || longest > 1.5)
        fatal_error("the Car-Parrinello orbitals ran away (energy " +
                        format_items("(ES14.6)", {e}) + " eV, longest orbital norm^2 " +
                        format_items("(ES10.2)", {longest}) + "): a larger emass or a shorter dt",
                    -1, "car_parrinello_step", mod);
    if (calc_elocal) calc_elocal_cg(ham, cg, scc, elec_algo.eta, ions.qion, ions.e_local);
    if (i_am_master)
        write_free(report_unit,
                   {" Car-Parrinello orbitals: fictitious kinetic energy", e_fict, "eV"});
    return e;
}

} // namespace

std::vector<double> orbital_dense_levels(const hamiltonian_type& ham) {
    const int n = ham.desc.n_row, one = 1;
    farray<double, 2> h, s;
    h.allocate({1, 1}, {n, n});
    if (ham.tb_model->non_orthogonal) s.allocate({1, 1}, {n, n});
    get_hs_ij_real(ham, &h, s.allocated() ? &s : nullptr, nullptr);
    if (!s.allocated()) {
        s.allocate({1, 1}, {n, n});
        for (int i = 1; i <= n; ++i) s(i, i) = 1.0;
    }
    std::vector<double> w(static_cast<std::size_t>(n));
    int lwork = -1, info = 0;
    double query = 0.0;
    dsygv_(&one, "N", "U", &n, h.data(), &n, s.data(), &n, w.data(), &query, &lwork, &info);
    lwork = std::max(1, static_cast<int>(query));
    std::vector<double> work(static_cast<std::size_t>(lwork));
    dsygv_(&one, "N", "U", &n, h.data(), &n, s.data(), &n, w.data(), work.data(), &lwork, &info);
    if (info != 0)
        fatal_error("the dense levels for eta could not be computed", info, "orbital_dense_levels",
                    mod);
    return w;
}

double orbital_place_eta(const std::vector<double>& levels, int n_occ, const elec_algo_type& ea) {
    const char* proc = "orbital_place_eta";
    if (n_occ < 1 || n_occ >= static_cast<int>(levels.size()))
        fatal_error("the orbital solver needs occupied and empty levels: " + std::to_string(n_occ) +
                        " occupied of " + std::to_string(levels.size()),
                    n_occ, proc, mod);
    const double homo = levels[static_cast<std::size_t>(n_occ - 1)];
    const double lumo = levels[static_cast<std::size_t>(n_occ)];
    // A metal (or a gap below the smallest the functional can tell apart) has no place
    // for eta: the minimum would mix occupied and empty levels.
    if (lumo - homo < 0.05)
        fatal_error("the orbital solver needs a gap, and the first step has none (highest "
                    "occupied level " +
                        format_items("(F10.4)", {homo}) + " eV, lowest empty " +
                        format_items("(F10.4)", {lumo}) +
                        " eV): use the diagonalisation (elec_gs_algo = 2)",
                    -1, proc, mod);
    if (!ea.eta_given) return 0.5 * (homo + lumo);
    if (ea.eta <= homo || ea.eta >= lumo) {
        const std::string text = "eta = " + format_items("(F10.4)", {ea.eta}) +
                                 " eV lies outside the gap of the first step (" +
                                 format_items("(F10.4)", {homo}) + " to " +
                                 format_items("(F10.4)", {lumo}) +
                                 " eV): the minimum is not the occupied subspace";
        warning_error(text, proc, mod);
        if (i_am_master) write_free(report_unit, {text});
    }
    return ea.eta;
}

double orbital_ground_state(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                            elec_algo_type& elec_algo, ions_type& ions, bool calc_elocal,
                            double& e_fict) {
    const char* proc = "orbital_ground_state";
    e_fict = 0.0;
    if (elec_algo.algo == elec_algo_sd && cg.started)
        return car_parrinello_step(ham, cg, scc, elec_algo, ions, calc_elocal, e_fict);
    cp_moving = false;
    const bool first = !cg.started;
    if (first) {
        const int n = ham.desc.n_row;
        if (n <= dense_levels_max) {
            const std::vector<double> levels = orbital_dense_levels(ham);
            elec_algo.eta = orbital_place_eta(levels, cg.n_occ, elec_algo);
            first_bound = 0.0;
            for (int i = 0; i < cg.n_occ; ++i)
                first_bound += 2.0 * levels[static_cast<std::size_t>(i)];
            if (scc.used) first_bound = -HUGE_VAL;
            if (i_am_master)
                write_free(report_unit,
                           {" Orbital solver: eta =", elec_algo.eta,
                            elec_algo.eta_given ? "eV (input)"
                                                : "eV (the middle of the gap of the first step)"});
        } else if (!elec_algo.eta_given) {
            fatal_error("the orbital solver needs eta (eV, in the gap) for cells of more than " +
                            std::to_string(dense_levels_max) + " orbitals",
                        n, proc, mod);
        }
        cg.started = true;
    }
    const int md = elec_algo.md;
    elec_algo.md = elec_algo_cg;
    const double e =
        min_cg_wf(ham, cg, scc, elec_algo, first, calc_elocal, ions.e_local, ions.qion);
    elec_algo.md = md;
    const int iterations = min_cg_wf_iterations();
    const double g_norm = std::sqrt(trace_abdm(cg, cg.grad, cg.grad));
    // At the minimum the orbitals are orthonormal (P' S P = 1): far longer ones, an
    // energy below the occupied levels' bound, or no number at all mean the search
    // went over the barrier of the functional.
    double longest = 0.0;
    for (int i = 1; i <= cg.n_occ; ++i) longest = std::max(longest, cg.s_dm(i, i));
    const bool below = first && e < first_bound - 1e-6 * std::fabs(first_bound) - 1e-6;
    if (!std::isfinite(e) || longest > 1.5 || below)
        fatal_error("the orbital minimisation ran away (energy " + format_items("(ES14.6)", {e}) +
                        " eV, longest orbital norm^2 " + format_items("(ES10.2)", {longest}) +
                        "): start from shorter orbitals (elec_start_scale) or place eta in the gap",
                    iterations, proc, mod);
    if (i_am_master)
        write_free(report_unit,
                   {" Orbital minimisation:", iterations, "iterations, gradient norm", g_norm});
    if (iterations >= elec_algo.max_iter) {
        const std::string text =
            "the orbitals are not converged after " + std::to_string(iterations) +
            " iterations (max_elec_iter): gradient norm " + format_items("(ES10.2)", {g_norm});
        warning_error(text, proc, mod);
        if (i_am_master) write_free(report_unit, {text});
    }
    return e;
}

} // namespace lyrt
