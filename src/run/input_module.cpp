#include "run/input_module.hpp"

#include "base/dlexlib.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "kpm/kpm_module.hpp"
#include "numerics/utility_module.hpp"
#include "parallel/mpi_module.hpp"

#include <cctype>
#include <cmath>
#include <optional>
#include <sstream>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "input_module";

// The open keyword file of one read_input call, and the keywords asked for so far.
struct input_file {
    int unit;
    std::string name;
    mutable std::vector<std::string> known;
};

void check_input_error(int status, std::string_view keyword, const input_file& f) {
    if (status == kw_ok || status == kw_not_found) return;
    fatal_error("error reading keyword " + std::string(keyword) + " from file " + f.name, status,
                "read_input", mod);
}

// Type letter and receiver of each value type.
void bcast_value(int& v) {
    bcast_int(v);
}
void bcast_value(double& v) {
    bcast_real(v);
}
void bcast_value(bool& v) {
    bcast_logical(v);
}
keyword_receivers receiver(std::span<int> v) {
    return {.int_values = v};
}
keyword_receivers receiver(std::span<double> v) {
    return {.real_values = v};
}
keyword_receivers receiver(std::span<bool> v) {
    return {.log_values = v};
}

// One keyword: the default (if given) first, then the file's value; the receiver
// keeps its earlier value when the keyword is absent and no default is given.
template <class T>
void read_value(const input_file& f, std::string_view keyword, char type, T& value, const T* def) {
    f.known.emplace_back(keyword);
    if (i_am_master) {
        if (def != nullptr) value = *def;
        T v[1] = {};
        int n = 0, status = 0;
        get_keyword(false, f.name, f.unit, keyword, '=', '!', ';', type,
                    receiver(std::span<T>(v, 1)), n, 1, status);
        check_input_error(status, keyword, f);
        if (status == kw_ok) value = v[0];
    }
    bcast_value(value);
}

void read_int(const input_file& f, std::string_view keyword, int& value,
              std::optional<int> def = std::nullopt) {
    read_value(f, keyword, 'I', value, def ? &def.value() : nullptr);
}

void read_real(const input_file& f, std::string_view keyword, double& value,
               std::optional<double> def = std::nullopt) {
    read_value(f, keyword, 'F', value, def ? &def.value() : nullptr);
}

void read_logical(const input_file& f, std::string_view keyword, bool& value,
                  std::optional<bool> def = std::nullopt) {
    read_value(f, keyword, 'L', value, def ? &def.value() : nullptr);
}

void read_string(const input_file& f, std::string_view keyword, std::string& value, int max_length,
                 std::optional<std::string> def = std::nullopt) {
    f.known.emplace_back(keyword);
    if (i_am_master) {
        if (def) value = *def;
        std::string v;
        int n = 0, status = 0;
        get_keyword(false, f.name, f.unit, keyword, '=', '!', ';', 'S', {.string_value = &v}, n, 0,
                    status);
        check_input_error(status, keyword, f);
        if (status == kw_ok) {
            // Leading blanks go before the value is cut to the receiver's length.
            auto first = v.find_first_not_of(' ');
            value = first == std::string::npos ? std::string() : v.substr(first);
            if (static_cast<int>(value.size()) > max_length)
                value.resize(static_cast<std::size_t>(max_length));
        }
    }
    bcast_string(value);
}

struct data_file_kind {
    const char* word;
    int bit;
    const char* default_name;
    std::string data_file_names_type::*name;
};

const data_file_kind data_file_kinds[] = {
    {"POS", save_pos, "POS", &data_file_names_type::pos},
    {"ENE", save_ene, "ENE", &data_file_names_type::ene},
    {"VEL", save_vel, "VEL", &data_file_names_type::vel},
    {"FOR", save_for, "FOR", &data_file_names_type::force},
    {"EIG", save_eig, "EIG", &data_file_names_type::eig},
    {"ELO", save_eloc, "ELOC", &data_file_names_type::eloc},
    {"XYZ", save_xyz, "trajectory.xyz", &data_file_names_type::xyz},
    {"DOS", save_dos, "DOS", &data_file_names_type::dos},
};

// A code the program does not have stops the run, naming the keyword, the value and
// the codes that exist (a typo would otherwise run a wrong or empty calculation).
void check_code(std::string_view keyword, int value, code_range codes) {
    if (code_known(codes, value)) return;
    fatal_error(std::string(keyword) + " = " + std::to_string(value) +
                    " is not a code of the program: its codes are " + std::to_string(codes.first) +
                    " to " + std::to_string(codes.last),
                value, "read_input", mod);
}

// A value outside its physical range stops the run the same way.
void check_range(std::string_view keyword, double value, bool ok, std::string_view rule) {
    if (ok) return;
    std::ostringstream v;
    v << value;
    fatal_error(std::string(keyword) + " = " + v.str() + " is out of range: " + std::string(rule),
                -1, "read_input", mod);
}

// Every statement of the file whose keyword the program does not know gets a
// warning with the nearest known keyword; the run goes on (a misspelt keyword
// would otherwise leave its default in place without a word).
void warn_unknown_keywords(const input_file& f) {
    for (const std::string& word : keyword_names(f.unit, f.name, '=', '!', ';')) {
        std::string best;
        int best_d = 1 << 30;
        bool known = false;
        for (const std::string& k : f.known) {
            if (k == word) known = true;
            const int d = edit_distance(word, k);
            if (d < best_d) {
                best_d = d;
                best = k;
            }
        }
        if (known) continue;
        const std::string text =
            "unknown keyword " + word + " in " + f.name + " is ignored (nearest: " + best + ")";
        warning_error(text, "read_input", mod);
        write_free(stdout_unit, {"WARNING: " + text});
    }
}

} // namespace

void save_to_file(int unit, std::string_view file_name, i_algo_type& i_algo) {
    if (i_am_master) {
        i_algo.save_to_file = i_algo_type{}.save_to_file;
        data_file_names = data_file_names_type{};
        data_file_names.pos = "POS";
        data_file_names.ene = "ENE";
        for (int occurrence = 1;; ++occurrence) {
            std::string value;
            int n = 0, status = 0;
            get_keyword(false, file_name, unit, "save_to_file", '=', '!', ';', 'S',
                        {.string_value = &value}, n, 40, status, occurrence);
            if (status != kw_ok) break;
            value.resize(40, ' ');
            strip(value, 'B');
            for (std::size_t k = 0; k < 3; ++k)
                value[k] = static_cast<char>(std::toupper(static_cast<unsigned char>(value[k])));
            std::string second;
            if (nwords(value) >= 2) {
                second.assign(40, ' ');
                subwrd(value, second, 2, 1);
                second.resize(static_cast<std::size_t>(length(second)));
            }
            bool known = false;
            for (const auto& kind : data_file_kinds) {
                if (value.compare(0, 3, kind.word) != 0) continue;
                known = true;
                if (kind.bit == save_eloc && !i_algo.calc_elocal) break;
                i_algo.save_to_file |= kind.bit;
                data_file_names.*kind.name = second.empty() ? kind.default_name : second;
                break;
            }
            if (!known) {
                const std::string text = "unknown save_to_file name " +
                                         value.substr(0, static_cast<std::size_t>(length(value))) +
                                         " is ignored (known: POS ENE VEL FOR EIG ELO XYZ DOS)";
                warning_error(text, "save_to_file", mod);
                write_free(stdout_unit, {"WARNING: " + text});
            }
        }
    }
    bcast_int(i_algo.save_to_file);
}

void read_input(std::string_view file_name, elec_algo_type& elec_algo, i_algo_type& i_algo,
                tb_model_type& tb_model, kpt_type& kpt, std::string& system_name,
                double& n_electrons, int& n_states, int& n_h_dup) {
    // debug itself is one of the keywords read here: the guard keeps its value at entry.
    const trace_guard trace("read_input", mod);
    input_file f{-1, std::string(file_name), {}};
    if (i_am_master) {
        f.unit = next_free_unit();
        const int ios = unit_open(f.unit, f.name, "old");
        if (ios != 0)
            fatal_error("problems opening file " + f.name + "iostat=", ios, "read_input", mod);
    }
    barrier();

    // The records' initialisers are the keywords' defaults.
    const elec_algo_type de{};
    const i_algo_type di{};
    read_string(f, "system_name", system_name, 80, "unknown");
    read_real(f, "r_cut", tb_model.r_cut, tb_model.r_cut);
    read_real(f, "lo_rad", elec_algo.lo_rad, tb_model.r_cut);
    read_int(f, "nh", elec_algo.nh, de.nh);
    read_int(f, "elec_gs_algo", elec_algo.gs, de.gs);
    check_code("elec_gs_algo", elec_algo.gs, elec_algo_codes);
    read_real(f, "number_of_electrons", n_electrons, -1.0);
    read_real(f, "n_electrons", n_electrons);
    read_int(f, "number_of_states", n_states, -1);
    read_int(f, "n_states", n_states);
    read_int(f, "ns_extra", elec_algo.ns_extra, de.ns_extra);
    read_int(f, "elec_md_algo", elec_algo.md, elec_algo.gs);
    check_code("elec_md_algo", elec_algo.md, elec_algo_codes);
    read_int(f, "ionic_algo", i_algo.algo, di.algo);
    read_int(f, "ions_algo", i_algo.algo);
    check_code("ions_algo", i_algo.algo, ions_algo_codes);
    read_int(f, "ionic_eom_algo", i_algo.eom_algo, di.eom_algo);
    read_int(f, "ions_eom_algo", i_algo.eom_algo);
    check_code("ions_eom_algo", i_algo.eom_algo, eom_codes);
    read_real(f, "elec_energy_tol", elec_algo.energy_tol, de.energy_tol);
    read_real(f, "elec_charge_tol", elec_algo.charge_tol, de.charge_tol);
    read_int(f, "max_elec_iter", elec_algo.max_iter, de.max_iter);
    read_int(f, "min_elec_iter", elec_algo.min_iter, de.min_iter);
    read_real(f, "sigma", kpt.sigma, kpt_type{}.sigma);
    check_range("sigma", kpt.sigma, kpt.sigma >= 0.0, "the smearing width must be 0 or more");
    read_real(f, "ls_eps_filter", elec_algo.ls_eps_filter, de.ls_eps_filter);
    check_range("ls_eps_filter", elec_algo.ls_eps_filter,
                elec_algo.ls_eps_filter > 0.0 && elec_algo.ls_eps_filter < 1.0,
                "the filter of the block products must lie between 0 and 1");
    read_real(f, "dos_sigma", kpt.dos_sigma, kpt_type{}.dos_sigma);
    check_range("dos_sigma", kpt.dos_sigma, kpt.dos_sigma > 0.0,
                "the width of the density of states must be above 0");
    read_int(f, "cg_restart_freq", i_algo.cg_restart_freq, di.cg_restart_freq);
    read_int(f, "elec_start", elec_algo.start, de.start);
    check_code("elec_start", elec_algo.start, elec_start_codes);
    read_int(f, "save_wfs", elec_algo.save_wfs, de.save_wfs);
    read_real(f, "ions_delta_e", i_algo.delta_e, di.delta_e);
    read_real(f, "ions_max_force", i_algo.max_force, di.max_force);
    read_real(f, "max_wall_time", i_algo.max_wall_time, di.max_wall_time);
    std::string driver;
    read_string(f, "driver", driver, 16, "none");
    for (char& c : driver) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (driver != "none" && driver != "ipi")
        fatal_error("unknown driver '" + driver + "': use none or ipi", -1, "read_input", mod);
    i_algo.driver_ipi = driver == "ipi";
    read_string(f, "driver_address", i_algo.driver_address, 80, di.driver_address);
    read_int(f, "driver_port", i_algo.driver_port, di.driver_port);
    read_real(f, "driver_timeout", i_algo.driver_timeout, di.driver_timeout);
    check_range("driver_port", i_algo.driver_port,
                i_algo.driver_port >= 0 && i_algo.driver_port <= 65535,
                "a port is 1 to 65535, or 0 for a UNIX socket");
    check_range("driver_timeout", i_algo.driver_timeout, i_algo.driver_timeout > 0.0,
                "the seconds a message may take must be above 0");
    read_int(f, "output_level", elec_algo.output_level, de.output_level);
    // eta: absent, the orbital solver places it in the gap of the first step.
    double eta = std::nan("");
    read_real(f, "eta", eta, std::nan(""));
    elec_algo.eta_given = !std::isnan(eta);
    if (elec_algo.eta_given) elec_algo.eta = eta;
    read_real(f, "elec_start_scale", elec_algo.start_scale, de.start_scale);
    check_range("elec_start_scale", elec_algo.start_scale, elec_algo.start_scale > 0.0,
                "the starting orbitals need a length above 0");
    read_int(f, "eta_mod_freq", elec_algo.eta_mod_freq, de.eta_mod_freq);
    read_int(f, "eta_mod_delay", elec_algo.eta_mod_delay, de.eta_mod_delay);
    read_real(f, "eta_mod_frac", elec_algo.eta_mod_frac, de.eta_mod_frac);
    read_int(f, "eta_mod_fail_max", elec_algo.eta_mod_fail_max, de.eta_mod_fail_max);
    read_logical(f, "scc_used", elec_algo.scc_used, de.scc_used);
    read_real(f, "charge_mixing", elec_algo.charge_mixing, de.charge_mixing);
    read_int(f, "number_of_ionic_steps", i_algo.n_steps, di.n_steps);
    read_int(f, "n_steps", i_algo.n_steps);
    if (i_algo.n_steps == 0) i_algo.n_steps = -1; // a run without steps has a negative count
    read_real(f, "dt", i_algo.dt, di.dt);
    elec_algo.dt = i_algo.dt;
    // The time step of dynamics and the displacement of the self-tests.
    check_range("dt", i_algo.dt,
                i_algo.n_steps <= 0 || i_algo.algo == ions_algo_cg_relax ||
                    i_algo.algo == ions_algo_sd_relax || i_algo.dt > 0.0,
                "a run with steps needs a step above 0 (fs, or Angstrom for the self-tests)");
    read_int(f, "start", i_algo.start, di.start);
    read_int(f, "veloc_start", i_algo.init_vel, di.init_vel);
    check_code("veloc_start", i_algo.init_vel, init_vel_codes);
    read_logical(f, "non_orth_exact", i_algo.non_orth_exact, di.non_orth_exact);
    read_logical(f, "calc_forces", i_algo.calc_forces, di.calc_forces);
    read_logical(f, "calc_stress", i_algo.calc_stress, di.calc_stress);
    read_logical(f, "calc_elocal", i_algo.calc_elocal, di.calc_elocal);
    if (i_algo.calc_stress && !i_algo.calc_forces)
        warning_error("calc_forces is forced to T, because calc_stress is", "read_input", mod);
    read_int(f, "ions_dyn_mode", i_algo.dyn_mode, di.dyn_mode);
    read_int(f, "ionic_dyn_mode", i_algo.dyn_mode);
    read_int(f, "dyn_mode", i_algo.dyn_mode);
    read_logical(f, "eigen_vect", elec_algo.eigen_vect, i_algo.calc_forces);
    if (i_algo.n_steps > 0) {
        elec_algo.eigen_vect = true;
        i_algo.calc_forces = true;
    }
    // A driver server asks for energy, forces and virial at every point.
    if (i_algo.driver_ipi) {
        elec_algo.eigen_vect = true;
        i_algo.calc_forces = true;
        i_algo.calc_stress = true;
    }
    // Charges and local energies are projections of the eigenvectors.
    if (elec_algo.scc_used && !elec_algo.eigen_vect)
        warning_error("scc_used needs the eigenvectors (the charges are formed from them): "
                      "eigen_vect is turned on",
                      "read_input", mod);
    if (elec_algo.scc_used || i_algo.calc_elocal) elec_algo.eigen_vect = true;
    std::string mixer = "linear";
    read_string(f, "scc_mixer", mixer, 16, "linear");
    for (char& c : mixer) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (mixer == "linear")
        elec_algo.scc_mixer = scc_mixer_linear;
    else if (mixer == "broyden" || mixer == "anderson")
        elec_algo.scc_mixer = scc_mixer_broyden;
    else
        fatal_error("unknown scc_mixer '" + mixer + "': use linear or broyden", -1, "read_input",
                    mod);
    read_int(f, "number_of_moments", elec_algo.n_moments, de.n_moments);
    read_int(f, "n_moments", elec_algo.n_moments);
    read_real(f, "kpm_emin", elec_algo.kpm_emin, de.kpm_emin);
    read_real(f, "kpm_emax", elec_algo.kpm_emax, de.kpm_emax);
    read_int(f, "kpm_block_size", elec_algo.kpm_block_size, de.kpm_block_size);
    read_logical(f, "no_ex", elec_algo.no_ex, de.no_ex);
    std::string kernel(1, elec_algo.kernel);
    read_string(f, "kernel", kernel, 1, std::string(1, de.kernel));
    elec_algo.kernel = kernel.empty() ? ' ' : kernel[0];
    if (!kpm_kernel_known(elec_algo.kernel))
        fatal_error("unknown kernel '" + kernel + "': use J (Jackson) or L (Lanczos)", -1,
                    "read_input", mod);
    if (elec_algo.kpm_block_size < 1)
        fatal_error("kpm_block_size must be 1 or more (ions per chunk of the moments)",
                    elec_algo.kpm_block_size, "read_input", mod);
    read_int(f, "n_h_dup", n_h_dup, n_proc);
    read_int(f, "status_output_freq", i_algo.status_output_freq, di.status_output_freq);
    read_int(f, "save_freq", i_algo.status_output_freq);
    check_range("status_output_freq", i_algo.status_output_freq, i_algo.status_output_freq >= 1,
                "steps between reports must be 1 or more");
    read_logical(f, "pair_pot_used", tb_model.pair_pot_used, tb_model.pair_pot_used);
    read_int(f, "ionic_thermostat", i_algo.thermostat, di.thermostat);
    read_int(f, "ions_thermostat", i_algo.thermostat);
    read_int(f, "thermostat", i_algo.thermostat);
    check_code("thermostat", i_algo.thermostat, thermostat_codes);
    read_int(f, "temperature_seed_1", i_algo.temp_seed[0], di.temp_seed[0]);
    read_int(f, "temperature_seed_2", i_algo.temp_seed[1], di.temp_seed[1]);
    read_int(f, "temp_seed_1", i_algo.temp_seed[0]);
    read_int(f, "temp_seed_2", i_algo.temp_seed[1]);
    read_real(f, "temperature", i_algo.temperature, di.temperature);
    read_real(f, "temp", i_algo.temperature);
    check_range("temperature", i_algo.temperature, i_algo.temperature >= 0.0,
                "a temperature must be 0 K or more");
    read_real(f, "ionic_friction", i_algo.friction, di.friction);
    read_real(f, "ions_friction", i_algo.friction);
    read_real(f, "friction", i_algo.friction);
    read_real(f, "gamma", i_algo.friction);
    check_range("friction", i_algo.friction, i_algo.friction >= 0.0,
                "a friction must be 0 or more");
    if (i_algo.thermostat == thermostat_langevin && i_algo.friction == 0.0)
        fatal_error("you are using langevin dynamics but the ionic friction coeffcient is "
                    "undefined.set ionic_friction.",
                    -1, "read_input", mod);
    std::string relax_cell;
    read_string(f, "relax_cell", relax_cell, 16, "F");
    for (char& c : relax_cell) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (relax_cell == "t" || relax_cell == ".true." || relax_cell == "true")
        i_algo.relax_cell = relax_cell_full;
    else if (relax_cell == "volume")
        i_algo.relax_cell = relax_cell_volume;
    else if (relax_cell == "f" || relax_cell == ".false." || relax_cell == "false")
        i_algo.relax_cell = relax_cell_none;
    else
        fatal_error("unknown relax_cell '" + relax_cell + "': use T, F or volume", -1, "read_input",
                    mod);
    read_real(f, "pressure", i_algo.pressure, di.pressure);
    read_real(f, "cell_max_stress", i_algo.cell_max_stress, di.cell_max_stress);
    // Which strains the relaxation may change, in Voigt order (xx yy zz yz xz xy).
    f.known.emplace_back("cell_free");
    if (i_am_master) {
        bool v[6] = {true, true, true, true, true, true};
        int n = 0, status = 0;
        get_keyword(false, f.name, f.unit, "cell_free", '=', '!', ';', 'L',
                    {.log_values = std::span<bool>(v, 6)}, n, 6, status);
        check_input_error(status, "cell_free", f);
        if (status == kw_ok && n != 6)
            fatal_error("cell_free takes six logicals, the strains xx yy zz yz xz xy", n,
                        "read_input", mod);
        for (int k = 0; k < 6; ++k) i_algo.cell_free[k] = status == kw_ok ? v[k] : true;
    }
    for (bool& x : i_algo.cell_free) bcast_logical(x);
    check_range("cell_max_stress", i_algo.cell_max_stress, i_algo.cell_max_stress > 0.0,
                "a stress tolerance must be above 0 GPa");
    // The cell's forces are the stress's deviation from the target pressure.
    if (i_algo.relax_cell != relax_cell_none && i_algo.algo == ions_algo_cg_relax &&
        i_algo.n_steps > 0)
        i_algo.calc_stress = true;
    else if (i_algo.relax_cell != relax_cell_none)
        warning_error("relax_cell moves the cell in a relaxation (ions_algo = 1 with n_steps > "
                      "0) only: the cell of this run stays as it is",
                      "read_input", mod);
    // Dynamics at constant pressure: the cell follows the stress by stochastic rescaling.
    read_int(f, "barostat", i_algo.barostat, di.barostat);
    check_code("barostat", i_algo.barostat, barostat_codes);
    read_real(f, "tau_p", i_algo.tau_p, di.tau_p);
    read_real(f, "compressibility", i_algo.compressibility, di.compressibility);
    read_int(f, "barostat_steps", i_algo.barostat_steps, di.barostat_steps);
    const bool npt_run = i_algo.algo == ions_algo_md && i_algo.n_steps > 0;
    if (i_algo.barostat != barostat_none && npt_run) {
        if (!(i_algo.tau_p > 0.0))
            fatal_error("a barostat needs tau_p, its relaxation time in fs, above 0", -1,
                        "read_input", mod);
        check_range("compressibility", i_algo.compressibility, i_algo.compressibility > 0.0,
                    "a compressibility must be above 0 (1/GPa)");
        check_range("barostat_steps", i_algo.barostat_steps, i_algo.barostat_steps >= 1,
                    "the barostat acts every barostat_steps ionic steps, 1 or more");
        if (i_algo.eom_algo != eom_velocity_verlet)
            fatal_error("a barostat moves the cell with the velocities of velocity Verlet: set "
                        "ions_eom_algo = 2",
                        -1, "read_input", mod);
        i_algo.calc_stress = true;
    } else if (i_algo.barostat != barostat_none) {
        warning_error("a barostat moves the cell in dynamics (ions_algo = 0 with n_steps > 0) "
                      "only: the cell of this run stays as it is",
                      "read_input", mod);
        i_algo.barostat = barostat_none;
    }
    read_real(f, "tau_t", i_algo.tau_t, di.tau_t);
    if (i_algo.thermostat == thermostat_csvr && !(i_algo.tau_t > 0.0))
        fatal_error("thermostat = 3 (canonical velocity rescaling) needs tau_t, its relaxation "
                    "time in fs, above 0",
                    -1, "read_input", mod);
    read_real(f, "q_nose_ions", i_algo.q_nose_ions, di.q_nose_ions);
    check_range("q_nose_ions", i_algo.q_nose_ions, i_algo.q_nose_ions >= 0.0,
                "a thermostat mass must be 0 or more");
    // The thermostat divides by its mass: a run without one cannot start.
    if (i_algo.thermostat == thermostat_nose && i_algo.q_nose_ions == 0.0)
        fatal_error("Nose mass for the ions is zero.Set q_nose_ions.", -1, "read_input", mod);
    save_to_file(f.unit, f.name, i_algo);
    // The density of states is that of one structure, from its states.
    if ((i_algo.save_to_file & save_dos) != 0) {
        if (i_algo.n_steps > 0) {
            i_algo.save_to_file &= ~save_dos;
            const std::string text = "save_to_file = DOS is written by a run without ionic steps "
                                     "(n_steps = 0): no DOS in this run";
            warning_error(text, "read_input", mod);
            write_free(stdout_unit, {"WARNING: " + text});
        } else {
            elec_algo.eigen_vect = true;
        }
    }
    read_real(f, "emass", elec_algo.emass, de.emass);
    check_range("emass", elec_algo.emass, elec_algo.emass >= 0.0,
                "an orbital mass must be 0 or more");
    read_int(f, "debug", debug, 0);
    read_real(f, "e_boost", i_algo.e_boost, di.e_boost);
    read_real(f, "a_boost", i_algo.a_boost, di.a_boost);
    read_logical(f, "hyper_md", i_algo.hyper_md, di.hyper_md);
    if (i_algo.hyper_md) {
        // The boost potential reads the local energies, and its clock divides by the
        // temperature and its smoothing by a_boost.
        if (!i_algo.calc_elocal) {
            i_algo.calc_elocal = true;
            elec_algo.eigen_vect = true;
            warning_error("calc_elocal is forced to T, because hyper_md is", "read_input", mod);
        }
        if (!(i_algo.temperature > 0.0))
            fatal_error("hyper_md needs a temperature above 0 K (the boosted clock divides by it)",
                        -1, "read_input", mod);
        if (i_algo.a_boost == 0.0)
            fatal_error("hyper_md needs a_boost other than 0 (the boost potential divides by it)",
                        -1, "read_input", mod);
    }

    if (elec_algo.gs == elec_algo_kpm || elec_algo.md == elec_algo_kpm) {
        // The kernel polynomial method has a band energy, a Fermi level and forces;
        // what needs eigenvectors or a stress it cannot give.
        if (elec_algo.scc_used)
            fatal_error("scc_used needs the eigenvectors of the dense solver (elec_gs_algo = 2 or "
                        "3); the kernel polynomial solver has none",
                        -1, "read_input", mod);
        if (i_algo.calc_elocal)
            fatal_error("local energies (calc_elocal, hyper_md) need the eigenvectors of the "
                        "dense solver (elec_gs_algo = 2 or 3); the kernel polynomial solver has "
                        "none",
                        -1, "read_input", mod);
        if (i_algo.algo == ions_algo_test_stress && i_algo.n_steps > 0)
            fatal_error("the stress test needs an electronic stress, which the kernel polynomial "
                        "solver does not have",
                        -1, "read_input", mod);
        if (i_algo.barostat != barostat_none)
            fatal_error("a barostat moves the cell by the stress, and the kernel polynomial "
                        "solver has no electronic stress: choose the diagonalisation (2) or the "
                        "linear-scaling solver (5)",
                        -1, "read_input", mod);
        if (i_algo.relax_cell != relax_cell_none && i_algo.n_steps > 0)
            fatal_error("relax_cell moves the cell by the stress, and the kernel polynomial "
                        "solver has no electronic stress: choose the diagonalisation (2) or the "
                        "linear-scaling solver (5)",
                        -1, "read_input", mod);
        if (i_algo.calc_stress)
            warning_error("the kernel polynomial solver has no electronic stress: the stress "
                          "reported holds the pair terms alone",
                          "read_input", mod);
    }
    f.known.emplace_back("save_to_file");
    if (i_am_master) {
        warn_unknown_keywords(f);
        unit_close(f.unit);
    }
    barrier();
}

} // namespace lyrt
