#include "dynamics/ions_dyn_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "numerics/random_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/output_module.hpp"
#include "system/constants_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "ions_dyn_module";

// A classical model has no electronic state: an empty one stands in.
elec_state_type& electrons_or_none(elec_state_type* elec) {
    static elec_state_type none;
    return elec != nullptr ? *elec : none;
}

// Folds the ions into the cell and rebuilds the neighbour lists: the start of a step.
void refresh_lists(box_type& box) {
    box_ions_fill_sb(box);
    pbc_calc_nn_lists(box);
    if (debug > 1) pbc_print(box, report_unit);
}

// The ground state, the boost of hyper dynamics, and the forces of the present positions.
void energy_and_forces(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                       elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    elec_state_type& e = electrons_or_none(elec);
    gs_calc(box, ions_state, e, elec_algo, ham, i_algo.calc_elocal);
    ions_state.fboost = 1.0;
    ions_state.time_factor = 1.0;
    ions_state.e_boost = 0.0;
    if (i_algo.hyper_md) {
        ions_state.e_local_sum = sum_local_energy(box.ions);
        ions_state.fboost =
            calc_fboost_factor(ions_state, i_algo.e_boost, i_algo.a_boost, i_algo.temperature);
    }
    forces_calc(ham, box.ions, box, i_algo, e, elec_algo, ions_state.fboost);
}

// The step's report; the report routine reads the step's seconds for its progress line.
void report_step(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham,
                 double step_start) {
    ions_calc_energies(ions_state, i_algo);
    ions_state.step_seconds = timeofday() - step_start;
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

// Advances the step counter and the clock (boosted in hyper dynamics).
void advance_clock(ions_state_type& ions_state, const i_algo_type& i_algo) {
    ions_state.step += 1;
    ions_state.time += i_algo.hyper_md ? ions_state.time_factor * i_algo.dt : i_algo.dt;
}

// The loops' own storage: Langevin force noise and the minimum-image steps of
// position Verlet, allocated once per loop.
struct md_work_type {
    farray<double, 2> dr;    // r(t - dt) - r(t), minimum image, Angstrom
    farray<double, 2> noise; // random force of the Langevin thermostat, eV/Angstrom
};

void md_work_allocate(md_work_type& w, int n) {
    ca_real_2d(w.dr, 1, 3, 1, n, "dr", "md_work_allocate", mod);
    ca_real_2d(w.noise, 1, 3, 1, n, "noise", "md_work_allocate", mod);
}

void md_work_free(md_work_type& w) {
    cd_real_2d(w.dr, "dr", "md_work_free", mod);
    cd_real_2d(w.noise, "noise", "md_work_free", mod);
}

// How the ions move between two steps of a loop.
constexpr int move_velocity_verlet = 1;
constexpr int move_position_verlet = 2;
constexpr int move_fixed_velocities = 3;

// The step skeleton that every moving loop shares: fold the ions and rebuild the
// lists, the ground state and forces (by the gs code first, the md code after),
// the report, then the move and the clock, from first_step to n_steps steps on.
void run_steps(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
               elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham,
               const char* proc, int mover, md_work_type* work) {
    const double loop_start = timeofday();
    ions_type& ions = box.ions;
    ions_state.first_step = ions_state.step;
    const int last_step = ions_state.step + i_algo.n_steps;
    elec_algo.algo = elec_algo.gs;
    for (;;) {
        const double step_start = timeofday();
        refresh_lists(box);
        energy_and_forces(box, ions_state, i_algo, elec, elec_algo, ham);
        const bool first = ions_state.step == ions_state.first_step;
        if (first) elec_algo.algo = elec_algo.md;
        if (mover == move_velocity_verlet && !first) calc_velocities_vv(ions, i_algo);
        report_step(box, ions_state, i_algo, elec, elec_algo, ham, step_start);
        if (ions_state.step >= last_step) break;
        switch (mover) {
        case move_velocity_verlet: move_eom_vv(ions, box, i_algo); break;
        case move_position_verlet:
            move_eom_sv(first, ions, box, ions_state, i_algo, work->dr, work->noise);
            break;
        case move_fixed_velocities:
            // Along the given velocities; folding waits for the next step.
            for (int i = 1; i <= ions.total_n_ions; ++i)
                for (int k = 1; k <= 3; ++k) ions.r(k, i) += i_algo.dt * ions.v(k, i);
            break;
        default: break;
        }
        advance_clock(ions_state, i_algo);
        write_free(timing_unit, {my_proc, proc, timeofday() - step_start, "sec for MD step"});
    }
    write_free(timing_unit, {my_proc, proc, timeofday() - loop_start, "sec for MD loop"});
}

} // namespace

void ions_static(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const trace_guard trace("ions_static", mod);
    refresh_lists(box);
    elec_algo.algo = elec_algo.gs;
    elec_state_type& e = electrons_or_none(elec);
    gs_calc(box, ions_state, e, elec_algo, ham, i_algo.calc_elocal);
    if (i_algo.calc_forces) forces_calc(ham, box.ions, box, i_algo, e, elec_algo);
    ions_calc_energies(ions_state, i_algo);
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

void ions_main_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                    elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const trace_guard trace("ions_main_loop", mod);
    if (i_algo.n_steps <= 0) {
        ions_static(box, ions_state, i_algo, elec, elec_algo, ham);
        return;
    }
    ions_state.final_call = 0;
    ions_state.skip_save = -1;
    switch (i_algo.algo) {
    case ions_algo_md:
        if (i_algo.eom_algo == eom_verlet)
            ions_md_loop_sverlet(box, ions_state, i_algo, elec, elec_algo, ham);
        else if (i_algo.eom_algo == eom_velocity_verlet)
            ions_md_loop_vverlet(box, ions_state, i_algo, elec, elec_algo, ham);
        break;
    case ions_algo_fixed_vel: ions_fixvel(box, ions_state, i_algo, elec, elec_algo, ham); break;
    case ions_algo_cg_relax:
    case ions_algo_test_forces:
    case ions_algo_test_stress:
        fatal_error("this run type (ions_algo = " + std::to_string(i_algo.algo) +
                        ") is not built yet",
                    i_algo.algo, "ions_main_loop", mod);
    default: break; // no motion: the final report shows the state read in
    }
    ions_state.final_call = -1;
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

// ---- velocity Verlet -----------------------------------------------------------------

void ions_md_loop_vverlet(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                          elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_md_loop_vverlet";
    const trace_guard trace(proc, mod);
    if (box.ions.n_t != 2) ions_change_nt(box.ions, 2);
    if (i_algo.thermostat == thermostat_nose)
        fatal_error("No Nose with velocity verlet !", -1, "move_eom_vv", mod);
    run_steps(box, ions_state, i_algo, elec, elec_algo, ham, proc, move_velocity_verlet, nullptr);
}

void move_eom_vv(ions_type& ions, box_type& box, i_algo_type& i_algo) {
    if (i_algo.thermostat == thermostat_nose)
        fatal_error("No Nose with velocity verlet !", -1, "move_eom_vv", mod);
    ions_roll(ions);
    cell_roll(box.cell);
    const double dt = i_algo.dt, dt2 = i_algo.dt_sq;
    const int n = ions.total_n_ions;
    if (i_algo.thermostat == thermostat_langevin) {
        // Per ion three draws for the positions, then three for the velocities; the
        // velocity noise is used a step later, by calc_velocities_vv.
        for (int i = 1; i <= n; ++i) {
            const int s = ions.type(i);
            double n1[3], n2[3];
            for (double& x : n1) x = random_norm();
            for (double& x : n2) x = random_norm();
            // Correlation of the position and velocity noise of this species.
            const double sr = i_algo.lgv_sigma_r(s), sv = i_algo.lgv_sigma_v(s);
            const double c_rv = sr * sv > 0.0 ? i_algo.lgv_cross(s) / (sr * sv) : 0.0;
            for (int k = 1; k <= 3; ++k) {
                const bool free = !ions.frozen(k, i);
                i_algo.lgv_noise_r(k, i) = free ? sr * n1[k - 1] : 0.0;
                i_algo.lgv_noise_v(k, i) =
                    free ? sv * (c_rv * n1[k - 1] + i_algo.lgv_corr(s) * n2[k - 1]) : 0.0;
            }
        }
        const double c1 = i_algo.lgv_c1, c2 = i_algo.lgv_c2;
        for (int i = 1; i <= n; ++i) {
            const double m = ions.inv_mass(ions.type(i));
            for (int k = 1; k <= 3; ++k) {
                if (ions.frozen(k, i)) continue;
                ions.r_of_t(k, i, 1) = ions.r_of_t(k, i, 2) + c1 * dt * ions.v_of_t(k, i, 2) +
                                       c2 * dt2 * ions.f_of_t(k, i, 2) * m +
                                       i_algo.lgv_noise_r(k, i);
            }
        }
        return;
    }
    for (int i = 1; i <= n; ++i) {
        const double m = ions.inv_mass(ions.type(i));
        for (int k = 1; k <= 3; ++k) {
            if (ions.frozen(k, i)) continue;
            ions.r_of_t(k, i, 1) = ions.r_of_t(k, i, 2) + dt * ions.v_of_t(k, i, 2) +
                                   0.5 * dt2 * ions.f_of_t(k, i, 2) * m;
        }
    }
}

void calc_velocities_vv(ions_type& ions, const i_algo_type& i_algo) {
    const int n = ions.total_n_ions;
    const double dt = i_algo.dt;
    const bool langevin = i_algo.thermostat == thermostat_langevin;
    const double c0 = i_algo.lgv_c0, c1 = i_algo.lgv_c1, c2 = i_algo.lgv_c2;
    for (int i = 1; i <= n; ++i) {
        const double m = ions.inv_mass(ions.type(i));
        for (int k = 1; k <= 3; ++k) {
            if (ions.frozen(k, i)) continue;
            const double a_old = ions.f_of_t(k, i, 2) * m, a_new = ions.f_of_t(k, i, 1) * m;
            if (langevin)
                ions.v_of_t(k, i, 1) = c0 * ions.v_of_t(k, i, 2) + (c1 - c2) * dt * a_old +
                                       c2 * dt * a_new + i_algo.lgv_noise_v(k, i);
            else
                ions.v_of_t(k, i, 1) = ions.v_of_t(k, i, 2) + i_algo.half_dt * (a_old + a_new);
        }
    }
}

// ---- position Verlet -------------------------------------------------------------------

void ions_md_loop_sverlet(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                          elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_md_loop_sverlet";
    const trace_guard trace(proc, mod);
    if (box.ions.n_t != 3) ions_change_nt(box.ions, 3);
    md_work_type work;
    md_work_allocate(work, box.ions.total_n_ions);
    run_steps(box, ions_state, i_algo, elec, elec_algo, ham, proc, move_position_verlet, &work);
    md_work_free(work);
}

void move_eom_sv(bool first_step, ions_type& ions, box_type& box, ions_state_type& ions_state,
                 i_algo_type& i_algo, farray<double, 2>& dr, farray<double, 2>& noise) {
    const int n = ions.total_n_ions;
    const double dt = i_algo.dt, dt2 = i_algo.dt_sq;
    if (i_algo.thermostat == thermostat_nose) ions_move_nose_eom(ions_state, i_algo);
    if (first_step && i_algo.start == 0) {
        // No earlier positions: a Taylor step from r, v and f.
        ions_roll(ions);
        cell_roll(box.cell);
        for (int i = 1; i <= n; ++i) {
            const double m = ions.inv_mass(ions.type(i));
            for (int k = 1; k <= 3; ++k) {
                if (ions.frozen(k, i)) continue;
                const double f = ions.f_of_t(k, i, 2);
                ions.r_of_t(k, i, 1) =
                    ions.r_of_t(k, i, 2) + dt * ions.v_of_t(k, i, 2) + 0.5 * dt2 * f * m;
                ions.v_of_t(k, i, 1) = ions.v_of_t(k, i, 2) + dt * f * m;
            }
        }
        return;
    }
    // The step before, as the minimum image of the present position: the folding
    // into the cell may have put the stored one a lattice vector away.
    for (int i = 1; i <= n; ++i)
        pbc_min_vec(&dr(1, i), box, &ions.r_of_t(1, i, 1), &ions.r_of_t(1, i, 2));
    ions_roll(ions);
    cell_roll(box.cell);
    noise.fill(0.0);
    if (i_algo.thermostat == thermostat_langevin)
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= 3; ++k)
                if (!ions.frozen(k, i))
                    noise(k, i) = random_norm() * i_algo.lgv_sigma(ions.type(i));
    // friction is the Langevin constant, or the rate the Nose-Hoover step left in it.
    const bool damped = i_algo.thermostat == thermostat_nose ||
                        i_algo.thermostat == thermostat_langevin || i_algo.friction != 0.0;
    const double c_back = damped ? 1.0 - i_algo.friction * 0.5 * dt : 1.0;
    const double c_fwd = damped ? 1.0 / (1.0 + i_algo.friction * 0.5 * dt) : 1.0;
    for (int i = 1; i <= n; ++i) {
        const double m = ions.inv_mass(ions.type(i));
        for (int k = 1; k <= 3; ++k) {
            if (ions.frozen(k, i)) continue;
            const double r_now = ions.r_of_t(k, i, 2);
            const double r_before = r_now + dr(k, i);
            const double f = ions.f_of_t(k, i, 2) + noise(k, i);
            const double r_next =
                2.0 * c_fwd * r_now - c_back * c_fwd * r_before + dt2 * c_fwd * m * f;
            ions.r_of_t(k, i, 1) = r_next;
            ions.v_of_t(k, i, 1) = (3.0 * r_next - 4.0 * r_now + r_before) * i_algo.inv_2dt;
        }
    }
}

void ions_move_nose_eom(ions_state_type& ions_state, i_algo_type& i_algo) {
    const double de = ions_state.e_kin - i_algo.target_e_kin;
    if (debug > 1) {
        const double e_nose = 2.0 * i_algo.target_e_kin * i_algo.xi +
                              0.5 * i_algo.q_nose_ions * i_algo.dxi * i_algo.dxi;
        write_fmt(stdout_unit, "(E13.6,4E18.10)",
                  {ions_state.time, i_algo.xi, i_algo.dxi, e_nose, de});
    }
    i_algo.friction = i_algo.dxi;
    i_algo.xi_m2 = i_algo.xi_m1;
    i_algo.xi_m1 = i_algo.xi;
    i_algo.xi = 2.0 * i_algo.xi_m1 - i_algo.xi_m2 + 2.0 * de * i_algo.dt_sq / i_algo.q_nose_ions;
    i_algo.dxi = (3.0 * i_algo.xi - 4.0 * i_algo.xi_m1 + i_algo.xi_m2) * i_algo.inv_2dt;
}

// ---- fixed velocities ------------------------------------------------------------------

void ions_fixvel(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_fixvel";
    const trace_guard trace(proc, mod);
    // Steps first_step .. first_step + n_steps: n_steps moves and n_steps + 1 states,
    // the last of which POSCONT holds.
    run_steps(box, ions_state, i_algo, elec, elec_algo, ham, proc, move_fixed_velocities, nullptr);
}

// ---- hyper dynamics ----------------------------------------------------------------------

double sum_local_energy(const ions_type& ions) {
    double s = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        if (ions.boost(i)) s += ions.e_local(i);
    return s;
}

double calc_fboost_factor(ions_state_type& ions_state, double e_boost, double a_boost,
                          double temperature) {
    const double x = ions_state.e_local_sum - e_boost;
    const double y = a_boost * x;
    const double f = 1.0 / (1.0 + std::exp(-y));
    const double g = std::exp(-y * y * 0.1111111111111111) / a_boost;
    const double dv = (f - 1.0) * x + g;
    ions_state.e_boost = dv;
    ions_state.time_factor = std::exp(dv * k_b_inverse / temperature);
    return f * (1.0 + y * (1.0 - f)) - x * (2.0 * a_boost * a_boost / 9.0) * g;
}

} // namespace lyrt
