// The main program: one run in the working directory, no arguments.
//
// The run is a fixed sequence: open the reports, read positions, parameters and
// keywords, set up ions, neighbour lists and electrons, hand control to the ion
// loop, and close down with the timing lines. A fatal stop anywhere has already
// written its message and closed the files when it reaches this level; the run
// then ends with status 1 (a distributed run ends all its processes). SIGTERM, SIGINT and
// max_wall_time end the ion loop at the end of a step; the run closes down as usual and ends with
// status 2.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/stop_module.hpp"
#include "base/timing_module.hpp"
#include "dynamics/ions_dyn_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/output_module.hpp"
#include "run/system_def_module.hpp"

#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <unistd.h>

namespace {

// The run; its exit status: 0, or exit_interrupted when a signal or the wall-time
// limit ended it early at a step boundary.
int main_lyrt() {
    using namespace lyrt;
    const double start_time = utime();
    stop_install_handlers();
    init_mpi();
    if (i_am_master) open_units();
    barrier();
    trace_in("main_lyrt", "main_lyrt");

    init_system();
    if (i_am_master) print_system_def(report_unit);
    barrier();
    if (n_proc >= 2 && debug >= 3) {
        print_system_def(my_proc + 20);
        unit_close(my_proc + 20);
    }

    const double loop_start = timeofday();
    ions_main_loop(sys.box, sys.ions_state, sys.i_algo, sys.elec_state, sys.elec_algo, sys.ham);
    const double loop_time = timeofday() - loop_start;
    write_free(timing_unit, {"Time of day interval ", loop_time});
    close_mpi();
    trace_out("main_lyrt", "main_lyrt");
    write_free(timing_unit, {"main_lyrt", utime() - start_time});
    if (i_am_master) close_units();
    return sys.ions_state.interrupted != stop_none ? exit_interrupted : 0;
}

// A fatal stop in a distributed run ends every process. Process 0 has written the
// message and closed its files; it ends the run at once. Another process waits a
// moment first: every process reads the same input and holds the same results,
// so process 0 usually meets the same error and writes it; only an error of that
// process alone is still alive after the wait, and it writes its message (to
// standard error and ERRLYRT) before ending the run, so the message is written once.
void end_distributed_run(const lyrt::fatal_stop& stop) {
    using namespace lyrt;
    if (!i_am_master) {
        ::sleep(3);
        const std::string text = " FATAL ERROR on process " + std::to_string(my_proc) + ": " +
                                 stop.message + " (in procedure " + stop.procedure + " of module " +
                                 stop.module + ")";
        unit_write(0, text);
        append_records("ERRLYRT", {text, "ABORTING LYRT !"});
    }
    std::fflush(stdout);
    std::fflush(stderr);
    abort_mpi(1);
}

// The run, with an error of the language's own (an allocation that fails, a bad
// conversion) ending through the fatal path as every other error does: its
// message in ERRLYRT and on standard error, the reports closed, status 1.
int guarded_run() {
    try {
        return main_lyrt();
    } catch (const lyrt::fatal_stop&) {
        throw;
    } catch (const std::bad_alloc&) {
        lyrt::fatal_error("out of memory: an allocation failed", -1, "main_lyrt", "main_lyrt");
    } catch (const std::exception& e) {
        lyrt::fatal_error(std::string("unexpected error: ") + e.what(), -1, "main_lyrt",
                          "main_lyrt");
    }
}

} // namespace

int main() {
    try {
        return guarded_run();
    } catch (const lyrt::fatal_stop& stop) {
        std::fflush(stdout);
        if (lyrt::n_proc >= 2) end_distributed_run(stop);
        lyrt::close_mpi();
        return 1;
    }
}
