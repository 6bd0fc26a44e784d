#include "run/system_def_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "numerics/random_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/constants_module.hpp"

#include <cstdlib>
#include <limits>

namespace lyrt {

system_def_type sys;

namespace {
constexpr const char* mod = "system_def_module";
} // namespace

void init_system() {
    const trace_guard trace("init_system", mod);
    ions_read_in(sys.box, sys.box.ions, "POSLYRT");
    tb_model_read_param(sys.box.ions.species, sys.tb_model, "TBPARAM", sys.box.ions.n_species);
    read_input("INLYRT", sys.elec_algo, sys.i_algo, sys.tb_model, sys.kpt, sys.system_name,
               sys.n_electrons, sys.n_states, sys.n_h_dup);
    // A sampling of k-points needs one neighbour entry per image (each has its phase).
    kpt_read_and_allocate(sys.kpt, sys.box.cell.b, "KPTS", kpt_unit);
    sys.box.explicit_images = kpt_general(sys.kpt) && !sys.tb_model.classical;
    init_system_ions();
    barrier();
    init_system_elec();
}

void init_system_ions() {
    const char* proc = "init_system_ions";
    const trace_guard trace(proc, mod);
    sys.ions = &sys.box.ions;
    sys.ions_state.ions = &sys.box.ions;
    sys.ions_state.box = &sys.box;
    // The run's stream starts from its two seeds, so that a run can be repeated.
    init_random(sys.i_algo.temp_seed[0], sys.i_algo.temp_seed[1]);
    constants_init();
    pdist_init(sys.ions_pdist, sys.ions->total_n_ions, 1, 1, 0, "bl");
    ions_init(sys.ions_state, sys.i_algo);
    pbc_build_nn_lists(sys.box, sys.tb_model.r_cut, sys.elec_algo.lo_rad);
    write_free(stdout_unit, {"After pbc_calc_max_nn, max_n_nn=", sys.ions->max_n_nn});
}

void init_elec_dim(const ions_type& ions, const kpt_type& kpt, const tb_model_type& tb_model,
                   int& n_basis, int& n_states, double& n_electrons) {
    const char* proc = "init_elec_dim";
    n_basis = 0;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        n_basis += ao_get_no_type(pair_param(tb_model, ions.type(i), ions.type(i)).ao1);
    n_states = std::min(n_basis, n_states);
    double q = 0.0; // electrons of the neutral system
    for (int s = 1; s <= ions.n_species; ++s) {
        const atomic_type& sp = ions.species[static_cast<std::size_t>(s - 1)];
        q += (sp.elec_occ[0] + sp.elec_occ[1] + sp.elec_occ[2]) * ions.n_ions(s);
    }
    const char* odd = "uneven number of electrons without electronic smearing.";
    const char* few = "number of states given is too small to accomodate the number of electrons.";
    const bool states_given = n_states >= 0;
    const bool electrons_given = n_electrons >= 0.0;
    if (!electrons_given) n_electrons = q;
    if (n_electrons > 2.0 * n_basis)
        fatal_error("more electrons than the basis functions can hold (twice their number, " +
                        std::to_string(2 * n_basis) + ")",
                    static_cast<long long>(n_electrons), proc, mod);
    const int n_el = static_cast<int>(n_electrons);
    if (kpt.sigma == 0.0) {
        if (n_el % 2 != 0) fatal_error(odd, -1, proc, mod);
        if (!states_given)
            n_states = n_el / 2;
        else if (!electrons_given && n_states < n_el / 2)
            fatal_error(few, -1, proc, mod);
    } else {
        const int s_default = std::max(static_cast<int>(single_0_6 * n_electrons),
                                       std::max(ions.total_n_ions / 2, 3) + (n_el + 1) / 2);
        if (!states_given) {
            n_states = s_default;
        } else {
            if (n_states < n_el / 2) fatal_error(few, -1, proc, mod);
            if (electrons_given && n_states < s_default)
                warning_error("number of states might be too small", proc, mod);
        }
    }
    if (q > n_electrons)
        write_free(report_unit, {"system has net positive charge of +", q - n_electrons});
    if (q < n_electrons)
        write_free(report_unit, {"system has net negative charge of -", n_electrons - q});
}

void init_system_elec() {
    const char* proc = "init_system_elec";
    const trace_guard trace(proc, mod);
    // Counts of 0 or below stand for 1 (and divide every processor count).
    if (sys.n_h_dup > 0 && n_proc % sys.n_h_dup != 0)
        fatal_error("n_h_dup should be a divider of the # of processors", -1, proc, mod);
    if (sys.n_h_dup <= 0) sys.n_h_dup = 1;
    if (sys.n_h_dup > n_proc) sys.n_h_dup = n_proc;
    sys.n_h_dup = n_proc;
    // Every process holds the whole block Hamiltonian: its assembly grows with the
    // ion count alone, and the dense and polynomial solvers divide their own work.
    pdist_deallocate(sys.ions_pdist);
    pdist_init(sys.ions_pdist, sys.ions->total_n_ions, 1, 1, 0, "bl");
    hamiltonian_init(sys.ham, *sys.ions, sys.tb_model, sys.ions_pdist, sys.ions_pdist);
    if (sys.tb_model.classical) {
        return;
    }
    sys.elec_state = &sys.elec_state_record;
    // A density of states and a band structure cover every band unless the input
    // limits the states.
    if (((sys.i_algo.save_to_file & save_dos) != 0 || sys.kpt.mode == kpt_mode_path) &&
        sys.n_states < 0)
        sys.n_states = std::numeric_limits<int>::max();
    init_elec_dim(*sys.ions, sys.kpt, sys.tb_model, sys.n_basis, sys.n_states, sys.n_electrons);
    elec_state_init(*sys.elec_state, sys.n_basis, sys.n_states, sys.n_electrons, sys.kpt);
    pdist_init(sys.states_pdist, sys.n_states, 1, n_proc, my_proc, "bc");
    const auto uses = [](int code) { return sys.elec_algo.gs == code || sys.elec_algo.md == code; };
    if (sys.kpt.mode == kpt_mode_path) {
        // A band structure: the levels along the path, nothing that sums over it.
        if (sys.i_algo.n_steps > 0)
            fatal_error("KPTS gives a path, which is for the levels of one structure (the file "
                        "BANDS): n_steps must be 0",
                        sys.i_algo.n_steps, proc, mod);
        if (sys.elec_algo.scc_used)
            fatal_error("KPTS gives a path: self-consistent charges need a grid or points", -1,
                        proc, mod);
        sys.i_algo.calc_forces = false;
        sys.i_algo.calc_stress = false;
    }
    if (kpt_general(sys.kpt))
        for (const int code : {sys.elec_algo.gs, sys.elec_algo.md})
            if (code != elec_algo_diag && code != elec_algo_diag_b)
                fatal_error(
                    "KPTS asks for k-points, which only the diagonalisation (elec_gs_algo "
                    "and elec_md_algo 2 or 3) samples: the kernel polynomial, linear-scaling "
                    "and orbital solvers work at the gamma point; remove KPTS or choose 2 "
                    "or 3",
                    code, proc, mod);
    // Each process solves whole points: beyond one process per point the rest wait.
    if (kpt_general(sys.kpt) && n_proc > sys.kpt.n_k) {
        const std::string text =
            std::to_string(n_proc) + " processes share " + std::to_string(sys.kpt.n_k) +
            " k-points (each solves whole points): " + std::to_string(n_proc - sys.kpt.n_k) +
            " of them have no work";
        warning_error(text, proc, mod);
        if (i_am_master) write_free(stdout_unit, {"WARNING: " + text});
    }
    if (uses(elec_algo_diag) || uses(elec_algo_diag_b)) {
        eig_state_allocate(sys.eig_state, sys.n_basis, sys.n_states, sys.n_electrons, 1, 1,
                           sys.tb_model.non_orthogonal, sys.elec_algo.eigen_vect ? 'V' : 'N',
                           sys.kpt);
        if (sys.elec_algo.eigen_vect) eig_forces_reserve(sys.eig_state, sys.ham);
        sys.elec_state->eig = &sys.eig_state;
    }
    if (uses(elec_algo_kpm)) {
        // A negative count asks for a convergence table first; the expansion has |M| terms.
        kpm_state_alloc(sys.kpm_state, std::abs(sys.elec_algo.n_moments));
        kpm_state_init(sys.kpm_state, sys.ham, sys.elec_algo.kernel, sys.n_basis, sys.n_electrons,
                       sys.elec_algo.no_ex, sys.elec_algo.kpm_block_size, sys.elec_algo.kpm_emin,
                       sys.elec_algo.kpm_emax);
        sys.elec_state->kpm = &sys.kpm_state;
    }
    if (uses(elec_algo_ls)) {
        sys.ls_state.eps_filter = sys.elec_algo.ls_eps_filter;
        sys.ls_state.sigma = sys.kpt.sigma;
        ls_init(sys.ls_state, sys.ham, sys.box, sys.n_electrons);
        sys.elec_state->ls = &sys.ls_state;
    }
    if (uses(elec_algo_sd) || uses(elec_algo_cg)) {
        // One orbital per pair of electrons: the solver has no smearing.
        if (sys.kpt.sigma > 0.0)
            fatal_error("the orbital solver fills n_electrons / 2 orbitals and has no smearing: "
                        "set sigma = 0 or use the diagonalisation (elec_gs_algo = 2)",
                        -1, proc, mod);
        cg_state_allocate(sys.cg_state, sys.ham, static_cast<int>(sys.n_electrons) / 2,
                          sys.elec_algo.lo_rad, sys.elec_algo.nh, sys.elec_algo.start);
        // Orbitals of unit length start on the barrier of the functional (along an
        // empty level of energy e above eta, E = 2 e (2 b^2 - b^4) peaks at b = 1),
        // from where the search can run away: they start shorter.
        if (sys.elec_algo.start != 1)
            for (double& v : sys.cg_state.psi) v *= sys.elec_algo.start_scale;
        sys.elec_state->cg = &sys.cg_state;
    }
    scc_model_init(sys.scc, *sys.ions, sys.elec_algo.scc_used,
                   uses(elec_algo_sd) || uses(elec_algo_cg));
    sys.elec_state->scc = &sys.scc;
    if (sys.elec_algo.start == 1) {
        if (sys.elec_algo.gs > 1 && i_am_master)
            warning_error("Reading wave-function only make sense when elec_algo%gs/md <= 1", proc,
                          mod);
        if (i_am_master) write_free(report_unit, {"reading wave-functions from WFS..."});
        sys.elec_algo.algo = sys.elec_algo.gs;
        elec_load_state(*sys.elec_state, sys.elec_algo, wfs_unit, "WFS");
        if (i_am_master) write_free(report_unit, {"done!"});
    }
}

} // namespace lyrt
