#include "dynamics/ipi_driver_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/stop_module.hpp"
#include "base/timing_module.hpp"
#include "diag/forces_module.hpp"
#include "diag/gs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "parallel/ipi_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/output_module.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace lyrt {

namespace {

constexpr const char* mod = "ipi_driver_module";

// Message codes as every process learns them from process 0.
constexpr int msg_status = 1, msg_init = 2, msg_posdata = 3, msg_getforce = 4, msg_exit = 5,
              msg_signal = 6, msg_dropped = 7;

int message_code(const std::string& w) {
    if (w == "STATUS") return msg_status;
    if (w == "INIT") return msg_init;
    if (w == "POSDATA") return msg_posdata;
    if (w == "GETFORCE") return msg_getforce;
    if (w == "EXIT") return msg_exit;
    if (w.empty()) return msg_signal;
    return 0;
}

// The words of a malformed message, printable.
std::string printable(const std::string& w) {
    std::string out;
    for (const char c : w) out += (c >= 32 && c < 127) ? c : '?';
    return out;
}

// Takes the server's cell (its columns the lattice vectors, Bohr) and positions:
// a new cell rebuilds the box's image cells and sub-boxes.
void take_positions(box_type& box, const farray<double, 1>& data) {
    ions_type& ions = box.ions;
    farray<double, 2> a;
    a.allocate({1, 1}, {3, 3});
    bool moved = false;
    for (int j = 1; j <= 3; ++j)
        for (int i = 1; i <= 3; ++i) {
            a(i, j) = data(3 * (i - 1) + j) * ipi_bohr;
            moved = moved || a(i, j) != box.cell.a(i, j);
        }
    if (moved) {
        cell_init_cell(box.cell, a);
        box_init(box, box.r_cut, box.lo_rad);
        box_calc_ic_list(box);
        box_reset(box);
        box_init_sb_list(box);
    }
    for (int n = 1; n <= ions.total_n_ions; ++n)
        for (int k = 1; k <= 3; ++k) ions.r(k, n) = data(18 + 3 * (n - 1) + k) * ipi_bohr;
}

} // namespace

void ions_ipi_loop(box_type& box, ions_state_type& ions_state, i_algo_type& i_algo,
                   elec_state_type* elec, elec_algo_type& elec_algo, hamiltonian_type& ham) {
    const char* proc = "ions_ipi_loop";
    const trace_guard trace(proc, mod);
    ions_type& ions = box.ions;
    const int n = ions.total_n_ions;
    static elec_state_type none;
    elec_state_type& e = elec != nullptr ? *elec : none;
    ipi_link_type link;
    link.timeout = i_algo.driver_timeout;
    if (i_am_master) ipi_connect(link, i_algo.driver_address, i_algo.driver_port);
    if (i_am_master) {
        unit_write(report_unit, "");
        unit_write(report_unit, " Driven by the i-PI server at " + link.peer);
        unit_write(report_unit, "   point       energy (eV)   largest force (eV/A)   seconds");
    }
    farray<double, 1> data; // cell, its inverse (9 + 9) and the positions, Bohr
    data.allocate({1}, {18 + 3 * n});
    bool have_data = false;
    ions_state.first_step = ions_state.step;
    // Each point is reported and saved as a step of dynamics: the run has as many
    // as the server sends.
    i_algo.n_steps = std::max(i_algo.n_steps, 1 << 30);
    int points = 0;
    for (;;) {
        std::string word;
        if (i_am_master) word = ipi_recv_word(link);
        int code = i_am_master ? message_code(word) : 0;
        // A server that closes between two messages has ended the session (ASE's
        // does so instead of EXIT), unless it never took the forces of its last point.
        if (i_am_master && link.closed) code = have_data ? msg_dropped : msg_exit;
        bcast_int(code);
        if (code == 0)
            fatal_error("the driver server sent '" + printable(word) +
                            "', which is not a message of the i-PI protocol",
                        -1, proc, mod);
        if (code == msg_signal) {
            ions_state.interrupted = stop_by_signal;
            const std::string why = stop_reason(stop_by_signal) +
                                    " while waiting for the server, after " +
                                    std::to_string(points) + " points";
            warning_error(why, proc, mod);
            if (i_am_master) unit_write(report_unit, " *** " + why + " ***");
            break;
        }
        if (code == msg_exit) break;
        if (code == msg_dropped)
            fatal_error("the driver server closed the connection before it took the forces of "
                        "point " +
                            std::to_string(points),
                        points, proc, mod);
        if (code == msg_status) {
            if (i_am_master) ipi_send_word(link, have_data ? "HAVEDATA" : "READY");
        } else if (code == msg_init) {
            // The bead index and an initialisation string, which this client does not use.
            if (i_am_master) {
                ipi_recv_int(link);
                const std::int32_t len = ipi_recv_int(link);
                if (len < 0 || len > (1 << 24))
                    fatal_error("the driver server's INIT message is malformed (length " +
                                    std::to_string(len) + ")",
                                len, proc, mod);
                std::string init(static_cast<std::size_t>(len), '\0');
                ipi_recv_bytes(link, init.data(), init.size());
            }
        } else if (code == msg_posdata) {
            int count = n;
            if (i_am_master) {
                ipi_recv_bytes(link, data.data(), 18 * sizeof(double));
                count = ipi_recv_int(link);
            }
            bcast_int(count);
            if (count != n)
                fatal_error("the driver server sent " + std::to_string(count) +
                                " atoms; this run has " + std::to_string(n) +
                                " (POSLYRT): a changed system needs a new run",
                            count, proc, mod);
            if (i_am_master)
                ipi_recv_bytes(link, data.data() + 18,
                               3 * static_cast<std::size_t>(n) * sizeof(double));
            bcast_real_vec(data);
            const double start = timeofday();
            take_positions(box, data);
            box_ions_fill_sb(box);
            pbc_calc_nn_lists(box);
            // The first point by the ground-state code, the rest by the dynamics code.
            elec_algo.algo = points == 0 ? elec_algo.gs : elec_algo.md;
            gs_calc(box, ions_state, e, elec_algo, ham, i_algo.calc_elocal);
            forces_calc(ham, ions, box, i_algo, e, elec_algo);
            ions_calc_energies(ions_state, i_algo);
            ions_state.step_seconds = timeofday() - start;
            print_system_status(box, ions_state, i_algo, elec, elec_algo, *ham.tb_model,
                                report_unit);
            double f_max = 0.0;
            for (int i = 1; i <= n; ++i)
                f_max = std::max(f_max, std::sqrt(ions.f(1, i) * ions.f(1, i) +
                                                  ions.f(2, i) * ions.f(2, i) +
                                                  ions.f(3, i) * ions.f(3, i)));
            ++points;
            if (i_am_master)
                write_fmt(report_unit, "(1X,I8,F20.10,F20.10,F12.4)",
                          {points, ions_state.e_pot, f_max, timeofday() - start});
            ions_state.step += 1;
            have_data = true;
        } else if (code == msg_getforce) {
            if (!have_data)
                fatal_error("the driver server asked for forces before it sent positions", -1, proc,
                            mod);
            if (i_am_master) {
                // Energy (Hartree), forces (Hartree/Bohr, ion by ion), the virial
                // -dE/d(strain) = V sigma (Hartree), and one byte of extra data.
                ipi_send_word(link, "FORCEREADY");
                const double energy = ions_state.e_pot / ipi_hartree;
                ipi_send_bytes(link, &energy, sizeof(energy));
                ipi_send_int(link, n);
                std::vector<double> f(3 * static_cast<std::size_t>(n));
                for (int i = 1; i <= n; ++i)
                    for (int k = 1; k <= 3; ++k)
                        f[static_cast<std::size_t>(3 * (i - 1) + k - 1)] =
                            ions.f(k, i) * ipi_bohr / ipi_hartree;
                ipi_send_bytes(link, f.data(), f.size() * sizeof(double));
                const double vol = cell_vol(box.cell);
                double virial[9];
                for (int i = 1; i <= 3; ++i)
                    for (int j = 1; j <= 3; ++j)
                        virial[3 * (j - 1) + (i - 1)] = vol * box.cell.sig(i, j) / ipi_hartree;
                ipi_send_bytes(link, virial, sizeof(virial));
                ipi_send_int(link, 1);
                const char extra = 0;
                ipi_send_bytes(link, &extra, 1);
            }
            have_data = false;
        }
    }
    if (i_am_master) {
        ipi_close(link);
        unit_write(report_unit, " Driver run: " + std::to_string(points) + " points");
    }
}

} // namespace lyrt
