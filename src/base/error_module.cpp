#include "base/error_module.hpp"

#include "base/io_module.hpp"

#include <exception>

#if defined(_OPENMP)
#include <omp.h>
#endif

namespace lyrt {

namespace {

std::array<std::string, max_trace_depth + 1> p_name; // level 1..100
std::array<std::string, max_trace_depth + 1> m_name;
int depth = 0;
const std::string dots(max_trace_depth, '.');

std::string field32(std::string_view s) {
    std::string f(s.substr(0, trace_name_len));
    f.resize(trace_name_len, ' ');
    return f;
}

std::string trimmed(std::string_view s) {
    auto end = s.find_last_not_of(' ');
    return end == std::string_view::npos ? std::string() : std::string(s.substr(0, end + 1));
}

// First n characters, blank padded as a Fortran substring compare would see them.
std::string head(std::string_view s, int n) {
    std::string h(s.substr(0, static_cast<std::size_t>(n)));
    h.resize(static_cast<std::size_t>(n), ' ');
    return h;
}

void trace_line(const char* verb, std::string_view procedure, std::string_view module) {
    std::string text = dots.substr(0, static_cast<std::size_t>(depth)) + verb + trimmed(module) +
                       ":" + trimmed(procedure) + " on PE=";
    write_free(stdout_unit, {text, my_proc});
}

} // namespace

bool in_thread_team() {
#if defined(_OPENMP)
    return omp_in_parallel() != 0;
#else
    return false;
#endif
}

void fatal_error(std::string_view message, long long number, std::string_view procedure,
                 std::string_view module) {
    if (in_thread_team()) {
        fatal_stop stop;
        stop.message = std::string(message);
        stop.number = number;
        throw stop;
    }
    write_free(error_unit, {"FATAL ERROR No ", number});
    unit_write(error_unit,
               "Occured in procedure " + trimmed(procedure) + " in module " + trimmed(module));
    unit_write(error_unit, "        " + std::string(message));
    write_free(error_unit, {"ABORTING LYRT !"});
    flush(error_unit);
    // The report says that the run stopped and why, in place of its normal end.
    if (unit_is_open(report_unit)) {
        unit_write(report_unit, "");
        unit_write(report_unit, " *** THE RUN STOPPED WITH A FATAL ERROR ***");
        unit_write(report_unit, " " + std::string(message));
        unit_write(report_unit, " in procedure " + trimmed(procedure) + " of module " +
                                    trimmed(module) + "; see ERRLYRT");
    }
    flush(report_unit);
    close_units(false);
    // Standard output carries the message too: a user watching the run sees why it ended.
    unit_write(stdout_unit, " FATAL ERROR: " + std::string(message));
    trace_print_stack();
    std::fflush(stdout);
    fatal_stop stop;
    stop.message = std::string(message);
    stop.number = number;
    stop.procedure = std::string(procedure);
    stop.module = std::string(module);
    throw stop;
}

void warning_error(std::string_view message, std::string_view procedure, std::string_view module) {
    unit_write(error_unit, " !!! WARNING !!!  ");
    unit_write(error_unit,
               "Occured in procedure " + trimmed(procedure) + " in module " + trimmed(module));
    unit_write(error_unit, "        " + std::string(message));
}

void plain_stop(std::string_view text) {
    write_free(stdout_unit, {text});
    std::fflush(stdout);
    fatal_stop stop;
    stop.message = std::string(text);
    stop.plain = true;
    throw stop;
}

void trace_in(std::string_view procedure, std::string_view module) {
    trace_line("Entering ", procedure, module);
    if (depth >= max_trace_depth) return;
    ++depth;
    if (depth != max_trace_depth) {
        p_name[depth] = field32(procedure);
        m_name[depth] = field32(module);
    } else {
        p_name[depth] = field32("Maxiumm depth of error stack reached");
        m_name[depth] = field32("Error could be deeper ...");
    }
}

void trace_out(std::string_view procedure, std::string_view module) {
    if (depth == 0) {
        warning_error("trace_out called with empty stack", "trace_out", "error_module");
    } else {
        const std::string pstr = head(p_name[depth], com_name_len);
        const std::string mstr = head(m_name[depth], com_name_len);
        const std::string pgiven = head(procedure, com_name_len);
        const std::string mgiven = head(module, com_name_len);
        if (pstr == pgiven && mstr == mgiven) {
            p_name[depth].assign(trace_name_len, ' ');
            m_name[depth].assign(trace_name_len, ' ');
            --depth;
        } else {
            write_free(error_unit, {"pstr(1:com_name_len)  = ", pstr});
            write_free(error_unit, {"p_name(1:com_name_len)= ", pgiven});
            write_free(error_unit, {"mstr(1:com_name_len)  = ", mstr});
            write_free(error_unit, {"m_name(1:com_name_len)= ", mgiven});
            fatal_error("Error stack is corrupted Last p_name = " + p_name[depth] + "m_name = " +
                            m_name[depth] + "Calling p_name = " + std::string(procedure) +
                            "m_name = " + std::string(module),
                        depth, "trace_out", "error_module");
        }
    }
    trace_line("Leaving ", procedure, module);
}

trace_guard::trace_guard(std::string_view procedure_in, std::string_view module_in)
    : procedure(procedure_in), module(module_in), active(debug > 0 && !in_thread_team()),
      exceptions_at_entry(std::uncaught_exceptions()) {
    if (active) trace_in(procedure, module);
}

trace_guard::~trace_guard() {
    if (active && std::uncaught_exceptions() == exceptions_at_entry) trace_out(procedure, module);
}

void trace_print_stack() {
    write_free(stdout_unit, {"Calling stack :"});
    for (int level = 1; level <= depth; ++level)
        write_free(stdout_unit, {"   ", level, p_name[level], m_name[level]});
}

int trace_depth() {
    return depth;
}
const std::string& trace_procedure(int level) {
    return p_name[static_cast<std::size_t>(level)];
}
const std::string& trace_module(int level) {
    return m_name[static_cast<std::size_t>(level)];
}

void trace_reset() {
    for (int level = 0; level <= max_trace_depth; ++level) {
        p_name[static_cast<std::size_t>(level)].clear();
        m_name[static_cast<std::size_t>(level)].clear();
    }
    depth = 0;
}

} // namespace lyrt
