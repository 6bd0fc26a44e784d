#include "dynamics/ions_dyn_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/stop_module.hpp"
#include "base/timing_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "dynamics/ipi_driver_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "numerics/fast_module.hpp"
#include "numerics/fitpoly.hpp"
#include "numerics/line_min_module.hpp"
#include "numerics/random_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/output_module.hpp"
#include "system/constants_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "ions_dyn_module";

// The records a loop works on, as the loops receive them: what every step reads
// and changes.
struct ions_run_type {
    box_type& box;
    ions_state_type& ions_state;
    i_algo_type& i_algo;
    elec_state_type* elec; // none for a classical model
    elec_algo_type& elec_algo;
    hamiltonian_type& ham;
};

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

// The Voigt index (0-based: xx yy zz yz xz xy) of strain component (a, b), 1-based.
int voigt(int a, int b) {
    if (a == b) return a - 1;
    const int s = a + b; // 5: yz, 4: xz, 3: xy
    return s == 5 ? 3 : (s == 4 ? 4 : 5);
}

// A new cell a for the box: its image cells and sub-boxes follow.
void set_cell(box_type& box, const farray<double, 2>& a) {
    cell_init_cell(box.cell, a);
    box_init(box, box.r_cut, box.lo_rad);
    box_calc_ic_list(box);
    box_reset(box);
    box_init_sb_list(box);
}

// The ground state, the boost of hyper dynamics, and the forces of the present positions.
void energy_and_forces(ions_run_type& run) {
    auto& [box, ions_state, i_algo, elec, elec_algo, ham] = run;
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

double kinetic_tensor(const ions_type& ions, double kin[3][3]) {
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) kin[a][b] = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double m = ions.mass(ions.type(i));
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b)
                kin[a][b] += m * ions.v_of_t(a + 1, i, 1) * ions.v_of_t(b + 1, i, 1);
    }
    return 0.5 * (kin[0][0] + kin[1][1] + kin[2][2]);
}

// One step of the barostat at the end of an ionic step (velocities complete): the
// cell, the positions and the velocities are strained, r -> mu r, v -> mu^-1 v with
// mu = exp(de), and the ground state and forces are those of the strained system.
// Its energy is computed, not estimated, so that the effective energy charges the
// barostat with exactly the change of E_kin + E_pot + p V it made.
void barostat_step(ions_run_type& run) {
    auto& [box, ions_state, i_algo, elec, elec_algo, ham] = run;
    ions_type& ions = box.ions;
    const int n = ions.total_n_ions;
    const double p_target = i_algo.pressure / ev_per_a3_to_gpa;
    const double v0 = cell_vol(box.cell);
    double kin[3][3];
    const double h0 = ions_state.e_pot + kinetic_tensor(ions, kin) + p_target * v0;
    double p_int[3][3];
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b)
            p_int[a][b] =
                0.5 * (box.cell.sig(a + 1, b + 1) + box.cell.sig(b + 1, a + 1)) + kin[a][b] / v0;
    double de[3][3];
    scr_strain(de, p_int, v0, k_b * i_algo.temperature, i_algo.barostat_steps * i_algo.dt, i_algo);
    // mu = exp(de) to third order (de is of order 1e-3), and its inverse.
    double mu[9], mu_inv[9]; // column-major
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) {
            double d2 = 0.0, d3 = 0.0;
            for (int c = 0; c < 3; ++c) d2 += de[a][c] * de[c][b];
            for (int c = 0; c < 3; ++c)
                for (int e = 0; e < 3; ++e) d3 += de[a][c] * de[c][e] * de[e][b];
            mu[a + 3 * b] = (a == b ? 1.0 : 0.0) + de[a][b] + d2 / 2.0 + d3 / 6.0;
        }
    cell_calc_reciprocal(mu, mu_inv);
    auto apply = [](const double* m, double* x) {
        const double y[3] = {x[0], x[1], x[2]};
        for (int a = 0; a < 3; ++a) x[a] = m[a] * y[0] + m[a + 3] * y[1] + m[a + 6] * y[2];
    };
    for (int i = 1; i <= n; ++i) {
        apply(mu, &ions.r_of_t(1, i, 1));
        apply(mu_inv, &ions.v_of_t(1, i, 1));
        for (int k = 1; k <= 3; ++k)
            if (ions.frozen(k, i)) ions.v_of_t(k, i, 1) = 0.0;
    }
    farray<double, 2> a;
    a.allocate({1, 1}, {3, 3});
    for (int j = 1; j <= 3; ++j) {
        double col[3] = {box.cell.a(1, j), box.cell.a(2, j), box.cell.a(3, j)};
        apply(mu, col);
        for (int i = 1; i <= 3; ++i) a(i, j) = col[i - 1];
    }
    set_cell(box, a);
    refresh_lists(box);
    energy_and_forces(run);
    const double h1 = ions_state.e_pot + kinetic_tensor(ions, kin) + p_target * cell_vol(box.cell);
    i_algo.e_barostat -= h1 - h0;
}

// The step's report; the report routine reads the step's seconds for its progress line.
void report_step(ions_run_type& run, double step_start) {
    auto& [box, ions_state, i_algo, elec, elec_algo, ham] = run;
    ions_calc_energies(ions_state, i_algo);
    ions_state.step_seconds = timeofday() - step_start;
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

// Whether a loop must end early after this step (a signal, or the wall-time limit);
// if so, says why on the error report, the report and standard output.
bool end_early(ions_state_type& ions_state, const i_algo_type& i_algo, double loop_start,
               int steps_done) {
    int request = stop_check(timeofday(), loop_start, steps_done, i_algo.max_wall_time);
    // All processes of a distributed run end at the same step: a signal or the clock
    // seen by one is acted on by all (the larger code wins).
    gmax_int(request);
    if (request == stop_none) return false;
    ions_state.interrupted = request;
    const std::string why = stop_reason(request) + " at the end of step " +
                            std::to_string(ions_state.step) +
                            "; POSCONT holds this state (copy it to POSLYRT and set start = 1 "
                            "to continue)";
    warning_error(why, "ions_main_loop", mod);
    if (i_am_master) {
        unit_write(report_unit, "");
        unit_write(report_unit, " *** " + why + " ***");
    }
    unit_write(stdout_unit, " WARNING: " + why);
    std::fflush(stdout);
    return true;
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
void run_steps(ions_run_type run, const char* proc, int mover, md_work_type* work) {
    auto& [box, ions_state, i_algo, elec, elec_algo, ham] = run;
    const double loop_start = timeofday();
    ions_type& ions = box.ions;
    ions_state.first_step = ions_state.step;
    const int last_step = ions_state.step + i_algo.n_steps;
    elec_algo.algo = elec_algo.gs;
    for (;;) {
        const double step_start = timeofday();
        refresh_lists(box);
        energy_and_forces(run);
        const bool first = ions_state.step == ions_state.first_step;
        if (first) elec_algo.algo = elec_algo.md;
        if (mover == move_velocity_verlet && !first) {
            calc_velocities_vv(ions, i_algo);
            if (i_algo.thermostat == thermostat_csvr) {
                double k_now = 0.0;
                for (int i = 1; i <= ions.total_n_ions; ++i)
                    for (int k = 1; k <= 3; ++k)
                        if (!ions.frozen(k, i))
                            k_now += 0.5 * ions.mass(ions.type(i)) * ions.v_of_t(k, i, 1) *
                                     ions.v_of_t(k, i, 1);
                const double alpha = csvr_factor(k_now, ions, i_algo);
                for (int i = 1; i <= ions.total_n_ions; ++i)
                    for (int k = 1; k <= 3; ++k)
                        if (!ions.frozen(k, i)) ions.v_of_t(k, i, 1) *= alpha;
            }
            // The barostat every barostat_steps steps of the run's count, so that a
            // continued run keeps the rhythm of the uninterrupted one.
            if (i_algo.barostat != barostat_none && ions_state.step % i_algo.barostat_steps == 0)
                barostat_step(run);
        }
        report_step(run, step_start);
        if (ions_state.step >= last_step) break;
        if (end_early(ions_state, i_algo, loop_start, ions_state.step - ions_state.first_step + 1))
            break;
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
    if ((i_algo.save_to_file & save_dos) != 0) save_dos_file(box, elec, elec_algo, ham);
    ions_calc_energies(ions_state, i_algo);
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
}

void ions_main_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                    elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const trace_guard trace("ions_main_loop", mod);
    if (i_algo.driver_ipi) {
        // The points come from the server, whatever the run type says.
        ions_state.final_call = 0;
        ions_state.skip_save = 0;
        ions_state.interrupted = stop_none;
        ions_ipi_loop(box, ions_state, i_algo, elec, elec_algo, ham);
        ions_state.final_call = -1;
        print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
        return;
    }
    if (i_algo.n_steps <= 0) {
        ions_static(box, ions_state, i_algo, elec, elec_algo, ham);
        return;
    }
    ions_state.final_call = 0;
    ions_state.skip_save = -1;
    ions_state.interrupted = stop_none;
    switch (i_algo.algo) {
    case ions_algo_md:
        if (i_algo.eom_algo == eom_verlet)
            ions_md_loop_sverlet(box, ions_state, i_algo, elec, elec_algo, ham);
        else if (i_algo.eom_algo == eom_velocity_verlet)
            ions_md_loop_vverlet(box, ions_state, i_algo, elec, elec_algo, ham);
        break;
    case ions_algo_fixed_vel: ions_fixvel(box, ions_state, i_algo, elec, elec_algo, ham); break;
    case ions_algo_test_forces:
        ions_test_forces(box, ions_state, i_algo, elec, elec_algo, ham);
        break;
    case ions_algo_test_stress:
        ions_test_stress(box, ions_state, i_algo, elec, elec_algo, ham);
        break;
    case ions_algo_cg_relax: ions_cg_loop(box, ions_state, i_algo, elec, elec_algo, ham); break;
    default: break; // ions_algo_sd_relax: no motion, the final report shows the state read in
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
    run_steps({box, ions_state, i_algo, elec, elec_algo, ham}, proc, move_velocity_verlet, nullptr);
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
    run_steps({box, ions_state, i_algo, elec, elec_algo, ham}, proc, move_position_verlet, &work);
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
    if (i_algo.thermostat == thermostat_csvr) {
        // The half-step velocities -dr / dt rescaled: their kinetic energy, the factor
        // on the last displacement.
        double k_half = 0.0;
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= 3; ++k)
                if (!ions.frozen(k, i))
                    k_half += 0.5 * ions.mass(ions.type(i)) * dr(k, i) * dr(k, i) / dt2;
        const double alpha = csvr_factor(k_half, ions, i_algo);
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= 3; ++k) dr(k, i) *= alpha;
    }
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

void scr_strain(double de[3][3], const double p_int[3][3], double volume, double kt, double t_step,
                const i_algo_type& i_algo) {
    const double beta = i_algo.compressibility * ev_per_a3_to_gpa; // Angstrom^3 / eV
    const double p_target = i_algo.pressure / ev_per_a3_to_gpa;
    const double rate = beta / i_algo.tau_p * t_step;
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) de[a][b] = 0.0;
    if (i_algo.barostat == barostat_isotropic) {
        const double p = (p_int[0][0] + p_int[1][1] + p_int[2][2]) / 3.0;
        const double d_ln_v =
            rate * (p - p_target) + std::sqrt(2.0 * kt * rate / volume) * random_norm();
        for (int a = 0; a < 3; ++a) de[a][a] = d_ln_v / 3.0;
        return;
    }
    // Each strain a Langevin coordinate of mobility beta / (3 V tau_p): the diagonal
    // ones driven by V (P_aa - p), the shears (whose strain appears twice in the work)
    // with half that mobility by V P_ab; their traces add up to the isotropic step.
    const double noise = std::sqrt(2.0 * kt * rate / (3.0 * volume));
    for (int a = 0; a < 3; ++a)
        for (int b = a; b < 3; ++b) {
            const double r = random_norm();
            double d = 0.0;
            if (a == b)
                d = rate / 3.0 * (p_int[a][a] - p_target) + noise * r;
            else
                d = rate / 3.0 * p_int[a][b] + noise * r / std::sqrt(2.0);
            if (!i_algo.cell_free[voigt(a + 1, b + 1)]) d = 0.0;
            de[a][b] = de[b][a] = d;
        }
}

double csvr_kinetic(double k, double k_target, int nf, double c, double r1, double sum_r2) {
    return k + (1.0 - c) * (k_target * (r1 * r1 + sum_r2) / nf - k) +
           2.0 * r1 * std::sqrt(c * (1.0 - c) * k_target * k / nf);
}

double csvr_factor(double k, const ions_type& ions, i_algo_type& i_algo) {
    const int nf = ions.dof;
    if (nf <= 0 || !(k > 0.0)) return 1.0;
    const double k_target = i_algo.temperature * nf / two_k_b_inverse;
    const double c = std::exp(-i_algo.dt / i_algo.tau_t);
    const double r1 = random_norm();
    double sum_r2 = 0.0;
    for (int i = 1; i < nf; ++i) {
        const double r = random_norm();
        sum_r2 += r * r;
    }
    const double k_new = std::max(0.0, csvr_kinetic(k, k_target, nf, c, r1, sum_r2));
    double alpha = std::sqrt(k_new / k);
    // The root's sign: a rescaling that passes through zero reverses the velocities.
    if (r1 + std::sqrt(c * nf * k / ((1.0 - c) * k_target)) < 0.0) alpha = -alpha;
    i_algo.e_thermostat -= k_new - k;
    return alpha;
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
    run_steps({box, ions_state, i_algo, elec, elec_algo, ham}, proc, move_fixed_velocities,
              nullptr);
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

// ---- force and stress tests --------------------------------------------------------------

namespace {

constexpr double chi_pass = 9.999999974752427e-07;  // single-precision 1e-6
constexpr double chi_fail = 0.0010000000474974513;  // single-precision 1e-3
constexpr double fit_limit = 9.999999974752427e-07; // largest chi-square of a usable fit

// One evaluation of a self-test: lists, ground state, forces, energies and the
// status report of the step.
void test_evaluation(ions_run_type run) {
    const double start = timeofday();
    refresh_lists(run.box);
    energy_and_forces(run);
    run.elec_algo.algo = run.elec_algo.md;
    report_step(run, start);
    run.ions_state.step += 1;
}

// The log of a self-test: its title between rules of sixty equals signs.
int open_test_log(const char* file, const char* title) {
    const int unit = next_free_unit();
    if (i_am_master) {
        unit_open(unit, file, "replace");
        write_fmt(unit, "(60(\"=\"))", {});
        write_fmt(unit, "(15(\"=\"),A,15(\"=\"))", {title});
        write_fmt(unit, "(60(\"=\"))", {});
    }
    return unit;
}

void write_verdict(int unit, double chi) {
    if (!i_am_master) return;
    write_fmt(unit, "(A,E16.8)", {" Overall CHI SQUARED = ", chi});
    if (chi > chi_fail)
        unit_write(unit, " Test FAILED ");
    else if (chi > chi_pass)
        unit_write(unit, " Test OK, check Chi^2 for each atom ");
    else
        unit_write(unit, " Test PASSED ");
    unit_close(unit);
}

// Cell (1 + e) a0 and positions (1 + e) r0, with the image cells and lists that
// the new cell needs.
void apply_strain(box_type& box, const farray<double, 2>& a0, const farray<double, 2>& r0,
                  const double e[3][3]) {
    farray<double, 2> a;
    a.allocate({1, 1}, {3, 3});
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) {
            a(i, j) = a0(i, j);
            for (int k = 1; k <= 3; ++k) a(i, j) += e[i - 1][k - 1] * a0(k, j);
        }
    cell_init_cell(box.cell, a);
    ions_type& ions = box.ions;
    for (int n = 1; n <= ions.total_n_ions; ++n)
        for (int i = 1; i <= 3; ++i) {
            ions.r(i, n) = r0(i, n);
            for (int k = 1; k <= 3; ++k) ions.r(i, n) += e[i - 1][k - 1] * r0(k, n);
        }
    box_init(box, box.r_cut, box.lo_rad);
    box_calc_ic_list(box);
    box_reset(box);
    box_init_sb_list(box);
}

} // namespace

void ions_test_forces(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                      elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_test_forces";
    const trace_guard trace(proc, mod);
    const int n_points = i_algo.n_steps;
    // A fit of degree 4 through fewer than six points has no freedom left to judge.
    if (n_points < 6)
        fatal_error("the force test needs n_steps of 6 or more (points per direction)", n_points,
                    proc, mod);
    ions_type& ions = box.ions;
    const int unit = open_test_log("test_forces.log", "    TEST OF ATOMIC FORCES     ");
    elec_algo.algo = elec_algo.gs;
    std::vector<double> x(static_cast<std::size_t>(n_points)), e(x.size()), f(x.size());
    std::vector<double> c, d1, d2;
    double chi_all = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double start[3] = {ions.r(1, i), ions.r(2, i), ions.r(3, i)};
        for (int d = 1; d <= 3; ++d) {
            if (i_am_master)
                write_fmt(unit, "(A,I1,A,I4,A)", {"--- Testing dE/dR_", d, " for atom ", i, "---"});
            for (int s = 0; s < n_points; ++s) {
                test_evaluation({box, ions_state, i_algo, elec, elec_algo, ham});
                // Signed distance from the start along d, through the minimum image.
                double v[3];
                pbc_min_vec(v, box, start, &ions.r(1, i));
                const double dist = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
                x[static_cast<std::size_t>(s)] = v[d - 1] < 0.0 ? -dist : dist;
                e[static_cast<std::size_t>(s)] = ions_state.e_pot;
                f[static_cast<std::size_t>(s)] = ions.f(d, i);
                ions.r(d, i) += i_algo.dt;
            }
            const double chi2 = fitpoly(n_points, x.data(), e.data(), 4, c, d1, d2);
            if (chi2 > fit_limit) plain_stop("fit too poor, reduce dt");
            double chi = 0.0;
            if (i_am_master) {
                write_fmt(unit, "(4(A14,4X))", {"X", "E", "dE/dX", "error"});
                unit_write(unit, std::string(76, '-'));
            }
            for (int s = 0; s < n_points; ++s) {
                const auto us = static_cast<std::size_t>(s);
                const double slope = evalpoly(x[us], d1);
                const double err = slope + f[us];
                chi += err * err;
                if (i_am_master) write_fmt(unit, "(4(E16.8,2X))", {x[us], e[us], slope, err});
            }
            chi /= n_points;
            if (i_am_master)
                write_fmt(unit, "(A,I1,A,I3,A,E16.8)", {"dE/dR_", d, " ion ", i, " Chi^2 = ", chi});
            chi_all += chi;
            // Back to the start before the next direction.
            for (int k = 1; k <= 3; ++k) ions.r(k, i) = start[k - 1];
        }
    }
    chi_all /= 3.0 * ions.total_n_ions;
    write_verdict(unit, chi_all);
}

void ions_test_stress(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                      elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_test_stress";
    const trace_guard trace(proc, mod);
    ions_type& ions = box.ions;
    const int n = i_algo.n_steps, n_points = 2 * n + 1;
    // The test compares the stress: it is computed whatever the input said.
    const bool stress_asked = i_algo.calc_stress;
    i_algo.calc_stress = true;
    const int unit = open_test_log("test_stress.log", "    TEST OF STRESS CALCULATION     ");
    elec_algo.algo = elec_algo.gs;
    const farray<double, 2> a0 = box.cell.a.copy(), r0 = ions.r.copy();
    const int comp[7][2] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {1, 2}, {1, 3}, {2, 3}};
    std::vector<double> x(static_cast<std::size_t>(n_points)), e(x.size()), ref(x.size());
    std::vector<double> c, d1, d2, uniform;
    double dev_all = 0.0;
    for (int p = 0; p <= 6; ++p) {
        const int ci = comp[p][0], cj = comp[p][1];
        for (int s = -n; s <= n; ++s) {
            const auto us = static_cast<std::size_t>(s + n);
            const double xs = s * i_algo.dt;
            double eps[3][3] = {};
            if (p == 0) {
                for (int k = 0; k < 3; ++k) eps[k][k] = xs / 3.0;
            } else if (ci == cj) {
                for (int k = 0; k < 3; ++k) eps[k][k] = -xs / 3.0;
                eps[ci - 1][ci - 1] = 2.0 * xs / 3.0;
            } else {
                eps[ci - 1][cj - 1] = eps[cj - 1][ci - 1] = xs;
            }
            apply_strain(box, a0, r0, eps);
            test_evaluation({box, ions_state, i_algo, elec, elec_algo, ham});
            const farray<double, 2>& sig = box.cell.sig;
            const double vol = cell_vol(box.cell);
            x[us] = xs;
            if (p == 0) {
                e[us] = ions_state.e_pot;
                ref[us] = (sig(1, 1) + sig(2, 2) + sig(3, 3)) * vol / 3.0;
            } else if (ci == cj) {
                // The uniform part of the deviatoric strain comes back through the cubic
                // of pass 0: the slope is then -V sig(i, i).
                e[us] = ions_state.e_pot + evalpoly(xs, uniform);
                ref[us] = sig(ci, ci) * vol;
            } else {
                // e(i,j) = e(j,i) = x: dE/dx = -2 V sig(i, j).
                e[us] = ions_state.e_pot;
                ref[us] = 2.0 * sig(ci, cj) * vol;
            }
        }
        const double chi2 = fitpoly(n_points, x.data(), e.data(), 3, c, d1, d2);
        if (chi2 > fit_limit) plain_stop("fit too poor, reduce dt");
        if (p == 0) {
            // The uniform strain's energy, less its value at zero strain.
            uniform = c;
            uniform[0] = 0.0;
        }
        if (i_am_master) {
            write_fmt(unit, "(A,I1,A,I1,A)", {"--- Testing dE/de_", ci, "", cj, "---"});
            for (int s = 0; s < n_points; ++s) {
                const auto us = static_cast<std::size_t>(s);
                write_fmt(unit, "(4(E16.8,2X))",
                          {x[us], e[us], evalpoly(x[us], d1), evalpoly(x[us], c) - e[us]});
            }
            unit_write(unit, std::string(76, '-'));
        }
        const double deviation = std::fabs(evalpoly(0.0, d1) + ref[static_cast<std::size_t>(n)]);
        if (i_am_master) write_fmt(unit, "(A,E16.8)", {"deviation at x=0 : ", deviation});
        dev_all += deviation;
    }
    dev_all *= 0.16666666666666666;
    write_verdict(unit, dev_all);
    // Back to the cell and positions of the start.
    const double none[3][3] = {};
    apply_strain(box, a0, r0, none);
    i_algo.calc_stress = stress_asked;
}

// ---- conjugate-gradient relaxation ----------------------------------------------------

namespace {

constexpr double step_limit = 0.20000000298023224;   // Angstrom, single-precision 0.2
constexpr double lambda_tol = 9.999999960041972e-13; // single-precision 1e-12
constexpr int max_trials = 5;

// The state of a relaxation that its steps and line searches share.
// With the cell relaxing, columns n + 1 .. n + 3 of h, g, g_old hold the cell's
// coordinates: the strain of the line's start cell a0 times the length L (the cube
// root of the first volume), so that a step moves cell and ions alike; their
// forces are V (sigma - p I) / L, the strain derivative of the enthalpy E + p V.
struct cg_type {
    ions_run_type run;
    farray<double, 2> h, frz, g, g_old, r0;
    farray<double, 2> a0;  // cell at the start of the line (cell relaxation)
    int n_cell = 0;        // 3 when the cell relaxes, else 0
    double length = 1.0;   // L, Angstrom
    double p_target = 0.0; // eV/Angstrom^3
};

double largest_abs(const farray<double, 2>& a) {
    double m = 0.0;
    for (double v : a) m = std::max(m, std::fabs(v));
    return m;
}

// The energy at the present positions; with forces in view (mode F) the
// eigenvectors are computed too.
double calc_ene(cg_type& cg, char mode) {
    auto& [box, ions_state, i_algo, elec, elec_algo, ham] = cg.run;
    if (debug > 1) {
        int i, j;
        double d;
        pbc_min_dist_pair(box, i, j, d);
        write_free(stdout_unit, {"MIN DIST=", d});
    }
    const bool saved = elec_algo.eigen_vect;
    elec_algo.eigen_vect = ham.tb_model->classical || mode == 'f' || mode == 'F';
    refresh_lists(box);
    gs_calc(box, ions_state, electrons_or_none(elec), elec_algo, ham, i_algo.calc_elocal);
    elec_algo.eigen_vect = saved;
    ions_calc_energies(ions_state, i_algo);
    // With the cell relaxing, the enthalpy at the target pressure.
    if (cg.n_cell > 0) return ions_state.e_pot + cg.p_target * cell_vol(box.cell);
    return ions_state.e_pot;
}

// Caps a step so that no coordinate moves by more than 0.2 Angstrom.
void check_lambda(double& lambda, double h_max) {
    if (h_max * lambda > step_limit) {
        if (debug > 1)
            write_free(stdout_unit,
                       {"lambda_trial =", lambda, "Trial step too large ... rescaling"});
        lambda = step_limit / h_max;
    }
}

// Positions r0 + lambda h; with the cell relaxing, the cell (I + e) a0 and the
// positions strained with it, e = lambda h_cell / L.
void move_along(cg_type& cg, double lambda) {
    box_type& box = cg.run.box;
    farray<double, 2>& r = box.ions.r;
    const int n = box.ions.total_n_ions;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= 3; ++k) r(k, i) = cg.r0(k, i) + lambda * cg.h(k, i);
    if (cg.n_cell == 0) return;
    double e[3][3];
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) e[a][b] = lambda * cg.h(a + 1, n + 1 + b) / cg.length;
    farray<double, 2> a;
    a.allocate({1, 1}, {3, 3});
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) {
            a(i, j) = cg.a0(i, j);
            for (int k = 1; k <= 3; ++k) a(i, j) += e[i - 1][k - 1] * cg.a0(k, j);
        }
    for (int i = 1; i <= n; ++i) {
        const double x[3] = {r(1, i), r(2, i), r(3, i)};
        for (int k = 1; k <= 3; ++k)
            r(k, i) = x[k - 1] + e[k - 1][0] * x[0] + e[k - 1][1] * x[1] + e[k - 1][2] * x[2];
    }
    set_cell(box, a);
}

void say(const fitem_list& items) {
    if (i_am_master) write_free(stdout_unit, items);
}

// The energy at r0 + lambda h (the function of the bracket-and-golden search).
double func(cg_type& cg, double lambda) {
    move_along(cg, lambda);
    const double e = calc_ene(cg, 'E');
    say({" e=", e, "l=", lambda});
    return e;
}

// A bracket of the minimum along h from 0 and lambda, as three abscissas.
void cg_mnbrak(cg_type& cg, double& ax, double& bx, double& cx, double& fa, double& fb,
               double& fc) {
    mnbrak(ax, bx, cx, fa, fb, fc, [&](double l) { return func(cg, l); });
}

double cg_golden(cg_type& cg, double ax, double bx, double cx, double tol, double& x_min) {
    return golden(
        ax, bx, cx, [&](double l) { return func(cg, l); }, tol, x_min);
}

} // namespace

namespace {

// The search direction of a step: conjugate to the last (Polak-Ribiere) unless a
// restart or a poor line search asks for steepest descent, and downhill always.
// Returns the slope of the energy along it; g2 is |g|^2 of the present forces.
// The conjugation factor is 1 - <g|g_old> / |g|^2: the present norm in the
// denominator, where the textbook Polak-Ribiere form has the last one.
double cg_direction(cg_type& cg, double g2, bool steepest) {
    const int n = cg.run.box.ions.total_n_ions + cg.n_cell;
    double gamma = 0.0;
    if (!steepest) gamma = (g2 - trace_ab_mat(cg.g, cg.g_old)) / g2;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= 3; ++k) cg.h(k, i) = cg.g(k, i) + gamma * cg.h(k, i);
    double de_dl = -trace_ab_mat(cg.g, cg.h);
    if (de_dl > 0.0) {
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= 3; ++k) cg.h(k, i) = cg.g(k, i);
        de_dl = -g2;
    }
    if (debug > 0) say({"gamma=", gamma, "delta_e_pot =", std::pow(largest_abs(cg.g), 2)});
    return de_dl;
}

// The line search along h from r0 (energy e_pot_0, slope de_dl): the minimum of
// the parabola through the start and a trial point, the trial moved out or in
// until the energy falls, at most max_trials trials. Leaves the ions at the
// point taken, with its ground state and eigenvectors, and returns its energy.
double cg_line_search(cg_type& cg, double e_pot_0, double de_dl) {
    const char* proc = "ions_cg_loop";
    const double h_max = largest_abs(cg.h);
    double lambda_trial = -2.0 * h_max * h_max / de_dl;
    std::vector<double> e_hist{e_pot_0}, lambda_hist{0.0};
    double e_pot = e_pot_0;
    // The lowest trial point, after max_trials trials that did not settle the line.
    auto take_lowest = [&](bool check, const char* wording) {
        std::size_t best = 1;
        for (std::size_t k = 2; k < e_hist.size(); ++k)
            if (e_hist[k] < e_hist[best]) best = k;
        const double e_min_estim = e_hist[best];
        if (e_hist[0] < e_min_estim) fatal_error("CG min for ions failed", -1, proc, mod);
        lambda_trial = lambda_hist[best];
        move_along(cg, lambda_trial);
        e_pot = calc_ene(cg, 'F');
        say({wording, lambda_trial, ")=", e_pot});
        // Energies with and without eigenvectors differ by rounding alone.
        if (check && std::fabs(e_min_estim - e_pot) > lambda_tol * std::max(1.0, std::fabs(e_pot)))
            fatal_error("Lambda", -1, proc, mod);
        return e_pot;
    };
    for (int n_trial = 1;; ++n_trial) {
        check_lambda(lambda_trial, h_max);
        say({"de_dl       =", de_dl, "lambda_trial =", lambda_trial});
        move_along(cg, lambda_trial);
        const double e_pot_1 = calc_ene(cg, 'E');
        lambda_hist.push_back(lambda_trial);
        e_hist.push_back(e_pot_1);
        double lambda_min = 0.0, e_min_estim = 0.0;
        std::array<double, 3> c{};
        min_quadratic_two_pts(0.0, lambda_trial, e_pot_0, e_pot_1, de_dl, lambda_min, e_min_estim,
                              c);
        say({"lambda_min  =", lambda_min});
        say({"e(0)        =", e_pot_0});
        say({"e(trial)    =", e_pot_1});
        say({"e(min_estim)=", e_min_estim});
        if (lambda_min <= 0.0) {
            if (n_trial >= max_trials) return take_lowest(false, "taknig the lowest energy e(l=");
            lambda_trial *= 2.0;
            say({"increasing lambda, new trial"});
            continue;
        }
        check_lambda(lambda_min, h_max);
        move_along(cg, lambda_min);
        e_pot = calc_ene(cg, 'F');
        say({"e(min_real) =", e_pot});
        if (e_pot_1 < e_pot_0) {
            say({"e_pot_0=", e_pot_0, " > e_pot_1=", e_pot_1});
            say({lambda_trial >= lambda_min ? " interpolation" : " extrapolation"});
            if (e_pot < e_pot_1) {
                say({"e_pot_1 > e_pot=", e_pot});
            } else {
                move_along(cg, lambda_trial);
                e_pot = calc_ene(cg, 'F');
                say({"accept the trial step, e_pot=", e_pot});
            }
            return e_pot;
        }
        say({"e_pot_0 < e_pot_1", e_pot_0, e_pot_1});
        if (lambda_trial >= lambda_min) {
            say({" interpolation"});
            if (e_pot < e_pot_0) {
                say({"e_pot_0 > e_pot=", e_pot});
                return e_pot;
            }
            lambda_trial = 0.5 * lambda_min;
            if (n_trial >= max_trials) return take_lowest(true, "taking the lowest energy e(l=");
        } else {
            say({" extrapolation (shouldn't occur)"});
            warning_error("Extrapolation with E(0) < E(trial lambda) !", proc, mod);
            if (e_pot < e_pot_1) {
                say({"e_pot_1 > e_pot=", e_pot, "(that's all we ask)."});
                return e_pot;
            }
            lambda_trial *= 0.5;
            if (n_trial >= max_trials) return take_lowest(false, "taking the lowest energy e(l=");
        }
        say({"decreasing lambda, new trial"});
    }
}

// The forces at the point taken, masked by the frozen coordinates; returns |g|^2.
double cg_forces(cg_type& cg) {
    ions_run_type& run = cg.run;
    forces_calc(run.ham, run.box.ions, run.box, run.i_algo, electrons_or_none(run.elec),
                run.elec_algo);
    const ions_type& ions = run.box.ions;
    const int n = ions.total_n_ions;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= 3; ++k) cg.g(k, i) = ions.f(k, i) * cg.frz(k, i);
    if (cg.n_cell > 0) {
        // V (sigma - p I) / L, symmetric; a uniform strain keeps its trace alone.
        const cell_type& c = run.box.cell;
        const double f = cell_vol(c) / cg.length;
        const double mean = (c.sig(1, 1) + c.sig(2, 2) + c.sig(3, 3)) / 3.0;
        for (int a = 1; a <= 3; ++a)
            for (int b = 1; b <= 3; ++b) {
                double s = 0.5 * (c.sig(a, b) + c.sig(b, a)) - (a == b ? cg.p_target : 0.0);
                if (run.i_algo.relax_cell == relax_cell_volume)
                    s = a == b ? mean - cg.p_target : 0.0;
                else if (!run.i_algo.cell_free[voigt(a, b)])
                    s = 0.0;
                cg.g(a, n + b) = f * s;
            }
    }
    return trace_ab_mat(cg.g, cg.g);
}

// The largest deviation of the stress from the target pressure, GPa (the part a
// uniform strain relaxes: the mean, with relax_cell = volume).
double stress_deviation(const cg_type& cg) {
    const cell_type& c = cg.run.box.cell;
    double d = 0.0;
    if (cg.run.i_algo.relax_cell == relax_cell_volume)
        d = std::fabs((c.sig(1, 1) + c.sig(2, 2) + c.sig(3, 3)) / 3.0 - cg.p_target);
    else
        for (int a = 1; a <= 3; ++a)
            for (int b = 1; b <= 3; ++b)
                if (cg.run.i_algo.cell_free[voigt(a, b)])
                    d = std::max(d, std::fabs(c.sig(a, b) - (a == b ? cg.p_target : 0.0)));
    return d * ev_per_a3_to_gpa;
}

// Whether the relaxation ends after this step: the step count, the energy change
// or the largest free force below its tolerance.
bool cg_done(const cg_type& cg, double delta_e_pot, int last_step) {
    const i_algo_type& i_algo = cg.run.i_algo;
    bool done = false;
    if (cg.run.ions_state.step + 1 >= last_step) {
        say({"Maximum # of steps reached"});
        done = true;
    }
    if (i_algo.delta_e > std::fabs(delta_e_pot)) {
        say({"Energy tolerance reached"});
        done = true;
    }
    // The ions' forces; with the cell relaxing, its stress as well.
    double f_max = 0.0;
    const int n = cg.run.box.ions.total_n_ions;
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= 3; ++k) f_max = std::max(f_max, std::fabs(cg.g(k, i)));
    if (i_algo.max_force > f_max &&
        (cg.n_cell == 0 || stress_deviation(cg) < i_algo.cell_max_stress)) {
        say({cg.n_cell == 0 ? "Force tolerance reached" : "Force and stress tolerances reached"});
        done = true;
    }
    return done;
}

} // namespace

void ions_cg_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                  elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_cg_loop";
    const trace_guard trace(proc, mod);
    ions_type& ions = box.ions;
    const int n = ions.total_n_ions;
    // A relaxation with nothing free has no direction to go (and would divide by 0).
    if (ions.dof == 0)
        fatal_error("every coordinate is frozen: there is nothing to relax", 0, proc, mod);
    cg_type cg{{box, ions_state, i_algo, elec, elec_algo, ham}, {}, {}, {}, {}, {}, {}};
    if (i_algo.relax_cell != relax_cell_none) {
        cg.n_cell = 3;
        cg.length = std::cbrt(cell_vol(box.cell));
        cg.p_target = i_algo.pressure / ev_per_a3_to_gpa;
        cg.a0 = box.cell.a.copy();
    }
    const int nc = n + cg.n_cell;
    ca_real_2d(cg.h, 1, 3, 1, nc, "h", proc, mod);
    ca_real_2d(cg.frz, 1, 3, 1, n, "frz", proc, mod);
    ca_real_2d(cg.g, 1, 3, 1, nc, "g", proc, mod);
    ca_real_2d(cg.g_old, 1, 3, 1, nc, "g_old", proc, mod);
    ca_real_2d(cg.r0, 1, 3, 1, n, "r0", proc, mod);
    for (int i = 1; i <= n; ++i)
        for (int k = 1; k <= 3; ++k) cg.frz(k, i) = ions.frozen(k, i) ? 0.0 : 1.0;
    ions_state.first_step = ions_state.step;
    const int last_step = ions_state.first_step + i_algo.n_steps;
    const double loop_start = timeofday();
    elec_algo.algo = elec_algo.gs;
    double e_pot = calc_ene(cg, 'F');
    double g2 = cg_forces(cg);
    ions_state.step_seconds = 0.0;
    print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
    elec_algo.algo = elec_algo.md;
    bool force_sd = false;
    for (;;) {
        const double step_start = timeofday();
        const bool restart =
            i_algo.cg_restart_freq > 0 && ions_state.step % i_algo.cg_restart_freq == 0;
        const bool steepest = ions_state.step <= ions_state.first_step + 1 || restart || force_sd;
        const double de_dl = cg_direction(cg, g2, steepest);
        const double e_pot_0 = e_pot;
        for (int i = 1; i <= n; ++i)
            for (int k = 1; k <= 3; ++k) cg.r0(k, i) = ions.r(k, i);
        for (int i = 1; i <= nc; ++i)
            for (int k = 1; k <= 3; ++k) cg.g_old(k, i) = cg.g(k, i);
        if (cg.n_cell > 0) cg.a0 = box.cell.a.copy();
        e_pot = cg_line_search(cg, e_pot_0, de_dl);
        g2 = cg_forces(cg);
        const double overlap = g2 > 0.0 ? trace_ab_mat(cg.g, cg.h) / std::sqrt(g2) : 0.0;
        say({"<h_old|g_new> = ", overlap, "(should very small)"});
        force_sd = std::fabs(overlap) > 0.1;
        if (force_sd) say({"Line min too poor, doing SD next step."});
        const double delta_e_pot = e_pot_0 - e_pot;
        if (delta_e_pot < 0.0 && std::fabs(delta_e_pot) > 1e-10)
            fatal_error("dE < 0.0 ! CG min for ions failed", -1, proc, mod);
        const bool done = cg_done(cg, delta_e_pot, last_step);
        ions_state.step += 1;
        ions_state.step_seconds = timeofday() - step_start;
        if (done) break;
        print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model, report_unit);
        if (end_early(ions_state, i_algo, loop_start, ions_state.step - ions_state.first_step))
            break;
    }
    cd_real_2d(cg.h, "h", proc, mod);
    cd_real_2d(cg.frz, "frz", proc, mod);
    cd_real_2d(cg.g, "g", proc, mod);
    cd_real_2d(cg.g_old, "g_old", proc, mod);
    cd_real_2d(cg.r0, "r0", proc, mod);
}

double line_min(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham,
                const farray<double, 2>& r0, const farray<double, 2>& h, double lambda_trial,
                double tol) {
    cg_type cg{
        {box, ions_state, i_algo, elec, elec_algo, ham}, h.copy(), {}, {}, {}, r0.copy(), {}};
    double ax = 0.0, bx = lambda_trial, cx = 0.0, fa = 0.0, fb = 0.0, fc = 0.0;
    cg_mnbrak(cg, ax, bx, cx, fa, fb, fc);
    double x_min = bx;
    cg_golden(cg, ax, bx, cx, tol, x_min);
    move_along(cg, x_min);
    calc_ene(cg, 'F');
    return x_min;
}

} // namespace lyrt
