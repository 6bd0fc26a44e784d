// Fatal stops, warnings and the call-trace stack.
//
// A fatal stop writes its records to the error file, flushes and closes the
// report files, prints the call stack and then throws fatal_stop. Only the main
// program catches it (and ends the run with a failure status); tests catch it to
// look at the message, the number and the reporting routine.
#pragma once

#include <array>
#include <exception>
#include <string>
#include <string_view>

namespace lyrt {

constexpr int max_trace_depth = 100;
constexpr int com_name_len = 5; // leading characters compared when a level is popped
constexpr int trace_name_len = 32;

// What a stopped run reports; plain stops carry only their text.
struct fatal_stop : std::exception {
    std::string message;
    long long number = 0;
    std::string procedure;
    std::string module;
    bool plain = false;
    const char* what() const noexcept override { return message.c_str(); }
};

// Inside a team of threads (a loop over k-points) the stop is thrown without its
// records: the loop catches it and repeats the failing work outside the team,
// where the stop reports as usual.
[[noreturn]] void fatal_error(std::string_view message, long long number,
                              std::string_view procedure, std::string_view module);
// True inside an OpenMP parallel region: the records kept for the whole process
// (call trace, phase clocks, allocation count, reports) are then left alone or
// guarded.
bool in_thread_team();
void warning_error(std::string_view message, std::string_view procedure, std::string_view module);

// A stop with its own text and no trace ("fit too poor, reduce dt" and the like):
// the text goes to standard output and the run ends with a failure status.
[[noreturn]] void plain_stop(std::string_view text);

void trace_in(std::string_view procedure, std::string_view module);
void trace_out(std::string_view procedure, std::string_view module);
void trace_print_stack();

// Brackets a routine in the call trace when debug is above 0 at its entry: the
// level is pushed here and popped when the routine is left by any return. When
// the routine is left by a fatal stop the level stays, so that the stack keeps
// the place where the run stopped.
struct trace_guard {
    trace_guard(std::string_view procedure, std::string_view module);
    ~trace_guard();
    trace_guard(const trace_guard&) = delete;
    trace_guard& operator=(const trace_guard&) = delete;
    std::string_view procedure;
    std::string_view module;
    bool active = false;
    int exceptions_at_entry = 0;
};

// Read access to the stack, for tests and the report.
int trace_depth();
const std::string& trace_procedure(int level); // 32 characters, blank padded
const std::string& trace_module(int level);
void trace_reset();

} // namespace lyrt
