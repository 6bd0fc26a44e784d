// The ion store: species, per-ion data and the time history of positions,
// velocities and forces that the integrators work on (slot 1 is the present,
// slot 2 the step before, ...); the moving state of a run; the position files
// POSLYRT and POSCONT; and the starting state of the ions.
#pragma once

#include "base/algo_module.hpp"
#include "base/farray.hpp"
#include "system/atomic_type_module.hpp"
#include "system/cell_module.hpp"
#include "system/nn_module.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace lyrt {

struct box_type;

constexpr int max_species = 10; // values of number_of_ions that count

struct ions_type {
    std::vector<atomic_type> species; // n_species records, also the model's per-species hook
    int total_n_ions = 0;
    int n_species = 0;
    farray<int, 1> type;                  // species index of each ion
    farray<int, 1> n_ions;                // ions per species
    farray<double, 1> inv_mass;           // 1 / mass, per species
    farray<double, 1> mass;               // internal mass units, per species
    farray<double, 2> r, v, f;            // views of slot 1 of the histories, 3 x total_n_ions
    farray<double, 3> r_of_t;             // positions, Angstrom, 3 x total_n_ions x n_t
    farray<double, 3> v_of_t;             // velocities, Angstrom/fs
    farray<double, 3> f_of_t;             // forces, eV/Angstrom
    int n_t = 0;                          // history depth
    farray<bool, 2> frozen;               // per-coordinate freeze, 3 x total_n_ions
    std::vector<nn_list_type> nn_list;    // all neighbours of each ion
    std::vector<nn_list_type> nn_hi_list; // neighbours of higher number
    int max_n_nn = 0;                     // largest neighbour count seen
    int ub_n_nn = 0;                      // largest count the run tolerates
    farray<bool, 1> boost;                // ions of the boost potential
    farray<double, 1> e_local;            // local energy of each ion, eV
    farray<double, 1> qion;               // charge of each ion
    int dof = 0;                          // free coordinates
    int n_frozen = 0;                     // frozen coordinates
};

struct ions_state_type {
    ions_type* ions = nullptr;
    box_type* box = nullptr;
    double e_kin = 0.0;     // ionic kinetic energy, eV
    double e_pot = 0.0;     // potential energy, eV
    double e_tot = 0.0;     // conserved quantity of the run, eV
    double e_kin_ref = 0.0; // reference energies, carried in POSCONT ("energies =")
    double e_pot_ref = 0.0;
    double e_tot_ref = 0.0;
    double temperature = 0.0; // instantaneous, K
    double pressure = 0.0;    // one third of the trace of the stress, eV/Angstrom^3
    int step = 0;
    int first_step = 0;        // step when the ion loop began
    int final_call = 0;        // -1 for the report after the loop
    int skip_save = 0;         // -1 while a restarted run must not save its first step twice
    double time = 0.0;         // elapsed, fs
    double e_atoms = 0.0;      // energy of the free atoms, eV
    double e_pair = 0.0;       // classical pair energy, eV
    double e_fict = 0.0;       // fictitious kinetic energy of Car-Parrinello orbitals, eV
    double e_local_sum = 0.0;  // local energy of the boosted ions, eV
    double fboost = 1.0;       // factor on their band forces
    double time_factor = 1.0;  // advance of the clock per step, in units of dt
    double e_boost = 0.0;      // the boost potential dV, eV
    double step_seconds = 0.0; // wall-clock seconds of the last ionic step
    int interrupted = 0;       // why the loop ended early (stop_module codes), 0 if it did not
};

// The neighbour lists of ion i (numbered from 1).
inline nn_list_type& ions_nn_list(ions_type& ions, int i) {
    return ions.nn_list[static_cast<std::size_t>(i - 1)];
}
inline const nn_list_type& ions_nn_list(const ions_type& ions, int i) {
    return ions.nn_list[static_cast<std::size_t>(i - 1)];
}
inline nn_list_type& ions_nn_hi_list(ions_type& ions, int i) {
    return ions.nn_hi_list[static_cast<std::size_t>(i - 1)];
}
inline const nn_list_type& ions_nn_hi_list(const ions_type& ions, int i) {
    return ions.nn_hi_list[static_cast<std::size_t>(i - 1)];
}

// ---- store ----------------------------------------------------------------------
void ions_allocate_simple(ions_type& ions, int n);
void ions_allocate_physical(ions_type& ions, int n, int n_species, farray<double, 2>* rd = nullptr,
                            farray<double, 2>* vd = nullptr, farray<double, 2>* fd = nullptr);
void ions_deallocate(ions_type& ions);
void ions_reset(ions_type& ions);
void ions_roll(ions_type& ions);
void ions_change_nt(ions_type& ions, int n_t);
void ions_copy(ions_type& dest, const ions_type& source);
void ions_bcast_ions(ions_type& ions);
void ions_bcast_state(ions_state_type& ions_state);

// ---- position files ---------------------------------------------------------------
void ions_read_in(box_type& box, ions_type& ions, std::string_view file);
// The cell keys a0, a_1, a_2, a_3 (or a lattice block) with a suffix.
void read_cell(cell_type& cell, int unit, std::string_view file, std::string_view suffix);
// One coordinate block of n ions under key: 3 items per line (x y z) or 4 (species
// x y z). Positions in reduced units (unit letter u) are turned Cartesian.
// status: 0, or 3 when the key is absent.
void ions_read_coord(farray<double, 2>& x, farray<int, 1>* type, int n, std::string_view key,
                     int unit, std::string_view file, const cell_type& cell, int& status);
// Whether the last positions file read had a velocities block.
bool ions_velocities_read();
void ions_read_restart(i_algo_type& i_algo, ions_state_type& ions_state, std::string_view file);
void ions_save_state(const ions_state_type& ions_state, const i_algo_type& i_algo, int unit,
                     std::string_view file);

// ---- starting state ---------------------------------------------------------------
void ions_generate_lattice(box_type& box, ions_type& ions, const int* grid, int n_basis);
void ions_init(ions_state_type& ions_state, i_algo_type& i_algo);
void ions_init_velocities(ions_state_type& ions_state, const i_algo_type& i_algo);
void ions_rescale_velocities(ions_state_type& ions_state, const i_algo_type& i_algo);
void ions_fix_center_of_mass(ions_state_type& ions_state);
void ions_total_momentum(double* p, const ions_type& ions, int level = 1);
void ions_calc_energies(ions_state_type& ions_state, const i_algo_type& i_algo);

// What ions_print shows, as a sum of flags.
constexpr int ions_print_nn = 1;   // largest neighbour count, smallest distance
constexpr int ions_print_cell = 2; // volume, vector lengths and angles
constexpr int ions_print_pressure = 4;
constexpr int ions_print_stress = 8;
constexpr int ions_print_forces = 16;  // the ion table with forces (else positions only)
constexpr int ions_print_reduced = 32; // reduced coordinates
constexpr int ions_print_eloc = 64;    // local energies
void ions_print(const box_type& box, const ions_state_type& ions_state, int flags, int unit);

// Per-step data files (opened for append and closed on each call).
void ions_save_pos(const box_type& box, int unit, std::string_view file);
void ions_save_vel(const box_type& box, int unit, std::string_view file);
void ions_save_for(const box_type& box, int unit, std::string_view file);
void ions_save_eloc(const ions_type& ions, int unit, std::string_view file);
// One frame of the extended-XYZ trajectory: Angstrom, Angstrom/fs, eV/Angstrom,
// the potential energy (eV) and the time (fs), the stress (eV/Angstrom^3,
// positive under tension) when asked for.
void ions_save_xyz(const box_type& box, const ions_state_type& ions_state, bool with_stress,
                   int unit, std::string_view file);

} // namespace lyrt
