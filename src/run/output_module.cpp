#include "run/output_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "diag/dos_module.hpp"
#include "linear/ls_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/system_def_module.hpp"
#include "system/constants_module.hpp"

#include <cmath>
#include <cstdlib>

namespace lyrt {

namespace {

constexpr const char* mod = "output_module";
const std::string rule80(80, '=');
const std::string rule60(60, '-');

const char* gs_word(int code) {
    switch (code) {
    case 0: return "steepest descent.";
    case 1: return "conjugate gradient.";
    case 2:
    case 3: return "diagonalization.";
    case 4: return "KPM.";
    case 5: return "block-sparse density matrix.";
    default: return "unknown method.";
    }
}

const char* md_word(int code) {
    switch (code) {
    case 0: return "Car-Parinello.";
    case 1: return "conjugate gradient.";
    case 2:
    case 3: return "diagonalization.";
    case 4: return "KPM.";
    case 5: return "block-sparse density matrix.";
    default: return "unknown method.";
    }
}

bool uses_diag(const elec_algo_type& e) {
    return e.gs == 2 || e.gs == 3 || e.md == 2 || e.md == 3;
}

} // namespace

void save_dos_file(const box_type& box, elec_state_type* elec, const elec_algo_type& elec_algo,
                   hamiltonian_type& ham) {
    std::string why;
    if (elec == nullptr || elec->eig == nullptr || !uses_diag(elec_algo))
        why = "the density of states needs the levels of the diagonalisation (elec_gs_algo 2 or 3)";
    else if (elec->eig->kpt->mode == kpt_mode_path)
        why = "the density of states needs a grid or points in KPTS, not a path";
    if (!why.empty()) {
        warning_error(why + ": no DOS in this run", "save_dos_file", mod);
        if (i_am_master) write_free(stdout_unit, {"WARNING: " + why + ": no DOS in this run"});
        return;
    }
    dos_type dos;
    dos_calc(dos, ham, box.ions, box, *elec->eig, elec->eig->kpt->dos_sigma);
    if (i_am_master) dos_write(dos, *elec->eig, data_file_names.dos);
}

namespace {

int report_flags(const i_algo_type& i_algo, bool with_forces) {
    int flags = ions_print_nn | ions_print_cell;
    if (with_forces) flags |= ions_print_forces;
    if (i_algo.calc_stress) flags |= ions_print_pressure | ions_print_stress;
    if (i_algo.calc_elocal) flags |= ions_print_eloc;
    return flags;
}

double max_force(const ions_type& ions) {
    double m = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        m = std::max(m, std::sqrt(ions.f(1, i) * ions.f(1, i) + ions.f(2, i) * ions.f(2, i) +
                                  ions.f(3, i) * ions.f(3, i)));
    return m;
}

// The data lines of one output step (master only).
void save_step_to_files(box_type& box, ions_state_type& st, const i_algo_type& i_algo,
                        elec_state_type* elec, const elec_algo_type& elec_algo,
                        const tb_model_type& tb_model) {
    const ions_type& ions = box.ions;
    const int mask = i_algo.save_to_file;
    if (mask & save_pos) ions_save_pos(box, pos_unit, data_file_names.pos);
    if (mask & save_vel) ions_save_vel(box, vel_unit, data_file_names.vel);
    if (mask & save_for) ions_save_for(box, for_unit, data_file_names.force);
    if (mask & save_eloc) ions_save_eloc(ions, eloc_unit, data_file_names.eloc);
    if (mask & save_xyz) ions_save_xyz(box, st, i_algo.calc_stress, xyz_unit, data_file_names.xyz);
    if ((mask & save_eig) && (elec_algo.gs == 2 || elec_algo.md == 2) && !tb_model.classical &&
        elec != nullptr && elec->eig != nullptr)
        eig_print_eigen_energies(*elec->eig, eig_unit, data_file_names.eig);
    if (st.step > st.first_step) ions_save_state(st, i_algo, cont_unit, "POSCONT");
    unit_open(ene_unit, data_file_names.ene, "unknown", "append");
    if (i_algo.algo == ions_algo_md) {
        write_fmt(
            stdout_unit, "(I5,4E16.8)",
            {st.step, st.temperature, st.e_kin, st.e_pot - st.e_pot_ref, st.e_tot - st.e_tot_ref});
        if (i_algo.barostat != barostat_none) {
            // The cell moves: its volume and the pressure with the ions' kinetic part.
            const double v = cell_vol(box.cell);
            write_fmt(ene_unit, "(I9,E13.6,F10.2,5E20.12)",
                      {st.step, st.time, st.temperature, st.e_kin, st.e_pot - st.e_pot_ref,
                       st.e_tot - st.e_tot_ref, v,
                       (st.pressure + 2.0 * st.e_kin / (3.0 * v)) * ev_per_a3_to_gpa});
        } else {
            write_fmt(ene_unit, "(I9,E13.6,F10.2,3E20.12)",
                      {st.step, st.time, st.temperature, st.e_kin, st.e_pot - st.e_pot_ref,
                       st.e_tot - st.e_tot_ref});
        }
    } else {
        write_fmt(stdout_unit, "(I5,2E16.8)", {st.step, st.e_pot - st.e_pot_ref, max_force(ions)});
        if (i_algo.algo == ions_algo_cg_relax && i_algo.relax_cell != relax_cell_none)
            // The cell moves: its volume and the pressure beside the energy and forces.
            write_fmt(ene_unit, "(I9,4E20.12)",
                      {st.step, st.e_pot - st.e_pot_ref, max_force(ions), cell_vol(box.cell),
                       st.pressure * ev_per_a3_to_gpa});
        else
            write_fmt(ene_unit, "(I9,2E20.12)",
                      {st.step, st.e_pot - st.e_pot_ref, max_force(ions)});
        if (i_algo.algo == ions_algo_cg_relax) st.e_pot_ref = st.e_pot;
    }
    unit_close(ene_unit);
    // The states of the dense solver, or the orbitals of the orbital solver.
    if (elec_algo.save_wfs > 0 && elec != nullptr &&
        (elec_algo.algo < elec_algo_diag ? elec->cg != nullptr : elec->eig != nullptr)) {
        unit_write(report_unit, "saving wave-functions to WFS...");
        elec_save_state(*elec, elec_algo, wfs_unit, "WFS");
        unit_write(report_unit, "done!");
    }
}

// The configuration and its energies, as the report prints them at a step or at the end.
void print_configuration(box_type& box, const ions_state_type& st, const i_algo_type& i_algo,
                         const elec_state_type* elec, const elec_algo_type& elec_algo,
                         const tb_model_type& tb_model, int unit) {
    ions_print(box, st, report_flags(i_algo, i_algo.calc_forces), unit);
    print_ene(st, i_algo, elec, elec_algo, tb_model, unit);
}

// The restart file, and the wave functions when the input asks for them.
void save_restart(const ions_state_type& st, const i_algo_type& i_algo, elec_state_type* elec,
                  const elec_algo_type& elec_algo, bool diag, int unit) {
    ions_save_state(st, i_algo, cont_unit, "POSCONT");
    const bool orbitals = elec != nullptr && elec->cg != nullptr && elec_algo.algo < elec_algo_diag;
    if (elec_algo.save_wfs > 0 && (diag || orbitals)) {
        unit_write(unit, "saving wave-functions to WFS...");
        elec_save_state(*elec, elec_algo, wfs_unit, "WFS");
        unit_write(unit, "done!");
    }
}

// Starts a data file anew with its head line.
void start_file(int unit, const std::string& name, const char* head) {
    unit_open(unit, name, "replace", "append");
    if (head != nullptr) unit_write(unit, head);
    unit_close(unit);
}

} // namespace

void print_system_def(int unit) {
    if (debug > 0) write_free(stdout_unit, {my_proc, unit, "print_system_def"});
    const ions_type& ions = sys.box.ions;
    write_fmt(unit, "(A)", {"System :" + sys.system_name});
    write_fmt(unit, "(A,I4,A)", {"Running on ", n_proc, " processors"});
    unit_write(unit, rule80);
    write_fmt(unit, "(A,I4)", {"Number of species = ", ions.n_species});
    for (const atomic_type& sp : ions.species) atomic_type_print(sp, unit);
    unit_write(unit, rule80);
    if (sys.tb_model.classical)
        unit_write(unit, "This is a classical potential");
    else
        tb_model_print_param(sys.tb_model, unit);
    write_fmt(unit, "(A,I8)", {"Total number of ions    = ", ions.total_n_ions});
    fitem_list per{"Number of ions/specie   = "};
    for (int s = 1; s <= ions.n_species; ++s) per.emplace_back(ions.n_ions(s));
    write_fmt(unit, "(A,10I8)", per);
    if (!sys.tb_model.classical) {
        std::string orbitals = "Number of orbitals/ion  = ";
        for (int s = 1; s <= ions.n_species; ++s)
            orbitals += format_items("(I4)", {ao_get_no_type(pair_param(sys.tb_model, s, s).ao1)});
        unit_write(unit, orbitals);
        write_fmt(unit, "(A,I8)", {"Number of states        = ", sys.n_states});
        write_fmt(unit, "(A,F14.4)", {"Number of electrons     = ", sys.n_electrons});
        write_fmt(unit, "(A,I8)", {"Number of basis fcts    = ", sys.n_basis});
        write_fmt(unit, "(A,I4)", {"Number of k-points      = ", sys.kpt.n_k});
        write_fmt(unit, "(A,I4)", {"Hamiltonian duplication = ", sys.n_h_dup});
    }
    unit_write(unit, "Lattice vectors :");
    cell_print(sys.box.cell, unit);
    write_fmt(unit, "(A,F15.5)", {"Volume of supercell : ", cell_vol(sys.box.cell)});
    write_fmt(unit, "(A,F10.4)", {"NN cut-off radius : ", sys.box.r_cut});
    write_fmt(unit, "(A,3I4)",
              {"Image cell grid : ", (sys.box.ic_grid.n[0] - 1) / 2, (sys.box.ic_grid.n[1] - 1) / 2,
               (sys.box.ic_grid.n[2] - 1) / 2});
    ions_print(sys.box, sys.ions_state, ions_print_reduced, unit);
    unit_write(unit, rule80);
    kpt_print(sys.kpt, sys.box.cell.b, unit);
    unit_write(unit, rule80);
    write_fmt(unit, "(15(\"=\"),A,15(\"=\"))", {"PARAMETERS OF THE CALCULATION"});
    if (!sys.tb_model.classical) {
        unit_write(unit, "-------- Electronic part ---------");
        if (sys.kpt.sigma > 0.0)
            write_fmt(unit, "(a,f12.6,a)",
                      {"   Fermi smearing of the occupations, sigma = ", sys.kpt.sigma, " eV"});
        else
            unit_write(unit, "   No smearing of the occupations (sigma = 0)");
        unit_write(unit,
                   std::string("   The initial electronic groundstate will be calculated using ") +
                       gs_word(sys.elec_algo.gs));
        if (sys.i_algo.n_steps > 0)
            unit_write(unit, std::string("   During MD the groundstate will be calculated using ") +
                                 md_word(sys.elec_algo.md));
        if (sys.elec_algo.gs == elec_algo_kpm || sys.elec_algo.md == elec_algo_kpm) {
            write_free(unit, {"   Chebyshev moments = ", std::abs(sys.elec_algo.n_moments),
                              ", kernel ", std::string(1, sys.elec_algo.kernel), ", ",
                              sys.elec_algo.kpm_block_size, " ions per chunk"});
            if (sys.elec_algo.kpm_emin == sys.elec_algo.kpm_emax)
                unit_write(unit, "   Spectrum bounds will be searched");
            else
                write_free(unit, {"   Spectrum bounds = ", sys.elec_algo.kpm_emin,
                                  sys.elec_algo.kpm_emax, " eV"});
        }
        if (sys.elec_algo.gs == 0 || sys.elec_algo.md == 0) {
            write_fmt(unit, "(a,e9.3)",
                      {"   Electronic energy tolerance  = ", sys.elec_algo.energy_tol});
            unit_write(unit, "   Parameter for unconstrained minimisation : ");
            write_fmt(unit, "(a,f9.3)",
                      {"      Starting ucgm parameter eta = ", sys.elec_algo.eta});
            write_fmt(unit, "(a,i4,a)",
                      {"      Will perform ", sys.elec_algo.eta_mod_delay,
                       " electronic steps with fixed eta."});
            write_free(unit, {"       Changing eta by *", sys.elec_algo.eta_mod_frac, " every ",
                              sys.elec_algo.eta_mod_freq, " steps."});
            write_free(unit,
                       {"       Max failing in changing eta = ", sys.elec_algo.eta_mod_fail_max});
        }
    }
    unit_write(unit, "-------- Ionic part ---------");
    if (sys.i_algo.n_steps > 0) {
        const char* what[6] = {"   molecular dynamics will be performed",
                               "   ionic positions will be relaxed using cg",
                               "   ionic positions will be relaxed using sd",
                               "   ions will be moved with fixed velocites",
                               "   ions will be moved to test the forces.",
                               "   the stress will be tested."};
        if (sys.i_algo.algo >= 0 && sys.i_algo.algo <= 5) unit_write(unit, what[sys.i_algo.algo]);
        write_free(unit, {" for ", sys.i_algo.n_steps, "steps."});
        if (sys.i_algo.eom_algo == eom_verlet)
            unit_write(unit, "   the eom will be integrated using the verlet algorithm");
        if (sys.i_algo.eom_algo == eom_velocity_verlet)
            unit_write(unit, "   the eom will be integrated using the velocity-verlet algorithm");
        write_fmt(unit, "(a,e10.4,a)", {"   time step dt = ", sys.i_algo.dt, " fs"});
        if (sys.i_algo.hyper_md) {
            write_free(unit, {"   this will be a hyper-md run, with threshold energy = ",
                              sys.i_algo.e_boost, "ev"});
            write_fmt(
                unit, "(a,e10.4)",
                {"   potential smoothing factor for boosted potential = ", sys.i_algo.a_boost});
        }
        if (sys.i_algo.friction != 0.0 && sys.i_algo.thermostat != thermostat_langevin)
            write_fmt(unit, "(a,f8.3,a)",
                      {"a friction coefficient of ", sys.i_algo.friction, " will be used."});
        if (sys.i_algo.thermostat != thermostat_none) {
            unit_write(unit, "Thermostat for the ionic degrees of freedom in use.");
            write_free(unit, {"Target temperature : ", sys.i_algo.temperature, " k."});
            write_free(unit, {"Target ionic kinetic energy : ", sys.i_algo.target_e_kin, " ev."});
            if (sys.i_algo.thermostat == thermostat_nose) {
                unit_write(unit, "A Nose-Hoover thermostat will be used");
                write_free(unit,
                           {"mass of the ionic Nose-Hoover thermostat : ", sys.i_algo.q_nose_ions});
            }
            if (sys.i_algo.thermostat == thermostat_csvr) {
                unit_write(unit, "A canonical velocity-rescaling thermostat will be used");
                write_free(unit, {"  relaxation time : ", sys.i_algo.tau_t, "fs"});
                unit_write(unit,
                           "  Etot is the effective energy: the thermostat's work added back");
            }
            if (sys.i_algo.thermostat == thermostat_langevin) {
                unit_write(unit, "Langevin dynamics will be used");
                write_free(unit, {"  friction coefficient : ", sys.i_algo.friction, "1/fs"});
            }
        }
        write_free(unit, {"System status will be printed every ", sys.i_algo.status_output_freq,
                          "steps."});
    } else {
        unit_write(unit, "Ions will remain fixed.");
    }
    write_free(unit, {"Level of output = ", sys.elec_algo.output_level});
}

void print_ene(const ions_state_type& st, const i_algo_type& i_algo, const elec_state_type* elec,
               const elec_algo_type& elec_algo, const tb_model_type& tb_model, int unit) {
    const bool moving = i_algo.n_steps > 0;
    const bool electrons = !tb_model.classical && elec != nullptr;
    auto line = [&](const char* text, double v) { write_free(unit, {text, v, " eV"}); };
    if (moving) {
        line(" Temperature          = ", st.temperature);
        line(" Ionic Kinetic Energy = ", st.e_kin);
        line(" Potential     Energy = ", st.e_pot);
        line(" Atomic        Energy = ", st.e_atoms);
        line(" Total         Energy = ", st.e_tot);
        if (electrons) {
            line(" Repulsive     Energy = ", st.e_pair);
            line(" Tight-binding Energy = ", elec->e);
        }
    } else {
        line(" Potential       Energy = ", st.e_pot);
        line(" Atomic        Energy = ", st.e_atoms);
        if (electrons) {
            line(" Repulsive       Energy = ", st.e_pair);
            line(" Tight-binding   Energy = ", elec->e);
        }
    }
    if (electrons && elec->eig != nullptr && uses_diag(elec_algo) && elec_algo.scc_used &&
        elec->kpt != nullptr && elec->kpt->sigma > 0.0) {
        // With charges and smearing the potential energy is the free energy E - T S.
        line(" Electronic -TS       = ", -elec->eig->e_ts);
        line(" Energy without -TS   = ", st.e_pot + elec->eig->e_ts);
    }
    if (electrons && elec->ls != nullptr &&
        (elec_algo.gs == elec_algo_ls || elec_algo.md == elec_algo_ls)) {
        // What tells how well the purification converged and how sparse P is; with
        // smearing the potential energy is the free energy E - T S.
        const ls_state_type& ls = *elec->ls;
        if (ls.sigma > 0.0) {
            line(" Electronic -TS       = ", -ls.e_ts);
            line(" Energy without -TS   = ", st.e_pot + ls.e_ts);
            line(" Chemical potential   = ", ls.mu);
        } else {
            write_free(unit, {" Idempotency error    = ", ls.idempotency});
        }
        write_free(unit, {" Electron count error = ", ls.n_found - ls.n_el});
        write_free(unit, {" Fill of P            = ", ls.fill});
        write_free(unit, {" Newton-Schulz steps  = ", ls.ns_steps});
        if (ls.sigma > 0.0)
            write_free(unit, {" Chebyshev terms      = ", ls.cheb_terms});
        else
            write_free(unit, {" Purification steps   = ", ls.sp2_steps});
    }
    if (electrons && elec->eig != nullptr && uses_diag(elec_algo)) {
        line(" Fermi         Energy = ", elec->eig->e_fermi);
        line(" Energy gap           = ", elec->eig->e_gap);
    }
    if (electrons && elec->kpm != nullptr &&
        (elec_algo.gs == elec_algo_kpm || elec_algo.md == elec_algo_kpm))
        line(" Fermi         Energy = ", elec->kpm->e_fermi);
    if (i_algo.hyper_md) {
        line(" Boost Pot     Energy = ", st.e_boost);
        line(" Boost factor         = ", st.time_factor);
    }
}

void energy_summary(const ions_state_type& st, const i_algo_type& /*i_algo*/) {
    // One line per ionic step, for watching a run (tail -f of standard output).
    write_fmt(stdout_unit, "(A,I8,A,F12.3,A,3F18.8,A,F10.2,A,F9.3,A)",
              {" step", st.step, "  t(fs)", st.time, "  Epot Ekin Etot(eV)", st.e_pot, st.e_kin,
               st.e_tot, "  T(K)", st.temperature, "  ", st.step_seconds, " s"});
}

void print_system_status(box_type& box, ions_state_type& st, const i_algo_type& i_algo,
                         elec_state_type* elec, const elec_algo_type& elec_algo,
                         const tb_model_type& tb_model, int unit) {
    const bool diag =
        !tb_model.classical && elec != nullptr && elec->eig != nullptr && uses_diag(elec_algo);
    if (i_algo.n_steps <= 0) {
        if (!i_am_master) return;
        print_configuration(box, st, i_algo, elec, elec_algo, tb_model, unit);
        if (diag) eig_print_eigen_energies(*elec->eig, unit);
        if (diag && elec->eig->kpt->mode == kpt_mode_path) eig_write_bands(*elec->eig, "BANDS");
        // The trajectory, when asked for, holds the one frame: energy, forces and
        // stress to all their digits.
        if (i_algo.save_to_file & save_xyz) {
            start_file(xyz_unit, data_file_names.xyz, nullptr);
            ions_save_xyz(box, st, i_algo.calc_stress, xyz_unit, data_file_names.xyz);
        }
        save_restart(st, i_algo, elec, elec_algo, diag, unit);
        return;
    }
    if (st.step == 0 && i_am_master) {
        const int mask = i_algo.save_to_file;
        const char* heads[3] = {
            "#Step   Time (fs)   Temp (K)    Ekin ions (eV)      Epot ions (eV)     Etot ions (eV)",
            "#Step  dEpot ions (eV)    Max force (eV)", "#Step  Epot ions (eV)     Max force (eV)"};
        const int h = i_algo.algo == ions_algo_md ? 0 : (i_algo.algo == ions_algo_cg_relax ? 1 : 2);
        const char* cell_head =
            "#Step  dEpot ions (eV)    Max force (eV)    Volume (A^3)    Pressure (GPa)";
        const bool cell_moves =
            i_algo.algo == ions_algo_cg_relax && i_algo.relax_cell != relax_cell_none;
        const char* npt_head =
            "#Step   Time (fs)   Temp (K)    Ekin ions (eV)      Epot ions (eV)  "
            "   Etot ions (eV)    Volume (A^3)    Pressure (GPa)";
        const char* head = cell_moves ? cell_head : heads[h];
        if (i_algo.algo == ions_algo_md && i_algo.barostat != barostat_none) head = npt_head;
        if (mask & save_ene) start_file(ene_unit, data_file_names.ene, head);
        if (mask & save_pos) start_file(pos_unit, data_file_names.pos, nullptr);
        if (mask & save_vel) start_file(vel_unit, data_file_names.vel, nullptr);
        if (mask & save_for) start_file(for_unit, data_file_names.force, nullptr);
        if (mask & save_eloc) start_file(eloc_unit, data_file_names.eloc, nullptr);
        if (mask & save_xyz) start_file(xyz_unit, data_file_names.xyz, nullptr);
        if ((mask & save_eig) && (elec_algo.gs == 2 || elec_algo.md == 2))
            start_file(eig_unit, data_file_names.eig, nullptr);
        st.e_kin_ref = st.e_kin;
        st.e_pot_ref = st.e_pot;
        st.e_tot_ref = st.e_tot;
        st.skip_save = 0;
    }
    if (i_am_master) {
        energy_summary(st, i_algo);
        ions_save_state(st, i_algo, cont_unit, "POSCONT");
    }
    if (st.final_call == 0) {
        if (i_algo.status_output_freq > 0 && st.step % i_algo.status_output_freq == 0) {
            if (st.skip_save == 0 && i_am_master)
                save_step_to_files(box, st, i_algo, elec, elec_algo, tb_model);
            // A driver run lists its points briefly (its own line per point): the
            // configuration goes to the data files alone.
            if (i_am_master && !i_algo.driver_ipi) {
                reopen_units();
                write_free(unit, {"------------------------------|", st.step,
                                  "|------------------------------"});
                print_configuration(box, st, i_algo, elec, elec_algo, tb_model, unit);
            }
        }
        st.skip_save = 0;
    } else if (i_am_master) {
        reopen_units();
        unit_write(unit, rule60);
        unit_write(unit, "FINAL CONFIGURATION");
        unit_write(unit, rule60);
        print_configuration(box, st, i_algo, elec, elec_algo, tb_model, unit);
        unit_write(unit, rule60);
        if (diag && elec_algo.output_level < 4 && elec_algo.output_level > 1)
            eig_print_eigen_energies(*elec->eig, unit);
        unit_write(unit, rule60);
        save_restart(st, i_algo, elec, elec_algo, diag, unit);
    }
}

void archive_file(std::string_view name, int n) {
    const std::string base(name);
    for (int i = n; i >= 2; --i) {
        const std::string cmd =
            format_items("(\"cp -f  \",A,\".\",I3.3,\" \",A,\".\",I3.3)", {base, i - 1, base, i});
        if (std::system((cmd + " 2>/dev/null").c_str()) != 0) continue;
    }
    const std::string cmd = format_items("(\"cp -f  \",A,\" \",A,\".\",I3.3)", {base, base, 1});
    if (std::system(cmd.c_str()) != 0)
        warning_error("could not archive " + base, "archive_file", mod);
}

} // namespace lyrt
