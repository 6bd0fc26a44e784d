// Runs of the lyrt executable on generated inputs, and what their reports say.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <vector>

namespace lyrt_test {

struct run_result {
    int status = -1;
    double e_pot = 0.0;                       // potential energy, eV
    double e_atoms = 0.0;                     // energy of the free atoms, eV
    double e_fermi = 0.0;                     // Fermi level, eV
    std::vector<std::array<double, 3>> force; // eV/Angstrom, per ion (when printed)
    std::vector<double> eigenvalues;          // eV, of the first k-point (when printed)
    std::string report;                       // OUTLYRT
};

using cell3 = std::array<std::array<double, 3>, 3>; // cell vectors in rows, Angstrom
cell3 cube(double a);

struct atom {
    int species;
    double x, y, z; // Cartesian, Angstrom
};

// A POSLYRT with the cell vectors in rows of `cell` and Cartesian positions.
std::string poslyrt(const std::array<std::array<double, 3>, 3>& cell,
                    const std::vector<atom>& atoms, int n_species);
// Diamond or fcc crystals of n x n x n conventional cubic cells of edge a.
std::vector<atom> diamond(double a, int n);
std::vector<atom> fcc(double a, int n);
std::string tbparam(const std::string& name); // "Si" or "Cu" from tests/data
// The numbers of one member of a JSON object, nested arrays flattened in order:
// a reader for the reference files, which hold numbers, arrays and strings only.
std::vector<double> json_numbers(const std::string& json, const std::string& key);
// Runs the program in dir on the three input files of folder `from`.
run_result run_folder(const std::filesystem::path& dir, const std::filesystem::path& from);
// A crystal with every atom moved a little (a fixed pattern), so that forces don't vanish.
std::vector<atom> shaken(std::vector<atom> atoms, double amount);
// The forces of ion `ion` (0-based) against minus the central differences (+-1e-4 A)
// of the energy to tol, and the sum of all forces against zero; runs in dir.
void check_forces(const std::filesystem::path& dir, const std::string& name, const cell3& cell,
                  const std::vector<atom>& atoms, int n_species, const std::string& input,
                  const std::string& param, int ion, double tol = 1e-5);
// n_processes > 0: the run under mpirun on that many processes (distributed build).
run_result run_case(const std::filesystem::path& dir, const std::string& poslyrt,
                    const std::string& inlyrt, const std::string& tbparam, int n_processes = 0);
int run_lyrt_mpi_in(const std::filesystem::path& dir, int n_processes);
// A file of a shipped example (examples/<name>/<file>).
std::string example(const std::string& name, const std::string& file);
// The parameter set `name` of tests/data with a Hubbard U (eV) on the electron
// line of each species, in their order.
std::string with_hubbard(const std::string& name, const std::vector<double>& u);

// One line of the energies file ENE of a dynamics run (a field of stars reads as NaN);
// at constant pressure with the volume (Angstrom^3) and the pressure (GPa), else 0.
struct ene_row {
    int step = 0;
    double time = 0, temperature = 0, e_kin = 0, e_pot = 0, e_tot = 0;
    double volume = 0, pressure = 0;
};
std::vector<ene_row> read_ene(const std::filesystem::path& dir);
// Least-squares line through the total energies of rows [from, end): its slope
// (eV/fs), its value at time 0 and the root mean square of the residuals (eV).
struct line_fit {
    double slope = 0, intercept = 0, rms = 0;
};
line_fit fit_total_energy(const std::vector<ene_row>& rows, std::size_t from);
double mean_temperature(const std::vector<ene_row>& rows, double from_time);
// The number after a label of a report: the last line that holds it (NaN if none).
double last_value(const std::string& text, const std::string& label);
int count_of(const std::string& text, const std::string& what);
// The cell vectors (rows) of the first three lines of a POSCONT (a_1 .. a_3 =).
cell3 cell_of(const std::filesystem::path& poscont);
double dot3(const std::array<double, 3>& x, const std::array<double, 3>& y);

} // namespace lyrt_test
