// File units: every stream of the program is addressed by a small unit number.
//
// The unit table connects numbers to files with the semantics of Fortran
// input/output: sequential formatted records (a write in the middle of a file
// makes that record the last one), direct-access records of a fixed length,
// status replace/old/new/unknown, position append, rewind and backspace.
// Units 0, 5 and 6 are standard error, input and output and are always
// connected. Writing to a unit that is not connected connects it to "fort.<n>",
// as a Fortran runtime does.
#pragma once

#include "base/format_module.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lyrt {

constexpr int stdout_unit = 6;

// The identity of this process. The message layer sets it in init_mpi; the
// file layer and the fatal path read it, since only process 0 writes.
extern int n_proc;       // number of processes (1)
extern int my_proc;      // own rank, 0-based (0)
extern bool i_am_master; // my_proc == 0

// Fixed unit numbers of the run's streams.
extern int report_unit; // 12, OUTLYRT
extern int error_unit;  // 13, ERRLYRT
extern int timing_unit; // 14, timings
extern int cont_unit;   // 15, POSCONT
extern int pos_unit;    // 16, positions data file
extern int vel_unit;    // 17, velocities data file
extern int for_unit;    // 18, forces data file
extern int ene_unit;    // 19, energies data file
extern int eig_unit;    // 20, eigenvalues data file
extern int wfs_unit;    // 21, WFS
extern int eloc_unit;   // 22, local energies data file
extern int kpt_unit;    // 23, KPTS (not opened at the gamma point)
extern int xyz_unit;    // 24, extended-XYZ trajectory
extern int debug;       // trace level, keyword debug

// Names of the per-step data files (80 characters each), set by read_input.
struct data_file_names_type {
    std::string pos;
    std::string vel;
    std::string force;
    std::string ene;
    std::string eig;
    std::string eloc;
    std::string xyz;
    std::string dos;
};
extern data_file_names_type data_file_names;

// ---- unit table ---------------------------------------------------------------

// Connects a unit to a file. status: "replace", "old", "new", "unknown";
// position: "asis", "rewind", "append"; access: "sequential", "direct" (then
// recl is the record length in bytes). Returns 0 or a positive iostat.
int unit_open(int unit, const std::string& file, std::string_view status = "unknown",
              std::string_view position = "asis", std::string_view access = "sequential",
              int recl = 0);
void unit_close(int unit);
// Appends records to a file from whichever process calls it, past the unit table
// (whose files only process 0 writes): the last words of a process that stops alone.
void append_records(const std::string& file, std::initializer_list<std::string_view> records);
bool unit_is_open(int unit);
std::string unit_file_name(int unit); // "" when not connected
std::string unit_access(int unit);    // "SEQUENTIAL" or "DIRECT"
std::string unit_form(int unit);      // "FORMATTED" or "UNFORMATTED"
int unit_recl(int unit);

// Sequential records. unit_read returns 0, -1 at end of file, or a positive iostat;
// the record is returned without its line end.
void unit_write(int unit, std::string_view record);
int unit_read(int unit, std::string& record);
void unit_rewind(int unit);
void unit_backspace(int unit);

// Direct-access records, numbered from 1. Return 0 or a positive iostat; a
// transfer longer than the record length is an error.
int unit_write_direct(int unit, long rec, const void* data, std::size_t n_bytes);
int unit_read_direct(int unit, long rec, void* data, std::size_t n_bytes);

// Formatted and free-form output on a unit; a format with '/' writes several records.
void write_fmt(int unit, std::string_view format, std::span<const fitem> items);
inline void write_fmt(int unit, std::string_view format, std::initializer_list<fitem> items) {
    write_fmt(unit, format, std::span<const fitem>(items.begin(), items.size()));
}
void write_free(int unit, std::span<const fitem> items);
inline void write_free(int unit, std::initializer_list<fitem> items) {
    write_free(unit, std::span<const fitem>(items.begin(), items.size()));
}

// Free-form (list-directed) input: one read takes as many records as it needs
// for its values, and the rest of its last record is skipped. Values are
// separated by blanks or commas; reals take E, D or Q exponents; logicals start
// with T or F (or .T, .F). Returns 0, -1 at end of file, or a positive iostat for
// a value that doesn't convert.
int read_free_reals(int unit, std::span<double> values);
int read_free_ints(int unit, std::span<int> values);
int read_free_logicals(int unit, std::span<bool> values);
// Splits one record into its free-form items.
std::vector<std::string> free_form_items(std::string_view record);

// ---- the run's report files ---------------------------------------------------

void open_units();
void write_unit_info();
// Writes the closing lines of the report and closes the three report files; a
// run that ends with a fatal error closes with lines that say so (normal_end false).
void close_units(bool normal_end = true);
void reopen_units();
int next_free_unit();
int file_count_lines(int unit);
void flush(int unit);

// The 14 lines of the report banner.
const char* const* banner_lines();

// Closes every unit but 0, 5 and 6 (for tests that start from a clean table).
void io_reset();

} // namespace lyrt
