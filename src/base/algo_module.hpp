// The parameter records of a run, elec_algo and i_algo, with the codes of their
// alternatives. The keyword file fills them (input_module); every layer from the
// ion store up reads them. The initialisers are the keywords' defaults.
#pragma once

#include <string>

#include "base/farray.hpp"

namespace lyrt {

// Solver codes of elec_algo%gs and elec_algo%md.
constexpr int elec_algo_sd = 0;   // steepest descent / Car-Parrinello
constexpr int elec_algo_cg = 1;   // conjugate gradient
constexpr int elec_algo_diag = 2; // diagonalisation (3 too)
constexpr int elec_algo_diag_b = 3;
constexpr int elec_algo_kpm = 4; // kernel polynomial method
constexpr int elec_algo_ls = 5;  // density matrix of block-sparse products (distributed build)

// Mixers of the charge loop (keyword scc_mixer).
constexpr int scc_mixer_linear = 0;  // "linear"
constexpr int scc_mixer_broyden = 1; // "broyden" or "anderson": multisecant, past passes

// Run types of i_algo%algo.
constexpr int ions_algo_md = 0;
constexpr int ions_algo_cg_relax = 1;
constexpr int ions_algo_sd_relax = 2;
constexpr int ions_algo_fixed_vel = 3;
constexpr int ions_algo_test_forces = 4;
constexpr int ions_algo_test_stress = 5;

// Integrators of i_algo%eom_algo and thermostats of i_algo%thermostat.
constexpr int eom_verlet = 1;
constexpr int eom_velocity_verlet = 2;
constexpr int thermostat_none = 0;
constexpr int thermostat_nose = 1;
constexpr int thermostat_langevin = 2;
constexpr int thermostat_csvr = 3; // canonical sampling through velocity rescaling
// What of the cell a relaxation moves (i_algo%relax_cell).
constexpr int relax_cell_none = 0;
constexpr int relax_cell_full = 1;
constexpr int relax_cell_volume = 2;
// Barostats of i_algo%barostat (dynamics at constant pressure by stochastic cell
// rescaling): the volume alone, or every strain of the cell.
constexpr int barostat_none = 0;
constexpr int barostat_isotropic = 1;
constexpr int barostat_anisotropic = 2;

// The codes each code keyword has, first to last: read_input refuses any other with
// a message that names them, so the dispatchers' remaining branches are guards that
// no input reaches. A new code is added to its range here.
struct code_range {
    int first;
    int last;
};
constexpr code_range elec_algo_codes{elec_algo_sd, elec_algo_ls};
constexpr code_range ions_algo_codes{ions_algo_md, ions_algo_test_stress};
constexpr code_range eom_codes{eom_verlet, eom_velocity_verlet};
constexpr code_range thermostat_codes{thermostat_none, thermostat_csvr};
constexpr code_range barostat_codes{barostat_none, barostat_anisotropic};
constexpr code_range init_vel_codes{0, 4};   // veloc_start
constexpr code_range elec_start_codes{0, 1}; // elec_start: 1 loads the orbitals of WFS
constexpr bool code_known(code_range r, int code) {
    return code >= r.first && code <= r.last;
}

// Bits of i_algo%save_to_file.
constexpr int save_pos = 1;
constexpr int save_ene = 2;
constexpr int save_vel = 4;
constexpr int save_for = 8;
constexpr int save_eig = 16;
constexpr int save_eloc = 32;
constexpr int save_xyz = 64;  // extended-XYZ trajectory
constexpr int save_dos = 128; // density of states of a run without ionic steps

struct elec_algo_type {
    int algo = 2;             // solver code in use now (set by the ion loops)
    int gs = 2;               // solver of the first ground state
    int md = 2;               // solver during ionic motion
    double energy_tol = 1e-6; // eV
    double charge_tol = 1e-8; // electrons
    int max_iter = 200;       // passes of the charge loop (iterations of the orbital solver)
    int min_iter = 3;
    int output_level = 1;
    double ls_eps_filter = 1e-6; // linear-scaling solver: blocks below this norm are dropped
    bool eigen_vect = true;      // eigenvectors wanted
    int save_wfs = 0;
    int start = 0;            // 1: load orbitals from WFS
    int ns_extra = 0;         // extra states
    double eta = 50.0;        // orbital functional parameter, eV
    bool eta_given = false;   // the input set eta (else the first step places it in the gap)
    double start_scale = 0.5; // length of the starting orbitals (1: the unit-length start)
    int eta_mod_freq = 10;
    int eta_mod_delay = 5;
    double eta_mod_frac = 0.5;
    int eta_mod_fail_max = 3;
    double dt = 1.0;     // fs
    double emass = 10.0; // fictitious orbital mass
    double lo_rad = 0.0; // localisation radius, Angstrom
    int nh = -1;
    bool scc_used = false; // charge self-consistency
    double charge_mixing = 0.1;
    int scc_mixer = 0;     // scc_mixer_linear or scc_mixer_broyden
    int n_moments = 100;   // kernel polynomial order
    double kpm_emin = 0.0; // eV
    double kpm_emax = 0.0; // eV
    int kpm_block_size = 2;
    char kernel = 'J';
    bool no_ex = false;
};

struct i_algo_type {
    int algo = 0;     // run type
    int eom_algo = 1; // integrator
    int n_steps = -1; // ionic steps; negative for a static run
    int thermostat = 0;
    bool calc_forces = true;
    bool calc_stress = false;
    bool calc_elocal = false;
    int dyn_mode = 14;          // stored only
    int status_output_freq = 1; // steps between reports and data lines
    int save_to_file = save_pos + save_ene;
    int start = 0;              // non-zero: read restart blocks
    int init_vel = 1;           // velocity start code
    double dt = 1.0;            // time step, fs
    double dt_sq = 1.0;         // dt squared
    double inv_dt = 1.0;        // 1 / dt
    double inv_2dt = 0.5;       // 1 / (2 dt)
    double half_dt = 0.5;       // dt / 2
    double max_force = 1e-4;    // relaxation force tolerance, eV/Angstrom
    double max_wall_time = 0.0; // wall seconds the run may take (ends at a step); 0: no limit
    // The run as a client of an i-PI server (driver = ipi): its address (a host, or
    // the name of a UNIX socket /tmp/ipi_<name> when driver_port is 0), its port and
    // the seconds a message may take.
    bool driver_ipi = false;
    std::string driver_address = "localhost";
    int driver_port = 31415;
    double driver_timeout = 3600.0;
    double delta_e = 1e-10;     // relaxation energy tolerance, eV
    double temperature = 300.0; // K
    double target_e_kin = 0.0;  // eV
    int temp_seed[2] = {0, 0};
    double friction = 0.0; // 1/fs
    int cg_restart_freq = 10;
    double q_nose_ions = 0.0; // Nose-Hoover mass, eV fs^2
    // Nose-Hoover thermostat: its coordinate at t, t - dt, t - 2 dt and its rate (1/fs).
    double xi = 0.0, xi_m1 = 0.0, xi_m2 = 0.0, dxi = 0.0;
    // Velocity-rescaling thermostat: its relaxation time (fs) and the kinetic energy
    // it has taken out of the ions so far (eV), which the effective energy adds back.
    double tau_t = 0.0;
    double e_thermostat = 0.0;
    // Variable-cell relaxation: the cell relaxes with the ions (relax_cell_full: any
    // symmetric strain; relax_cell_volume: a uniform one) towards the target pressure
    // (GPa), until the stress deviates from it by less than cell_max_stress (GPa).
    int relax_cell = 0;
    double pressure = 0.0;
    double cell_max_stress = 0.01;
    bool cell_free[6] = {true, true, true, true, true, true}; // strains xx yy zz yz xz xy
    // Constant-pressure dynamics: the barostat, its relaxation time (fs), the
    // compressibility that sets its coupling (1/GPa), the ionic steps between two of
    // its steps, and the energy it has taken out of the system so far (eV), which the
    // effective energy adds back. The target is the pressure above.
    int barostat = 0;
    double tau_p = 0.0;
    double compressibility = 0.01;
    int barostat_steps = 10;
    double e_barostat = 0.0;
    // Langevin tables, per species (set up with the ions).
    farray<double, 1> lgv_sigma;   // random-force strength (Verlet)
    farray<double, 1> lgv_sigma_r; // position noise (velocity Verlet)
    farray<double, 1> lgv_sigma_v; // velocity noise
    farray<double, 1> lgv_cross;   // covariance of the two noises
    farray<double, 1> lgv_corr;    // sqrt(1 - correlation squared)
    farray<double, 2> lgv_noise_r; // work, 3 x ions
    farray<double, 2> lgv_noise_v; // work, 3 x ions
    double lgv_c0 = 0.0, lgv_c1 = 0.0, lgv_c2 = 0.0;
    bool hyper_md = false;   // boosted dynamics
    double a_boost = 20.0;   // boost smoothing
    double e_boost = -100.0; // boost threshold, eV
    bool non_orth_exact = true;
};

} // namespace lyrt
