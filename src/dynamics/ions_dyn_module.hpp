// What a run does with the ions once the electronic system is set up.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "system/box_module.hpp"

namespace lyrt {

void ions_main_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                    elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
// One ground state, forces if asked for, one report.
void ions_static(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
// Moves the ions along their given velocities (no forces act on the motion).
void ions_fixvel(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                 elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);

// Molecular dynamics by velocity Verlet (history depth 2), plain or Langevin.
void ions_md_loop_vverlet(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                          elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
// Positions at t + dt from r, v, f at t (slot 2 after the roll).
void move_eom_vv(ions_type& ions, box_type& box, i_algo_type& i_algo);
// Velocities at t + dt from the forces at t and t + dt.
void calc_velocities_vv(ions_type& ions, const i_algo_type& i_algo);

// Molecular dynamics by position Verlet (history depth 3), with friction,
// Nose-Hoover or Langevin thermostats.
void ions_md_loop_sverlet(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                          elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
// One step; dr and noise are work arrays of 3 x ions (minimum-image step back,
// Langevin force noise).
void move_eom_sv(bool first_step, ions_type& ions, box_type& box, ions_state_type& ions_state,
                 i_algo_type& i_algo, farray<double, 2>& dr, farray<double, 2>& noise);
// The Nose-Hoover thermostat: friction takes the rate at t, then xi and its rate advance.
void ions_move_nose_eom(ions_state_type& ions_state, i_algo_type& i_algo);
// Canonical sampling through velocity rescaling (Bussi, Donadio and Parrinello, J. Chem.
// Phys. 126, 014101 (2007)): the kinetic energy k of nf degrees of freedom after one
// step of the thermostat towards k_target, with c = exp(-dt / tau_t), r1 a normal
// draw and sum_r2 the sum of nf - 1 squared normal draws.
double csvr_kinetic(double k, double k_target, int nf, double c, double r1, double sum_r2);
// The factor on the velocities (or the last displacement) of the free coordinates
// whose kinetic energy is k, from fresh draws; adds the energy taken out to
// i_algo.e_thermostat.
double csvr_factor(double k, const ions_type& ions, i_algo_type& i_algo);

// Stochastic cell rescaling (Bernetti and Bussi, J. Chem. Phys. 153, 114107 (2020)):
// the strain de (symmetric, row-major) of one barostat step of t_step fs, from the
// pressure tensor p_int (eV/Angstrom^3, the ions' kinetic part included), the volume
// (Angstrom^3) and k_B T (eV), with the target pressure, tau_p, compressibility and
// free strains of i_algo; draws one (isotropic) or six normal deviates from the
// run's stream. The isotropic barostat strains uniformly by a third of the log-volume
// step d ln V = beta / tau_p (P - p) dt + sqrt(2 k_B T beta dt / (V tau_p)) R, which in
// Ito's sense leaves the distribution exp(-(F(V) + p V) / k_B T) dV invariant.
void scr_strain(double de[3][3], const double p_int[3][3], double volume, double kt, double t_step,
                const i_algo_type& i_algo);

// Hyper dynamics: the local energy of the boosted ions, and the factor on their
// band forces (stores the boost potential and the clock factor in ions_state).
double sum_local_energy(const ions_type& ions);
double calc_fboost_factor(ions_state_type& ions_state, double e_boost, double a_boost,
                          double temperature);

// Self-tests of the derivatives: each ion moved along each axis (n_steps points
// dt apart, Angstrom), or the cell strained (2 n_steps + 1 strains dt apart); the
// energies are fitted by polynomials whose slopes are compared with the forces or
// the stress. Logs test_forces.log and test_stress.log end with a verdict.
void ions_test_forces(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                      elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);
void ions_test_stress(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                      elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);

// Relaxation of the ions by conjugate gradients with a line search on a parabola
// through the energy and slope at the start and one trial point (at most five
// trials a line); it stops at n_steps, the energy tolerance ions_delta_e or the
// force tolerance ions_max_force.
void ions_cg_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                  elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham);

// The bracket-and-golden-section line search along h from the positions r0 (an
// alternative to the parabola of ions_cg_loop, which does not call it): leaves the
// ions at the minimum found, with its ground state, and returns its lambda.
double line_min(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham,
                const farray<double, 2>& r0, const farray<double, 2>& h, double lambda_trial,
                double tol);

} // namespace lyrt
